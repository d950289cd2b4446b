#include <optional>

#include "support/Kit.h"
#include "util/Timer.h"

using namespace hutil_test;

struct Timer : testing::Test {
  void Make(long long period_us, bool repeat) {
    const auto call = [this] {
      tid = gettid();
      usleep(10000);
      ++calls;
    };
    timer.emplace("probe", call, period_us, repeat);
  }
  bool WaitForCalls(int count) {
    return WaitFor([=] { return calls >= count; }, 5000);
  }
  // Whether its thread has begun and comes to a wait.
  static bool Waits() {
    if (!WaitFor([] { return !SystemLines().empty(); }, 5000)) return false;
    const std::string text = Logs().at(0).text;
    return WaitUntilAsleep(std::stol(text.substr(text.find('[') + 1)));
  }
  // A timer that waits for its next call makes it when it is destroyed; one that is done does not.
  void EndsAfter(int wanted) {
    EXPECT_TRUE(Waits());
    timer.reset();
    EXPECT_EQ(wanted, calls);
  }
  void TookAtLeast(int milliseconds) const {
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(milliseconds));
  }
  std::atomic<int> calls{0};
  std::atomic<long> tid{0};
  const std::chrono::steady_clock::time_point begin = std::chrono::steady_clock::now();
  std::optional<hvn::util::Timer> timer;
};

TEST_F(Timer, RunsOnceAfterItsPeriodOnAnAnnouncedThread) {
  Make(20000, false);
  EXPECT_TRUE(WaitForCalls(1));
  TookAtLeast(20);
  ExpectAnnounced("hvn::Result hvn::util::Timer::Loop()", tid);
  EndsAfter(1);
}

TEST_F(Timer, RunsAgainAPeriodAfterTheEndOfEachCall) {
  Make(20000, true);
  EXPECT_TRUE(WaitForCalls(3));
  TookAtLeast(3 * (20 + 10));
}

TEST_F(Timer, StartChangesNothingWhileItIsArmed) {
  Make(20000, false);
  EXPECT_EQ(hvn::kSuccess, timer->Start(1, true));
  EXPECT_TRUE(WaitForCalls(1));
  TookAtLeast(20);
  EndsAfter(1);
}

TEST_F(Timer, RunsOnWithItsNewPeriodAfterAStopAndAStart) {
  Make(20000, true);
  EXPECT_TRUE(Waits());
  timer->Stop();
  EXPECT_EQ(hvn::kSuccess, timer->Start(30000, true));
  EXPECT_TRUE(WaitForCalls(3));
  TookAtLeast(20 + 2 * 30 + 2 * 10);
}

TEST_F(Timer, EndsAsSoonAsItIsMadeAlsoWithoutACallback) {
  for (int i = 0; i < 100; ++i) timer.emplace("idle", nullptr);
  for (int i = 0; i < 100; ++i) timer.emplace("armed", nullptr, i, true);
}

TEST_F(Timer, RunsOnWhenAForkedChildDestroysIt) {
  Make(50000, true);
  EXPECT_TRUE(Waits());
  EXPECT_TRUE(EndsInChild([this] { timer.reset(); }));
  EXPECT_TRUE(WaitForCalls(calls + 1));
}
