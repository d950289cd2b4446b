#ifndef HUTIL_UTIL_TIMER_H_
#define HUTIL_UTIL_TIMER_H_

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <string>

#include "util/Export.h"
#include "util/Result.h"
#include "util/Thread.h"

namespace hvn {
namespace util {

/// Runs one callback after a delay, once or again and again, on a thread of its own.
///
///     Timer heartbeat("heartbeat", [] { Beat(); }, 30000000, true);
///
/// Arming does not wake the thread, which does not notice it where it waits idle already: arm a
/// timer as it is made, as above, or use a TimerManager. The callback runs with the timer's lock
/// held, so it must not call Start or Stop of its own timer, and it must not throw. A repeating
/// timer's period runs from the end of one call to the next.
class HUTIL_EXPORT Timer {
 public:
  /// Starts the thread, which logs its number at 7 and echoes it into the kernel log; `name` is not
  /// kept. Where no thread is to be had (logged, 3), the timer never calls back. Owner.
  Timer(std::string name, std::function<void()> callback);
  /// The same, armed as by Start before the thread runs: no first Start can come too late. Owner.
  Timer(std::string name, std::function<void()> callback, long long period_us, bool repeat);
  /// Ends the thread; a wait for the next expiry ends in one last call. Called from the timer's own
  /// callback it would wait for itself, for ever. In a forked child, which has no such thread, it
  /// waits for nothing. Owner.
  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  /// Arms the timer for `period_us` microseconds; changes nothing while it is armed. Always
  /// kSuccess. Any thread but the timer's.
  hvn::Result Start(long long period_us, bool repeat);
  /// Disarms the timer; a wait under way still ends in one call. Always kSuccess. Any thread but
  /// the timer's.
  hvn::Result Stop();
  /// The body of the timer's thread; not for users. kSuccess, at its end.
  hvn::Result Loop();

 private:
  void StartThread();
  void Wake();
  void WaitUntilArmed();
  void RunArmed();

  const pid_t maker_;  ///< The process that has the thread.
  std::atomic<bool> running_;
  std::atomic<bool> armed_;
  std::atomic<bool> repeat_;
  long long period_us_;
  Thread thread_;
  Mutex mutex_;
  Condition condition_;
  std::function<void()> callback_;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_TIMER_H_
