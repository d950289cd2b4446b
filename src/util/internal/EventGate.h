#ifndef HUTIL_UTIL_INTERNAL_EVENTGATE_H_
#define HUTIL_UTIL_INTERNAL_EVENTGATE_H_

#include "util/Thread.h"

namespace hvn {
namespace util {

/// Lets the events of a server's loop in, one at a time, until the server goes, and tells when the
/// one under way is over.
class EventGate {
 public:
  /// False where the server is going.
  bool Enter();
  void Leave();
  /// Notes the descriptor that the event waits for from now on, or -1 for none any more. False
  /// where the server is going: a wait begun now would be waited for.
  bool SetWaitsFor(int fd);

  /// No further event enters.
  void Shut();
  /// Whether the event under way, if any, ends within a second; what it waits for is shut down if
  /// not.
  bool AwaitEnd();

 private:
  Mutex mutex_;
  Condition idle_;
  bool busy_ = false;
  bool shut_ = false;
  int waits_for_ = -1;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_EVENTGATE_H_
