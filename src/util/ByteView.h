#ifndef HUTIL_UTIL_BYTEVIEW_H_
#define HUTIL_UTIL_BYTEVIEW_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace hvn {
namespace util {

/// Reads of a netlink datagram that stay within its bytes. See netlink(7) and rtnetlink(7).
class ByteView {
 public:
  ByteView(const char* data, size_t size) : data_(data), size_(size) {}

  size_t size() const { return size_; }

  /// What follows the first `offset` bytes, `count` at the most.
  ByteView Sub(size_t offset, size_t count = SIZE_MAX) const {
    if (offset > size_) offset = size_;
    return ByteView(data_ + offset, count < size_ - offset ? count : size_ - offset);
  }

  /// A number in host order, 0 where the bytes do not hold one.
  template <typename T>
  T Read(size_t offset) const {
    T value = 0;
    if (offset <= size_ && sizeof(T) <= size_ - offset) {
      std::memcpy(&value, data_ + offset, sizeof(T));
    }
    return value;
  }

  /// The text up to its terminator, or to the end where it has none.
  std::string Text() const { return std::string(data_, strnlen(data_, size_)); }

 private:
  const char* data_;
  size_t size_;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_BYTEVIEW_H_
