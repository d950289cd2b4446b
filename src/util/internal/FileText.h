#ifndef HUTIL_UTIL_INTERNAL_FILETEXT_H_
#define HUTIL_UTIL_INTERNAL_FILETEXT_H_

#include <sys/types.h>

#include <cstddef>
#include <string_view>

#include "util/internal/HeapBuffer.h"

namespace hvn {
namespace util {

/// The size of an open file, which is left at its start; negative where it cannot be told.
off_t FileSize(int fd);

/// What one read of an open file finds, up to the first NUL. Empty where memory or the read fails.
class FileText {
 public:
  FileText(int fd, size_t size);
  std::string_view view() const { return view_; }
  /// Whether all of the size was there to be read.
  bool is_whole() const { return is_whole_; }

 private:
  HeapBuffer buffer_;
  std::string_view view_;
  bool is_whole_ = false;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_FILETEXT_H_
