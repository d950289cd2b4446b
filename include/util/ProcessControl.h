#ifndef HUTIL_UTIL_PROCESSCONTROL_H_
#define HUTIL_UTIL_PROCESSCONTROL_H_

#include <sys/types.h>

#include <string>

#include "util/Export.h"

namespace hvn {
namespace util {

/// Finds running programs.
///
///     pid_t pid = ProcessControl::GetPidByProcessName("dnsmasq", 1);
///     if (pid > 0) kill(pid, SIGHUP);
class HUTIL_EXPORT ProcessControl {
 public:
  /// The first process, in the order of /proc, whose command name is `name` and whose number is
  /// `lowest_pid` or more; the caller's own process counts. The kernel keeps 15 characters of a
  /// name, so a longer `name` is cut, which logs a warning (4). -1 where there is none. Any thread.
  /// See proc(5), /proc/[pid]/comm.
  static pid_t GetPidByProcessName(std::string name, int lowest_pid);
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_PROCESSCONTROL_H_
