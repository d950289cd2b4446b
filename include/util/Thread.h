#ifndef HUTIL_UTIL_THREAD_H_
#define HUTIL_UTIL_THREAD_H_

#include <pthread.h>
#include <time.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <thread>
#include <utility>

#include "util/Export.h"
#include "util/Result.h"

namespace hvn {
namespace util {

/// Holds one running thread, or none.
///
///     Thread worker;
///     worker = std::thread(Work);
///     worker.Join();
class Thread {
 public:
  Thread() = default;
  /// Takes over a started thread; the one held before must have been joined or detached. Owner.
  Thread& operator=(std::thread&& thread) {
    thread_ = std::move(thread);
    return *this;
  }

  /// Waits for the thread's end. kFailure, with no log line, where none is held. Not to be called
  /// from the thread itself. Owner. See pthread_join(3).
  HUTIL_EXPORT hvn::Result Join();
  /// Lets the thread run on by itself. kSuccess; throws std::system_error where none is held.
  /// Owner. See pthread_detach(3).
  HUTIL_EXPORT hvn::Result Detach();

 private:
  std::thread thread_;
};

/// A POSIX mutex with default attributes: not recursive. Works with std::lock_guard<Mutex>.
class Mutex {
 public:
  Mutex() { pthread_mutex_init(&mutex_, nullptr); }
  ~Mutex() { pthread_mutex_destroy(&mutex_); }
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  /// Any thread. See pthread_mutex_lock(3).
  void lock() { pthread_mutex_lock(&mutex_); }
  /// By the thread that locked. See pthread_mutex_unlock(3).
  void unlock() { pthread_mutex_unlock(&mutex_); }
  /// The POSIX mutex, still owned by this object. Any thread.
  pthread_mutex_t* native() { return &mutex_; }

 private:
  pthread_mutex_t mutex_;
};

/// A condition whose timed waits follow CLOCK_MONOTONIC: setting the clock neither shortens nor
/// stretches them.
///
///     std::lock_guard<Mutex> lock(mutex);
///     while (!ready) condition.WaitUntil(mutex, 500000);
class Condition {
 public:
  Condition() {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&condition_, &attributes);
    pthread_condattr_destroy(&attributes);
  }
  ~Condition() { pthread_cond_destroy(&condition_); }
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  /// Names the condition: each timed wait then echoes `name` into the kernel log through a shell,
  /// so the name must hold no shell syntax. To be set before the condition is used. Owner.
  void SetName(std::string name) { name_ = std::move(name); }

  /// Waits for a wake-up, with `mutex` locked by the caller. Any thread. See pthread_cond_wait(3).
  void Wait(Mutex& mutex) { pthread_cond_wait(&condition_, mutex.native()); }

  /// Waits at most `timeout_us` microseconds from now, with `mutex` locked by the caller; 0 or less
  /// returns at once. kSuccess however the wait ended: the caller checks its own state again. Any
  /// thread. See pthread_cond_timedwait(3).
  hvn::Result WaitUntil(Mutex& mutex, int64_t timeout_us) {
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    if (!name_.empty()) EchoName();
    if (timeout_us < 0) timeout_us = 0;
    const int64_t seconds = timeout_us / 1000000;
    // Cut to what time_t holds, which is 32 bits on some ARM systems: it must not wrap around.
    const int64_t latest = std::numeric_limits<decltype(deadline.tv_sec)>::max() - 1;
    deadline.tv_sec = static_cast<decltype(deadline.tv_sec)>(
        seconds < latest - deadline.tv_sec ? deadline.tv_sec + seconds : latest);
    deadline.tv_nsec += static_cast<long>(timeout_us % 1000000) * 1000;
    if (deadline.tv_nsec > 999999999) {
      ++deadline.tv_sec;
      deadline.tv_nsec -= 1000000000;
    }
    pthread_cond_timedwait(&condition_, mutex.native(), &deadline);
    return hvn::kSuccess;
  }

  /// Wakes one waiting thread. Any thread. See pthread_cond_signal(3).
  void Signal() { pthread_cond_signal(&condition_); }
  /// Wakes every waiting thread. Any thread. See pthread_cond_broadcast(3).
  void Broadcast() { pthread_cond_broadcast(&condition_); }

 private:
  void EchoName() const {
    char command[4096] = {};
    std::snprintf(command, sizeof(command), "echo \"%s %d: name %s\" > /dev/kmsg",
                  "hvn::Result hvn::util::Condition::WaitUntil(hvn::util::Mutex&, int64_t)",
                  __LINE__, name_.c_str());
    if (std::system(command) != 0) return;  // best effort: /dev/kmsg need not be writable
  }

  pthread_cond_t condition_;
  std::string name_;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_THREAD_H_
