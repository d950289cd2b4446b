#include "util/FileText.h"

#include <unistd.h>

#include <cstring>

namespace hvn {
namespace util {

off_t FileSize(int fd) {
  const off_t size = lseek(fd, 0, SEEK_END);
  lseek(fd, 0, SEEK_SET);
  return size;
}

FileText::FileText(int fd, size_t size) : buffer_(MakeReceiveBuffer(size + 1)) {
  if (!buffer_ || read(fd, buffer_.get(), size) < 0) return;
  view_ = buffer_.get();  // zeroed, so also a file that has shrunk is terminated
}

}  // namespace util
}  // namespace hvn
