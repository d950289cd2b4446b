#ifndef HUTIL_UTIL_INTERNAL_STARTTHREAD_H_
#define HUTIL_UTIL_INTERNAL_STARTTHREAD_H_

#include <functional>
#include <thread>

#include "util/Thread.h"

namespace hvn {
namespace util {

/// A started thread, or an empty one where the system has none to give, which is logged for
/// `function`: no constructor of the library throws for that.
std::thread StartThread(const char* function, std::function<void()> body);

/// Lets go of the handle of a thread that this process does not have, being forked from the one
/// that has it: such a thread can neither be joined nor detached.
void AbandonThread(Thread& thread);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_STARTTHREAD_H_
