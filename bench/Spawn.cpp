// bench_spawn SECONDS PROGRAM: the time from starting a program to its end.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Bench.h"

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  alarm(120);
  std::vector<double> times;
  for (const double end = Now() + atof(argv[1]); Now() < end;) {
    const double start = Now();
    pid_t child;
    if (posix_spawn(&child, argv[2], nullptr, nullptr, argv + 2, environ) != 0) Fail(argv[2]);
    int status = 0;
    waitpid(child, &status, 0);
    if (status != 0) Fail(argv[2]);
    times.push_back((Now() - start) * 1e6);
  }
  Report("us", Percentile(times, 0.5));
}
