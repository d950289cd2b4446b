#ifndef HUTIL_UTIL_INTERNAL_LOG_H_
#define HUTIL_UTIL_INTERNAL_LOG_H_

#include <syslog.h>

/// One diagnostic: exactly one call of syslog with the priority, the format as it stands in the
/// documentation and its arguments, so that a process that interposes syslog sees all three.
/// The text of the function that most formats begin with is written out at the call site: what a
/// compiler makes of a signature differs between compilers, and helpers log for their callers.
#define HUTIL_LOG(priority, ...) ::syslog((priority), __VA_ARGS__)

namespace hvn {
namespace util {

/// The kernel's number of the calling thread.
long ThreadId();

/// Echoes "FUNCTION LINE: TID [N]" into the kernel log through a shell. Whether that works is of no
/// account: /dev/kmsg need not be writable.
void EchoThreadId(const char* function, int line);

}  // namespace util
}  // namespace hvn

/// How a long-lived thread announces itself when it starts.
#define HUTIL_ANNOUNCE_THREAD(function)                                                        \
  do {                                                                                         \
    HUTIL_LOG(LOG_DEBUG, "%s %d: TID [%ld]\n", (function), __LINE__, ::hvn::util::ThreadId()); \
    ::hvn::util::EchoThreadId((function), __LINE__ + 1);                                       \
  } while (false)

#endif  // HUTIL_UTIL_INTERNAL_LOG_H_
