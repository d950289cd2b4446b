#ifndef HUTIL_BENCH_BENCH_H_
#define HUTIL_BENCH_BENCH_H_

#include <fcntl.h>
#include <net/if.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

/// What the benchmarks have in common. Each program prints one line "NAME VALUE" per figure.

inline double ReadClock(clockid_t clock) {
  timespec now = {};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// Seconds.
inline double Now() { return ReadClock(CLOCK_MONOTONIC); }

/// Seconds of processor time that a process has used.
inline double CpuOf(pid_t pid) {
  clockid_t clock;
  return clock_getcpuclockid(pid, &clock) == 0 ? ReadClock(clock) : 0;
}

inline void Report(const char* name, double value) { printf("%s %.9g\n", name, value); }

[[noreturn]] inline void Fail(const char* what) {
  perror(what);
  exit(1);
}

/// The floor of what reads a file: its bytes in memory.
inline void ReadWhole(const char* path) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  struct stat status;
  if (fd < 0 || fstat(fd, &status) != 0) Fail(path);
  const auto size = static_cast<size_t>(status.st_size);
  const std::unique_ptr<char[]> text(new char[size]);
  if (read(fd, text.get(), size) != status.st_size) Fail("read");
  close(fd);
}

/// For what writes where a daemon's files are: ends where these are not private.
inline void RequireIsolation() {
  if (if_nametoindex("hutil0") == 0) Fail("not inside scripts/isolate.sh");
}

/// The p-th part of the values, which are sorted by this.
inline double Percentile(std::vector<double>& values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[static_cast<size_t>(p * static_cast<double>(values.size() - 1))];
}

/// Calls again and again for so long, after a first time that does not count; reports the median
/// time of one call, which what else the machine does hardly touches.
template <typename Function>
void ReportCalls(double seconds, Function call) {
  call();
  std::vector<double> times;
  double start = Now();
  for (const double end = start + seconds; start < end;) {
    call();
    const double now = Now();
    times.push_back((now - start) * 1e6);
    start = now;
  }
  Report("us", Percentile(times, 0.5));
}

#endif  // HUTIL_BENCH_BENCH_H_
