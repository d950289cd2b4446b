#ifndef HUTIL_UTIL_RECEIVEBUFFER_H_
#define HUTIL_UTIL_RECEIVEBUFFER_H_

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace hvn {
namespace util {

struct MemoryFree {
  void operator()(char* memory) const { std::free(memory); }
};

/// Zeroed memory for one receive; null where there is none, so that the data waits in the kernel.
using ReceiveBuffer = std::unique_ptr<char, MemoryFree>;

inline ReceiveBuffer MakeReceiveBuffer(size_t size) {
  return ReceiveBuffer(static_cast<char*>(std::calloc(1, size)));
}

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_RECEIVEBUFFER_H_
