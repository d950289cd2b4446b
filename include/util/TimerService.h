#ifndef HUTIL_UTIL_TIMERSERVICE_H_
#define HUTIL_UTIL_TIMERSERVICE_H_

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <thread>
#include <vector>

#include "util/Export.h"
#include "util/Thread.h"

namespace hvn {
namespace util {

/// The process's timer pool: up to 100 tasks, known by the numbers 0 to 99, on one worker thread.
/// Daemons reach it through a TimerManager.
///
/// Tasks run one after another with no lock held, so a callback may add and remove tasks, its own
/// included; a slow one delays the others. Callbacks must not throw. The worker wakes within a
/// microsecond of the time (a timer slack that a program which a callback executes inherits, see
/// PR_SET_TIMERSLACK in prctl(2)).
class HUTIL_EXPORT TimerService {
 public:
  /// Called as (task number, the pointer given to AddTask); true keeps the task, false ends it.
  using Callback = std::function<bool(int, void*)>;

  /// A task.
  struct CbInfo {
    int id;
    int run_count;  ///< For a debugger; wraps around.
    long long interval_us;
    long long last_run_us;  ///< On CLOCK_MONOTONIC.
    Callback callback;
    void* arg;
    uint64_t serial;  ///< Unlike the number, never used again.
    bool operator==(const CbInfo& other) const { return id == other.id; }
  };

  /// A worker.
  struct ThreadInfo {
    std::unique_ptr<std::thread> thread;
    bool running = true;  ///< Nothing ends a worker: it lives as long as the process.
    std::list<CbInfo> tasks;
    Mutex mutex;
    Condition condition;
    bool grown = false;                  ///< A task has come or ended since the worker last looked.
    bool holds_copies = false;           ///< Of the tasks of a pass,
    uint64_t pass = 0;                   ///< the one of this number.
    Condition idle;                      ///< Signalled when the copies are gone.
    std::vector<uint64_t> ended;         ///< Serials that EndTask has taken out of the pass.
    std::atomic<bool> has_ended{false};  ///< Whether there are any.
  };

  /// The one service, made at the first call and never destroyed. Any thread.
  static TimerService* GetInstance();
  /// Starts the worker, which logs its number at 7 and echoes it into the kernel log; where that
  /// fails (logged, 3), AddTask tries again. For GetInstance: a service must never be destroyed.
  /// Owner.
  TimerService();
  TimerService(const TimerService&) = delete;
  TimerService& operator=(const TimerService&) = delete;

  /// Runs `callback` every `interval_us` microseconds, first after one interval. The lowest free
  /// task number; -1, with no log line, for an interval below 1, an empty callback and a 101st
  /// task, and, logged at 3, where no worker can be started. `arg` stays the caller's. Any thread.
  int AddTask(long long interval_us, Callback callback, void* arg);
  /// Ends a task; false, with no log line, for a number not in use. Never waits: from another
  /// thread than the worker's, one last call may be under way or follow, and the callback with what
  /// it holds may live on until the worker's wait is over. Any thread.
  bool RemoveTask(int id);
  /// RemoveTask that returns only when the task's last call is over and the callback destroyed, so
  /// that what it uses may go. It waits for the pass under way, also where the number is not in use
  /// any more: not to be called with a lock held that a callback takes. On the worker itself, in a
  /// callback, it does not wait, and another task that it ends is not called any more. Any thread.
  bool EndTask(int id);
  /// The body of the worker; not for users. Logs each pass's run time and next wait at 7.
  void ThreadLoop(ThreadInfo* info);

 private:
  void StartWorker();
  bool TakeOutTask(int id, std::list<CbInfo>& removed);
  void CallDue(ThreadInfo* info, std::list<CbInfo>& due);
  static long long CollectDue(ThreadInfo* info, std::list<CbInfo>& due);
  void Retire(ThreadInfo* info, const CbInfo& retired);

  static TimerService* s_ins_;

  const pid_t maker_;  ///< The process that has the workers.
  std::vector<ThreadInfo*> threads_;
  std::vector<bool> ids_in_use_;
  Mutex mutex_;  ///< Guards ids_in_use_; taken before a worker's mutex, never after.
  uint64_t last_serial_ = 0;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_TIMERSERVICE_H_
