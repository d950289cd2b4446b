/* What the library uses of OpenSSL, as 1.0.2 declares it: scripts/openssl-1.0.2.sh compiles the TLS
   sources with this in place of OpenSSL's own headers. Before a name is added here, look it up in
   a 1.0.2 header. */
#pragma once
#include <stdio.h>

#define OPENSSL_VERSION_NUMBER 0x1000200fL
#define SSL_FILETYPE_PEM 1
#define SSL_FILETYPE_ASN1 2
#define CRYPTO_LOCK 1
#define EVP_PKEY_RSA 6
#define EVP_PKEY_EC 408

typedef struct bio_method_st BIO_METHOD;
typedef struct bio_st BIO;
typedef struct evp_pkey_st EVP_PKEY;
typedef struct ssl_ctx_st SSL_CTX;
typedef struct ssl_method_st SSL_METHOD;
typedef struct ssl_st SSL;
typedef struct x509_st X509;
typedef struct x509_store_st X509_STORE;
typedef int pem_password_cb(char* buf, int size, int rwflag, void* userdata);

extern "C" {
int BIO_free(BIO* a);
BIO* BIO_new(BIO_METHOD* type);
BIO_METHOD* BIO_s_mem(void);
int BIO_write(BIO* b, const void* data, int len);

void (*CRYPTO_get_locking_callback(void))(int mode, int type, const char* file, int line);
int CRYPTO_num_locks(void);
void CRYPTO_set_locking_callback(void (*func)(int mode, int type, const char* file, int line));

void ERR_clear_error(void);
int ERR_pop_to_mark(void);
int ERR_set_mark(void);

int EVP_PKEY_base_id(const EVP_PKEY* pkey);
void EVP_PKEY_free(EVP_PKEY* pkey);
EVP_PKEY* d2i_PrivateKey(int type, EVP_PKEY** a, const unsigned char** pp, long length);

EVP_PKEY* PEM_read_bio_PrivateKey(BIO* bp, EVP_PKEY** x, pem_password_cb* cb, void* u);
X509* PEM_read_bio_X509(BIO* bp, X509** x, pem_password_cb* cb, void* u);

int X509_STORE_add_cert(X509_STORE* ctx, X509* x);
void X509_free(X509* a);
X509* d2i_X509(X509** a, const unsigned char** in, long len);
X509* d2i_X509_fp(FILE* fp, X509** x509);

void SSL_CTX_free(SSL_CTX*);
X509_STORE* SSL_CTX_get_cert_store(const SSL_CTX*);
int SSL_CTX_load_verify_locations(SSL_CTX* ctx, const char* CAfile, const char* CApath);
SSL_CTX* SSL_CTX_new(const SSL_METHOD* meth);
int SSL_CTX_set_cipher_list(SSL_CTX*, const char* str);
void SSL_CTX_set_default_passwd_cb(SSL_CTX* ctx, pem_password_cb* cb);
int SSL_CTX_use_PrivateKey_file(SSL_CTX* ctx, const char* file, int type);
int SSL_CTX_use_certificate_file(SSL_CTX* ctx, const char* file, int type);
int SSL_accept(SSL* ssl);
void SSL_certs_clear(SSL* s);
int SSL_clear(SSL* s);
int SSL_connect(SSL* ssl);
void SSL_free(SSL* ssl);
const char* SSL_get_cipher_list(const SSL* s, int n);
int SSL_library_init(void);
void SSL_load_error_strings(void);
SSL* SSL_new(SSL_CTX* ctx);
int SSL_pending(const SSL* s);
int SSL_read(SSL* ssl, void* buf, int num);
int SSL_set_fd(SSL* s, int fd);
void SSL_set_quiet_shutdown(SSL* ssl, int mode);
int SSL_shutdown(SSL* s);
int SSL_write(SSL* ssl, const void* buf, int num);
const SSL_METHOD* TLSv1_1_client_method(void);
const SSL_METHOD* TLSv1_1_server_method(void);
const SSL_METHOD* TLSv1_2_client_method(void);
const SSL_METHOD* TLSv1_2_server_method(void);
}
