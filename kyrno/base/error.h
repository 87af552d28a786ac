// error.h - every code that an application can meet: number, constant and text, kept once.
//
// The rows from families that the library never raises belong to the shared numbering: a code that
// reaches the application from another member of the family still finds its text.
#pragma once

#include <cstddef>

#include "sys/linux/qlntypes.h"

inline constexpr SI4 noErr = 0;
inline constexpr SI4 ERR_BASE = 1000;

// clang-format off
#define ERROR_ROWS(X) \
  X(100, TIMEOUT, "Timeout") \
  X(1001, ERR_LENGTH, "Length Error") \
  X(1002, ERR_RANK, "Rank Error") \
  X(1003, ERR_VALUE, "Function does not exist") \
  X(1004, ERR_DOMAIN, "Domain Error") \
  X(1005, ERR_NONCE, "Nonce Error") \
  X(1006, ERR_ROOT_NOT_FOUND, "Please re-initialise") \
  X(1007, ERR_PARENT_NOT_FOUND, "Parent not found") \
  X(1008, ERR_INVALID_OBJECT, "Wrong Class") \
  X(1009, ERR_NAME_IN_USE, "Name already in use") \
  X(1010, ERR_OBJECT_NOT_FOUND, "Object not found") \
  X(1011, ERR_ROOT_EXISTS, "Already initialised") \
  X(1012, ERR_MEMORY_ALLOC, "Memory allocation error") \
  X(1013, ERR_UNKNOWN_CLASS, "Unknown Class (ACT)") \
  X(1014, ERR_UNKNOWN_ACTION, "Unknown Action (ACT)") \
  X(1015, ERR_UNSUPPORTED, "Function not supported (ACT)") \
  X(1016, ERR_OPEN_BIND, "Unbalanced bind characters") \
  X(1017, ERR_OPEN_SINGLE, "Unbalanced single quotes") \
  X(1018, ERR_OPEN_DOUBLE, "Unbalanced double quotes") \
  X(1019, ERR_VAR_DEF, "Invalid variable definition") \
  X(1020, ERR_USE_DEFAULT, "Bind variable syntax error") \
  X(1021, ERR_INVALID_IDENTIFIER, "Invalid data type identifier") \
  X(1022, ERR_INVALID_MODIFIER, "Invalid data type modifier") \
  X(1023, ERR_INVALID_NAME, "Invalid object name") \
  X(1024, ERR_INVALID_BROTHER, "Invalid parent") \
  X(1025, ERR_UNKNOWN_SERVICE, "Invalid service definition") \
  X(1026, ERR_CLOSE_BUFFER, "Nonce Error") \
  X(1027, ERR_COLUMN_WIDTH, "Row too large") \
  X(1028, ERR_OPEN_PARA, "Unbalanced parentheses") \
  X(1029, ERR_UNKNOWN_NET, "Unsupported network type") \
  X(1030, ERR_COLUMN, "Column not found (Group specification)") \
  X(1031, ERR_MAX_CURSORS, "Maximum number of cursors exceeded") \
  X(1032, ERR_APL_TO_BUFFER, "Unsupported conversion requested") \
  X(1034, ERR_BIND_TO_LARGE, "Bound value too large") \
  X(1035, ERR_UNKNOWN_TYPE, "SCAR contains unsupported type") \
  X(1036, ERR_CONVERSION, "SCAR conversion error") \
  X(1037, ERR_OPTION, "Invalid Option") \
  X(1038, ERR_INDEX, "Length Error") \
  X(1039, ERR_FILE, "File error") \
  X(1040, ERR_PARENT, "Parent issues") \
  X(1041, ERR_OBJTYPE, "Object issues") \
  X(1042, ERR_SIZE, "Max size exceeded") \
  X(1043, ERR_ALREADY_INITIALIZED, "DLL probably loaded more than once") \
  X(1044, ERR_NOT_INITIALIZED, "DLL not initialised") \
  X(1045, ERR_ARG_INVALID, "Invalid argument") \
  X(1046, ERR_ARG_MISSING, "Argument missing") \
  X(1047, ERR_ARG_STOPLIST, "Stoplist invalid") \
  X(1048, ERR_DECF, "DECF not expected") \
  X(1050, ERR_SCAR_MEMORY, "SCAR memory allocation") \
  X(1051, ERR_SCAR_CONVERSION, "SCAR Conversion error") \
  X(1080, ERR_APL_LIMIT, "Limit error") \
  X(1081, ERR_APL_LENGTH, "Length error") \
  X(1082, ERR_APL_RANK, "Rank error") \
  X(1083, ERR_APL_VALUE, "Value error") \
  X(1084, ERR_APL_DOMAIN, "Domain error") \
  X(1085, ERR_APL_NONCE, "Nonce error") \
  X(1086, ERR_APL_INDEX, "Index error") \
  X(1087, ERR_APL_ALLOC, "Allocation error") \
  X(1088, ERR_APL_CONVERSION, "Conversion error") \
  X(1089, ERR_APL_MEMORY, "Memory allocation error") \
  X(1090, ERR_UNI_MEMORY, "Memory allocation") \
  X(1091, ERR_UNI_CONVERSION, "Translation not found") \
  X(1100, ERR_NEW_CMD_SOCKET, "Create New Command socket") \
  X(1101, ERR_NEW_DATA_SOCKET, "Create New Data socket") \
  X(1102, ERR_LISTEN, "Could not make socket listen") \
  X(1103, ERR_STATE, "Object has invalid state for this action") \
  X(1104, ERR_SEND, "Could not send data") \
  X(1105, ERR_RECV, "Could not receive data") \
  X(1106, ERR_INVALID_HOST, "Host identification not resolved") \
  X(1107, ERR_INVALID_SERVICE, "Service identification not resolved") \
  X(1108, ERR_TIMEOUT, "Request timed out") \
  X(1109, ERR_SEND_CREQ, "Could not send CREQ to host") \
  X(1110, ERR_CONNECT_CMD, "Could not connect to host cmd port") \
  X(1111, ERR_CONNECT_DATA, "Could not connect to host data port") \
  X(1112, ERR_CONNECT_NACK, "Host refused connection") \
  X(1113, ERR_RECV_CMDANSWER, "Could not receive CMD answer from host") \
  X(1114, ERR_RECV_CREQ, "Could not receive CREQ") \
  X(1115, ERR_NOT_CREQ, "Received packet not a CREQ") \
  X(1116, ERR_SOCK_PORT, "Could not retrive socket port") \
  X(1117, ERR_SEND_PORT, "Could not send port packet to client") \
  X(1118, ERR_SEND_NACK, "Could not send nack packet to client") \
  X(1119, ERR_CLOSED, "Socket Closed while receiving") \
  X(1120, ERR_ACCEPT, "Could not accept socket") \
  X(1121, ERR_THREAD_NOT_FOUND, "Thread not found") \
  X(1122, ERR_WAIT_SEM, "Wait did not return WAIT_OBJECT_0 or WAIT_TIMEOUT") \
  X(1123, ERR_SOMEBODY_WAITING, "Another thread is already waiting") \
  X(1124, ERR_WORKSYNC_RECV, "Workthread synchronisation error") \
  X(1125, ERR_NEW, "Error creating object") \
  X(1126, ERR_UNKNOWN_ANSWER, "Received an answer that cannot be matched with command.") \
  X(1127, ERR_OBJECT_ACTIVITY, "Cannot delete object because of TCP/IP activity") \
  X(1128, ERR_NEW_THREAD, "Error creating new thread") \
  X(1129, ERR_NEW_SEMAPHORE, "Error creating new semaphore") \
  X(1130, ERR_WRONG_MAGIC, "Package with wrong magic received") \
  X(1131, ERR_ARCHITECTURE, "The architecture of the Z passed is not recognized") \
  X(1132, ERR_INVALID_ADDR, "We are unable to get information on the socket") \
  X(1133, ERR_FORK, "Kyrno have been fork'ed and the workthread in the copy have ended") \
  X(1134, ERR_CALL_FAILED, "Operating System Call failed") \
  X(1135, ERR_MAX_BLOCK_SIZE, "Max block size exeeded") \
  X(1136, ERR_UNKNOWN_CONTENT_LENGTH, "No Content-Length in an HTTP header") \
  X(1137, ERR_ENDPOINT, "The received connection is not in the list of allowed peer addresses") \
  X(1138, ERR_WORKTHREADENDED, "Workthread have terminated") \
  X(1139, ERR_WSUPGRADED, "httpconnection upgraded to WebSocket old http instance is in Error state") \
  X(1140, ERR_WSUPGRADE_FAILED, "Could not handle upgrade request") \
  X(1141, ERR_NO_DATA, "No More Data") \
  X(1142, ERR_FIFOMODE, "In FIFO mode you are not allowed to wait for individual connections.") \
  X(1143, ERR_UTF8, "Illegal utf-8 encoding.") \
  X(1144, ERR_ACTIVECLOSE, "Connection actively closed.") \
  X(1145, ERR_HTTPDECODE, "Error Decoding the HTTP") \
  X(1201, ERR_TLSHANDSHAKE, "Handshake  certificate is failing") \
  X(1202, ERR_INVALID_PEER_CERTIFICATE, "Remote certificate is invalid") \
  X(1203, ERR_COULD_NOT_LOAD_CERTIFICATE_FILES, "One of the certificate files was not valid") \
  X(1204, ERR_INITIALISING_TLS, "Error initialising TLS") \
  X(1205, ERR_NO_SSL_SUPPORT, "No SSL support in this build of the kyrno DLL") \
  X(1206, ERR_HANDSHAKE_NOT_COMPLETED, "GNU TLS HandShake did not complete") \
  X(1207, ERR_INVALID_CERTIFICATE, "Cannot decode certificate") \
  X(1208, ERR_ZERO_CERTS_FOUND, "0 certificates found") \
  X(1300, ERR_CERT_COUNT_FAILED, "Failed to count systems stores") \
  X(1301, ERR_CERT_NOT_FOUND, "Failed to find cert in certificate stores") \
  X(1401, ERR_CREDENTIAL, "Failed to create IWA Credentials") \
  X(1402, ERR_CONTEXT, "Failed to create IWA Context") \
  X(1500, ERR_PARSE_ZEPH_INIT, "Unable to pass ZEPH_INIT") \
  X(1501, ERR_ZEPH_CONNECT, "APL could not connect to ZEPH") \
  X(1502, ERR_ZEPH_LISTEN, "APL could not listen for ZEPH") \
  X(1503, ERR_ZEPH_INI_NOT_FOUND, "ZEPH ini file not found")
// clang-format on

#define ERROR_CONSTANT(no, define, text) inline constexpr SI4 define = no;
ERROR_ROWS(ERROR_CONSTANT)
#undef ERROR_CONSTANT

/// Name and text of a code, cut to the limits and then without a terminator, as strncpy leaves
/// them: a caller that wants text gives one byte less than its zeroed buffer holds.
/// Returns 0, or 1 when the code has no row; the buffers then stay as they were.
int strerror_own(SI4 no, PCH1 text, size_t textlen, PCH1 define, size_t definelen);
