#include <mutex>

#include "support/Kit.h"
#include "util/Thread.h"

using hvn::util::Condition, hvn::util::Mutex, hvn::util::Thread;

int64_t WaitUs(Condition& condition, int64_t span) {
  Mutex mutex;
  const std::lock_guard<Mutex> lock(mutex);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(hvn::kSuccess, condition.WaitUntil(mutex, span));
  return (std::chrono::steady_clock::now() - start) / std::chrono::microseconds(1);
}

TEST(Thread, JoinWaitsForTheEndOfTheThreadThatIsHeld) {
  std::atomic<bool> ended{false};
  Thread thread;
  thread = std::thread([&ended] { ended = usleep(20000) == 0; });
  EXPECT_EQ(hvn::kSuccess, thread.Join());
  EXPECT_TRUE(ended);
  EXPECT_EQ(hvn::kFailure, thread.Join());
}

TEST(Thread, DetachLetsItGo) {
  Thread thread;
  thread = std::thread([] {});
  EXPECT_EQ(hvn::kSuccess, thread.Detach());
  EXPECT_EQ(hvn::kFailure, thread.Join());
}

TEST(Condition, TimedWaitLastsItsSpanAndEchoesItsName) {
  Condition condition;
  EXPECT_LT(WaitUs(condition, -1), 1000000);
  EXPECT_GE(WaitUs(condition, 1500), 1500);
  EXPECT_GE(WaitUs(condition, 999999), 999999) << "beyond the clock's next second";
  EXPECT_THAT(hutil_test::SystemLines(), testing::IsEmpty());
  condition.SetName("lease poll");
  WaitUs(condition, 1);
  EXPECT_THAT(hutil_test::SystemLines().at(0), testing::HasSubstr(": name lease poll\""));
}
