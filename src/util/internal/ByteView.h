#ifndef HUTIL_UTIL_INTERNAL_BYTEVIEW_H_
#define HUTIL_UTIL_INTERNAL_BYTEVIEW_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace hvn {
namespace util {

/// Some bytes of a netlink datagram. Numbers may be read beyond them, where a short attribute is
/// taken for a longer one, but never beyond the buffer. See netlink(7) and rtnetlink(7).
class ByteView {
 public:
  /// `size` bytes at `data`, of which `readable` are memory that may be read.
  ByteView(const char* data, size_t size, size_t readable)
      : data_(data), size_(size), readable_(readable) {}

  size_t size() const { return size_; }

  /// What follows the first `offset` bytes, `count` at the most.
  ByteView Sub(size_t offset, size_t count = SIZE_MAX) const {
    if (offset > size_) offset = size_;
    return ByteView(data_ + offset, count < size_ - offset ? count : size_ - offset,
                    readable_ - offset);
  }

  /// A number in host order, 0 where the buffer does not hold one.
  template <typename T>
  T Read(size_t offset) const {
    T value = 0;
    if (offset <= readable_ && sizeof(T) <= readable_ - offset) {
      std::memcpy(&value, data_ + offset, sizeof(T));
    }
    return value;
  }

  /// The text up to its terminator, which may stand behind these bytes: senders may count it in or
  /// not. The end of the buffer ends it too.
  std::string Text() const { return std::string(data_, strnlen(data_, readable_)); }

 private:
  const char* data_;
  size_t size_;
  size_t readable_;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_BYTEVIEW_H_
