#include "support/Kit.h"
#include "util/TimerManager.h"

using hvn::util::TimerManager;

TEST(TimerManager, SharesOneServiceAlsoWhereTwoAreMadeAtOnce) {
  hutil_test::AllowLeftovers(0, 1);
  constexpr long long kHour = 3600000000;
  const auto keep = [](int, void*) { return true; };
  auto other = std::async(std::launch::async, [] { return TimerManager(); });
  TimerManager manager;
  EXPECT_EQ(0, manager.AddTask(kHour, keep, nullptr));
  EXPECT_EQ(1, other.get().AddTask(kHour, keep, nullptr));
  EXPECT_TRUE(manager.RemoveTask(1));
  EXPECT_FALSE(manager.EndTask(1));
}
