#ifndef HUTIL_UTIL_TIMERMANAGER_H_
#define HUTIL_UTIL_TIMERMANAGER_H_

#include "util/Export.h"
#include "util/TimerService.h"

namespace hvn {
namespace util {

/// A daemon's handle on the process's TimerService.
///
///     TimerManager timers;
///     int id = timers.AddTask(1000000, [](int, void*) { return PollAgain(); }, nullptr);
///     timers.RemoveTask(id);
class HUTIL_EXPORT TimerManager {
 public:
  /// Makes the service where it does not exist yet. Any thread.
  TimerManager();
  /// TimerService::AddTask. Any thread.
  int AddTask(long long interval_us, TimerService::Callback callback, void* arg);
  /// TimerService::RemoveTask. Any thread.
  bool RemoveTask(int id);
  /// TimerService::EndTask. Any thread.
  bool EndTask(int id);

 private:
  TimerService* service_;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_TIMERMANAGER_H_
