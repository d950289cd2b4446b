#include <sys/prctl.h>
#include <sys/wait.h>

#include "support/Kit.h"
#include "util/ProcessControl.h"

using namespace hutil_test;

TEST(ProcessControl, FindsTheNamesakesFromALowestNumberOn) {
  const auto find = hvn::util::ProcessControl::GetPidByProcessName;
  const std::string name = ("p" + std::to_string(getpid()) + "abcdefghijklmn").substr(0, 15);
  ASSERT_EQ(0, prctl(PR_SET_NAME, name.c_str()));
  EXPECT_EQ(getpid(), find(name, 0));
  const pid_t child = fork();  // of the same name
  if (child == 0) prctl(PR_SET_PDEATHSIG, SIGKILL), pause();
  const auto [low, high] = std::minmax({getpid(), child});
  EXPECT_TRUE(find(name, low) == low && find(name, low + 1) == high && find(name, high + 1) == -1);
  for (const std::string& other : {name.substr(1), name.substr(0, 14), name.substr(0, 14) + "\n"}) {
    EXPECT_EQ(-1, find(other, 1));
  }
  EXPECT_TRUE(Logs().empty());
  EXPECT_EQ(low, find(name + "longer", 1));
  EXPECT_TRUE(Said(LOG_WARNING,
                   "static pid_t hvn::util::ProcessControl::GetPidByProcessName(std::string, int)",
                   "max /proc/self/comm is 15 resize this data as 15"));
  ASSERT_TRUE(kill(child, SIGKILL) == 0 && waitpid(child, nullptr, 0) == child);
  FailNext(Call::kOpenDir, EMFILE);
  EXPECT_EQ(-1, find(name, 1));
}
