#ifndef HUTIL_UTIL_INTERNAL_CLIENT_H_
#define HUTIL_UTIL_INTERNAL_CLIENT_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "util/Thread.h"
#include "util/internal/Outbox.h"

namespace hvn {
namespace util {

/// What a server that limits its peers keeps of one; see PeerLimits. Times are MonotonicMs's.
struct Peer {
  Mutex mutex;  ///< Guards the rest.
  Outbox outbox;
  std::string failure;  ///< Why the client has to go; empty while it may stay.
  int64_t record_until = Outbox::kNever;
  int64_t close_until = Outbox::kNever;
};

/// A stream client of a SocketServer, shared by the server's table, the event under way and the
/// sends of other threads. Whoever lets go last closes the descriptor of one that was dropped: its
/// number is nobody else's before, so no byte can reach another client.
struct Client {
  Client(int number, std::string text, std::unique_ptr<Peer> limited);
  /// Closes a dropped one.
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  const int fd;
  const std::string path;
  bool dropped = false;  ///< By the server; one that was taken out is its taker's to close.
  std::atomic<bool> left{false};     ///< The table.
  std::atomic<bool> closing{false};  ///< The last answer is given: what still comes is thrown away.
  const std::unique_ptr<Peer> peer;  ///< Null where the server does not limit its peers.
};
using ClientPtr = std::shared_ptr<Client>;

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_CLIENT_H_
