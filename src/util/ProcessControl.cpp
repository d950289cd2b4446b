#include "util/ProcessControl.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "util/internal/Log.h"
#include "util/internal/UniqueFd.h"

namespace hvn {
namespace util {

namespace {

constexpr size_t kMaxCommLength = 15;

struct DirectoryCloser {
  void operator()(DIR* directory) const { closedir(directory); }
};
using DirectoryPtr = std::unique_ptr<DIR, DirectoryCloser>;

/// Whether the process has that command name; false for one that is gone. One read without a stream
/// around it: this runs for every process of the machine.
bool IsNamed(int pid, const std::string& name) {
  char path[32];
  std::snprintf(path, sizeof(path), "/proc/%d/comm", pid);
  const UniqueFd file(open(path, O_RDONLY | O_CLOEXEC));
  if (file.get() < 0) return false;
  char text[256] = {};
  if (read(file.get(), text, sizeof(text) - 1) < 0) text[0] = '\0';
  text[std::strcspn(text, "\n")] = '\0';
  return std::strcmp(text, name.c_str()) == 0;
}

}  // namespace

pid_t ProcessControl::GetPidByProcessName(std::string name, int lowest_pid) {
  const DirectoryPtr directory(opendir("/proc"));
  if (!directory) return -1;
  if (name.size() > kMaxCommLength) {
    HUTIL_LOG(LOG_WARNING, "%s %d: max /proc/self/comm is 15 resize this data as 15",
              "static pid_t hvn::util::ProcessControl::GetPidByProcessName(std::string, int)",
              __LINE__);
    name.resize(kMaxCommLength);
  }
  while (const dirent* entry = readdir(directory.get())) {
    const int pid = static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
    if (pid >= lowest_pid && IsNamed(pid, name)) return pid;
  }
  return -1;
}

}  // namespace util
}  // namespace hvn
