#include "util/internal/StartThread.h"

#include <new>
#include <system_error>
#include <utility>

#include "util/internal/Log.h"

namespace hvn {
namespace util {

std::thread StartThread(const char* function, std::function<void()> body) {
  try {
    return std::thread(std::move(body));
  } catch (const std::system_error& error) {
    HUTIL_LOG(LOG_ERR, "%s %d: cannot start thread errno [%d]\n", function, __LINE__,
              error.code().value());
    return {};
  }
}

// The handle is a number: nothing is lost by writing an empty one over it.
void AbandonThread(Thread& thread) { ::new (&thread) Thread(); }

}  // namespace util
}  // namespace hvn
