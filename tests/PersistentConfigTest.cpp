#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "support/Kit.h"
#include "util/PersistentConfig.h"

using namespace hutil_test;
using hvn::util::PersistentConfig;
constexpr char kFile[] = "/data/persistent_data.conf";

// The file that both ways to save make of another one.
std::string Saved(const std::string& before, const std::string& key, const std::string& value) {
  WriteFile(kFile, before);
  EXPECT_EQ(hvn::kSuccess, PersistentConfig::SaveDataAtomically(key, value));
  const std::string after = ReadFile(kFile);
  WriteFile(kFile, before);
  EXPECT_EQ(hvn::kSuccess, PersistentConfig::SaveData(key, value));
  EXPECT_EQ(after, ReadFile(kFile));
  EXPECT_EQ(value, PersistentConfig::LoadData(key));
  return after;
}

TEST(PersistentConfig, SavesToTheLinesOfAKeyAndKeepsTheOthers) {
  EXPECT_EQ("a=!=%=1\n", Saved("", "a", "1"));
  EXPECT_EQ("a=!=%=\n", Saved("a=!=%=1\n", "a", ""));
  EXPECT_EQ("abc=!=%=1\n\n# A\nab=!=%=x=!=%=y\n", Saved("abc=!=%=1\n\n# A", "ab", "x=!=%=y"));
  EXPECT_EQ("a=!=%=1\nb=!=%=2\na=!=%=1\n", Saved("a=!=%=long\nb=!=%=2\na=!=%=", "a", "1"));
  EXPECT_EQ(" a=!=%=1\nA=!=%=1\na=!=%=1\n", Saved({" a=!=%=1\nA=!=%=1\n\0lost", 22}, "a", "1"));
}

TEST(PersistentConfig, MakesAFileThatAllMayReadAndWritesItSynchronously) {
  umask(0);
  EXPECT_EQ("", PersistentConfig::LoadData("a"));
  Shell("test $(stat -c %a /data/persistent_data.conf) = 644");
  FailNext(Call::kOpen, EACCES, 1, 0, O_RDWR | O_CREAT | O_SYNC | O_CLOEXEC);
  EXPECT_EQ(hvn::kFailure, PersistentConfig::SaveData("a", "1"));
}

TEST(PersistentConfig, TakesNoFileOfMoreThanAMebibyte) {
  WriteFile(kFile, "a=!=%=1\n" + std::string(1048576 - 8, 'x'));
  EXPECT_EQ("1", PersistentConfig::LoadData("a"));
  EXPECT_EQ(hvn::kSuccess, PersistentConfig::SaveData("a", "1"));
  EXPECT_EQ(hvn::kFailure, PersistentConfig::SaveDataAtomically("a", "22"));
  WriteFile(kFile, "a=!=%=1\n" + std::string(1048576 - 7, 'x'));
  EXPECT_EQ("", PersistentConfig::LoadData("a"));
  EXPECT_EQ(hvn::kFailure, PersistentConfig::SaveData("a", "1"));
  EXPECT_EQ(hvn::kFailure, PersistentConfig::SaveDataAtomically("a", "1"));
}

TEST(PersistentConfig, IsHeldUpByNoFifoAndMisledByNoLink) {
  ASSERT_EQ(0, mkfifo(kFile, 0600));
  EXPECT_EQ("", PersistentConfig::LoadData("a"));
  EXPECT_EQ(hvn::kFailure, PersistentConfig::SaveDataAtomically("a", "1"));
  ASSERT_EQ(0, remove(kFile));
  ASSERT_EQ(0, symlink("/data/target", kFile));
  EXPECT_EQ(hvn::kFailure, PersistentConfig::SaveDataAtomically("a", "1"));
}

TEST(PersistentConfig, OnlyReportsAShortWriteWhichLeavesTheRestOfTheOldFile) {
  WriteFile(kFile, "b=!=%=1\n");
  FailWithResult(Call::kWrite, 3, 0);
  EXPECT_EQ(hvn::kSuccess, PersistentConfig::SaveData("b", "27"));
  EXPECT_THAT(Logs().back().text, testing::EndsWith("requested size [9] writed size [3]\n"));
  EXPECT_EQ(std::string("b=!=%=1\n\0", 9), ReadFile(kFile));
}

TEST(PersistentConfig, RefusesWhatWouldBreakALine) {
  for (const auto& save : {PersistentConfig::SaveData, PersistentConfig::SaveDataAtomically}) {
    EXPECT_EQ(hvn::kFailure, save("x\ny", "1"));
    EXPECT_EQ(hvn::kFailure, save("x", {'\0'}));
  }
}

TEST(PersistentConfig, AtomicSaveKeepsOwnerAndMode) {
  WriteFile(kFile, "a=!=%=1\n");
  ASSERT_EQ(0, chown(kFile, 12, 34));
  ASSERT_EQ(0, chmod(kFile, 0640));
  EXPECT_EQ(hvn::kSuccess, PersistentConfig::SaveDataAtomically("a", "2"));
  EXPECT_EQ("a=!=%=2\n", ReadFile(kFile));
  Shell("test $(stat -c %u:%g:%a /data/persistent_data.conf) = 12:34:640");
}

TEST(PersistentConfig, AtomicSaveWaitsForThatOfAnotherProcess) {
  const int folder = open("/data", O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(0, flock(folder, LOCK_EX));
  auto save = std::async(std::launch::async, PersistentConfig::SaveDataAtomically, "a", "1");
  EXPECT_TRUE(WaitFor([] { return CallCount(Call::kUsleep) > 0; }, 5000));
  EXPECT_EQ(-1, access(kFile, F_OK));
  EXPECT_EQ(0, close(folder));
  EXPECT_EQ(hvn::kSuccess, save.get());
  EXPECT_EQ("a=!=%=1\n", ReadFile(kFile));
}

TEST(PersistentConfig, KilledAtomicSaveLeavesAllOfTheOldFileOrAllOfTheNewOne) {
  const std::string kept = "b=!=%=" + std::string(100000, 'b') + "\n";
  WriteFile(kFile, kept + "a=!=%=1\n");
  for (unsigned round = 0; round < 50; ++round) {
    const pid_t writer = fork();
    if (writer == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (const char* value = "1";; value = *value == '1' ? "2" : "1") {
        if (PersistentConfig::SaveDataAtomically("a", value) != hvn::kSuccess) abort();
      }
    }
    usleep(1000U + 37 * round);
    EXPECT_EQ(0, kill(writer, SIGKILL));
    EXPECT_EQ(writer, waitpid(writer, nullptr, 0));
    EXPECT_THAT(ReadFile(kFile), testing::AnyOf(kept + "a=!=%=1\n", kept + "a=!=%=2\n"));
  }
}

TEST(PersistentConfig, ThreadsLoseNoUpdate) {
  const auto save = [](const std::string& key) {
    for (const char* value : {"x", "y", "z", "x", "y", "z", "x", "y", "z"}) {
      EXPECT_EQ(hvn::kSuccess, PersistentConfig::SaveData(key, value));
      EXPECT_EQ(value, PersistentConfig::LoadData(key));
    }
  };
  std::thread other(save, "a");
  save("b");
  other.join();
}
