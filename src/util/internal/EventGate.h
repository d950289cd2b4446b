#ifndef HUTIL_UTIL_INTERNAL_EVENTGATE_H_
#define HUTIL_UTIL_INTERNAL_EVENTGATE_H_

#include <pthread.h>

#include <atomic>

#include "util/Thread.h"

namespace hvn {
namespace util {

/// Lets the events of a server's loop in, one at a time, until the server goes, and tells when the
/// one under way is over. Entering and leaving take no lock, as every message does both: of the
/// event's flag and the server's, each side sets its own before it looks at the other's.
class EventGate {
 public:
  /// False where the server is going. Loop thread.
  bool Enter();
  /// Loop thread.
  void Leave();
  /// Notes the descriptor that the event waits for from now on, or -1 for none any more. False
  /// where the server is going: a wait begun now would be waited for. Loop thread.
  bool SetWaitsFor(int fd);
  /// Whether the calling thread is the one whose event is under way. Any thread.
  bool IsInside() const;

  /// No further event enters. Any other thread.
  void Shut();
  /// Whether the event under way, if any, ends within a second; what it waits for is shut down if
  /// not. Any other thread.
  bool AwaitEnd();
  /// In a forked child: forgets whom the parent's threads wait for.
  void AbandonParent();

 private:
  std::atomic<bool> busy_{false};
  std::atomic<bool> shut_{false};
  std::atomic<pthread_t> thread_{};  ///< Of the event under way.
  Mutex mutex_;                      ///< Guards waits_for_, and orders the signal behind the wait.
  Condition idle_;
  int waits_for_ = -1;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_EVENTGATE_H_
