#ifndef HUTIL_UTIL_INTERNAL_SOCKETSEND_H_
#define HUTIL_UTIL_INTERNAL_SOCKETSEND_H_

#include <sys/types.h>

#include <cstddef>

#include "util/internal/SocketAddress.h"

namespace hvn {
namespace util {

/// The sends of Socket with their rules for trying again; both log for Socket::SendTo.

/// A descriptor's: ten more tries at the most, 100 ms apart.
ssize_t SendAll(int fd, const void* data, size_t size);

/// To an address, which is `path` in the log: tries again at once and without a limit.
ssize_t SendDatagram(int fd, const SocketAddress& address, const char* path, const void* data,
                     size_t size);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_SOCKETSEND_H_
