#include "util/internal/EventGate.h"

#include <sys/socket.h>

#include <cstdint>
#include <mutex>

#include "util/internal/StartThread.h"

namespace hvn {
namespace util {

namespace {
constexpr int64_t kWaitUs = 100000;
constexpr int kWaits = 10;
}  // namespace

bool EventGate::Enter() {
  thread_.store(pthread_self(), std::memory_order_relaxed);
  busy_ = true;
  if (!shut_) return true;
  Leave();
  return false;
}

void EventGate::Leave() {
  busy_ = false;
  if (!shut_) return;
  std::lock_guard<Mutex> lock(mutex_);
  idle_.Signal();
}

bool EventGate::SetWaitsFor(int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  waits_for_ = fd;
  return !shut_;
}

bool EventGate::IsInside() const {
  const pthread_t thread = thread_.load(std::memory_order_relaxed);
  return busy_ && pthread_equal(thread, pthread_self()) != 0;
}

void EventGate::Shut() { shut_ = true; }

bool EventGate::AwaitEnd() {
  std::lock_guard<Mutex> lock(mutex_);
  for (int i = 0; busy_ && i < kWaits; ++i) idle_.WaitUntil(mutex_, kWaitUs);
  if (busy_ && waits_for_ >= 0) shutdown(waits_for_, SHUT_RDWR);
  return !busy_;
}

void EventGate::AbandonParent() { Abandon(idle_); }

}  // namespace util
}  // namespace hvn
