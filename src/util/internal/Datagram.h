#ifndef HUTIL_UTIL_INTERNAL_DATAGRAM_H_
#define HUTIL_UTIL_INTERNAL_DATAGRAM_H_

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "util/Socket.h"
#include "util/internal/SocketAddress.h"

namespace hvn {
namespace util {

/// Sends to an address, which is `path` in the log; tries again at once and without a limit. Logs
/// for Socket::SendTo.
ssize_t SendDatagram(int fd, const SocketAddress& address, const char* path, const void* data,
                     size_t size);

/// One datagram from `fd` into `buffer`, with the sender's text in `path` where `domain` has one
/// (IPv4 and Unix). recvfrom's result.
ssize_t ReceiveDatagram(int fd, Socket::Domain domain, char* buffer, size_t size,
                        std::string& path);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_DATAGRAM_H_
