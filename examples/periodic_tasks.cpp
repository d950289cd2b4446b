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

/// One last call may be under way when RemoveTask returns, so what a task uses must outlive it.
int s_polls = 0;
int s_tries = 0;

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

  TimerManager timers;
  const int poll = timers.AddTask(1000LL * period_ms, Poll, &s_polls);
  const int retry = timers.AddTask(1000LL * period_ms, Retry, &s_tries);
  if (poll < 0 || retry < 0) return EXIT_FAILURE;
  int caught = 0;
  sigwait(&ending, &caught);
  timers.RemoveTask(poll);
  return EXIT_SUCCESS;
}
