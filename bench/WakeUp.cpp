// bench_wakeup STACK add|ready SECONDS [CPU]: how long until another thread's loop calls back, for
// a readable descriptor that this thread hands over (add), and for one that it makes readable
// (ready).
#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <syslog.h>
#include <unistd.h>
#include <uv.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "Bench.h"
#include "util/FdMonitor.h"

using hvn::util::FdMonitor;
using hvn::util::FdType;

namespace {

constexpr useconds_t kPauseUs = 100;  // the loop is back in its wait by then

std::atomic<double> called_back{0};

int NewEvent(unsigned int value) { return eventfd(value, EFD_NONBLOCK); }

void Take(int fd) {
  uint64_t value;
  if (read(fd, &value, sizeof(value)) < 0) perror("read");
}

void Make(int fd) {
  const uint64_t value = 1;
  if (write(fd, &value, sizeof(value)) < 0) perror("write");
}

void Note(int fd) {
  const double now = Now();
  Take(fd);
  called_back = now;
}

/// A loop in a thread of its own. Add hands over a descriptor; Remove takes it back.
class HutilLoop {
 public:
  void Add(int fd) {
    monitor_.Add(fd, hvn::util::kRead, [](int ready, FdType) { Note(ready); });
  }
  void Remove(int fd) { monitor_.Remove(fd, hvn::util::kRead); }

 private:
  FdMonitor monitor_;
};

class UvLoop {
 public:
  UvLoop() {
    uv_loop_init(&loop_);
    uv_async_init(&loop_, &async_,
                  [](uv_async_t* async) { static_cast<UvLoop*>(async->data)->Change(); });
    async_.data = this;
    std::thread([this] { uv_run(&loop_, UV_RUN_DEFAULT); }).detach();
  }
  void Add(int fd) { Hand(fd); }
  void Remove(int) {
    Hand(-1);
    while (wanted_ != kNothing) usleep(1);
  }

 private:
  static constexpr int kNothing = -2;

  void Hand(int fd) {
    wanted_ = fd;
    uv_async_send(&async_);
  }

  void Change() {
    const int fd = wanted_.exchange(kNothing);
    if (fd >= 0) {
      poll_ = new uv_poll_t;
      uv_poll_init(&loop_, poll_, fd);
      poll_->data = reinterpret_cast<void*>(static_cast<intptr_t>(fd));
      uv_poll_start(poll_, UV_READABLE, [](uv_poll_t* poll, int, int) {
        Note(static_cast<int>(reinterpret_cast<intptr_t>(poll->data)));
      });
    } else if (fd == -1) {
      uv_close(reinterpret_cast<uv_handle_t*>(poll_),
               [](uv_handle_t* poll) { delete reinterpret_cast<uv_poll_t*>(poll); });
    }
  }

  uv_loop_t loop_;
  uv_async_t async_;
  uv_poll_t* poll_ = nullptr;
  std::atomic<int> wanted_{kNothing};
};

/// The floor: select, and an eventfd that says that the descriptor is another one.
class SelectLoop {
 public:
  SelectLoop() : wake_(NewEvent(0)) {
    std::thread([this] { Run(); }).detach();
  }
  void Add(int fd) {
    fd_ = fd;
    Make(wake_);
  }
  void Remove(int) { Add(-1); }

 private:
  void Run() {
    for (;;) {
      fd_set ready;
      FD_ZERO(&ready);
      FD_SET(wake_, &ready);
      const int fd = fd_;
      if (fd >= 0) FD_SET(fd, &ready);
      if (select(std::max(fd, wake_) + 1, &ready, nullptr, nullptr, nullptr) < 1) continue;
      if (FD_ISSET(wake_, &ready)) Take(wake_);
      if (fd >= 0 && FD_ISSET(fd, &ready)) Note(fd);
    }
  }

  int wake_;
  std::atomic<int> fd_{-1};
};

double Await(double start) {
  while (called_back < start) {
    if (Now() > start + 2) Fail("not called back");
  }
  const double latency = called_back - start;
  usleep(kPauseUs);
  return latency;
}

template <typename Loop>
double TimeAdd(Loop& loop) {
  const int fd = NewEvent(1);
  const double start = Now();
  loop.Add(fd);
  const double latency = Await(start);
  loop.Remove(fd);
  usleep(kPauseUs);
  close(fd);
  return latency;
}

double TimeReady(int fd) {
  const double start = Now();
  Make(fd);
  return Await(start);
}

void RunOn(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
}

template <typename Loop>
void Run(bool add, double seconds, int cpu) {
  auto* const loop = new Loop;  // its thread stays on the processor that the process was started on
  if (cpu >= 0) RunOn(cpu);
  const int fd = NewEvent(0);
  if (!add) loop->Add(fd);
  usleep(50000);
  std::vector<double> latencies;
  for (const double end = Now() + seconds; Now() < end;) {
    latencies.push_back((add ? TimeAdd(*loop) : TimeReady(fd)) * 1e6);
  }
  Report("p50_us", Percentile(latencies, 0.5));
  Report("p99_us", Percentile(latencies, 0.99));
  fflush(stdout);
  _exit(0);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  const std::string stack = argv[1];
  const bool add = std::string(argv[2]) == "add";
  const double seconds = atof(argv[3]);
  const int cpu = argc > 4 ? atoi(argv[4]) : -1;
  setlogmask(LOG_UPTO(LOG_NOTICE));
  alarm(120);
  if (stack == "hutil") Run<HutilLoop>(add, seconds, cpu);
  if (stack == "libuv") Run<UvLoop>(add, seconds, cpu);
  if (stack == "select") Run<SelectLoop>(add, seconds, cpu);
  return 2;
}
