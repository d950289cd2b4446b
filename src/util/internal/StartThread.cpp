#include "util/internal/StartThread.h"

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

}  // namespace util
}  // namespace hvn
