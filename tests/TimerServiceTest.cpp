#include <climits>

#include "support/Kit.h"
#include "util/TimerManager.h"
#include "util/TimerService.h"

using namespace hutil_test;
constexpr long long kHour = 3600000000;
constexpr char kThreadLoop[] =
    "void hvn::util::TimerService::ThreadLoop(hvn::util::TimerService::ThreadInfo*)";

struct TimerService : testing::Test {
  TimerService() { AllowLeftovers(0, 1); }
  hvn::util::TimerManager timers;
};

bool Keep(int, void*) { return true; }

TEST_F(TimerService, WorkerAnnouncesItselfAndReportsItsPasses) {
  std::atomic<int> runs{0}, tid{0};
  const auto twice = [](int, void* count) { return ++*static_cast<decltype(runs)*>(count) % 2; };
  const auto slow = [&tid](int, void*) { return usleep(5000) == 0 && (tid = gettid()) > 0; };
  const auto waits_in_full = [] {
    return bool(Said(LOG_DEBUG, kThreadLoop, "min_time %jd\n", intmax_t{100000}));
  };
  const auto begin = [&](int, void*) {  // the worker meets both of these at once
    timers.AddTask(100000, twice, &runs);
    return timers.AddTask(30000, slow, nullptr) < 0;
  };
  const auto start = std::chrono::steady_clock::now();
  timers.AddTask(1, begin, nullptr);
  EXPECT_TRUE(WaitFor([&runs] { return runs == 2; }, 5000));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2 * 100));
  EXPECT_FALSE(waits_in_full()) << "the task behind it comes earlier";
  timers.AddTask(100000, twice, &runs);
  EXPECT_TRUE(WaitFor([&] { return runs == 4 && waits_in_full(); }, 5000)) << "as the last one";
  EXPECT_TRUE(timers.RemoveTask(2));

  intmax_t longest = 0;
  for (const LogLine& log : Logs()) {
    if (log.format != "%s %d: execute time_us %jd\n") continue;
    longest = std::max<intmax_t>(longest, std::stoll(log.text.substr(log.text.rfind(' '))));
  }
  EXPECT_TRUE(Said(LOG_DEBUG, kThreadLoop, "execute time_us %jd\n", longest) && longest >= 5000);
  EXPECT_TRUE(Said(LOG_DEBUG, kThreadLoop, "TID [%ld]\n", long{tid}));
  EXPECT_EQ(SystemLines().at(0), "echo \"" + std::string(kThreadLoop) + " " +
                                     std::to_string(Logs().at(0).line + 1) + ": TID [" +
                                     std::to_string(tid) + "]\n\" > /dev/kmsg");
}

TEST_F(TimerService, HandsOutTheLowestFreeOfAHundredNumbers) {
  for (const long long refused : {-5, 0}) EXPECT_EQ(-1, timers.AddTask(refused, Keep, nullptr));
  EXPECT_EQ(-1, timers.AddTask(kHour, nullptr, nullptr));
  for (int id = 0; id < 100; ++id) EXPECT_EQ(id, timers.AddTask(kHour, Keep, nullptr));
  EXPECT_EQ(-1, hvn::util::TimerManager().AddTask(kHour, Keep, nullptr));
  EXPECT_TRUE(timers.RemoveTask(7));
  for (const int id : {7, 100, INT_MAX, -1, INT_MIN}) EXPECT_FALSE(timers.RemoveTask(id)) << id;
  EXPECT_EQ(7, timers.AddTask(kHour, Keep, nullptr));
  for (int id = 0; id < 100; ++id) EXPECT_TRUE(timers.RemoveTask(id));
}
