#ifndef HUTIL_UTIL_INTERNAL_ATOMICFILE_H_
#define HUTIL_UTIL_INTERNAL_ATOMICFILE_H_

#include <string>

#include "util/internal/UniqueFd.h"

namespace hvn {
namespace util {

/// A folder that other processes which lock it leave alone; see flock(2). Never waits longer than
/// some seconds for one that does not let go.
class LockedFolder {
 public:
  explicit LockedFolder(const char* path);
  /// Unlocks, where closing would not: a process that is forked meanwhile has the descriptor too.
  ~LockedFolder();
  LockedFolder(const LockedFolder&) = delete;
  LockedFolder& operator=(const LockedFolder&) = delete;

  /// If not, errno says why.
  bool is_locked() const { return is_locked_; }
  int fd() const { return fd_.get(); }

 private:
  UniqueFd fd_;
  bool is_locked_ = false;
};

/// Puts a file of that text in the place of `name` in `folder`, with the owner and the mode of the
/// file `old` (below 0: there is none), in such a way that whoever looks, at any time and after any
/// failure, finds the whole old file or the whole new one. Everything is on the medium then. If
/// not, errno says why.
bool ReplaceFile(int folder, const std::string& name, const std::string& text, int old);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_ATOMICFILE_H_
