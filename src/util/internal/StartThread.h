#ifndef HUTIL_UTIL_INTERNAL_STARTTHREAD_H_
#define HUTIL_UTIL_INTERNAL_STARTTHREAD_H_

#include <system_error>
#include <thread>
#include <utility>

namespace hvn {
namespace util {

/// A started thread, or an empty one where the system has none to give: no constructor of the
/// library throws for that.
template <typename... Args>
std::thread StartThread(Args&&... args) {
  try {
    return std::thread(std::forward<Args>(args)...);
  } catch (const std::system_error&) {
    return {};
  }
}

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_STARTTHREAD_H_
