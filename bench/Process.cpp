// bench_process STACK SECONDS: a look through all processes, a hundred more than there were, for a
// name that none has.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "Bench.h"
#include "util/ProcessControl.h"

using hvn::util::ProcessControl;

namespace {

constexpr char kName[] = "no-such-process";
constexpr int kSleepers = 100;

/// So many processes more.
class Sleepers {
 public:
  Sleepers() {
    for (pid_t& child : children_) {
      child = fork();
      if (child < 0) Fail("fork");  // and never kill(-1)
      if (child == 0) Sleep();
    }
  }
  ~Sleepers() {
    for (const pid_t child : children_) kill(child, SIGKILL);
    for (const pid_t child : children_) waitpid(child, nullptr, 0);
  }

 private:
  [[noreturn]] static void Sleep() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) pause();
  }

  pid_t children_[kSleepers];
};

/// The floor.
pid_t Find(const char* name) {
  const size_t length = strlen(name);
  DIR* const directory = opendir("/proc");
  pid_t found = -1;
  while (const dirent* entry = readdir(directory)) {
    if (entry->d_name[0] < '1' || entry->d_name[0] > '9') continue;
    char path[32];
    snprintf(path, sizeof(path), "/proc/%.10s/comm", entry->d_name);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    char text[64];
    const ssize_t n = read(fd, text, sizeof(text));
    close(fd);
    if (n == static_cast<ssize_t>(length) + 1 && memcmp(text, name, length) == 0) {
      found = atoi(entry->d_name);
      break;
    }
  }
  closedir(directory);
  return found;
}

void Spawn(const char* program, const char* option) {
  const char* const arguments[] = {program, option, kName, nullptr};
  pid_t child;
  if (posix_spawnp(&child, program, nullptr, nullptr, const_cast<char**>(arguments), environ) !=
      0) {
    Fail(program);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 1) Fail(program);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  const std::string stack = argv[1];
  const double seconds = atof(argv[2]);
  setlogmask(LOG_UPTO(LOG_NOTICE));
  alarm(120);
  const Sleepers sleepers;
  if (stack == "hutil") {
    ReportCalls(seconds, [] {
      if (ProcessControl::GetPidByProcessName(kName, 1) != -1) Fail("found");
    });
  }
  if (stack == "readdir") {
    ReportCalls(seconds, [] {
      if (Find(kName) != -1) Fail("found");
    });
  }
  if (stack == "pidof") ReportCalls(seconds, [] { Spawn("pidof", "-s"); });
  if (stack == "pgrep") ReportCalls(seconds, [] { Spawn("pgrep", "-x"); });
}
