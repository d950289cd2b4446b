#include <sys/prctl.h>

#include <climits>

#include "support/Kit.h"
#include "util/TimerService.h"

using namespace hutil_test;
using testing::Contains, testing::MatchesRegex;
constexpr long long kHour = 3600000000;

bool Keep(int, void*) { return true; }

struct TimerService : testing::Test {
  TimerService() { AllowLeftovers(0, 1); }
  ~TimerService() override {
    for (int id = 0; id < 100; ++id) Service().EndTask(id);
  }
  static hvn::util::TimerService& Service() { return *hvn::util::TimerService::GetInstance(); }
  static int Add(long long interval_us, hvn::util::TimerService::Callback callback = Keep) {
    return Service().AddTask(interval_us, std::move(callback), nullptr);
  }
  int AddRunner(long long interval_us, bool keep) {
    const auto run = [this, keep](int, void*) {
      tid = gettid();
      slack_ns = prctl(PR_GET_TIMERSLACK);
      ++runs;
      return keep;
    };
    return Add(interval_us, run);
  }
  bool WaitForRuns(int count) {
    return WaitFor([=] { return runs >= count; }, 5000);
  }
  static bool Pass(int, void* barrier) {
    static_cast<Barrier*>(barrier)->Pass();
    return false;
  }
  void AddHeldUp(long long interval_us) {
    Service().AddTask(interval_us, Pass, &barrier);
    barrier.AwaitArrival();
  }
  static void AwaitEndOfPass() { EXPECT_TRUE(Service().EndTask(Add(kHour))); }
  std::atomic<int> runs{0}, slack_ns{0};
  std::atomic<long> tid{0};
  Barrier barrier;
};

TEST_F(TimerService, RunsATaskAfterEachIntervalOnAnAnnouncedThread) {
  const auto begin = std::chrono::steady_clock::now();
  AddRunner(20000, true);
  EXPECT_TRUE(WaitForRuns(3));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(3 * 20));
  ExpectAnnounced("void hvn::util::TimerService::ThreadLoop(hvn::util::TimerService::ThreadInfo*)",
                  tid);
  EXPECT_EQ(1000, slack_ns);
  EXPECT_THAT(Messages(), Contains(MatchesRegex("7: execute time_us [0-9]{1,6}\n")));
  EXPECT_THAT(Messages(), Contains("7: min_time 20000\n"));
}

TEST_F(TimerService, EndsATaskThatReturnsFalseAndFreesItsNumber) {
  AddRunner(1, false);
  EXPECT_TRUE(WaitForRuns(1));
  AwaitEndOfPass();
  EXPECT_EQ(0, Add(kHour));
  EXPECT_EQ(1, runs);
}

TEST_F(TimerService, TaskThatEndsAfterItsRemovalFreesNoNewOwnersNumber) {
  const auto replace = [this](int id, void*) {
    EXPECT_TRUE(Service().RemoveTask(id));
    EXPECT_EQ(id, Add(kHour));
    ++runs;
    return false;
  };
  EXPECT_EQ(0, Add(1, replace));
  EXPECT_TRUE(WaitForRuns(1));
  AwaitEndOfPass();
  EXPECT_EQ(1, Add(kHour));
}

TEST_F(TimerService, TaskThatComesDuringACallbackIsNotLate) {
  AddHeldUp(600000);  // for which the worker would wait, without a second look
  AddRunner(1, false);
  barrier.open.set_value();
  EXPECT_TRUE(WaitFor([this] { return runs > 0; }, 500));
}

TEST_F(TimerService, EndTaskWaitsForTheCallUnderWayEvenOfARemovedTask) {
  AddHeldUp(1);
  EXPECT_TRUE(Service().RemoveTask(0));
  EXPECT_TRUE(WaitsFor(barrier, [] { EXPECT_FALSE(Service().EndTask(0)); }));
}

TEST_F(TimerService, EndTaskWaitsForNobodyInAForkedChild) {
  AddHeldUp(1);
  EXPECT_TRUE(EndsInChild([] { EXPECT_TRUE(Service().EndTask(0)); }));
  barrier.open.set_value();
}

TEST_F(TimerService, EndTaskReturnsOnceTheCallbackIsDestroyed) {
  const auto calls = std::make_shared<std::atomic<int>>(0);
  Add(200000, [calls](int, void*) { return ++*calls > 0; });
  EXPECT_TRUE(WaitFor([&calls] { return *calls > 0; }, 5000));
  EXPECT_TRUE(Service().EndTask(0));
  EXPECT_EQ(1, calls.use_count());
}

// In the callback itself EndTask does not wait.
TEST_F(TimerService, TaskThatAnotherEndsIsNotCalledInTheSamePass) {
  std::promise<bool> ended;
  AddHeldUp(1);  // until both are due
  Add(1, [&ended](int id, void*) {
    ended.set_value(Service().EndTask(id + 1));
    return Service().EndTask(id);
  });
  AddRunner(1, false);
  usleep(10);
  barrier.open.set_value();
  EXPECT_TRUE(ended.get_future().get());
  AwaitEndOfPass();
  EXPECT_EQ(0, runs);
}

TEST_F(TimerService, RefusesWhatIsNoTask) {
  EXPECT_EQ(-1, Add(0));
  EXPECT_EQ(-1, Add(kHour, nullptr));
  for (const int id : {-1, 0, 100, INT_MAX}) EXPECT_FALSE(Service().RemoveTask(id)) << id;
}

TEST_F(TimerService, HandsOutTheLowestFreeOfAHundredNumbers) {
  for (int id = 0; id < 100; ++id) EXPECT_EQ(id, Add(kHour));
  EXPECT_EQ(-1, Add(kHour));
  EXPECT_TRUE(Service().RemoveTask(7));
  EXPECT_EQ(7, Add(kHour));
}

TEST_F(TimerService, DestroysCallbacksWithoutItsLocks) {
  const auto leave = [this](void*) { runs += Service().RemoveTask(Add(kHour)) ? 1 : 0; };
  Add(kHour, [owned = std::shared_ptr<void>(nullptr, leave)](int, void*) { return false; });
  EXPECT_TRUE(Service().RemoveTask(0));
  EXPECT_EQ(1, runs);
  Add(1, [owned = std::shared_ptr<void>(nullptr, leave)](int, void*) { return false; });
  EXPECT_TRUE(WaitForRuns(2));
}

TEST_F(TimerService, TriesAgainToStartItsWorkerForEachTask) {
  WithoutThreads([] { EXPECT_EQ(-1, Add(kHour)); });
  EXPECT_EQ(2, CountLogged("%s %d: cannot start thread errno [%d]\n")) << "made, and added to";
  EXPECT_EQ(0, AddRunner(1, false));
  EXPECT_TRUE(WaitForRuns(1));
}
