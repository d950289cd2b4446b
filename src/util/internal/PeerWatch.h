#ifndef HUTIL_UTIL_INTERNAL_PEERWATCH_H_
#define HUTIL_UTIL_INTERNAL_PEERWATCH_H_

#include <atomic>
#include <cstdint>
#include <functional>

#include "util/internal/UniqueFd.h"

namespace hvn {
namespace util {

/// What a server's loop waits for besides readable descriptors, behind one descriptor that is
/// readable when any of it has come: peers that can be sent to again or go on with a handshake, a
/// time, and a call from another thread. See epoll(7) and timerfd_create(2).
class PeerWatch {
 public:
  PeerWatch();

  /// Below 0 where the kernel has no more descriptors, or none that select(2) can hold.
  int fd() const;

  /// Has Serve tell once when `fd` is ready for `events` of poll(2), or in no state to be. Closing
  /// it ends that. Any thread.
  void Watch(int fd, short events);
  /// Has Serve ring in `span_ms` milliseconds, or when it already is to: to be called with one span
  /// only, so that an earlier call is an earlier time. Any thread.
  void RingWithin(int span_ms);
  /// Has Serve ring at once. Any thread.
  void Ring();

  /// Calls back for what has come. `on_ring` looks at everything that may be due and returns in how
  /// many milliseconds it wants to look again, or less than 0. Loop thread.
  void Serve(const std::function<void(int)>& on_ready, const std::function<int()>& on_ring);

 private:
  void SetTimer(int64_t span_ns);

  UniqueFd epoll_;
  UniqueFd timer_;
  std::atomic<bool> armed_{false};  ///< The timer is set.
  std::atomic<bool> rung_{false};   ///< Ring has been called since Serve last began to ring.
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_PEERWATCH_H_
