#ifndef HUTIL_UTIL_OPENSSLIMPL_H_
#define HUTIL_UTIL_OPENSSLIMPL_H_

#include <openssl/ssl.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "util/Buffer.h"
#include "util/Result.h"
#include "util/SslWrapper.h"
#include "util/Thread.h"
#include "util/internal/TlsSession.h"

namespace hvn {
namespace util {

/// What an SslWrapper forwards to: one OpenSSL context and one connection object per descriptor.
/// No operation leaves errors of its own in OpenSSL's queue of its thread.
class OpenSslImpl {
 public:
  OpenSslImpl(bool is_server, SslWrapper::Method method);
  ~OpenSslImpl();
  OpenSslImpl(const OpenSslImpl&) = delete;
  OpenSslImpl& operator=(const OpenSslImpl&) = delete;

  bool SetCipherLists(std::vector<std::string> lists);
  hvn::Result SetRootCaFile(std::string path, SslWrapper::FileType type);
  /// Not supported: always kFailure.
  hvn::Result SetRootCaBuffer(void* data, size_t size);
  hvn::Result SetCertAndKeyFile(std::string cert_path, std::string key_path,
                                SslWrapper::FileType cert_type, SslWrapper::FileType key_type);
  hvn::Result SetCertChainFile(std::string path);
  bool VerifyPeer(std::string host);
  bool UseModernTls();
  void SetTimeLimit(int timeout_ms);
  /// OpenSSL's number for a file type, or -1.
  int ConvertFileType(SslWrapper::FileType type);

  static SslWrapper::FileType GetCertType(Buffer& data);
  static SslWrapper::FileType GetKeyType(Buffer& data);
  /// Shaped like OpenSSL's client-hello callback; accepts nothing and is never registered.
  static int ClientHelloCb(ssl_st* ssl, int* alert, void* arg);

  bool Connect(int fd);
  bool Accept(int fd);
  ssize_t Send(int fd, const void* data, size_t size);
  ssize_t Recv(int fd, void* data, size_t size);
  size_t Pending(int fd);
  bool RemoveClient(int fd);

  /// The same work in steps that never wait, for a loop that watches the descriptor itself. A step
  /// that cannot go on says which event of poll(2) it awaits and is made again after that.
  struct Step {
    ssize_t result;            ///< As of the whole operation; 0 from RecvStep: the peer has closed.
    short awaits = 0;          ///< POLLIN or POLLOUT, with `result` -1; 0: the operation is over.
    bool in_record = false;    ///< RecvStep awaits the rest of a record that has begun.
    std::string failure = {};  ///< Of AcceptStep: why the handshake failed.
  };
  /// 1 at the end of a handshake; a failed one is forgotten.
  Step AcceptStep(int fd);
  /// Keeps later operations on the connection of `fd`, if there is one, from waiting inside
  /// OpenSSL. False where there is no memory.
  bool MakePatient(int fd);
  /// Forgets a handshake that has not come to its end.
  void AbandonHandshake(int fd);
  Step RecvStep(int fd, void* data, size_t size);
  /// May write a part.
  Step SendStep(int fd, const void* data, size_t size);
  /// TlsSession::SendCloseNotify; an unknown descriptor is ignored.
  void SendCloseNotify(int fd);

  /// Objects ever made in this process; the first one initialises OpenSSL.
  static std::atomic<int32_t> ref_cnt;

 private:
  struct ContextFree {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  };
  using Sessions = std::map<int, TlsSession>;

  static void CountIn();
  hvn::Result AddDerRootCa(const std::string& path);
  TlsSession NewSession(int fd, TlsSession::Patience patience);
  TlsSession::Patience PatienceOfOwnCalls() const;
  bool Handshake(int fd, TlsSession session, int (*handshake)(SSL*), const char* function);
  template <typename Operation>
  int Drive(int fd, const TlsSession& session, Operation operation) const;
  int Write(int fd, const TlsSession& session, const char* data, int size) const;
  const TlsSession* Find(int fd, const char* function);

  const pid_t maker_;                          ///< The process whose connections these are.
  std::unique_ptr<SSL_CTX, ContextFree> ctx_;  ///< Freed after the connections.
  bool is_server_;
  SslWrapper::Method ssl_method_;
  std::atomic<int> time_limit_ms_{0};
  bool is_modern_ = false;
  bool tells_failures_ = false;  ///< A failed handshake is logged with its reason.
  std::string server_name_;      ///< Whom a client asks for, by SNI.
  Sessions ssl_map_;
  Sessions handshakes_;  ///< Of AcceptStep.
  Mutex mutex_;          ///< Guards the maps and serialises all work on their connections.
};

/// The implementation behind a wrapper, for the loops of servers.
OpenSslImpl& ImplOf(SslWrapper& wrapper);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_OPENSSLIMPL_H_
