#include "util/internal/Log.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace hvn {
namespace util {

long ThreadId() { return syscall(SYS_gettid); }

void EchoThreadId(const char* function, int line) {
  char command[4096] = {};
  std::snprintf(command, sizeof(command), "echo \"%s %d: TID [%ld]\n\" > /dev/kmsg", function, line,
                ThreadId());
  if (std::system(command) != 0) return;  // best effort
}

}  // namespace util
}  // namespace hvn
