#ifndef HUTIL_UTIL_INTERNAL_UNIQUEFD_H_
#define HUTIL_UTIL_INTERNAL_UNIQUEFD_H_

#include <fcntl.h>
#include <unistd.h>

#include "util/internal/IgnoreResult.h"

namespace hvn {
namespace util {

/// Owns a descriptor for the length of a scope.
class UniqueFd {
 public:
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { Reset(); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  void Reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

/// Keeps `fd` from the programs that the daemon executes: one that outlives it would hold its
/// addresses. A call of its own, since daemons interpose socket and eventfd and know their
/// arguments; below 0 nothing happens.
inline int CloseOnExec(int fd) {
  if (fd >= 0) IgnoreResult(fcntl(fd, F_SETFD, FD_CLOEXEC));
  return fd;
}

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_UNIQUEFD_H_
