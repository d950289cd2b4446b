#include "util/TimerService.h"

#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <utility>

#include "util/TimerManager.h"
#include "util/internal/Log.h"
#include "util/internal/StartThread.h"

namespace hvn {
namespace util {

namespace {

constexpr size_t kMaxTasks = 100;
constexpr long long kLongestWaitUs = 1000000000;
constexpr unsigned long kTimerSlackNs = 1000;
constexpr char kConstructor[] = "hvn::util::TimerService::TimerService()";
constexpr char kThreadLoop[] =
    "void hvn::util::TimerService::ThreadLoop(hvn::util::TimerService::ThreadInfo*)";

long long MonotonicUs() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

/// Takes the tasks that match out of `tasks`. The caller holds on to them until its locks are free:
/// what their callbacks own may call back in here when it is destroyed.
template <typename Match>
std::list<TimerService::CbInfo> TakeOut(std::list<TimerService::CbInfo>& tasks, Match match) {
  std::list<TimerService::CbInfo> taken;
  for (auto task = tasks.begin(); task != tasks.end();) {
    const auto next = std::next(task);
    if (match(*task)) taken.splice(taken.end(), tasks, task);
    task = next;
  }
  return taken;
}

bool Contains(const std::vector<uint64_t>& serials, uint64_t serial) {
  return std::find(serials.begin(), serials.end(), serial) != serials.end();
}

}  // namespace

TimerService* TimerService::s_ins_ = nullptr;

TimerService* TimerService::GetInstance() {
  static std::once_flag once;
  std::call_once(once, [] { s_ins_ = new TimerService(); });
  return s_ins_;
}

TimerService::TimerService() : maker_(getpid()), ids_in_use_(kMaxTasks, false) { StartWorker(); }

void TimerService::StartWorker() {
  auto info = std::make_unique<ThreadInfo>();
  std::thread thread =
      StartThread(kConstructor, [this, worker = info.get()] { ThreadLoop(worker); });
  if (!thread.joinable()) return;
  info->thread = std::make_unique<std::thread>(std::move(thread));
  threads_.push_back(info.release());
}

/// The number is taken and the task listed in one step, or a late RemoveTask of the number's
/// earlier task could free it in between.
int TimerService::AddTask(long long interval_us, Callback callback, void* arg) {
  if (interval_us < 1 || !callback) return -1;
  std::lock_guard<Mutex> lock(mutex_);
  if (threads_.empty()) StartWorker();
  if (threads_.empty()) return -1;
  const auto free = std::find(ids_in_use_.begin(), ids_in_use_.end(), false);
  if (free == ids_in_use_.end()) return -1;
  *free = true;
  const int id = static_cast<int>(free - ids_in_use_.begin());
  ThreadInfo* const worker = threads_.front();
  std::lock_guard<Mutex> worker_lock(worker->mutex);
  worker->tasks.push_back(
      {id, 0, interval_us, MonotonicUs(), std::move(callback), arg, ++last_serial_});
  worker->grown = true;
  worker->condition.Signal();
  return id;
}

bool TimerService::RemoveTask(int id) {
  std::list<CbInfo> removed;
  return TakeOutTask(id, removed);
}

bool TimerService::TakeOutTask(int id, std::list<CbInfo>& removed) {
  std::lock_guard<Mutex> lock(mutex_);
  if (id < 0 || id >= static_cast<int>(kMaxTasks) || !ids_in_use_[static_cast<size_t>(id)]) {
    return false;
  }
  for (ThreadInfo* worker : threads_) {
    std::lock_guard<Mutex> worker_lock(worker->mutex);
    removed.splice(removed.end(),
                   TakeOut(worker->tasks, [id](const CbInfo& task) { return task.id == id; }));
  }
  ids_in_use_[static_cast<size_t>(id)] = false;
  return true;
}

bool TimerService::EndTask(int id) {
  std::list<CbInfo> removed;
  const bool was_in_use = TakeOutTask(id, removed);
  if (getpid() != maker_) return was_in_use;  // a forked child has no worker to wait for
  for (ThreadInfo* worker : threads_) {
    std::lock_guard<Mutex> lock(worker->mutex);
    for (const CbInfo& task : removed) worker->ended.push_back(task.serial);
    worker->has_ended = !worker->ended.empty();
    if (worker->thread->get_id() == std::this_thread::get_id()) continue;
    worker->grown = true;  // the wait after the pass is over with that, and its copies go
    worker->condition.Signal();
    const uint64_t pass = worker->pass;
    while (worker->holds_copies && worker->pass == pass) worker->idle.Wait(worker->mutex);
  }
  return was_in_use;
}

void TimerService::ThreadLoop(ThreadInfo* info) {
  HUTIL_ANNOUNCE_THREAD(kThreadLoop);
  // The kernel's 50 us would make each wait that much longer.
  prctl(PR_SET_TIMERSLACK, kTimerSlackNs);
  while (info->running) {
    std::list<CbInfo> due;
    const long long min_time = CollectDue(info, due);
    const long long start = MonotonicUs();
    CallDue(info, due);
    HUTIL_LOG(LOG_DEBUG, "%s %d: execute time_us %jd\n", kThreadLoop, __LINE__,
              static_cast<intmax_t>(MonotonicUs() - start));
    HUTIL_LOG(LOG_DEBUG, "%s %d: min_time %jd\n", kThreadLoop, __LINE__,
              static_cast<intmax_t>(min_time));
    std::lock_guard<Mutex> lock(info->mutex);
    if (min_time >= 1 && !info->grown) info->condition.WaitUntil(info->mutex, min_time);
  }
}

/// A task that RemoveTask takes out meanwhile is still called; one that EndTask does is not.
void TimerService::CallDue(ThreadInfo* info, std::list<CbInfo>& due) {
  for (const CbInfo& task : due) {
    if (info->has_ended) {
      std::lock_guard<Mutex> lock(info->mutex);
      if (Contains(info->ended, task.serial)) continue;
    }
    if (task.callback && !task.callback(task.id, task.arg)) Retire(info, task);
  }
}

/// Copies the tasks that are due and returns how long to wait for the next ones: a due task sets
/// its own interval, which the tasks behind it in the list can only shorten.
long long TimerService::CollectDue(ThreadInfo* info, std::list<CbInfo>& due) {
  std::lock_guard<Mutex> lock(info->mutex);
  info->holds_copies = false;
  info->ended.clear();
  info->has_ended = false;
  info->idle.Broadcast();
  if (info->tasks.empty()) info->condition.Wait(info->mutex);
  info->grown = false;
  const long long now = MonotonicUs();
  long long min_time = kLongestWaitUs;
  for (CbInfo& task : info->tasks) {
    const long long elapsed = now - task.last_run_us;
    if (elapsed < task.interval_us) {
      min_time = std::min(min_time, task.interval_us - elapsed);
      continue;
    }
    task.last_run_us = now;
    task.run_count = static_cast<int>(static_cast<unsigned int>(task.run_count) + 1);  // may wrap
    due.push_back(task);
    min_time = task.interval_us;
  }
  info->holds_copies = !due.empty();
  ++info->pass;
  return min_time;
}

/// Ends a task whose callback returned false, unless it was removed meanwhile: its number may be
/// another task's by now.
void TimerService::Retire(ThreadInfo* info, const CbInfo& retired) {
  std::list<CbInfo> removed;  // outlives the locks
  std::lock_guard<Mutex> lock(mutex_);
  std::lock_guard<Mutex> worker_lock(info->mutex);
  removed = TakeOut(
      info->tasks, [serial = retired.serial](const CbInfo& task) { return task.serial == serial; });
  if (!removed.empty()) ids_in_use_[static_cast<size_t>(retired.id)] = false;
}

TimerManager::TimerManager() : service_(TimerService::GetInstance()) {}

int TimerManager::AddTask(long long interval_us, TimerService::Callback callback, void* arg) {
  return service_->AddTask(interval_us, std::move(callback), arg);
}

bool TimerManager::RemoveTask(int id) { return service_->RemoveTask(id); }

bool TimerManager::EndTask(int id) { return service_->EndTask(id); }

}  // namespace util
}  // namespace hvn
