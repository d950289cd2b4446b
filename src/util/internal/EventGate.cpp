#include "util/internal/EventGate.h"

#include <sys/socket.h>

#include <cstdint>
#include <mutex>

namespace hvn {
namespace util {

namespace {
constexpr int64_t kWaitUs = 100000;
constexpr int kWaits = 10;
}  // namespace

bool EventGate::Enter() {
  std::lock_guard<Mutex> lock(mutex_);
  busy_ = !shut_;
  return busy_;
}

void EventGate::Leave() {
  std::lock_guard<Mutex> lock(mutex_);
  busy_ = false;
  waits_for_ = -1;
  if (shut_) idle_.Signal();
}

bool EventGate::SetWaitsFor(int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  waits_for_ = fd;
  return !shut_;
}

void EventGate::Shut() {
  std::lock_guard<Mutex> lock(mutex_);
  shut_ = true;
}

bool EventGate::AwaitEnd() {
  std::lock_guard<Mutex> lock(mutex_);
  for (int i = 0; busy_ && i < kWaits; ++i) idle_.WaitUntil(mutex_, kWaitUs);
  if (busy_ && waits_for_ >= 0) shutdown(waits_for_, SHUT_RDWR);
  return !busy_;
}

}  // namespace util
}  // namespace hvn
