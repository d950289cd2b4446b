#ifndef EXAMPLES_GATEWAYD_SLOWLANE_H_
#define EXAMPLES_GATEWAYD_SLOWLANE_H_

#include <functional>
#include <mutex>
#include <thread>

#include "util/Thread.h"

/// Threads for the few commands that wait for another host, so that no event loop has to.
class SlowLane {
 public:
  /// False where every lane is taken, and once the lanes are closed.
  bool Run(std::function<void()> job) {
    std::lock_guard<hvn::util::Mutex> lock(mutex_);
    if (closed_ || running_ == kLanes) return false;
    ++running_;
    hvn::util::Thread thread;
    thread = std::thread([this, job = std::move(job)] {
      job();
      std::lock_guard<hvn::util::Mutex> done(mutex_);
      --running_;
    });
    thread.Detach();
    return true;
  }

  /// Lets no job in any more. Whether those under way have ended within about two seconds: neither
  /// a transfer nor a look-up can be called off.
  bool Close() {
    std::lock_guard<hvn::util::Mutex> lock(mutex_);
    closed_ = true;
    for (int i = 0; running_ > 0 && i < kPartingWaits; ++i) never_.WaitUntil(mutex_, 100000);
    return running_ == 0;
  }

 private:
  static constexpr int kLanes = 4;
  static constexpr int kPartingWaits = 20;

  hvn::util::Mutex mutex_;
  hvn::util::Condition never_;
  int running_ = 0;
  bool closed_ = false;
};

#endif  // EXAMPLES_GATEWAYD_SLOWLANE_H_
