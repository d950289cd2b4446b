#include "util/Timer.h"

#include <unistd.h>

#include <mutex>
#include <utility>

#include "util/internal/Log.h"
#include "util/internal/StartThread.h"

namespace hvn {
namespace util {

// running_ is true before the thread exists, so that a destructor that comes first is not undone.
Timer::Timer(std::string /*name*/, std::function<void()> callback)
    : maker_(getpid()),
      running_(true),
      armed_(false),
      repeat_(false),
      period_us_(0),
      callback_(std::move(callback)) {
  StartThread();
}

Timer::Timer(std::string /*name*/, std::function<void()> callback, long long period_us, bool repeat)
    : maker_(getpid()),
      running_(true),
      armed_(true),
      repeat_(repeat),
      period_us_(period_us),
      callback_(std::move(callback)) {
  StartThread();
}

void Timer::StartThread() {
  thread_ = util::StartThread("hvn::util::Timer::Timer(std::string, std::function<void()>)",
                              [this] { Loop(); });
}

Timer::~Timer() {
  if (getpid() != maker_) {
    Abandon(thread_);
    Abandon(condition_);
    return;
  }
  running_ = false;
  armed_ = false;
  Wake();
  thread_.Join();
}

/// Under the lock, so that no wake-up falls between the thread's last look at its flags and its
/// wait. A callback that is running holds the lock and is waited for.
void Timer::Wake() {
  std::lock_guard<Mutex> lock(mutex_);
  condition_.Broadcast();
}

hvn::Result Timer::Start(long long period_us, bool repeat) {
  std::lock_guard<Mutex> lock(mutex_);
  if (armed_) return hvn::kSuccess;
  repeat_ = repeat;
  period_us_ = period_us;
  armed_ = true;
  return hvn::kSuccess;
}

hvn::Result Timer::Stop() {
  std::lock_guard<Mutex> lock(mutex_);
  armed_ = false;
  repeat_ = false;
  return hvn::kSuccess;
}

hvn::Result Timer::Loop() {
  HUTIL_ANNOUNCE_THREAD("hvn::Result hvn::util::Timer::Loop()");
  while (running_) {
    WaitUntilArmed();
    RunArmed();
  }
  return hvn::kSuccess;
}

void Timer::WaitUntilArmed() {
  std::lock_guard<Mutex> lock(mutex_);
  if (!armed_ && running_) condition_.Wait(mutex_);
}

/// However the wait ended, by time, by a wake-up or in Stop, the callback runs once.
void Timer::RunArmed() {
  std::lock_guard<Mutex> lock(mutex_);
  if (!armed_ || !running_) return;
  condition_.WaitUntil(mutex_, period_us_);
  if (callback_) callback_();
  if (!repeat_) armed_ = false;
}

}  // namespace util
}  // namespace hvn
