// Two tasks on the process's timer service: one for as long as the daemon runs, one that ends
// itself.
//
//     periodic_tasks MILLISECONDS

#include <signal.h>

#include <cstdio>
#include <cstdlib>

#include "util/Misc.h"
#include "util/TimerManager.h"

using hvn::util::Misc;
using hvn::util::TimerManager;

namespace {

constexpr int kTries = 3;

bool Poll(int task, void* arg) {
  int& polls = *static_cast<int*>(arg);
  std::printf("task %d: poll %d\n", task, ++polls);
  return true;
}

bool Retry(int task, void* arg) {
  int& tries = *static_cast<int*>(arg);
  std::printf("task %d: try %d of %d\n", task, ++tries, kTries);
  return tries < kTries;  // false ends the task, and its number is free again
}

}  // namespace

int main(int argc, char** argv) {
  bool failed = argc != 2;
  const int period_ms = failed ? 0 : Misc::StoiWithException(argv[1], failed);
  if (failed || period_ms < 1) {
    std::fprintf(stderr, "usage: periodic_tasks MILLISECONDS\n");
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  sigset_t ending;  // blocked before any thread starts: only sigwait takes them
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);

  int polls = 0;
  int tries = 0;
  TimerManager timers;
  const int poll = timers.AddTask(1000LL * period_ms, Poll, &polls);
  const int retry = timers.AddTask(1000LL * period_ms, Retry, &tries);
  if (poll < 0 || retry < 0) return EXIT_FAILURE;
  int caught = 0;
  sigwait(&ending, &caught);
  timers.EndTask(poll);  // no call is under way after this, so that what they use may go
  timers.EndTask(retry);
  return EXIT_SUCCESS;
}
