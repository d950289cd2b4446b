#include "util/internal/Log.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "util/internal/IgnoreResult.h"

namespace hvn {
namespace util {

long ThreadId() { return syscall(SYS_gettid); }

void EchoThreadId(const char* function, int line) {
  char command[4096] = {};
  std::snprintf(command, sizeof(command), "echo \"%s %d: TID [%ld]\n\" > /dev/kmsg", function, line,
                ThreadId());
  IgnoreResult(std::system(command));
}

}  // namespace util
}  // namespace hvn
