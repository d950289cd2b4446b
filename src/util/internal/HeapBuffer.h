#ifndef HUTIL_UTIL_INTERNAL_HEAPBUFFER_H_
#define HUTIL_UTIL_INTERNAL_HEAPBUFFER_H_

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace hvn {
namespace util {

struct MemoryFree {
  void operator()(char* memory) const { std::free(memory); }
};

/// Bytes for one read; null where there is no memory, which no reader takes for a reason to throw.
using HeapBuffer = std::unique_ptr<char, MemoryFree>;

/// Zeros, so that who reads beyond what was received meets nothing of other messages.
inline HeapBuffer MakeZeroedBuffer(size_t size) {
  return HeapBuffer(static_cast<char*>(std::calloc(size, 1)));
}

/// Whatever the memory held before.
inline HeapBuffer MakeRawBuffer(size_t size) {
  return HeapBuffer(static_cast<char*>(std::malloc(size)));
}

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_HEAPBUFFER_H_
