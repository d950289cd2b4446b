#include <sys/single_threaded.h>

#include <mutex>
#include <system_error>

#include "support/Kit.h"
#include "util/Thread.h"

using std::chrono::steady_clock;

// Taken after the library's initialisers and before main.
const bool kAloneAtLoad = __libc_single_threaded != 0;

TEST(Thread, NoneRunsBeforeItIsStartedAndEachIsJoinedOrDetachedOnce) {
  EXPECT_TRUE(kAloneAtLoad);
  hvn::util::Thread thread;
  EXPECT_THROW(thread.Detach(), std::system_error);
  std::atomic<bool> ended{false};
  thread = std::thread([&ended] { ended = usleep(20000) == 0; });
  EXPECT_TRUE(thread.Join() == hvn::kSuccess && ended && thread.Join() == hvn::kFailure);
  thread = std::thread([] {});
  EXPECT_TRUE(thread.Detach() == hvn::kSuccess && thread.Join() == hvn::kFailure);
}

TEST(Condition, TimedWaitLastsItsSpanAndEchoesOnlyAName) {
  hvn::util::Mutex mutex;
  hvn::util::Condition condition;
  const std::lock_guard<hvn::util::Mutex> lock(mutex);
  EXPECT_NE(0, pthread_mutex_trylock(mutex.native())) << "recursive";
  for (const int64_t span : {INT64_MIN, int64_t{-1}, int64_t{0}, int64_t{1500}, int64_t{999999}}) {
    const auto start = steady_clock::now();
    EXPECT_EQ(hvn::kSuccess, condition.WaitUntil(mutex, span));
    EXPECT_GE(steady_clock::now() - start, std::chrono::microseconds(std::max(span, int64_t{0})));
  }
  EXPECT_TRUE(hutil_test::SystemLines().empty());
  condition.SetName("lease poll");
  condition.WaitUntil(mutex, 1);
  const std::string function = R"(Condition::WaitUntil\(hvn::util::Mutex&, int64_t\))";
  EXPECT_THAT(hutil_test::SystemLines().at(0),
              testing::MatchesRegex("echo \"hvn::Result hvn::util::" + function +
                                    " [0-9]+: name lease poll\" > /dev/kmsg"));
}
