#ifndef HUTIL_UTIL_INTERNAL_SOCKETSEND_H_
#define HUTIL_UTIL_INTERNAL_SOCKETSEND_H_

#include <sys/types.h>

#include <cstddef>

namespace hvn {
namespace util {

/// Sends all of `size` bytes on `fd` with ten more tries at the most, 100 ms apart; logs for
/// Socket::SendTo.
ssize_t SendAll(int fd, const void* data, size_t size);

/// The same within `limit_ms` milliseconds, without repeating a byte, raising SIGPIPE or trying a
/// peer again that has gone.
ssize_t SendWithin(int fd, const void* data, size_t size, int limit_ms);

/// Whether a send that failed with `error` is tried again.
bool WorthRetrying(int error);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_SOCKETSEND_H_
