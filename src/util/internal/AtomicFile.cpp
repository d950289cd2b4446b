#include "util/internal/AtomicFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "util/internal/Deadline.h"

namespace hvn {
namespace util {

namespace {

constexpr int kLockLimitMs = 5000;
constexpr useconds_t kLockPauseUs = 5000;
constexpr mode_t kMode = 0644;
constexpr mode_t kPrivateMode = 0600;

bool WriteAll(int fd, const std::string& text) {
  for (size_t written = 0; written < text.size();) {
    const ssize_t n = write(fd, text.data() + written, text.size() - written);
    if (n < 0 && errno != EINTR) return false;
    if (n > 0) written += static_cast<size_t>(n);
  }
  return true;
}

/// Only root may give a file away, so nothing is asked for that is there already.
bool TakeOwnerAndMode(int fd, int old) {
  struct stat wanted = {};
  struct stat made = {};
  if (fstat(old, &wanted) != 0 || fstat(fd, &made) != 0) return false;
  const bool same_owner = wanted.st_uid == made.st_uid && wanted.st_gid == made.st_gid;
  if (!same_owner && fchown(fd, wanted.st_uid, wanted.st_gid) != 0) return false;
  return fchmod(fd, wanted.st_mode & 07777) == 0;
}

bool Fill(int fd, const std::string& text, int old) {
  return (old < 0 || TakeOwnerAndMode(fd, old)) && WriteAll(fd, text) && fsync(fd) == 0;
}

}  // namespace

LockedFolder::LockedFolder(const char* path) : fd_(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  const Deadline deadline(kLockLimitMs);
  while (fd_.get() >= 0 && !is_locked_) {
    is_locked_ = flock(fd_.get(), LOCK_EX | LOCK_NB) == 0;
    if (is_locked_) return;
    if ((errno != EWOULDBLOCK && errno != EINTR) || deadline.RemainingMs() == 0) return;
    usleep(kLockPauseUs);
  }
}

LockedFolder::~LockedFolder() {
  if (is_locked_) flock(fd_.get(), LOCK_UN);
}

bool ReplaceFile(int folder, const std::string& name, const std::string& text, int old) {
  const std::string fresh = name + ".new";
  unlinkat(folder, fresh.c_str(), 0);  // what a process that was killed has left
  // Nobody may read what the old file's mode forbids, not even for a moment.
  const mode_t mode = old < 0 ? kMode : kPrivateMode;
  const UniqueFd fd(openat(folder, fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
  if (fd.get() < 0) return false;
  if (Fill(fd.get(), text, old) && renameat(folder, fresh.c_str(), folder, name.c_str()) == 0) {
    return fsync(folder) == 0;
  }
  const int error = errno;
  unlinkat(folder, fresh.c_str(), 0);
  errno = error;
  return false;
}

}  // namespace util
}  // namespace hvn
