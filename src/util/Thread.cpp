#include "util/Thread.h"

namespace hvn {
namespace util {

namespace {
[[maybe_unused]] const std::string kTag = "util::Thread";  // for a debugger
}  // namespace

hvn::Result Thread::Join() {
  if (!thread_.joinable()) return hvn::kFailure;
  thread_.join();
  return hvn::kSuccess;
}

hvn::Result Thread::Detach() {
  thread_.detach();
  return hvn::kSuccess;
}

}  // namespace util
}  // namespace hvn
