#include <sys/prctl.h>
#include <sys/wait.h>

#include "support/Kit.h"
#include "util/ProcessControl.h"

using namespace hutil_test;

struct ProcessControl : testing::Test {
  ProcessControl() { EXPECT_EQ(0, prctl(PR_SET_NAME, name.c_str())); }
  static pid_t Find(const std::string& other, int lowest_pid) {
    return hvn::util::ProcessControl::GetPidByProcessName(other, lowest_pid);
  }
  const std::string name = ("p" + std::to_string(getpid()) + "abcdefghijklmn").substr(0, 15);
};

TEST_F(ProcessControl, FindsTheFirstOfANameFromANumberOn) {
  const pid_t child = fork();  // of the same name
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    pause();
  }
  const auto [low, high] = std::minmax({getpid(), child});
  EXPECT_EQ(low, Find(name, 0));
  EXPECT_EQ(low, Find(name, low));
  EXPECT_EQ(high, Find(name, low + 1));
  EXPECT_EQ(-1, Find(name, high + 1));
  EXPECT_EQ(0, kill(child, SIGKILL));
  EXPECT_EQ(child, waitpid(child, nullptr, 0));
}

TEST_F(ProcessControl, ComparesTheWholeNameAsFarAsTheKernelKeepsIt) {
  EXPECT_EQ(-1, Find(name.substr(0, 14), 1));
  EXPECT_EQ(getpid(), Find(name, 1));
  EXPECT_THAT(Messages(), testing::IsEmpty());
  EXPECT_EQ(getpid(), Find(name + "longer", 1));
  EXPECT_THAT(Messages(),
              testing::ElementsAre("4: max /proc/self/comm is 15 resize this data as 15"));
}
