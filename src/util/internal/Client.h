#ifndef HUTIL_UTIL_INTERNAL_CLIENT_H_
#define HUTIL_UTIL_INTERNAL_CLIENT_H_

#include <unistd.h>

#include <memory>
#include <string>
#include <utility>

namespace hvn {
namespace util {

/// A stream client of a SocketServer, shared by the server's table, the event under way and the
/// sends of other threads. Whoever lets go last closes the descriptor of one that was dropped: its
/// number is nobody else's before, so no byte can reach another client.
struct Client {
  Client(int number, std::string text) : fd(number), path(std::move(text)) {}
  ~Client() {
    if (dropped) close(fd);
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  const int fd;
  const std::string path;
  bool dropped = false;  ///< By the server; one that was taken out is its taker's to close.
};
using ClientPtr = std::shared_ptr<Client>;

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_CLIENT_H_
