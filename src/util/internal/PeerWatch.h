#ifndef HUTIL_UTIL_INTERNAL_PEERWATCH_H_
#define HUTIL_UTIL_INTERNAL_PEERWATCH_H_

#include <cstdint>
#include <functional>

#include "util/Thread.h"
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
  /// Has Serve ring at `time_ms` of MonotonicMs, or earlier where it already is to; never for
  /// INT64_MAX. Any thread.
  void RingAt(int64_t time_ms);
  /// Has Serve ring at once. Any thread.
  void Ring() { RingAt(0); }

  /// Calls back for what has come. `on_ring` looks at everything that may be due and returns when
  /// it wants to look again, as for RingAt. Loop thread.
  void Serve(const std::function<void(int)>& on_ready, const std::function<int64_t()>& on_ring);

 private:
  UniqueFd epoll_;
  UniqueFd timer_;
  Mutex mutex_;                   ///< Guards the timer's setting, which is
  int64_t rings_at_ = INT64_MAX;  ///< this time.
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_PEERWATCH_H_
