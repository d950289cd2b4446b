#ifndef HUTIL_UTIL_INTERNAL_DEADLINE_H_
#define HUTIL_UTIL_INTERNAL_DEADLINE_H_

#include <poll.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>

namespace hvn {
namespace util {

/// Milliseconds on CLOCK_MONOTONIC.
inline int64_t MonotonicMs() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

/// The end of a span that begins with the object.
class Deadline {
 public:
  /// 0 and less: never.
  explicit Deadline(int span_ms) : end_ms_(span_ms > 0 ? MonotonicMs() + span_ms : kNever) {}

  /// As poll(2) takes it: 0 when the span is over, negative where it never is.
  int RemainingMs() const {
    if (end_ms_ == kNever) return -1;
    return static_cast<int>(std::clamp<int64_t>(end_ms_ - MonotonicMs(), 0, INT_MAX));
  }

 private:
  static constexpr int64_t kNever = INT64_MAX;

  int64_t end_ms_;
};

/// Waits until `fd` is ready for `events` of poll(2), or in no state to be waited for; false, with
/// errno ETIMEDOUT, where that does not come in time. Signals do not matter.
inline bool AwaitEvents(int fd, short events, const Deadline& deadline) {
  pollfd awaited = {fd, events, 0};
  for (;;) {
    const int remaining_ms = deadline.RemainingMs();
    const int count = remaining_ms == 0 ? 0 : poll(&awaited, 1, remaining_ms);
    if (count > 0) return true;
    if (count < 0 && errno == EINTR) continue;
    if (count == 0) errno = ETIMEDOUT;
    return false;
  }
}

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_DEADLINE_H_
