/* kyrno.h - the functions that kyrno32_64.so exports, for C and C++.
 *
 * A program opens the library with dlopen and finds these names with dlsym. It calls Init once for
 * each root it wants, then Call with that root's name, from as many threads as it likes. A root
 * ends with the command "AClose" on "." or when the library is unloaded. No function throws or
 * ends the process. Codes are 0 for success, 100 for a time-out, 1000 and above for the library's
 * own errors, and otherwise errno values; ErrorText explains each.
 *
 * The Z block: one array with all that it holds, flat in memory.
 *
 *   offset  bytes     order    content
 *   0       4         big      length of the block, these 8 bytes included
 *   4       4         big      header word: 0xA4; 0xA0 where one-byte text is in the caller's own
 *                              character set instead of Unicode
 *   8       the rest           the array
 *
 * An array, offsets from its own start, all numbers little-endian:
 *
 *   0       8                  rank + 3 + data bytes / 8, rounded up: for a simple array one more
 *                              than the 8-byte words it takes up
 *   8       1                  low nibble 15 simple or 7 nested; high nibble the rank, 0 to 15
 *   9       1                  low nibble the element type; high nibble 0
 *   10      6                  0
 *   16      8 * rank           length of each axis
 *   then    simple             the elements in ravel order, padded with zeros to a multiple of 8
 *           nested             each item as a whole array, one behind the other, in ravel order;
 *                              they count as 8 data bytes each
 *
 * Element types: 0 one-byte character of the caller's set, 1 Boolean (8 in a byte, the first in
 * the high bit), 2, 3 and 4 integers of 1, 2 and 4 bytes, 5 IEEE double, 6 nested, 7, 8 and 9
 * Unicode characters of 1, 2 and 4 bytes, 10 complex (two doubles), 12 and 14 decimals of 16 bytes.
 */
#ifndef KYRNO_H
#define KYRNO_H

#include <stddef.h>
#include <stdint.h>

#define KYRNO_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/** Prepares the library. The dynamic loader runs it; callers leave it alone. */
KYRNO_API void onLoad(void);

/** Ends every root and gives all memory back. The dynamic loader runs it before the library goes;
 *  no other thread may be inside the library then. */
KYRNO_API void onUnload(void);

/** The version as one number, 30201503. Where v is not null, v[0] to v[2] get its parts. */
KYRNO_API int32_t Version(uint32_t* v);

/** Makes the root of that name and starts its work thread. Of loadPath, the path of a file, the
 *  folder is kept. Returns 1043 where a root of that name exists. Any thread. */
KYRNO_API int32_t Init(const char* root, const char* loadPath);

/** Runs one command on a root. Any number of threads may be inside at once. "AWaitZ" blocks its
 *  own thread for up to its time-out and "AClt" while it finds and reaches the peer; the others
 *  only queue work.
 *
 *  right: must not be null. *right is the argument, or null for none, and becomes the result: a new
 *         Z block, always there unless memory has run out.
 *  left:  may be null. *left is the second argument of the commands that take one ("ASendZ",
 *         "ARespondZ": the array to send), and the second result of "AWaitZ": the data of the
 *         event, a new Z block.
 *
 *  Blocks passed in are only read and stay the caller's, who therefore keeps his own copy of the
 *  pointer. New blocks go back through FreeUsedTessorResult.
 *
 *  Returns 0 when the command ran: how it fared is the first element of the result. Otherwise the
 *  command was not reached, and the result is the pair (20, code): 1003 no such command, 1004 wrong
 *  number of arguments, 1006 no such root, 1044 no Init yet, 1131 no well-formed Z block. */
KYRNO_API int32_t Call(const char* root, const char* command, uint32_t** right, uint32_t** left);

/** As Call, with left not null; where the command leaves *left as it was, *left becomes a new
 *  scalar Z block that holds the code. */
KYRNO_API int32_t Call1(const char* root, const char* command, uint32_t** right, uint32_t** left);

/** The same as Call. */
KYRNO_API int32_t Call2(const char* root, const char* command, uint32_t** right, uint32_t** left);

/** Writes the name and the text of a code, each cut to its buffer and ended by a zero. The sizes
 *  are those of the buffers on the way in and the lengths of the texts on the way out. Returns the
 *  code. Any thread. */
KYRNO_API int32_t ErrorText(int32_t code, char* name, int32_t* nameSize, char* text,
                            int32_t* textSize);

/** Installs the two tables of 256 bytes that translate one-byte text from the caller's character
 *  set to the host's and back. Names have up to 7 characters. Call it before the first Call. */
KYRNO_API int32_t SetXLate(const char* aplName, const char* hostName, const char* toHost,
                           const char* fromHost);

/** Copies the two tables of 256 bytes that translate from the first set to the second and back.
 *  Names have up to 6 characters. */
KYRNO_API int32_t GetXLate(const char* first, const char* second, char* there, char* back);

/** Wakes the work thread of a root. Returns 1006 where there is no such root. Any thread. */
KYRNO_API int32_t KickStart(const char* root);

/** Gives back a Z block that this library handed out; null is allowed. Any thread. */
KYRNO_API void FreeUsedTessorResult(void* z);

/** Compresses or decompresses a stream piece by piece, as zlib does. Any thread, one at a time for
 *  each session.
 *
 *  op:      0 to compress, 1 to decompress; plus 2 with the last piece, plus 8 for the gzip form in
 *           place of zlib's. The gzip form and the level, 0 to 9, count where the session begins.
 *           4 or 5 drops the session; in, out and their sizes may be null then.
 *  session: *session is null before the first call, belongs to the library until it is null again,
 *           and is passed back unchanged.
 *  in:      copied, so it may go at once. *inSize is its length, and becomes what the session still
 *           holds of it. Until that is 0 further input is ignored: pass room for more output.
 *  out:     *outSize is the room, and becomes the bytes written.
 *
 *  Returns a result of zlib, or 1205 without the support library. 0 with a null *session: the
 *  stream is at its end; with another one, or -5 (no room, or no input): go on. 1: the stream that
 *  is decompressed has ended in a piece that was not the last. Other negative results leave the
 *  session to be dropped: -2 for arguments that are no good (a null session, size or block, a
 *  wrong direction or level), -3 for a broken stream, -4 without memory. */
KYRNO_API int32_t cflate(int32_t op, void** session, const uint8_t* in, uint32_t* inSize,
                         uint8_t* out, uint32_t* outSize, uint32_t level);

/** The time in microseconds since 1970, as in the results of "AWaitZ". */
KYRNO_API double Micros(void);

/* ---- the link to a remote development environment
 *
 * A second entry beside Call. The interpreter gets a table of functions, turns the link on, and is
 * told of each block that has come. One session at a time; docs/link.md has the settings, the
 * configuration file and what passes on the wire. */

/** TZeph2State */
enum {
  Zeph2Idle = 0,      /**< nothing goes on; between two tries of a link that polls */
  Zeph2Negotiate = 1, /**< a connection stands, the handshake runs */
  Zeph2Listening = 2, /**< a server listens, no session stands */
  Zeph2Connected = 3, /**< blocks pass */
  Zeph2Error = 4,     /**< not used */
  Zeph2HttpSrv = 5    /**< the page service listens, no session stands */
};

/** Tells the interpreter of an event, on the library's work thread, with none of its locks held.
 *  code 3: a block has come, and node is for Zeph2GetBuffer and Zeph2Free. code 4: the session's
 *  connection has gone, and node is for Zeph2Free. It returns soon, and never calls Zeph2Enable. */
typedef int32_t (*TCommNotify)(uint32_t code, void* node);

/** Asks the interpreter for one of its settings, "ZEPH\\INIT" and others: writes the value to
 *  buffer, of so many bytes, with a zero behind it; nothing for an empty one. Called by Zeph2Init,
 *  Zeph2Enable and Zeph2Errortext, on the thread that calls them. */
typedef int32_t (*TCommConfig)(char* key, char* buffer, size_t size);

/** How the link runs. An interpreter fills in the two callbacks, either of which may be null, for
 *  Zeph2Init. It may look at the rest in the table's record while the link is off and no other
 *  thread turns it on. */
typedef struct tZeph2Config {
  TCommNotify CommNotify;
  TCommConfig CommConfig;
  char ConfigFile[1024];
  uint32_t Direction; /**< 0 not known yet, 1 connect, 2 listen, 3 poll, 4 by the file, 5 http */
  char* pAddress;
  uint32_t Port;
  uint32_t MaxBlockSize;
  uint32_t SSLValidation;
  uint32_t Protocol; /**< 0 IPv4, 1 IPv6, 2 either */
  uint32_t Secure;   /**< 0 plain, 1 secure, 2 anonymous */
  char* pPublicCertData;
  char* pPublicCertFile;
  char* pPrivateKeyData;
  char* pPrivateKeyFile;
  char* pRootCertDir;
  char* pPriority;
  uint32_t Magic;
  uint32_t Trace;
  char* pLogfilename;
  char* pCurrentConnection; /**< null without a session */
  char* pHttpDir;
  void* pConnectThread;
  void* pCert;
  void* pAllow;
  void* pDeny;
  int32_t lError; /**< the reason behind 1501 and 1502 */
  char* pAcceptCertDir;
  void* pAcceptCertList;
  uint32_t KAtime; /**< milliseconds */
  uint32_t KAint;  /**< milliseconds */
} tZeph2Config;

/** Turns the link on (above 0) or off (0). On: reads the configuration, unless one was read well
 *  before. Returns 0 or a code, for Zeph2Errortext: 1500, 1506 and 1507 for settings, 1501 and 1502
 *  for an address, 1503, 1045, 1132 and 12xx for what the file says or where it is; off: 1008 when
 *  there was nothing to turn off. A client's try may block for as long as connecting does; turning
 *  off ends it. */
typedef int32_t (*TZeph2Enable)(int32_t enable);

/** The bytes of a block that has come: *data and *length, null and 0 when node is none. They are
 *  the library's, and stay until Zeph2Free of the node. Returns 0. */
typedef int32_t (*TZeph2GetBuffer)(void* node, char** data, uint32_t* length);

/** Gives a node back. Always 0; a node that is gone, or null, is no mistake. */
typedef int32_t (*TZeph2Free)(void* node);

/** Sends a block to the session's peer; the bytes are copied. In direction http they are text in
 *  UTF-8. Returns 0 as soon as it is queued, 1008 without a session. */
typedef int32_t (*TZeph2Send)(char* data, uint32_t length);

/** Writes the text of a code of Zeph2Enable or Zeph2Send, ended by a zero, to a buffer of so many
 *  bytes: 255 will do for all but long paths, and what is longer is cut. Returns its length, or -1
 *  without a buffer. */
typedef int32_t (*TZeph2Errortext)(int32_t code, char* text, uint32_t size);

/** The table. It belongs to the library and lives as long. */
typedef struct TKYRNOFNS {
  tZeph2Config* pZeph2Config;
  uint32_t Zeph2State;  /**< TZeph2State; changes at any time */
  int32_t Zeph2Enabled; /**< what Zeph2Enable was given last; 0 after a configuration that failed */
  void* pZephRoot;
  TZeph2Enable pZeph2Enable;
  TZeph2GetBuffer pZeph2GetBuffer;
  TZeph2Free pZeph2Free;
  TZeph2Send pZeph2Send;
  TZeph2Errortext pZeph2Errortext;
} TKYRNOFNS;

/** Makes the link. Of config, which may be null and need not live on, the two callbacks are taken.
 *  Called once; a second call changes the callbacks. Null without memory. */
KYRNO_API TKYRNOFNS* Zeph2Init(tZeph2Config* config);

#ifdef __cplusplus
}
#endif

#endif
