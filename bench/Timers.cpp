// bench_timers STACK TASKS same|mixed SECONDS: how late periodic tasks run, each counted from its
// own run before, and what a run costs. Intervals are 10 ms (same) or 10 to 19 ms (mixed).
#include <event2/event.h>
#include <syslog.h>
#include <unistd.h>
#include <uv.h>

#include <string>
#include <vector>

#include "Bench.h"
#include "util/TimerManager.h"

namespace {

struct Task {
  int interval_ms;
  double last;
};

constexpr double kWarmUpPart = 0.2;

std::vector<Task> tasks;
std::vector<double> late_us;
double begin;  // of what counts
double cpu = 0;
bool keeps_schedule = false;  // or the next run is an interval after this one

void Run(Task& task) {
  const double now = Now();
  const double interval = task.interval_ms * 1e-3;
  if (cpu == 0 && now > begin) {
    cpu = CpuOf(getpid());
    late_us.clear();
  }
  const double due = task.last + interval;
  late_us.push_back((now - due) * 1e6);
  task.last = keeps_schedule && due + interval > now ? due : now;
}

void Start(Task& task) { task.last = Now(); }

void RunHutil() {
  static hvn::util::TimerManager timers;
  for (Task& task : tasks) {
    Start(task);
    timers.AddTask(
        task.interval_ms * 1000,
        [](int, void* arg) {
          Run(*static_cast<Task*>(arg));
          return true;
        },
        &task);
  }
}

void RunLibuv(double seconds) {
  uv_loop_t* const loop = uv_default_loop();
  for (Task& task : tasks) {
    auto* const timer = new uv_timer_t;
    uv_timer_init(loop, timer);
    timer->data = &task;
    Start(task);
    const auto interval = static_cast<uint64_t>(task.interval_ms);
    uv_timer_start(
        timer, [](uv_timer_t* t) { Run(*static_cast<Task*>(t->data)); }, interval, interval);
  }
  for (const double end = Now() + seconds; Now() < end;) uv_run(loop, UV_RUN_ONCE);
}

void RunLibevent(double seconds) {
  keeps_schedule = true;
  event_config* const config = event_config_new();
  event_config_set_flag(config, EVENT_BASE_FLAG_PRECISE_TIMER);
  event_base* const base = event_base_new_with_config(config);
  for (Task& task : tasks) {
    const timeval interval = {0, task.interval_ms * 1000};
    Start(task);
    event_add(event_new(
                  base, -1, EV_PERSIST,
                  [](evutil_socket_t, short, void* arg) { Run(*static_cast<Task*>(arg)); }, &task),
              &interval);
  }
  for (const double end = Now() + seconds; Now() < end;) event_base_loop(base, EVLOOP_ONCE);
}

/// The floor: a loop that sleeps until the next task is due.
void RunSleep(double seconds) {
  for (Task& task : tasks) Start(task);
  for (const double end = Now() + seconds; Now() < end;) {
    double next = end;
    for (const Task& task : tasks) next = std::min(next, task.last + task.interval_ms * 1e-3);
    timespec until = {};
    until.tv_sec = static_cast<time_t>(next);
    until.tv_nsec = static_cast<long>((next - static_cast<double>(until.tv_sec)) * 1e9);
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
    const double now = Now();
    for (Task& task : tasks) {
      if (task.last + task.interval_ms * 1e-3 <= now) Run(task);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) return 2;
  const std::string stack = argv[1];
  const bool mixed = std::string(argv[3]) == "mixed";
  const double seconds = atof(argv[4]);
  setlogmask(LOG_UPTO(LOG_NOTICE));
  alarm(120);
  for (int i = 0; i < atoi(argv[2]); ++i) tasks.push_back({10 + (mixed ? i % 10 : 0), 0});
  late_us.reserve(1000000);
  begin = Now() + seconds * kWarmUpPart;
  if (stack == "hutil") {
    RunHutil();
    usleep(static_cast<useconds_t>(seconds * 1e6));
  } else if (stack == "libuv") {
    RunLibuv(seconds);
  } else if (stack == "libevent") {
    RunLibevent(seconds);
  } else if (stack == "nanosleep") {
    RunSleep(seconds);
  } else {
    return 2;
  }
  std::vector<double> late = late_us;  // the library's worker still runs
  Report("cpu_us", (CpuOf(getpid()) - cpu) / static_cast<double>(late.size()) * 1e6);
  Report("p50_us", Percentile(late, 0.5));
  Report("p99_us", Percentile(late, 0.99));
  fflush(stdout);
  _exit(0);
}
