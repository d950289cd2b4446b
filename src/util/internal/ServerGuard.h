#ifndef HUTIL_UTIL_INTERNAL_SERVERGUARD_H_
#define HUTIL_UTIL_INTERNAL_SERVERGUARD_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "util/SslWrapper.h"
#include "util/internal/ClientTable.h"
#include "util/internal/Handshakes.h"
#include "util/internal/PeerLimits.h"
#include "util/internal/PeerWatch.h"
#include "util/internal/UniqueFd.h"

namespace hvn {
namespace util {

/// What a SocketServer's options ask for; a server without them has none. Loop thread, but for what
/// the parts say.
class ServerGuard {
 public:
  /// The server's side.
  struct Hooks {
    std::function<int(std::string&)> accept;             ///< As Socket::Accept.
    std::function<void(int, const std::string&)> admit;  ///< A newcomer becomes a client.
    std::function<void(const ClientPtr&)> receive;       ///< There is more of this client's.
  };

  /// Without `limit_ms` above 0 only departures are watched for. `ssl` is null for clear text.
  ServerGuard(ClientTable& clients, SslWrapper* ssl, int limit_ms, Hooks hooks);

  /// To be watched for reading, and Serve called then; below 0 where the kernel has none to give.
  int fd() const { return watch_.fd(); }
  void Serve();
  /// Has Serve called soon. Any thread.
  void Wake() { watch_.Ring(); }

  /// In a forked child: leaves what is the parent's alone.
  void AbandonParent();

  /// Null without a time limit.
  PeerLimits* limits() const { return limits_.get(); }
  /// What accept gave: admits the newcomer, begins its handshake, or turns it away.
  void Welcome(int newcomer, const std::string& path, int error);

 private:
  void ServePeer(int fd);
  int64_t FailOverdue();
  void TurnNewcomerAway(int error);

  ClientTable& clients_;
  const Hooks hooks_;
  PeerWatch watch_;
  std::unique_ptr<PeerLimits> limits_;
  std::unique_ptr<Handshakes> handshakes_;  ///< With a time limit and TLS.
  UniqueFd spare_{-1};                      ///< Makes room for a newcomer to be turned away.
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_SERVERGUARD_H_
