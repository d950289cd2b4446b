#include "support/Kit.h"
#include "util/Timer.h"

using namespace hutil_test;
using hvn::util::Timer;
constexpr char kLoop[] = "hvn::Result hvn::util::Timer::Loop()";
std::atomic<bool> s_restless{false};

// Leaves wake-ups the time to come just before the wait, where nobody would hear them. Starting
// does not wake an idle timer: a restless one looks by itself, as any wait may.
extern "C" int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  const timespec never{INT32_MAX, 0};
  usleep(500);
  if (!s_restless) return pthread_cond_timedwait(condition, mutex, &never);
  pthread_mutex_unlock(mutex);
  usleep(1000);
  return pthread_mutex_lock(mutex);
}

TEST(Timer, RunsOnceOrAgainAPeriodAfterEachCallUntilStopped) {
  s_restless = true;
  for (const bool repeat : {false, true}) {
    std::atomic<int> calls{0}, tid{0};
    Timer timer("probe", [&] { usleep(10000), tid = gettid(), ++calls; });
    const auto start = std::chrono::steady_clock::now();
    timer.Start(20000, repeat);
    timer.Start(60000000, !repeat);  // without effect
    EXPECT_TRUE(WaitFor([&] { return calls >= (repeat ? 4 : 1); }, 5000));
    EXPECT_GE(std::chrono::steady_clock::now() - start,
              std::chrono::milliseconds((repeat ? 4 : 1) * 30));
    timer.Stop();
    const int before = calls;
    usleep(200000);
    EXPECT_LE(calls, before + repeat);
    EXPECT_TRUE(Said(LOG_DEBUG, kLoop, "TID [%ld]\n", long{tid}));
    EXPECT_EQ(SystemLines().back(), "echo \"" + std::string(kLoop) + " " +
                                        std::to_string(Logs().back().line + 1) + ": TID [" +
                                        std::to_string(tid) + "]\n\" > /dev/kmsg");
  }
}

TEST(Timer, EndsAtAnyMomentAndCallsBackOnceMoreOnlyWhereItWasArmed) {
  std::atomic<int> calls{0};
  for (int i = 0; i < 200; ++i) {
    Timer timer("idle", [&calls] { ++calls; });
    usleep(5 * unsigned(i));
  }
  for (int i = 0; i < 200; ++i) Timer("no callback", nullptr).Start(i, true);
  EXPECT_EQ(0, calls);
  s_restless = true;
  for (int i = 0; i < 50 && calls == 0; ++i) {  // until one is destroyed in its timed wait
    Timer timer("armed", [&calls] { ++calls; });
    timer.Start(INT64_MAX, true);
    usleep(20000);
  }
  EXPECT_EQ(1, calls);
}
