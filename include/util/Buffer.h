#ifndef HUTIL_UTIL_BUFFER_H_
#define HUTIL_UTIL_BUFFER_H_

#include <string>

#include "util/Export.h"

namespace hvn {
namespace util {

/// An owned byte buffer that grows by appending, for instance the body of an HTTP response.
///
///     Buffer body(4096);
///     body.Copy(bytes, count);
///     Consume(body.data(), body.length());
///
/// A value: copies are independent. One thread at a time; nothing logs.
class HUTIL_EXPORT Buffer {
 public:
  /// An empty buffer that allocates at its first Copy. Owner.
  Buffer();
  /// A buffer of `size` zero bytes of room, so that the first appends do not allocate. Owner.
  explicit Buffer(unsigned int size);
  Buffer(const Buffer& other);
  Buffer& operator=(const Buffer& other);
  ~Buffer();

  /// Appends `len` bytes at `data`, which may lie in this buffer. Grows to the exact need.
  /// True; false, with nothing changed, for a null `data` with bytes to copy and for more than
  /// an unsigned int can count. Throws std::bad_alloc where there is no memory. Owner.
  bool Copy(unsigned char* data, unsigned int len);

  /// The first readable byte; valid until the next Copy or Clear, also while empty. The bytes
  /// behind the readable ones, up to capacity(), are zero. Owner.
  unsigned char* data();
  const unsigned char* data() const;
  /// Bytes appended since construction or Clear. Owner.
  unsigned int length() const;
  /// Bytes of room, those in use included. Owner.
  unsigned int capacity() const;
  /// Readable bytes. Owner.
  unsigned int size() const;

  /// Drops the bytes and the room; the next Copy allocates again. Owner.
  void Clear();

 private:
  std::string storage_;
  unsigned int length_;
  unsigned int head_;  ///< Always 0: where a consumer of the front would begin.
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_BUFFER_H_
