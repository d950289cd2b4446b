#ifndef HUTIL_UTIL_INTERNAL_UNIQUEFD_H_
#define HUTIL_UTIL_INTERNAL_UNIQUEFD_H_

#include <unistd.h>

namespace hvn {
namespace util {

/// Owns a descriptor for the length of a scope.
class UniqueFd {
 public:
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() {
    if (fd_ >= 0) close(fd_);
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_UNIQUEFD_H_
