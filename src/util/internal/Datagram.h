#ifndef HUTIL_UTIL_INTERNAL_DATAGRAM_H_
#define HUTIL_UTIL_INTERNAL_DATAGRAM_H_

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>

#include "util/Socket.h"
#include "util/internal/SocketAddress.h"

namespace hvn {
namespace util {

/// Where a datagram goes, and what that is in the log.
struct Destination {
  const SocketAddress& address;
  const char* path;
};

/// Sends to an address; tries again at once and without a limit while there is no room. Where
/// `limit_ms` is above 0, it does so for that long, with a pause each time, raises no SIGPIPE and
/// gives a peer that has gone up. Logs for Socket::SendTo.
ssize_t SendDatagram(int fd, const Destination& to, const void* data, size_t size, int limit_ms);

/// Whom a datagram comes from.
struct Sender {
  SocketAddress address;
  std::string path;  ///< For callbacks; IPv4 and Unix senders have one.
};

/// Gets the sender and the bytes; true where it has answered with Reply.
using DatagramCallback = std::function<bool(const Sender&, char*, size_t)>;

/// Receives one datagram from `fd` and calls back for it; where that is answered, also those that
/// are there already, some at the most: the loop need not be asked for each. A failure is logged
/// for `function`.
void ReceiveDatagrams(int fd, Socket::Domain domain, size_t buffer_size, const char* function,
                      const DatagramCallback& callback);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_DATAGRAM_H_
