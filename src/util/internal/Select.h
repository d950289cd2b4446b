#ifndef HUTIL_UTIL_INTERNAL_SELECT_H_
#define HUTIL_UTIL_INTERNAL_SELECT_H_

#include <poll.h>
#include <sys/select.h>
#include <sys/time.h>

#include <algorithm>
#include <cstdint>
#include <limits>

namespace hvn {
namespace util {

/// Whether an fd_set has room for `fd`: FD_SET writes outside the set for any other.
inline bool FitsSelect(int fd) { return fd >= 0 && fd < FD_SETSIZE; }

/// `us` microseconds as select(2) wants them; spans that time_t cannot hold are cut to its largest.
inline timeval ToTimeval(uint64_t us) {
  constexpr auto kMaxSeconds =
      static_cast<uint64_t>(std::numeric_limits<decltype(timeval::tv_sec)>::max());
  timeval span;
  span.tv_sec = static_cast<decltype(span.tv_sec)>(std::min(us / 1000000, kMaxSeconds));
  span.tv_usec = static_cast<decltype(span.tv_usec)>(us % 1000000);
  return span;
}

/// Whether a read or accept on `fd` need not wait, now or within `wait_ms` milliseconds.
inline bool WaitUntilReadable(int fd, int wait_ms) {
  pollfd readable = {fd, POLLIN, 0};
  return poll(&readable, 1, wait_ms) == 1;
}

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_SELECT_H_
