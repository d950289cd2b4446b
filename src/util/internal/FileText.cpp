#include "util/internal/FileText.h"

#include <unistd.h>

#include <cstring>

namespace hvn {
namespace util {

off_t FileSize(int fd) {
  const off_t size = lseek(fd, 0, SEEK_END);
  lseek(fd, 0, SEEK_SET);
  return size;
}

FileText::FileText(int fd, size_t size) : buffer_(MakeRawBuffer(size)) {
  if (!buffer_) return;
  const ssize_t n = read(fd, buffer_.get(), size);
  is_whole_ = n == static_cast<ssize_t>(size);
  if (n > 0) view_ = {buffer_.get(), strnlen(buffer_.get(), static_cast<size_t>(n))};
}

}  // namespace util
}  // namespace hvn
