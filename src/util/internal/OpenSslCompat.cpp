#include "util/internal/OpenSslCompat.h"

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace hvn {
namespace util {

namespace {

constexpr char kModernCiphers[] = "ECDHE+AESGCM:ECDHE+CHACHA20";

int PatientResult(BIO* bio, ssize_t n, void (*retry)(BIO*)) {
  BIO_clear_retry_flags(bio);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) retry(bio);
  return static_cast<int>(n);
}

int SocketOf(BIO* bio) {
  int fd = -1;
  BIO_get_fd(bio, &fd);
  return fd;
}

int PatientWrite(BIO* bio, const char* data, int size) {
  const ssize_t n =
      send(SocketOf(bio), data, static_cast<size_t>(size), MSG_DONTWAIT | MSG_NOSIGNAL);
  return PatientResult(bio, n, [](BIO* b) { BIO_set_retry_write(b); });
}

int PatientRead(BIO* bio, char* data, int size) {
  const ssize_t n = recv(SocketOf(bio), data, static_cast<size_t>(size), MSG_DONTWAIT);
  return PatientResult(bio, n, [](BIO* b) { BIO_set_retry_read(b); });
}

#if OPENSSL_VERSION_NUMBER < 0x10100000L

void LockOrUnlock(int mode, int number, const char* /*file*/, int /*line*/) {
  static std::mutex* const locks = new std::mutex[static_cast<size_t>(CRYPTO_num_locks())];
  if ((mode & CRYPTO_LOCK) != 0) {
    locks[number].lock();
  } else {
    locks[number].unlock();
  }
}

/// Releases before 1.1.0 leave locking to the program; one that sees to it keeps its own way.
void MakeThreadSafe() {
  if (CRYPTO_get_locking_callback() == nullptr) CRYPTO_set_locking_callback(LockOrUnlock);
}

/// OpenSSL's own for sockets, but for the transfers.
BIO_METHOD* PatientMethod() {
  static BIO_METHOD method = [] {
    BIO_METHOD copy = *BIO_s_socket();
    copy.bwrite = PatientWrite;
    copy.bread = PatientRead;
    return copy;
  }();
  return &method;
}

const SSL_METHOD* NewestMethod(bool is_server) {
  return is_server ? TLSv1_2_server_method() : TLSv1_2_client_method();
}

/// No option keeps peers from having a server shake hands again and again.
void ForbidRenegotiation(const SSL* ssl, int where, int /*result*/) {
  if ((where & SSL_CB_HANDSHAKE_DONE) != 0) ssl->s3->flags |= SSL3_FLAGS_NO_RENEGOTIATE_CIPHERS;
}

/// Ephemeral curves have to be asked for.
bool SetOldestVersion(SSL_CTX* context) {
  SSL_CTX_set_info_callback(context, ForbidRenegotiation);
  return SSL_CTX_set_ecdh_auto(context, 1) == 1;
}

#else

void MakeThreadSafe() {}

const BIO_METHOD* PatientMethod() {
  static const BIO_METHOD* const method = [] {
    BIO_METHOD* const made = BIO_meth_new(BIO_TYPE_SOCKET, "patient socket");
    if (made == nullptr) return made;
    const BIO_METHOD* const socket = BIO_s_socket();
    BIO_meth_set_create(made, BIO_meth_get_create(socket));
    BIO_meth_set_destroy(made, BIO_meth_get_destroy(socket));
    BIO_meth_set_ctrl(made, BIO_meth_get_ctrl(socket));
    BIO_meth_set_write(made, PatientWrite);
    BIO_meth_set_read(made, PatientRead);
    return made;
  }();
  return method;
}

const SSL_METHOD* NewestMethod(bool is_server) {
  return is_server ? TLS_server_method() : TLS_client_method();
}

bool SetOldestVersion(SSL_CTX* context) {
  return SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) == 1;
}

#endif

}  // namespace

void InitOpenSsl() {
  SSL_library_init();
  SSL_load_error_strings();
  MakeThreadSafe();
}

const SSL_METHOD* FindMethod(SslWrapper::Method method, bool is_server) {
  switch (method) {
    case SslWrapper::kTlsV1_1:
      return is_server ? TLSv1_1_server_method() : TLSv1_1_client_method();
    case SslWrapper::kTlsV1_2:
    case SslWrapper::kTlsV1_2Alt:
      return is_server ? TLSv1_2_server_method() : TLSv1_2_client_method();
  }
  return nullptr;
}

bool SetModernTls(SSL_CTX* context, bool is_server) {
  if (SSL_CTX_set_ssl_version(context, NewestMethod(is_server)) != 1) return false;
  auto options = SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_NO_COMPRESSION | SSL_OP_SINGLE_ECDH_USE;
#ifdef SSL_OP_NO_RENEGOTIATION
  options |= SSL_OP_NO_RENEGOTIATION;
#endif
  SSL_CTX_set_options(context, options);
  return SetOldestVersion(context) && SSL_CTX_set_cipher_list(context, kModernCiphers) == 1;
}

BIO* MakePatientBio(int fd) {
  BIO* const bio = BIO_new(PatientMethod());
  if (bio != nullptr) BIO_set_fd(bio, fd, BIO_NOCLOSE);
  return bio;
}

bool HasPartOfRecord(const SSL* ssl) {
  const bool waits_for_header = std::strcmp(SSL_rstate_string(ssl), "RH") == 0;
#if OPENSSL_VERSION_NUMBER < 0x10100000L
  return !waits_for_header;
#else
  return !waits_for_header || SSL_has_pending(ssl) == 1;
#endif
}

}  // namespace util
}  // namespace hvn
