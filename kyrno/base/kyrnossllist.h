// kyrnossllist.h - every entry that is taken from the support library, kept once.
//
//   X(result, name, parameters, arguments)
//
// DYNAMIC_FUNCTION lists functions, DYNAMIC_VARIABLE variables of GnuTLS that hold one. The file is
// C as well: the support library itself expands the lists, to prove that it has all of them.
#pragma once

#include <gnutls/abstract.h>
#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>
#include <gnutls/pkcs12.h>
#include <gnutls/system-keys.h>
#include <gnutls/x509.h>
#include <libtasn1.h>
#include <zlib.h>

// The headers turn two old names into those of their successors. The lists mean the old names.
#undef gnutls_srp_base64_encode_alloc
#undef gnutls_srp_base64_decode_alloc

// clang-format off
#define DYNAMIC_FUNCTION(X) \
  /* the support library itself */ \
  X(int, kyrnosslversion, (char* ver, int size), (ver, size)) \
  /* zlib */ \
  X(const char*, zlibVersion, (void), ()) \
  X(int, deflateInit_, (z_streamp strm, int level, const char* version, int stream_size), \
    (strm, level, version, stream_size)) \
  X(int, deflateInit2_, \
    (z_streamp strm, int level, int method, int windowBits, int memLevel, int strategy, \
    const char* version, int stream_size), \
    (strm, level, method, windowBits, memLevel, strategy, version, stream_size)) \
  X(int, deflate, (z_streamp strm, int flush), (strm, flush)) \
  X(int, deflateEnd, (z_streamp strm), (strm)) \
  X(int, inflateInit_, (z_streamp strm, const char* version, int stream_size), \
    (strm, version, stream_size)) \
  X(int, inflateInit2_, (z_streamp strm, int windowBits, const char* version, int stream_size), \
    (strm, windowBits, version, stream_size)) \
  X(int, inflate, (z_streamp strm, int flush), (strm, flush)) \
  X(int, inflateEnd, (z_streamp strm), (strm)) \
  X(uLong, zlibCompileFlags, (void), ()) \
  X(int, compress, (Bytef* dest, uLongf* destLen, const Bytef* source, uLong sourceLen), \
    (dest, destLen, source, sourceLen)) \
  X(int, compress2, \
    (Bytef* dest, uLongf* destLen, const Bytef* source, uLong sourceLen, int level), \
    (dest, destLen, source, sourceLen, level)) \
  X(uLong, compressBound, (uLong sourceLen), (sourceLen)) \
  X(int, uncompress, (Bytef* dest, uLongf* destLen, const Bytef* source, uLong sourceLen), \
    (dest, destLen, source, sourceLen)) \
  /* libtasn1 */ \
  X(int, asn1_read_value, (asn1_node_const root, const char* name, void* ivalue, int* len), \
    (root, name, ivalue, len)) \
  X(int, asn1_number_of_elements, (asn1_node_const element, const char* name, int* num), \
    (element, name, num)) \
  /* GnuTLS session and record */ \
  X(const char*, gnutls_check_version, (const char* req_version), (req_version)) \
  X(int, gnutls_global_init, (void), ()) \
  X(void, gnutls_global_deinit, (void), ()) \
  X(void, gnutls_global_set_log_function, (gnutls_log_func log_func), (log_func)) \
  X(void, gnutls_global_set_audit_log_function, (gnutls_audit_log_func log_func), (log_func)) \
  X(void, gnutls_global_set_log_level, (int level), (level)) \
  X(void, gnutls_global_set_mem_functions, \
    (gnutls_alloc_function alloc, gnutls_alloc_function secure_alloc, \
    gnutls_is_secure_function is_secure, gnutls_realloc_function re_alloc, \
    gnutls_free_function release), (alloc, secure_alloc, is_secure, re_alloc, release)) \
  X(int, gnutls_init, (gnutls_session_t* session, unsigned int flags), (session, flags)) \
  X(void, gnutls_deinit, (gnutls_session_t session), (session)) \
  X(int, gnutls_handshake, (gnutls_session_t session), (session)) \
  X(int, gnutls_rehandshake, (gnutls_session_t session), (session)) \
  X(int, gnutls_bye, (gnutls_session_t session, gnutls_close_request_t how), (session, how)) \
  X(int, gnutls_priority_set, (gnutls_session_t session, gnutls_priority_t priority), \
    (session, priority)) \
  X(int, gnutls_priority_set_direct, \
    (gnutls_session_t session, const char* priorities, const char** err_pos), \
    (session, priorities, err_pos)) \
  X(ssize_t, gnutls_record_send, (gnutls_session_t session, const void* data, size_t data_size), \
    (session, data, data_size)) \
  X(ssize_t, gnutls_record_recv, (gnutls_session_t session, void* data, size_t data_size), \
    (session, data, data_size)) \
  X(size_t, gnutls_record_check_pending, (gnutls_session_t session), (session)) \
  X(int, gnutls_session_set_data, \
    (gnutls_session_t session, const void* session_data, size_t session_data_size), \
    (session, session_data, session_data_size)) \
  X(int, gnutls_session_get_data, \
    (gnutls_session_t session, void* session_data, size_t* session_data_size), \
    (session, session_data, session_data_size)) \
  X(int, gnutls_session_get_data2, (gnutls_session_t session, gnutls_datum_t* data), \
    (session, data)) \
  X(int, gnutls_session_is_resumed, (gnutls_session_t session), (session)) \
  X(void, gnutls_session_set_ptr, (gnutls_session_t session, void* ptr), (session, ptr)) \
  X(void*, gnutls_session_get_ptr, (gnutls_session_t session), (session)) \
  X(int, gnutls_server_name_set, \
    (gnutls_session_t session, gnutls_server_name_type_t type, const void* name, \
    size_t name_length), (session, type, name, name_length)) \
  X(void, gnutls_transport_set_ptr, (gnutls_session_t session, gnutls_transport_ptr_t ptr), \
    (session, ptr)) \
  X(void, gnutls_transport_set_ptr2, \
    (gnutls_session_t session, gnutls_transport_ptr_t recv_ptr, gnutls_transport_ptr_t send_ptr), \
    (session, recv_ptr, send_ptr)) \
  X(void, gnutls_transport_set_push_function, \
    (gnutls_session_t session, gnutls_push_func push_func), (session, push_func)) \
  X(void, gnutls_db_set_retrieve_function, \
    (gnutls_session_t session, gnutls_db_retr_func retr_func), (session, retr_func)) \
  X(void, gnutls_db_set_remove_function, \
    (gnutls_session_t session, gnutls_db_remove_func rem_func), (session, rem_func)) \
  X(void, gnutls_db_set_store_function, \
    (gnutls_session_t session, gnutls_db_store_func store_func), (session, store_func)) \
  X(void, gnutls_db_set_ptr, (gnutls_session_t session, void* ptr), (session, ptr)) \
  X(void*, gnutls_db_get_ptr, (gnutls_session_t session), (session)) \
  X(int, gnutls_credentials_set, \
    (gnutls_session_t session, gnutls_credentials_type_t type, void* cred), (session, type, cred)) \
  /* GnuTLS certificate credentials */ \
  X(int, gnutls_certificate_allocate_credentials, (gnutls_certificate_credentials_t* res), (res)) \
  X(void, gnutls_certificate_free_credentials, (gnutls_certificate_credentials_t sc), (sc)) \
  X(const gnutls_datum_t*, gnutls_certificate_get_peers, \
    (gnutls_session_t session, unsigned int* list_size), (session, list_size)) \
  X(void, gnutls_certificate_send_x509_rdn_sequence, (gnutls_session_t session, int status), \
    (session, status)) \
  X(void, gnutls_certificate_server_set_request, \
    (gnutls_session_t session, gnutls_certificate_request_t req), (session, req)) \
  X(int, gnutls_certificate_set_x509_key_file, \
    (gnutls_certificate_credentials_t res, const char* certfile, const char* keyfile, \
    gnutls_x509_crt_fmt_t type), (res, certfile, keyfile, type)) \
  X(int, gnutls_certificate_set_x509_key_mem, \
    (gnutls_certificate_credentials_t res, const gnutls_datum_t* cert, const gnutls_datum_t* key, \
    gnutls_x509_crt_fmt_t type), (res, cert, key, type)) \
  X(int, gnutls_certificate_set_x509_key, \
    (gnutls_certificate_credentials_t res, gnutls_x509_crt_t* cert_list, int cert_list_size, \
    gnutls_x509_privkey_t key), (res, cert_list, cert_list_size, key)) \
  X(int, gnutls_certificate_set_x509_trust, \
    (gnutls_certificate_credentials_t res, gnutls_x509_crt_t* ca_list, int ca_list_size), \
    (res, ca_list, ca_list_size)) \
  X(int, gnutls_certificate_set_x509_crl, \
    (gnutls_certificate_credentials_t res, gnutls_x509_crl_t* crl_list, int crl_list_size), \
    (res, crl_list, crl_list_size)) \
  X(int, gnutls_certificate_set_x509_system_trust, (gnutls_certificate_credentials_t cred), \
    (cred)) \
  X(void, gnutls_certificate_set_retrieve_function, \
    (gnutls_certificate_credentials_t cred, gnutls_certificate_retrieve_function* func), \
    (cred, func)) \
  X(int, gnutls_certificate_set_key, \
    (gnutls_certificate_credentials_t res, const char** names, int names_size, \
    gnutls_pcert_st* pcert_list, int pcert_list_size, gnutls_privkey_t key), \
    (res, names, names_size, pcert_list, pcert_list_size, key)) \
  X(void, gnutls_certificate_set_flags, (gnutls_certificate_credentials_t res, unsigned flags), \
    (res, flags)) \
  X(int, gnutls_certificate_verify_peers2, (gnutls_session_t session, unsigned int* status), \
    (session, status)) \
  X(gnutls_certificate_type_t, gnutls_certificate_type_get, (gnutls_session_t session), (session)) \
  /* GnuTLS X.509 certificates */ \
  X(int, gnutls_x509_crt_init, (gnutls_x509_crt_t* cert), (cert)) \
  X(void, gnutls_x509_crt_deinit, (gnutls_x509_crt_t cert), (cert)) \
  X(int, gnutls_x509_crt_import, \
    (gnutls_x509_crt_t cert, const gnutls_datum_t* data, gnutls_x509_crt_fmt_t format), \
    (cert, data, format)) \
  X(int, gnutls_x509_crt_list_import, \
    (gnutls_x509_crt_t* certs, unsigned int* cert_max, const gnutls_datum_t* data, \
    gnutls_x509_crt_fmt_t format, unsigned int flags), (certs, cert_max, data, format, flags)) \
  X(int, gnutls_x509_crt_list_import2, \
    (gnutls_x509_crt_t** certs, unsigned int* size, const gnutls_datum_t* data, \
    gnutls_x509_crt_fmt_t format, unsigned int flags), (certs, size, data, format, flags)) \
  X(int, gnutls_x509_crt_export, \
    (gnutls_x509_crt_t cert, gnutls_x509_crt_fmt_t format, void* output_data, \
    size_t* output_data_size), (cert, format, output_data, output_data_size)) \
  X(int, gnutls_x509_crt_export2, \
    (gnutls_x509_crt_t cert, gnutls_x509_crt_fmt_t format, gnutls_datum_t* out), \
    (cert, format, out)) \
  X(int, gnutls_x509_crt_get_private_key_usage_period, \
    (gnutls_x509_crt_t cert, time_t* activation, time_t* expiration, unsigned int* critical), \
    (cert, activation, expiration, critical)) \
  X(int, gnutls_x509_crt_set_private_key_usage_period, \
    (gnutls_x509_crt_t crt, time_t activation, time_t expiration), (crt, activation, expiration)) \
  X(int, gnutls_x509_crt_get_issuer_dn, (gnutls_x509_crt_t cert, char* buf, size_t* buf_size), \
    (cert, buf, buf_size)) \
  X(int, gnutls_x509_crt_get_issuer_dn2, (gnutls_x509_crt_t cert, gnutls_datum_t* dn), (cert, dn)) \
  X(int, gnutls_x509_crt_get_issuer_dn_oid, \
    (gnutls_x509_crt_t cert, unsigned indx, void* oid, size_t* oid_size), \
    (cert, indx, oid, oid_size)) \
  X(int, gnutls_x509_crt_get_issuer_dn_by_oid, \
    (gnutls_x509_crt_t cert, const char* oid, unsigned indx, unsigned int raw_flag, void* buf, \
    size_t* buf_size), (cert, oid, indx, raw_flag, buf, buf_size)) \
  X(int, gnutls_x509_crt_get_dn, (gnutls_x509_crt_t cert, char* buf, size_t* buf_size), \
    (cert, buf, buf_size)) \
  X(int, gnutls_x509_crt_get_dn2, (gnutls_x509_crt_t cert, gnutls_datum_t* dn), (cert, dn)) \
  X(int, gnutls_x509_crt_get_dn_oid, \
    (gnutls_x509_crt_t cert, unsigned indx, void* oid, size_t* oid_size), \
    (cert, indx, oid, oid_size)) \
  X(int, gnutls_x509_crt_get_dn_by_oid, \
    (gnutls_x509_crt_t cert, const char* oid, unsigned indx, unsigned int raw_flag, void* buf, \
    size_t* buf_size), (cert, oid, indx, raw_flag, buf, buf_size)) \
  X(unsigned, gnutls_x509_crt_check_hostname, (gnutls_x509_crt_t cert, const char* hostname), \
    (cert, hostname)) \
  X(unsigned, gnutls_x509_crt_check_hostname2, \
    (gnutls_x509_crt_t cert, const char* hostname, unsigned int flags), (cert, hostname, flags)) \
  X(int, gnutls_x509_crt_get_signature_algorithm, (gnutls_x509_crt_t cert), (cert)) \
  X(int, gnutls_x509_crt_get_signature, (gnutls_x509_crt_t cert, char* sig, size_t* sizeof_sig), \
    (cert, sig, sizeof_sig)) \
  X(int, gnutls_x509_crt_get_version, (gnutls_x509_crt_t cert), (cert)) \
  X(int, gnutls_x509_crt_get_key_id, \
    (gnutls_x509_crt_t crt, unsigned int flags, unsigned char* output_data, \
    size_t* output_data_size), (crt, flags, output_data, output_data_size)) \
  X(int, gnutls_x509_crt_set_authority_key_id, \
    (gnutls_x509_crt_t cert, const void* id, size_t id_size), (cert, id, id_size)) \
  X(int, gnutls_x509_crt_get_authority_key_id, \
    (gnutls_x509_crt_t cert, void* id, size_t* id_size, unsigned int* critical), \
    (cert, id, id_size, critical)) \
  X(int, gnutls_x509_crt_get_authority_key_gn_serial, \
    (gnutls_x509_crt_t cert, unsigned int seq, void* alt, size_t* alt_size, \
    unsigned int* alt_type, void* serial, size_t* serial_size, unsigned int* critical), \
    (cert, seq, alt, alt_size, alt_type, serial, serial_size, critical)) \
  X(int, gnutls_x509_crt_get_subject_key_id, \
    (gnutls_x509_crt_t cert, void* ret, size_t* ret_size, unsigned int* critical), \
    (cert, ret, ret_size, critical)) \
  X(int, gnutls_x509_crt_get_subject_unique_id, \
    (gnutls_x509_crt_t crt, char* buf, size_t* buf_size), (crt, buf, buf_size)) \
  X(int, gnutls_x509_crt_get_issuer_unique_id, \
    (gnutls_x509_crt_t crt, char* buf, size_t* buf_size), (crt, buf, buf_size)) \
  X(void, gnutls_x509_crt_set_pin_function, \
    (gnutls_x509_crt_t crt, gnutls_pin_callback_t fn, void* userdata), (crt, fn, userdata)) \
  X(int, gnutls_x509_crt_get_serial, (gnutls_x509_crt_t cert, void* result, size_t* result_size), \
    (cert, result, result_size)) \
  X(int, gnutls_x509_crt_get_pk_algorithm, (gnutls_x509_crt_t cert, unsigned int* bits), \
    (cert, bits)) \
  X(int, gnutls_x509_crt_get_subject_alt_name, \
    (gnutls_x509_crt_t cert, unsigned int seq, void* san, size_t* san_size, \
    unsigned int* critical), (cert, seq, san, san_size, critical)) \
  X(int, gnutls_x509_crt_get_subject_alt_name2, \
    (gnutls_x509_crt_t cert, unsigned int seq, void* san, size_t* san_size, \
    unsigned int* san_type, unsigned int* critical), \
    (cert, seq, san, san_size, san_type, critical)) \
  X(int, gnutls_x509_crt_list_verify, \
    (const gnutls_x509_crt_t* cert_list, unsigned cert_list_length, \
    const gnutls_x509_crt_t* CA_list, unsigned CA_list_length, const gnutls_x509_crl_t* CRL_list, \
    unsigned CRL_list_length, unsigned int flags, unsigned int* verify), \
    (cert_list, cert_list_length, CA_list, CA_list_length, CRL_list, CRL_list_length, flags, \
    verify)) \
  X(int, gnutls_x509_crt_get_extension_info, \
    (gnutls_x509_crt_t cert, unsigned indx, void* oid, size_t* oid_size, unsigned int* critical), \
    (cert, indx, oid, oid_size, critical)) \
  X(int, gnutls_x509_crt_get_extension_data, \
    (gnutls_x509_crt_t cert, unsigned indx, void* data, size_t* sizeof_data), \
    (cert, indx, data, sizeof_data)) \
  X(int, gnutls_x509_crt_get_basic_constraints, \
    (gnutls_x509_crt_t cert, unsigned int* critical, unsigned int* ca, int* pathlen), \
    (cert, critical, ca, pathlen)) \
  X(int, gnutls_x509_crt_get_key_purpose_oid, \
    (gnutls_x509_crt_t cert, unsigned indx, void* oid, size_t* oid_size, unsigned int* critical), \
    (cert, indx, oid, oid_size, critical)) \
  X(int, gnutls_x509_crt_get_crl_dist_points, \
    (gnutls_x509_crt_t cert, unsigned int seq, void* ret, size_t* ret_size, \
    unsigned int* reason_flags, unsigned int* critical), \
    (cert, seq, ret, ret_size, reason_flags, critical)) \
  X(time_t, gnutls_x509_crt_get_activation_time, (gnutls_x509_crt_t cert), (cert)) \
  X(time_t, gnutls_x509_crt_get_expiration_time, (gnutls_x509_crt_t cert), (cert)) \
  X(int, gnutls_x509_crt_get_key_usage, \
    (gnutls_x509_crt_t cert, unsigned int* key_usage, unsigned int* critical), \
    (cert, key_usage, critical)) \
  X(int, gnutls_x509_crt_get_raw_issuer_dn, (gnutls_x509_crt_t cert, gnutls_datum_t* start), \
    (cert, start)) \
  X(int, gnutls_x509_crt_get_raw_dn, (gnutls_x509_crt_t cert, gnutls_datum_t* start), \
    (cert, start)) \
  X(int, gnutls_x509_rdn_get, (const gnutls_datum_t* idn, char* buf, size_t* sizeof_buf), \
    (idn, buf, sizeof_buf)) \
  /* GnuTLS encodings and names */ \
  X(int, gnutls_pem_base64_encode, \
    (const char* msg, const gnutls_datum_t* data, char* result, size_t* result_size), \
    (msg, data, result, result_size)) \
  X(int, gnutls_pem_base64_decode, \
    (const char* header, const gnutls_datum_t* b64_data, unsigned char* result, \
    size_t* result_size), (header, b64_data, result, result_size)) \
  X(int, gnutls_srp_base64_encode, \
    (const gnutls_datum_t* data, char* result, size_t* result_size), (data, result, result_size)) \
  X(int, gnutls_srp_base64_encode_alloc, (const gnutls_datum_t* data, gnutls_datum_t* result), \
    (data, result)) \
  X(int, gnutls_srp_base64_decode, \
    (const gnutls_datum_t* b64_data, char* result, size_t* result_size), \
    (b64_data, result, result_size)) \
  X(int, gnutls_srp_base64_decode_alloc, (const gnutls_datum_t* b64_data, gnutls_datum_t* result), \
    (b64_data, result)) \
  X(int, gnutls_hex_decode, (const gnutls_datum_t* hex_data, void* result, size_t* result_size), \
    (hex_data, result, result_size)) \
  X(const char*, gnutls_pk_algorithm_get_name, (gnutls_pk_algorithm_t algorithm), (algorithm)) \
  X(const char*, gnutls_sign_get_name, (gnutls_sign_algorithm_t algorithm), (algorithm)) \
  /* GnuTLS keys, PKCS #12, hashing, system keys */ \
  X(int, gnutls_x509_privkey_init, (gnutls_x509_privkey_t* key), (key)) \
  X(void, gnutls_x509_privkey_deinit, (gnutls_x509_privkey_t key), (key)) \
  X(int, gnutls_x509_privkey_import, \
    (gnutls_x509_privkey_t key, const gnutls_datum_t* data, gnutls_x509_crt_fmt_t format), \
    (key, data, format)) \
  X(int, gnutls_privkey_init, (gnutls_privkey_t* key), (key)) \
  X(void, gnutls_privkey_deinit, (gnutls_privkey_t key), (key)) \
  X(int, gnutls_privkey_import_x509, \
    (gnutls_privkey_t pkey, gnutls_x509_privkey_t key, unsigned int flags), (pkey, key, flags)) \
  X(int, gnutls_privkey_import_x509_raw, \
    (gnutls_privkey_t pkey, const gnutls_datum_t* data, gnutls_x509_crt_fmt_t format, \
    const char* password, unsigned int flags), (pkey, data, format, password, flags)) \
  X(int, gnutls_privkey_import_url, (gnutls_privkey_t key, const char* url, unsigned int flags), \
    (key, url, flags)) \
  X(int, gnutls_privkey_import_ext3, \
    (gnutls_privkey_t pkey, void* userdata, gnutls_privkey_sign_func sign_func, \
    gnutls_privkey_decrypt_func decrypt_func, gnutls_privkey_deinit_func deinit_func, \
    gnutls_privkey_info_func info_func, unsigned int flags), \
    (pkey, userdata, sign_func, decrypt_func, deinit_func, info_func, flags)) \
  X(int, gnutls_pubkey_import_url, (gnutls_pubkey_t key, const char* url, unsigned int flags), \
    (key, url, flags)) \
  X(void, gnutls_pcert_deinit, (gnutls_pcert_st* pcert), (pcert)) \
  X(int, gnutls_pcert_import_x509, \
    (gnutls_pcert_st* pcert, gnutls_x509_crt_t crt, unsigned int flags), (pcert, crt, flags)) \
  X(int, gnutls_pcert_list_import_x509_raw, \
    (gnutls_pcert_st* pcerts, unsigned int* pcert_max, const gnutls_datum_t* data, \
    gnutls_x509_crt_fmt_t format, unsigned int flags), (pcerts, pcert_max, data, format, flags)) \
  X(int, gnutls_pcert_import_x509_raw, \
    (gnutls_pcert_st* pcert, const gnutls_datum_t* cert, gnutls_x509_crt_fmt_t format, \
    unsigned int flags), (pcert, cert, format, flags)) \
  X(int, gnutls_pkcs12_init, (gnutls_pkcs12_t* pkcs12), (pkcs12)) \
  X(void, gnutls_pkcs12_deinit, (gnutls_pkcs12_t pkcs12), (pkcs12)) \
  X(int, gnutls_pkcs12_import, \
    (gnutls_pkcs12_t pkcs12, const gnutls_datum_t* data, gnutls_x509_crt_fmt_t format, \
    unsigned int flags), (pkcs12, data, format, flags)) \
  X(int, gnutls_pkcs12_verify_mac, (gnutls_pkcs12_t pkcs12, const char* pass), (pkcs12, pass)) \
  X(int, gnutls_pkcs12_simple_parse, \
    (gnutls_pkcs12_t p12, const char* password, gnutls_x509_privkey_t* key, \
    gnutls_x509_crt_t** chain, unsigned int* chain_len, gnutls_x509_crt_t** extra_certs, \
    unsigned int* extra_certs_len, gnutls_x509_crl_t* crl, unsigned int flags), \
    (p12, password, key, chain, chain_len, extra_certs, extra_certs_len, crl, flags)) \
  X(int, gnutls_hash_init, (gnutls_hash_hd_t* dig, gnutls_digest_algorithm_t algorithm), \
    (dig, algorithm)) \
  X(int, gnutls_hash, (gnutls_hash_hd_t handle, const void* text, size_t textlen), \
    (handle, text, textlen)) \
  X(void, gnutls_hash_deinit, (gnutls_hash_hd_t handle, void* digest), (handle, digest)) \
  X(unsigned, gnutls_hash_get_len, (gnutls_digest_algorithm_t algorithm), (algorithm)) \
  X(void, gnutls_system_key_iter_deinit, (gnutls_system_key_iter_t iter), (iter)) \
  X(int, gnutls_system_key_iter_get_info, \
    (gnutls_system_key_iter_t* iter, unsigned cert_type, char** cert_url, char** key_url, \
    char** label, gnutls_datum_t* der, unsigned int flags), \
    (iter, cert_type, cert_url, key_url, label, der, flags)) \
  X(int, gnutls_system_key_delete, (const char* cert_url, const char* key_url), \
    (cert_url, key_url)) \
  X(int, gnutls_system_key_add_x509, \
    (gnutls_x509_crt_t crt, gnutls_x509_privkey_t privkey, const char* label, char** cert_url, \
    char** key_url), (crt, privkey, label, cert_url, key_url)) \
  /* GnuTLS: transport of one's own, shared priorities, tickets, alerts */ \
  X(void, gnutls_transport_set_pull_function, (gnutls_session_t session, gnutls_pull_func pull), \
    (session, pull)) \
  X(void, gnutls_transport_set_pull_timeout_function, \
    (gnutls_session_t session, gnutls_pull_timeout_func func), (session, func)) \
  X(int, gnutls_priority_init, \
    (gnutls_priority_t* priority_cache, const char* priorities, const char** err_pos), \
    (priority_cache, priorities, err_pos)) \
  X(void, gnutls_priority_deinit, (gnutls_priority_t priority_cache), (priority_cache)) \
  X(int, gnutls_session_ticket_key_generate, (gnutls_datum_t* key), (key)) \
  X(int, gnutls_session_ticket_enable_server, \
    (gnutls_session_t session, const gnutls_datum_t* key), (session, key)) \
  X(unsigned, gnutls_session_get_flags, (gnutls_session_t session), (session)) \
  X(int, gnutls_alert_send, \
    (gnutls_session_t session, gnutls_alert_level_t level, gnutls_alert_description_t desc), \
    (session, level, desc)) \
  X(int, gnutls_alert_send_appropriate, (gnutls_session_t session, int err), (session, err)) \
  X(const char*, gnutls_strerror, (int error), (error)) \
  X(gnutls_protocol_t, gnutls_protocol_get_version, (gnutls_session_t session), (session)) \
  X(const char*, gnutls_protocol_get_name, (gnutls_protocol_t version), (version)) \
  X(void, gnutls_memset, (void* data, int c, size_t size), (data, c, size)) \
  X(unsigned, gnutls_x509_crt_equals, (gnutls_x509_crt_t cert1, gnutls_x509_crt_t cert2), \
    (cert1, cert2)) \
  X(unsigned, gnutls_x509_crt_check_issuer, \
    (gnutls_x509_crt_t cert, gnutls_x509_crt_t issuer), (cert, issuer)) \
  X(int, gnutls_x509_crt_get_extension_by_oid, \
    (gnutls_x509_crt_t cert, const char* oid, unsigned indx, void* buf, size_t* buf_size, \
    unsigned int* critical), (cert, oid, indx, buf, buf_size, critical)) \
  X(void, gnutls_certificate_set_verify_limits, \
    (gnutls_certificate_credentials_t res, unsigned int max_bits, unsigned int max_depth), \
    (res, max_bits, max_depth)) \
  X(void, gnutls_certificate_get_trust_list, \
    (gnutls_certificate_credentials_t res, gnutls_x509_trust_list_t* tlist), (res, tlist)) \
  X(int, gnutls_x509_trust_list_verify_crt2, \
    (gnutls_x509_trust_list_t list, gnutls_x509_crt_t* cert_list, unsigned int cert_list_size, \
    gnutls_typed_vdata_st* data, unsigned int elements, unsigned int flags, \
    unsigned int* voutput, gnutls_verify_output_function func), \
    (list, cert_list, cert_list_size, data, elements, flags, voutput, func)) \
  X(void, gnutls_handshake_set_hook_function, \
    (gnutls_session_t session, unsigned int htype, int when, gnutls_handshake_hook_func func), \
    (session, htype, when, func)) \
  X(unsigned, gnutls_x509_crt_check_key_purpose, \
    (gnutls_x509_crt_t cert, const char* purpose, unsigned flags), (cert, purpose, flags))

#define DYNAMIC_VARIABLE(X) \
  X(void*, gnutls_malloc, (size_t size), (size)) \
  X(void*, gnutls_calloc, (size_t count, size_t size), (count, size)) \
  X(void*, gnutls_realloc, (void* p, size_t size), (p, size)) \
  X(void, gnutls_free, (void* p), (p))
// clang-format on
