#include "util/OpenSslImpl.h"

#include <openssl/err.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <mutex>
#include <utility>

#include "util/internal/Deadline.h"
#include "util/internal/FilePtr.h"
#include "util/internal/Ipv4.h"
#include "util/internal/KeyFormat.h"
#include "util/internal/Log.h"
#include "util/internal/OpenSslCompat.h"
#include "util/internal/PeerName.h"
#include "util/internal/SocketOptions.h"

namespace hvn {
namespace util {

namespace {

constexpr char kAccept[] = "bool hvn::util::OpenSslImpl::Accept(int)";
constexpr char kConnect[] = "bool hvn::util::OpenSslImpl::Connect(int)";
constexpr char kRecv[] = "ssize_t hvn::util::OpenSslImpl::Recv(int, void*, size_t)";
constexpr char kSend[] = "ssize_t hvn::util::OpenSslImpl::Send(int, const void*, size_t)";
constexpr int kMaxListedCiphers = 10;

/// What one call of OpenSSL's can move.
bool IsTransferable(const void* data, size_t size) {
  return size <= INT_MAX && (data != nullptr || size == 0);
}

std::string Join(const std::vector<std::string>& lists) {
  std::string text;
  for (const std::string& entry : lists) text += entry + ":";
  return text;
}

}  // namespace

std::atomic<int32_t> OpenSslImpl::ref_cnt{0};

// ---- Configuration ----

OpenSslImpl::OpenSslImpl(bool is_server, SslWrapper::Method method)
    : maker_(getpid()), is_server_(is_server), ssl_method_(method) {
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
    if (getpid() == maker_) entry.second.SendCloseNotify(entry.first);  // not in a forked child
    SSL_certs_clear(entry.second.get());
    SSL_clear(entry.second.get());
    entry.second = TlsSession();
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
  X509* const cert = d2i_X509_fp(file.get(), nullptr);
  if (cert == nullptr) return hvn::kFailure;
  X509_STORE_add_cert(store, cert);  // which takes a reference of its own
  X509_free(cert);
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

hvn::Result OpenSslImpl::SetCertChainFile(std::string path) {
  static constexpr char kFunction[] =
      "hvn::Result hvn::util::OpenSslImpl::SetCertChainFile(std::string)";
  if (!ctx_) return hvn::kNotInitialized;
  const ErrorQueueGuard guard;
  const bool had_key = SSL_CTX_get0_privatekey(ctx_.get()) != nullptr;
  // OpenSSL drops a key that is not the new certificate's without a word.
  if (SSL_CTX_use_certificate_chain_file(ctx_.get(), path.c_str()) == 1 &&
      (!had_key || SSL_CTX_get0_privatekey(ctx_.get()) != nullptr)) {
    return hvn::kSuccess;
  }
  HUTIL_LOG(LOG_ERR, "%s %d: ERROR: failed to load %s, please check the file.\n", kFunction,
            __LINE__, path.c_str());
  return hvn::kFailure;
}

// A host that OpenSSL refuses (one with a NUL) leaves everything as it was.
bool OpenSslImpl::VerifyPeer(std::string host) {
  if (!ctx_) return false;
  const ErrorQueueGuard guard;
  const bool is_address = IsValidAddress(host, false) || IsValidAddress(host, true);
  X509_VERIFY_PARAM* const wanted = SSL_CTX_get0_param(ctx_.get());
  if (X509_VERIFY_PARAM_set1_host(wanted, is_address ? "" : host.data(),
                                  is_address ? 0 : host.size()) != 1) {
    HUTIL_LOG(LOG_ERR, "%s %d: ERROR: cannot verify peers as [%s]\n",
              "bool hvn::util::OpenSslImpl::VerifyPeer(std::string)", __LINE__, host.c_str());
    return false;
  }
  X509_VERIFY_PARAM_set1_ip(wanted, nullptr, 0);
  if (is_address) X509_VERIFY_PARAM_set1_ip_asc(wanted, host.c_str());
  server_name_ = is_address ? std::string() : std::move(host);
  // Without a name for its sessions a server that verifies refuses every client that comes again.
  SSL_CTX_set_session_id_context(ctx_.get(), reinterpret_cast<const unsigned char*>("hutil"), 5);
  SSL_CTX_set_verify(ctx_.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  tells_failures_ = true;
  return true;
}

bool OpenSslImpl::UseModernTls() {
  if (!ctx_) return false;
  const ErrorQueueGuard guard;
  if (!SetModernTls(ctx_.get(), is_server_)) {
    HUTIL_LOG(LOG_ERR, "%s %d: ERROR: failed to set modern TLS\n",
              "bool hvn::util::OpenSslImpl::UseModernTls()", __LINE__);
    return false;
  }
  is_modern_ = true;
  tells_failures_ = true;
  return true;
}

void OpenSslImpl::SetTimeLimit(int timeout_ms) { time_limit_ms_ = std::max(timeout_ms, 0); }

int OpenSslImpl::ConvertFileType(SslWrapper::FileType type) {
  if (type == SslWrapper::kPem) return SSL_FILETYPE_PEM;
  return type == SslWrapper::kDer ? SSL_FILETYPE_ASN1 : -1;
}

SslWrapper::FileType OpenSslImpl::GetCertType(Buffer& data) { return CertFormat(data); }

SslWrapper::FileType OpenSslImpl::GetKeyType(Buffer& data) { return KeyFormat(data); }

int OpenSslImpl::ClientHelloCb(ssl_st* /*ssl*/, int* /*alert*/, void* /*arg*/) { return 0; }

// ---- Handshakes ----

/// Makes an operation of a patient session again until it is over or the time is; any other session
/// waits inside OpenSSL, as its descriptor does.
template <typename Operation>
int OpenSslImpl::Drive(int fd, const TlsSession& session, Operation operation) const {
  const Deadline deadline(session.is_patient() ? time_limit_ms_.load() : 0);
  for (;;) {
    if (session.is_patient()) TlsSession::BeginStep();
    const int result = operation(session.get());
    const short awaits = session.is_patient() ? session.Awaits(result) : short{0};
    if (awaits == 0 || !AwaitEvents(fd, awaits, deadline)) return result;
  }
}

TlsSession::Patience OpenSslImpl::PatienceOfOwnCalls() const {
  return time_limit_ms_ > 0 ? TlsSession::Patience::kPatient : TlsSession::Patience::kNone;
}

TlsSession OpenSslImpl::NewSession(int fd, TlsSession::Patience patience) {
  TlsSession session(ctx_.get(), fd, patience);
  // The tickets of TLS 1.3 would keep the first answer back until the peer has acknowledged them.
  if (is_modern_) SendAtOnce(fd);
  if (session.is_made() && !is_server_ && !server_name_.empty()) {
    SSL_set_tlsext_host_name(session.get(), server_name_.c_str());
  }
  return session;
}

bool OpenSslImpl::Accept(int fd) {
  if (fd < 0 || !ctx_ || !is_server_) return false;
  std::lock_guard<Mutex> lock(mutex_);
  if (ssl_map_.count(fd) > 0) return false;
  const ErrorQueueGuard guard;
  TlsSession session = NewSession(fd, PatienceOfOwnCalls());
  return session.is_made() && Handshake(fd, std::move(session), SSL_accept, kAccept);
}

bool OpenSslImpl::Connect(int fd) {
  if (fd < 0 || !ctx_ || is_server_) return false;
  std::lock_guard<Mutex> lock(mutex_);
  if (ssl_map_.count(fd) > 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: \n", kConnect, __LINE__);
    return false;
  }
  const ErrorQueueGuard guard;
  TlsSession session = NewSession(fd, PatienceOfOwnCalls());
  if (!session.is_made()) {
    HUTIL_LOG(LOG_ERR, "%s %d: ERROR: failed to create SSL object\n", kConnect, __LINE__);
    return false;
  }
  for (int n = 0; n < kMaxListedCiphers; ++n) {
    const char* const name = SSL_get_cipher_list(session.get(), n);
    if (name == nullptr) break;
    HUTIL_LOG(LOG_DEBUG, "%s %d: priotify [%d] cipher list [%s]\n", kConnect, __LINE__, n, name);
  }
  if (Handshake(fd, std::move(session), SSL_connect, kConnect)) return true;
  HUTIL_LOG(LOG_ERR, "%s %d: Cannot connect to SSL\n", kConnect, __LINE__);
  return false;
}

/// With the lock held, to the end of it.
bool OpenSslImpl::Handshake(int fd, TlsSession session, int (*handshake)(SSL*),
                            const char* function) {
  // Whom, since a peer that breaks off has no name any more.
  const std::string peer = tells_failures_ ? PeerName(fd) : std::string();
  errno = 0;  // what a failure is told by, where OpenSSL gives no reason
  if (Drive(fd, session, handshake) == 1) {
    ssl_map_.emplace(fd, std::move(session));
    return true;
  }
  const int error = errno;
  if (tells_failures_) {
    HUTIL_LOG(LOG_ERR, "%s %d: handshake with [%s] failed: %s\n", function, __LINE__, peer.c_str(),
              TlsFailure(session.get(), error).c_str());
  }
  return false;
}

OpenSslImpl::Step OpenSslImpl::AcceptStep(int fd) {
  if (fd < 0 || !ctx_ || !is_server_) return {-1, 0, false, "no context"};
  std::lock_guard<Mutex> lock(mutex_);
  const ErrorQueueGuard guard;
  auto found = handshakes_.find(fd);
  if (found == handshakes_.end()) {
    TlsSession made = NewSession(fd, TlsSession::Patience::kPatient);
    if (!made.is_made()) return {-1, 0, false, "no memory"};
    found = handshakes_.emplace(fd, std::move(made)).first;
  }
  errno = 0;
  TlsSession::BeginStep();
  const int result = SSL_accept(found->second.get());
  Step step = {result == 1 ? 1 : -1, found->second.Awaits(result)};
  if (step.awaits != 0) return step;
  if (result == 1) {
    ssl_map_.erase(fd);  // of a number whose last owner was not removed
    ssl_map_.emplace(fd, std::move(found->second));
  } else {
    step.failure = TlsFailure(found->second.get(), errno);
  }
  handshakes_.erase(found);
  return step;
}

bool OpenSslImpl::MakePatient(int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  const auto found = ssl_map_.find(fd);
  return found == ssl_map_.end() || found->second.is_patient() || found->second.BecomePatient(fd);
}

void OpenSslImpl::AbandonHandshake(int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  handshakes_.erase(fd);
}

// ---- Transfers ----

/// The connection of `fd`, with the lock held; its absence is logged for `function`.
const TlsSession* OpenSslImpl::Find(int fd, const char* function) {
  const auto found = ssl_map_.find(fd);
  if (found != ssl_map_.end()) return &found->second;
  HUTIL_LOG(LOG_ERR, "%s %d: NO ssl instanace for fd [%d]\n", function, __LINE__, fd);
  return nullptr;
}

ssize_t OpenSslImpl::Recv(int fd, void* data, size_t size) {
  std::lock_guard<Mutex> lock(mutex_);
  const TlsSession* const session = Find(fd, kRecv);
  if (session == nullptr) return -1;
  const auto read = [data, size](SSL* ssl) { return SSL_read(ssl, data, static_cast<int>(size)); };
  const ssize_t rs = IsTransferable(data, size) ? Drive(fd, *session, read) : -1;
  if (rs < 1) ERR_clear_error();
  if (rs < 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: size %zd rs %zd\n", kRecv, __LINE__, static_cast<ssize_t>(size), rs);
  }
  return rs;
}

OpenSslImpl::Step OpenSslImpl::RecvStep(int fd, void* data, size_t size) {
  std::lock_guard<Mutex> lock(mutex_);
  const TlsSession* const session = Find(fd, kRecv);
  errno = session == nullptr ? ENOTCONN : EINVAL;
  if (session == nullptr || !IsTransferable(data, size)) return {-1};
  errno = 0;
  TlsSession::BeginStep();
  const int result = SSL_read(session->get(), data, static_cast<int>(size));
  Step step = {result, session->Awaits(result)};
  if (result < 1) ERR_clear_error();
  if (step.awaits != 0) {
    step.result = -1;
    step.in_record = session->IsWithinRecord();
  }
  return step;
}

ssize_t OpenSslImpl::Send(int fd, const void* data, size_t size) {
  std::lock_guard<Mutex> lock(mutex_);
  const TlsSession* const session = Find(fd, kSend);
  if (session == nullptr || !IsTransferable(data, size)) return -1;
  const int length = static_cast<int>(size);
  const int sent = Write(fd, *session, static_cast<const char*>(data), length);
  if (sent < 1) ERR_clear_error();
  return sent == length ? static_cast<ssize_t>(size) : -1;
}

/// All of it, within one limit: a patient session may take a part at a time.
int OpenSslImpl::Write(int fd, const TlsSession& session, const char* data, int size) const {
  int sent = 0;
  return Drive(fd, session, [data, size, &sent](SSL* ssl) {
    int result = 0;
    do {
      result = SSL_write(ssl, data + sent, size - sent);
      if (result > 0) sent += result;
    } while (result > 0 && sent < size);
    return result > 0 ? sent : result;
  });
}

OpenSslImpl::Step OpenSslImpl::SendStep(int fd, const void* data, size_t size) {
  std::lock_guard<Mutex> lock(mutex_);
  const TlsSession* const session = Find(fd, kSend);
  errno = session == nullptr ? ENOTCONN : EINVAL;
  if (session == nullptr || !IsTransferable(data, size)) return {-1};
  errno = 0;
  TlsSession::BeginStep();
  const int result = SSL_write(session->get(), data, static_cast<int>(size));
  Step step = {result > 0 ? result : -1, session->Awaits(result)};
  if (result < 1) ERR_clear_error();
  if (result < 1 && errno == 0) errno = EPROTO;  // a failure of TLS's, not of the socket's
  return step;
}

size_t OpenSslImpl::Pending(int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  const auto found = ssl_map_.find(fd);
  return found == ssl_map_.end() ? 0 : static_cast<size_t>(SSL_pending(found->second.get()));
}

void OpenSslImpl::SendCloseNotify(int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  const ErrorQueueGuard guard;
  const auto found = ssl_map_.find(fd);
  if (found != ssl_map_.end()) found->second.SendCloseNotify(fd);
}

bool OpenSslImpl::RemoveClient(int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  return ssl_map_.erase(fd) > 0;
}

}  // namespace util
}  // namespace hvn
