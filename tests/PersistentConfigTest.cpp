#include <sys/stat.h>

#include "support/Kit.h"
#include "util/PersistentConfig.h"

using namespace hutil_test;
using namespace hvn::util;
constexpr char kFile[] = "/data/persistent_data.conf";
constexpr char kSave[] =
    "static hvn::Result hvn::util::PersistentConfig::SaveData(std::string, std::string)";

TEST(PersistentConfig, RewritesTheLinesOfAKeyAndKeepsTheOthers) {
  EXPECT_EQ("", PersistentConfig::LoadData("a"));
  EXPECT_EQ(0, access(kFile, F_OK));
  const std::string cases[][4] = {
      {"", "a", "1", "a=!=%=1\n"},
      {"a=!=%=1\n", "a", "", "a=!=%=\n"},
      {"abc=!=%=1\n\n# A", "ab", "x=!=%=y", "abc=!=%=1\n\n# A\nab=!=%=x=!=%=y\n"},
      {"a=!=%=long\nb=!=%=2\na=!=%=", "a", "1", "a=!=%=1\nb=!=%=2\na=!=%=1\n"},
      {std::string(" a=!=%=1\nA=!=%=1\n\0lost", 22), "a", "1", " a=!=%=1\nA=!=%=1\na=!=%=1\n"},
      {"a=!=%=1\na=!=%=2", "a", "1", "a=!=%=1\na=!=%=2"},
  };
  for (const auto& [before, key, value, after] : cases) {
    WriteFile(kFile, before);
    ResetFaults();
    EXPECT_EQ(hvn::kSuccess, PersistentConfig::SaveData(key, value));
    EXPECT_EQ(before != after, CallCount(Call::kWrite));
    EXPECT_EQ(after, ReadFile(kFile));
    EXPECT_EQ(before != after, bool(Said(LOG_DEBUG, kSave, "%s\n", after.c_str())));
    EXPECT_EQ(value, PersistentConfig::LoadData(key));
  }
}

TEST(PersistentConfig, SurvivesWhatIsNoSettingsFile) {
  const auto answers = [](const char* value, hvn::Result result) {
    EXPECT_EQ(value, PersistentConfig::LoadData("a"));
    EXPECT_EQ(result, PersistentConfig::SaveData("a", "1"));
  };
  for (const size_t excess : {0u, 1u}) {
    WriteFile(kFile, "a=!=%=1\n" + std::string(1048576 - 8 + excess, 'x'));
    answers(excess ? "" : "1", hvn::Result(excess));
  }
  ASSERT_TRUE(remove(kFile) == 0 && mkfifo(kFile, 0600) == 0);
  answers("", hvn::kFailure);
  EXPECT_TRUE(Logs().empty());
  ASSERT_TRUE(remove(kFile) == 0 && mkdir(kFile, 0700) == 0);
  answers("", hvn::kFailure);
  EXPECT_TRUE(Said(LOG_ERR, kSave, "cannot open file [%s]\n", kFile));
  EXPECT_TRUE(Said(LOG_ERR, "static std::string hvn::util::PersistentConfig::LoadData(std::string)",
                   "Cannot open file %s\n", kFile));
  ASSERT_EQ(0, remove(kFile));

  FailWithResult(Call::kWrite, 3, 0);
  answers("", hvn::kSuccess);
  EXPECT_TRUE(Said(LOG_ERR, kSave, "Cannot write data requested size [%zu] writed size [%zd]\n",
                   size_t{8}, ssize_t{3}));
  EXPECT_EQ(std::string("a=!\0\0\0\0\0", 8), ReadFile(kFile));
  FailWithResult(Call::kLseek, 5000, 0);  // a file that shrinks while it is read
  EXPECT_EQ(hvn::kSuccess, PersistentConfig::SaveData("b", "2"));
  EXPECT_TRUE(PersistentConfig::SaveData("x\ny", "1") && PersistentConfig::SaveData("b", {'\0'}));
  EXPECT_TRUE(Said(LOG_ERR, kSave, "line feed or NUL in key or value\n"));
  EXPECT_EQ("a=!\nb=!=%=2\n", ReadFile(kFile));
}
