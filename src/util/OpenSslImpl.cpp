#include "util/OpenSslImpl.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <poll.h>

#include <climits>
#include <cstdio>
#include <mutex>
#include <utility>

#include "util/internal/FilePtr.h"
#include "util/internal/Log.h"
#include "util/internal/OpenSslCompat.h"

namespace hvn {
namespace util {

namespace {

constexpr int kMaxListedCiphers = 10;

struct CertFree {
  void operator()(X509* cert) const { X509_free(cert); }
};
using CertPtr = std::unique_ptr<X509, CertFree>;

struct KeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyFree>;

struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;

/// Takes back what OpenSSL adds to its thread's error queue within a scope: what is left there is
/// taken by the daemon's next TLS call for an error of its own. Transfers do without, since a mark
/// costs more than all else that the library adds to one: when one fails it empties the queue, as
/// OpenSSL's own handshakes do.
class ErrorQueueGuard {
 public:
  ErrorQueueGuard() { ERR_set_mark(); }
  ~ErrorQueueGuard() { ERR_pop_to_mark(); }
  ErrorQueueGuard(const ErrorQueueGuard&) = delete;
  ErrorQueueGuard& operator=(const ErrorQueueGuard&) = delete;
};

/// Supplies no password. OpenSSL's own callback would ask at the terminal.
int NoPassword(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*arg*/) { return -1; }

BioPtr MemoryBio(Buffer& data) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (bio) BIO_write(bio.get(), data.data(), static_cast<int>(data.size()));
  return bio;
}

/// What one call of OpenSSL's can move.
bool IsTransferable(const void* data, size_t size) {
  return size <= INT_MAX && (data != nullptr || size == 0);
}

/// What OpenSSL's parsers can count.
bool IsParsable(Buffer& data) { return data.size() > 0 && data.size() <= INT_MAX; }

/// Whether `data` is a DER key of that type; some releases return a key of another type too.
bool IsDerKey(int type, Buffer& data) {
  const unsigned char* bytes = data.data();
  const KeyPtr key(d2i_PrivateKey(type, nullptr, &bytes, static_cast<long>(data.size())));
  return key && EVP_PKEY_base_id(key.get()) == type;
}

std::string Join(const std::vector<std::string>& lists) {
  std::string text;
  for (const std::string& entry : lists) text += entry + ":";
  return text;
}

/// A close-notify must neither wait for a peer that has stopped reading nor raise SIGPIPE for one
/// that has gone: poll tells more than POLLOUT of such a peer.
void Shutdown(int fd, SSL* session) {
  pollfd peer = {fd, POLLOUT, 0};
  if (poll(&peer, 1, 0) != 1 || peer.revents != POLLOUT) SSL_set_quiet_shutdown(session, 1);
  SSL_shutdown(session);
}

}  // namespace

std::atomic<int32_t> OpenSslImpl::ref_cnt{0};

// ---- Configuration ----

OpenSslImpl::OpenSslImpl(bool is_server, SslWrapper::Method method)
    : is_server_(is_server), ssl_method_(method) {
  static constexpr char kFunction[] =
      "hvn::util::OpenSslImpl::OpenSslImpl(bool, hvn::util::SslWrapper::Method)";
  const ErrorQueueGuard guard;
  CountIn();
  const SSL_METHOD* const found = FindMethod(ssl_method_, is_server_);
  if (found == nullptr) {
    HUTIL_LOG(LOG_ERR, "%s %d: No suitable wolf method for %d\n", kFunction, __LINE__, method);
    return;
  }
  ctx_.reset(SSL_CTX_new(found));
  if (!ctx_) {
    HUTIL_LOG(LOG_ERR, "%s %d: ERROR: failed to create SSL_CTX\n", kFunction, __LINE__);
    return;
  }
  SSL_CTX_set_default_passwd_cb(ctx_.get(), NoPassword);
}

/// Under a lock, so that a second object does not go on before the first has initialised OpenSSL.
void OpenSslImpl::CountIn() {
  static Mutex mutex;
  std::lock_guard<Mutex> lock(mutex);
  if (ref_cnt == 0) InitOpenSsl();
  ++ref_cnt;
}

OpenSslImpl::~OpenSslImpl() {
  const ErrorQueueGuard guard;
  for (auto& entry : ssl_map_) {
    SSL* const session = entry.second.get();
    Shutdown(entry.first, session);
    SSL_certs_clear(session);
    SSL_clear(session);
    entry.second.reset();
  }
}

bool OpenSslImpl::SetCipherLists(std::vector<std::string> lists) {
  static constexpr char kFunction[] =
      "bool hvn::util::OpenSslImpl::SetCipherLists(std::vector<std::basic_string<char> >)";
  if (!ctx_) return false;
  const ErrorQueueGuard guard;
  std::string text = Join(lists);
  text.resize(text.size() - 1);
  if (SSL_CTX_set_cipher_list(ctx_.get(), text.c_str()) == 1) {
    HUTIL_LOG(LOG_DEBUG, "%s %d: Success to set cipher lists [%s]\n", kFunction, __LINE__,
              text.c_str());
    return true;
  }
  HUTIL_LOG(LOG_ERR, "%s %d: ERROR: failed to set cipher lists [%s]\n", kFunction, __LINE__,
            text.c_str());
  return false;
}

hvn::Result OpenSslImpl::SetRootCaFile(std::string path, SslWrapper::FileType type) {
  static constexpr char kFunction[] =
      "hvn::Result hvn::util::OpenSslImpl::SetRootCaFile(std::string, "
      "hvn::util::SslWrapper::FileType)";
  if (!ctx_) return hvn::kNotInitialized;
  const ErrorQueueGuard guard;
  if (ConvertFileType(type) < 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: Unsupported file type", kFunction, __LINE__);
    return hvn::kFailure;
  }
  if (type == SslWrapper::kDer) return AddDerRootCa(path);
  if (SSL_CTX_load_verify_locations(ctx_.get(), path.c_str(), nullptr) != 1) {
    HUTIL_LOG(LOG_ERR, "%s %d: ERROR: failed to load %s, please check the file.\n", kFunction,
              __LINE__, path.c_str());
    return hvn::kFailure;
  }
  HUTIL_LOG(LOG_DEBUG, "%s %d: SUCCESS to load root_ca %s\n", kFunction, __LINE__, path.c_str());
  return hvn::kSuccess;
}

hvn::Result OpenSslImpl::AddDerRootCa(const std::string& path) {
  X509_STORE* const store = SSL_CTX_get_cert_store(ctx_.get());
  if (store == nullptr) return hvn::kFailure;
  const FilePtr file(std::fopen(path.c_str(), "r"));
  if (!file) return hvn::kFailure;
  const CertPtr cert(d2i_X509_fp(file.get(), nullptr));
  if (!cert) return hvn::kFailure;
  X509_STORE_add_cert(store, cert.get());
  return hvn::kSuccess;
}

hvn::Result OpenSslImpl::SetRootCaBuffer(void* /*data*/, size_t /*size*/) { return hvn::kFailure; }

hvn::Result OpenSslImpl::SetCertAndKeyFile(std::string cert_path, std::string key_path,
                                           SslWrapper::FileType cert_type,
                                           SslWrapper::FileType key_type) {
  static constexpr char kFunction[] =
      "hvn::Result hvn::util::OpenSslImpl::SetCertAndKeyFile(std::string, std::string, "
      "hvn::util::SslWrapper::FileType, hvn::util::SslWrapper::FileType)";
  if (!ctx_) return hvn::kNotInitialized;
  const ErrorQueueGuard guard;
  const char* failed = nullptr;
  if (SSL_CTX_use_certificate_file(ctx_.get(), cert_path.c_str(), ConvertFileType(cert_type)) !=
      1) {
    failed = cert_path.c_str();
  } else if (SSL_CTX_use_PrivateKey_file(ctx_.get(), key_path.c_str(), ConvertFileType(key_type)) !=
             1) {
    failed = key_path.c_str();
  }
  if (failed == nullptr) return hvn::kSuccess;
  HUTIL_LOG(LOG_ERR, "%s %d: ERROR: failed to load %s, please check the file.\n", kFunction,
            __LINE__, failed);
  return hvn::kFailure;
}

int OpenSslImpl::ConvertFileType(SslWrapper::FileType type) {
  if (type == SslWrapper::kPem) return SSL_FILETYPE_PEM;
  return type == SslWrapper::kDer ? SSL_FILETYPE_ASN1 : -1;
}

// ---- Detection ----

SslWrapper::FileType OpenSslImpl::GetCertType(Buffer& data) {
  static constexpr char kFunction[] =
      "static hvn::util::SslWrapper::FileType "
      "hvn::util::OpenSslImpl::GetCertType(hvn::util::Buffer&)";
  if (!IsParsable(data)) return SslWrapper::kUnknown;
  const ErrorQueueGuard guard;
  const unsigned char* bytes = data.data();
  if (CertPtr(d2i_X509(nullptr, &bytes, static_cast<long>(data.size())))) {
    HUTIL_LOG(LOG_DEBUG, "%s %d: DER type cert\n", kFunction, __LINE__);
    return SslWrapper::kDer;
  }
  const BioPtr bio = MemoryBio(data);
  if (bio && CertPtr(PEM_read_bio_X509(bio.get(), nullptr, NoPassword, nullptr))) {
    HUTIL_LOG(LOG_DEBUG, "%s %d: PEM type cert\n", kFunction, __LINE__);
    return SslWrapper::kPem;
  }
  return SslWrapper::kUnknown;
}

SslWrapper::FileType OpenSslImpl::GetKeyType(Buffer& data) {
  static constexpr char kFunction[] =
      "static hvn::util::SslWrapper::FileType "
      "hvn::util::OpenSslImpl::GetKeyType(hvn::util::Buffer&)";
  if (!IsParsable(data)) return SslWrapper::kUnknown;
  const ErrorQueueGuard guard;
  if (IsDerKey(EVP_PKEY_RSA, data)) {
    HUTIL_LOG(LOG_DEBUG, "%s %d: DER type key with RSA\n", kFunction, __LINE__);
    return SslWrapper::kDer;
  }
  if (IsDerKey(EVP_PKEY_EC, data)) {
    HUTIL_LOG(LOG_DEBUG, "%s %d: DER type key with EC\n", kFunction, __LINE__);
    return SslWrapper::kDer;
  }
  const BioPtr bio = MemoryBio(data);
  if (bio && KeyPtr(PEM_read_bio_PrivateKey(bio.get(), nullptr, NoPassword, nullptr))) {
    HUTIL_LOG(LOG_DEBUG, "%s %d: PEM type key\n", kFunction, __LINE__);
    return SslWrapper::kPem;
  }
  return SslWrapper::kUnknown;
}

int OpenSslImpl::ClientHelloCb(ssl_st* /*ssl*/, int* /*alert*/, void* /*arg*/) { return 0; }

// ---- Connections ----

bool OpenSslImpl::Accept(int fd) {
  if (fd < 0 || !ctx_ || !is_server_) return false;
  std::lock_guard<Mutex> lock(mutex_);
  if (ssl_map_.count(fd) > 0) return false;
  const ErrorQueueGuard guard;
  SessionPtr session(SSL_new(ctx_.get()));
  if (!session) return false;
  SSL_set_fd(session.get(), fd);
  if (SSL_accept(session.get()) != 1) return false;
  ssl_map_.emplace(fd, std::move(session));
  return true;
}

bool OpenSslImpl::Connect(int fd) {
  static constexpr char kFunction[] = "bool hvn::util::OpenSslImpl::Connect(int)";
  if (fd < 0 || !ctx_ || is_server_) return false;
  std::lock_guard<Mutex> lock(mutex_);
  if (ssl_map_.count(fd) > 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: \n", kFunction, __LINE__);
    return false;
  }
  const ErrorQueueGuard guard;
  SessionPtr session(SSL_new(ctx_.get()));
  if (!session) {
    HUTIL_LOG(LOG_ERR, "%s %d: ERROR: failed to create SSL object\n", kFunction, __LINE__);
    return false;
  }
  for (int n = 0; n < kMaxListedCiphers; ++n) {
    const char* const name = SSL_get_cipher_list(session.get(), n);
    if (name == nullptr) break;
    HUTIL_LOG(LOG_DEBUG, "%s %d: priotify [%d] cipher list [%s]\n", kFunction, __LINE__, n, name);
  }
  SSL_set_fd(session.get(), fd);
  if (SSL_connect(session.get()) != 1) {
    HUTIL_LOG(LOG_ERR, "%s %d: Cannot connect to SSL\n", kFunction, __LINE__);
    return false;
  }
  ssl_map_.emplace(fd, std::move(session));
  return true;
}

/// The connection of `fd`, with the lock held; its absence is logged for `function`.
SSL* OpenSslImpl::Find(int fd, const char* function) {
  const auto found = ssl_map_.find(fd);
  if (found != ssl_map_.end()) return found->second.get();
  HUTIL_LOG(LOG_ERR, "%s %d: NO ssl instanace for fd [%d]\n", function, __LINE__, fd);
  return nullptr;
}

ssize_t OpenSslImpl::Recv(int fd, void* data, size_t size) {
  static constexpr char kFunction[] = "ssize_t hvn::util::OpenSslImpl::Recv(int, void*, size_t)";
  std::lock_guard<Mutex> lock(mutex_);
  SSL* const session = Find(fd, kFunction);
  if (session == nullptr) return -1;
  const ssize_t rs =
      IsTransferable(data, size) ? SSL_read(session, data, static_cast<int>(size)) : -1;
  if (rs < 1) ERR_clear_error();
  if (rs < 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: size %zd rs %zd\n", kFunction, __LINE__, static_cast<ssize_t>(size),
              rs);
  }
  return rs;
}

ssize_t OpenSslImpl::Send(int fd, const void* data, size_t size) {
  static constexpr char kFunction[] =
      "ssize_t hvn::util::OpenSslImpl::Send(int, const void*, size_t)";
  std::lock_guard<Mutex> lock(mutex_);
  SSL* const session = Find(fd, kFunction);
  if (session == nullptr || !IsTransferable(data, size)) return -1;
  const int length = static_cast<int>(size);
  const int sent = SSL_write(session, data, length);
  if (sent < 1) ERR_clear_error();
  return sent == length ? static_cast<ssize_t>(size) : -1;
}

size_t OpenSslImpl::Pending(int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  const auto found = ssl_map_.find(fd);
  return found == ssl_map_.end() ? 0 : static_cast<size_t>(SSL_pending(found->second.get()));
}

bool OpenSslImpl::RemoveClient(int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  return ssl_map_.erase(fd) > 0;
}

}  // namespace util
}  // namespace hvn
