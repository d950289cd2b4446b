#ifndef HUTIL_UTIL_INTERNAL_RECEIVEBUFFER_H_
#define HUTIL_UTIL_INTERNAL_RECEIVEBUFFER_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace hvn {
namespace util {

struct MemoryFree {
  void operator()(char* memory) const { std::free(memory); }
};

/// Memory for one receive; null where there is none, so that the data waits in the kernel.
using ReceiveBuffer = std::unique_ptr<char, MemoryFree>;

inline ReceiveBuffer MakeReceiveBuffer(size_t size) {
  return ReceiveBuffer(static_cast<char*>(std::malloc(size)));
}

/// Zeroes what `received` bytes have left of a buffer: a callback that reads too far meets zeros,
/// not what another message or another part of the process wrote there.
inline void ZeroRest(char* buffer, ssize_t received, size_t size) {
  std::memset(buffer + received, 0, size - static_cast<size_t>(received));
}

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_RECEIVEBUFFER_H_
