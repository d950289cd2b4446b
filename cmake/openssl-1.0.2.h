/* What the library uses of OpenSSL, as 1.0.2 declares it: scripts/openssl-1.0.2.sh compiles the TLS
   sources with this in place of OpenSSL's own headers. Before a name is added here, look it up in
   a 1.0.2 header. */
#pragma once
#include <stdio.h>

#define OPENSSL_VERSION_NUMBER 0x1000200fL
#define SSL_FILETYPE_PEM 1
#define SSL_FILETYPE_ASN1 2
#define BIO_C_SET_FD 104
#define BIO_C_GET_FD 105
#define BIO_FLAGS_READ 0x01
#define BIO_FLAGS_RWS 0x07
#define BIO_FLAGS_SHOULD_RETRY 0x08
#define BIO_FLAGS_WRITE 0x02
#define BIO_NOCLOSE 0x00
#define BIO_clear_retry_flags(b) BIO_clear_flags(b, (BIO_FLAGS_RWS | BIO_FLAGS_SHOULD_RETRY))
#define BIO_get_fd(b, c) BIO_ctrl(b, BIO_C_GET_FD, 0, (char*)c)
#define BIO_set_fd(b, fd, c) BIO_int_ctrl(b, BIO_C_SET_FD, c, fd)
#define BIO_set_retry_read(b) BIO_set_flags(b, (BIO_FLAGS_READ | BIO_FLAGS_SHOULD_RETRY))
#define BIO_set_retry_write(b) BIO_set_flags(b, (BIO_FLAGS_WRITE | BIO_FLAGS_SHOULD_RETRY))
#define CRYPTO_LOCK 1
#define EVP_PKEY_RSA 6
#define EVP_PKEY_EC 408
#define SSL3_FLAGS_NO_RENEGOTIATE_CIPHERS 0x0001
#define SSL_CB_HANDSHAKE_DONE 0x20
#define SSL_CTRL_MODE 33
#define SSL_CTRL_OPTIONS 32
#define SSL_CTRL_SET_ECDH_AUTO 94
#define SSL_CTRL_SET_TLSEXT_HOSTNAME 55
#define SSL_CTX_set_ecdh_auto(ctx, onoff) SSL_CTX_ctrl(ctx, SSL_CTRL_SET_ECDH_AUTO, onoff, NULL)
#define SSL_CTX_set_options(ctx, op) SSL_CTX_ctrl((ctx), SSL_CTRL_OPTIONS, (op), NULL)
#define SSL_ERROR_WANT_READ 2
#define SSL_ERROR_WANT_WRITE 3
#define SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER 0x00000002L
#define SSL_MODE_ENABLE_PARTIAL_WRITE 0x00000001L
#define SSL_OP_CIPHER_SERVER_PREFERENCE 0x00400000L
#define SSL_OP_NO_COMPRESSION 0x00020000L
#define SSL_OP_SINGLE_ECDH_USE 0x00080000L
#define SSL_VERIFY_FAIL_IF_NO_PEER_CERT 0x02
#define SSL_VERIFY_NONE 0x00
#define SSL_VERIFY_PEER 0x01
#define SSL_set_mode(ssl, op) SSL_ctrl((ssl), SSL_CTRL_MODE, (op), NULL)
#define SSL_set_tlsext_host_name(s, name) \
  SSL_ctrl(s, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, (char*)name)
#define TLSEXT_NAMETYPE_host_name 0
#define X509_V_OK 0

typedef struct bio_st BIO;
typedef struct bio_method_st {
  int type;
  const char* name;
  int (*bwrite)(BIO*, const char*, int);
  int (*bread)(BIO*, char*, int);
  int (*bputs)(BIO*, const char*);
  int (*bgets)(BIO*, char*, int);
  long (*ctrl)(BIO*, int, long, void*);
  int (*create)(BIO*);
  int (*destroy)(BIO*);
  long (*callback_ctrl)(BIO*, int, void (*)(BIO*, int, const char*, int, long, long));
} BIO_METHOD;
typedef struct evp_pkey_st EVP_PKEY;
typedef struct ssl_ctx_st SSL_CTX;
typedef struct ssl_method_st SSL_METHOD;
typedef struct ssl3_state_st {
  long flags;
} SSL3_STATE;
typedef struct ssl_st {
  SSL3_STATE* s3;
} SSL;
typedef struct x509_st X509;
typedef struct x509_store_st X509_STORE;
typedef struct X509_VERIFY_PARAM_st X509_VERIFY_PARAM;
typedef struct x509_store_ctx_st X509_STORE_CTX;
typedef int pem_password_cb(char* buf, int size, int rwflag, void* userdata);

extern "C" {
void BIO_clear_flags(BIO* b, int flags);
long BIO_ctrl(BIO* bp, int cmd, long larg, void* parg);
int BIO_free(BIO* a);
long BIO_int_ctrl(BIO* bp, int cmd, long larg, int iarg);
void BIO_set_flags(BIO* b, int flags);
BIO_METHOD* BIO_s_socket(void);
BIO* BIO_new(BIO_METHOD* type);
BIO_METHOD* BIO_s_mem(void);
int BIO_write(BIO* b, const void* data, int len);

void (*CRYPTO_get_locking_callback(void))(int mode, int type, const char* file, int line);
int CRYPTO_num_locks(void);
void CRYPTO_set_locking_callback(void (*func)(int mode, int type, const char* file, int line));

void ERR_clear_error(void);
unsigned long ERR_peek_error(void);
unsigned long ERR_peek_last_error(void);
int ERR_pop_to_mark(void);
const char* ERR_reason_error_string(unsigned long e);
int ERR_set_mark(void);

int EVP_PKEY_base_id(const EVP_PKEY* pkey);
void EVP_PKEY_free(EVP_PKEY* pkey);
EVP_PKEY* d2i_PrivateKey(int type, EVP_PKEY** a, const unsigned char** pp, long length);

EVP_PKEY* PEM_read_bio_PrivateKey(BIO* bp, EVP_PKEY** x, pem_password_cb* cb, void* u);
X509* PEM_read_bio_X509(BIO* bp, X509** x, pem_password_cb* cb, void* u);

int X509_VERIFY_PARAM_set1_host(X509_VERIFY_PARAM* param, const char* name, size_t namelen);
int X509_VERIFY_PARAM_set1_ip(X509_VERIFY_PARAM* param, const unsigned char* ip, size_t iplen);
int X509_VERIFY_PARAM_set1_ip_asc(X509_VERIFY_PARAM* param, const char* ipasc);
const char* X509_verify_cert_error_string(long n);
int X509_STORE_add_cert(X509_STORE* ctx, X509* x);
void X509_free(X509* a);
X509* d2i_X509(X509** a, const unsigned char** in, long len);
X509* d2i_X509_fp(FILE* fp, X509** x509);

long SSL_CTX_ctrl(SSL_CTX* ctx, int cmd, long larg, void* parg);
void SSL_CTX_free(SSL_CTX*);
X509_VERIFY_PARAM* SSL_CTX_get0_param(SSL_CTX* ctx);
EVP_PKEY* SSL_CTX_get0_privatekey(const SSL_CTX* ctx);
X509_STORE* SSL_CTX_get_cert_store(const SSL_CTX*);
int SSL_CTX_load_verify_locations(SSL_CTX* ctx, const char* CAfile, const char* CApath);
SSL_CTX* SSL_CTX_new(const SSL_METHOD* meth);
int SSL_CTX_set_cipher_list(SSL_CTX*, const char* str);
void SSL_CTX_set_default_passwd_cb(SSL_CTX* ctx, pem_password_cb* cb);
void SSL_CTX_set_info_callback(SSL_CTX* ctx, void (*cb)(const SSL* ssl, int type, int val));
int SSL_CTX_set_session_id_context(SSL_CTX* ctx, const unsigned char* sid_ctx,
                                   unsigned int sid_ctx_len);
int SSL_CTX_set_ssl_version(SSL_CTX* ctx, const SSL_METHOD* meth);
void SSL_CTX_set_verify(SSL_CTX* ctx, int mode, int (*callback)(int, X509_STORE_CTX*));
int SSL_CTX_use_PrivateKey_file(SSL_CTX* ctx, const char* file, int type);
int SSL_CTX_use_certificate_chain_file(SSL_CTX* ctx, const char* file);
int SSL_CTX_use_certificate_file(SSL_CTX* ctx, const char* file, int type);
int SSL_accept(SSL* ssl);
void SSL_certs_clear(SSL* s);
int SSL_clear(SSL* s);
int SSL_connect(SSL* ssl);
long SSL_ctrl(SSL* ssl, int cmd, long larg, void* parg);
void SSL_free(SSL* ssl);
const char* SSL_get_cipher_list(const SSL* s, int n);
int SSL_get_error(const SSL* s, int ret_code);
int SSL_get_verify_mode(const SSL* s);
long SSL_get_verify_result(const SSL* ssl);
int SSL_library_init(void);
void SSL_load_error_strings(void);
SSL* SSL_new(SSL_CTX* ctx);
int SSL_pending(const SSL* s);
int SSL_read(SSL* ssl, void* buf, int num);
const char* SSL_rstate_string(const SSL* s);
void SSL_set_bio(SSL* s, BIO* rbio, BIO* wbio);
int SSL_set_fd(SSL* s, int fd);
void SSL_set_quiet_shutdown(SSL* ssl, int mode);
int SSL_shutdown(SSL* s);
int SSL_write(SSL* ssl, const void* buf, int num);
const SSL_METHOD* TLSv1_1_client_method(void);
const SSL_METHOD* TLSv1_1_server_method(void);
const SSL_METHOD* TLSv1_2_client_method(void);
const SSL_METHOD* TLSv1_2_server_method(void);
}
