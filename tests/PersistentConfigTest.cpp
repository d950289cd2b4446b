#include <sys/file.h>
#include <sys/stat.h>

#include "support/Kit.h"
#include "util/PersistentConfig.h"

using namespace hutil_test;
using hvn::util::PersistentConfig;
using testing::AllOf, testing::Each, testing::ElementsAre, testing::SizeIs;
constexpr char kFile[] = "/data/persistent_data.conf";
const std::string kWithEio = " for [/data/persistent_data.conf] errno [5]\n";

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
  ASSERT_EQ(0, remove(kFile));
  EXPECT_EQ(hvn::kSuccess, PersistentConfig::SaveDataAtomically("a", "1"));
  Shell("test $(stat -c %a /data/persistent_data.conf) = 644");
  FailNext(Call::kOpen, EACCES, 2, 0, O_RDWR | O_CREAT | O_SYNC | O_CLOEXEC);
  EXPECT_EQ(hvn::kFailure, PersistentConfig::SaveData("a", "1"));
  EXPECT_EQ("", PersistentConfig::LoadData("a"));
  EXPECT_THAT(Messages(), ElementsAre("3: cannot open file [/data/persistent_data.conf]\n",
                                      "3: Cannot open file /data/persistent_data.conf\n"));
}

TEST(PersistentConfig, WritesNothingThatIsThereButAtomicSaveSyncsIt) {
  WriteFile(kFile, "a=!=%=1\na=!=%=2\n");
  ResetFaults();
  EXPECT_EQ(hvn::kSuccess, PersistentConfig::SaveData("a", "2"));
  EXPECT_EQ(hvn::kSuccess, PersistentConfig::SaveDataAtomically("a", "2"));
  EXPECT_EQ(0, CallCount(Call::kWrite));
  EXPECT_EQ(2, CallCount(Call::kFsync));
  FailNext(Call::kFsync, EIO, 1, 1);
  EXPECT_EQ(hvn::kFailure, PersistentConfig::SaveDataAtomically("a", "2"));
  EXPECT_THAT(Messages(), ElementsAre("3: cannot sync file" + kWithEio));
}

TEST(PersistentConfig, TakesNoFileOfMoreThanAMebibyte) {
  WriteFile(kFile, "a=!=%=1\n" + std::string(1048576 - 8, 'x'));
  EXPECT_EQ("1", PersistentConfig::LoadData("a"));
  EXPECT_EQ(hvn::kSuccess, PersistentConfig::SaveData("a", "1"));
  EXPECT_EQ(hvn::kSuccess, PersistentConfig::SaveDataAtomically("a", "1"));
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
  EXPECT_THAT(Messages(), ElementsAre("7: b=!=%=27\n\n",
                                      "3: Cannot write data requested size [9] writed size [3]\n"));
  EXPECT_EQ(std::string("b=!=%=1\n\0", 9), ReadFile(kFile));
}

TEST(PersistentConfig, RefusesWhatWouldBreakALine) {
  for (const auto& save : {PersistentConfig::SaveData, PersistentConfig::SaveDataAtomically}) {
    EXPECT_EQ(hvn::kFailure, save("x\ny", "1"));
    EXPECT_EQ(hvn::kFailure, save("x", {'\0'}));
  }
  EXPECT_THAT(Messages(), AllOf(SizeIs(4), Each("3: line feed or NUL in key or value\n")));
  EXPECT_EQ("", PersistentConfig::LoadData("x\ny"));
}

TEST(PersistentConfig, AtomicSaveKeepsOwnerAndMode) {
  WriteFile(kFile, "a=!=%=1\n");
  ASSERT_EQ(0, chown(kFile, 12, 34));
  ASSERT_EQ(0, chmod(kFile, 0640));
  EXPECT_EQ(hvn::kSuccess, PersistentConfig::SaveDataAtomically("a", "2"));
  EXPECT_EQ("a=!=%=2\n", ReadFile(kFile));
  Shell("test $(stat -c %u:%g:%a /data/persistent_data.conf) = 12:34:640");
}

// What it says and leaves where a call fails.
std::string FailedSave(Call call, int skip = 0, int flags = kAnyFd) {
  WriteFile(kFile, "a=!=%=1\n");
  FailNext(call, EIO, 1, skip, flags);
  EXPECT_EQ(hvn::kFailure, PersistentConfig::SaveDataAtomically("a", "2"));
  ResetFaults();
  EXPECT_EQ(-1, access("/data/persistent_data.conf.new", F_OK));
  return Messages().back() + ReadFile(kFile);
}

TEST(PersistentConfig, AtomicSaveThatFailsSaysWhyAndLeavesTheOldFile) {
  const std::string old = kWithEio + "a=!=%=1\n";
  constexpr int read_flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  constexpr int write_flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
  EXPECT_EQ("3: cannot lock folder" + old, FailedSave(Call::kOpen));
  EXPECT_EQ("3: cannot lock folder" + old, FailedSave(Call::kFlock));
  EXPECT_EQ("3: cannot open file" + old, FailedSave(Call::kOpenAt, 0, read_flags));
  EXPECT_EQ("3: cannot read file" + old, FailedSave(Call::kLseek));
  EXPECT_EQ("3: cannot read file" + old, FailedSave(Call::kRead));
  for (const Call call : {Call::kWrite, Call::kFsync, Call::kRenameAt}) {
    EXPECT_EQ("3: cannot replace file" + old, FailedSave(call));
  }
  EXPECT_EQ("3: cannot replace file" + old, FailedSave(Call::kOpenAt, 0, write_flags));
  EXPECT_EQ("3: cannot replace file" + kWithEio + "a=!=%=2\n", FailedSave(Call::kFsync, 1));
}

TEST(PersistentConfig, AtomicSaveGoesOnAfterAShortWriteAndAnInterruption) {
  FailWithResult(Call::kWrite, 3, 0);
  FailNext(Call::kWrite, EINTR);
  EXPECT_EQ(hvn::kSuccess, PersistentConfig::SaveDataAtomically("a", "1"));
  EXPECT_EQ("a=!=%=1\n", ReadFile(kFile));
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
  EXPECT_THAT(Sleeps(), Each(5000));
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
