#ifndef HUTIL_UTIL_INTERNAL_STARTTHREAD_H_
#define HUTIL_UTIL_INTERNAL_STARTTHREAD_H_

#include <functional>
#include <new>
#include <thread>

namespace hvn {
namespace util {

/// A started thread, or an empty one where the system has none to give, which is logged for
/// `function`: no constructor of the library throws for that.
std::thread StartThread(const char* function, std::function<void()> body);

/// Puts a fresh object in the place of one that a forked child has from its parent and whose
/// destruction would wait for a thread of the parent's: a Thread, or a Condition that one waits on.
template <typename T>
void Abandon(T& object) {
  ::new (static_cast<void*>(&object)) T();
}

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_STARTTHREAD_H_
