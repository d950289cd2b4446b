#include "support/Kit.h"
#include "util/StringUtil.h"

using hvn::util::StringUtil, testing::ElementsAre, testing::IsEmpty;

TEST(StringUtil, SplitKeepsEveryFieldAsItIs) {
  EXPECT_THAT(StringUtil::Split(", a ,,b", ','), ElementsAre("", " a ", "", "b"));
}

TEST(StringUtil, DelimiterAtTheEndBeginsNoField) {
  EXPECT_THAT(StringUtil::Split("a,b,", ','), ElementsAre("a", "b"));
  EXPECT_THAT(StringUtil::Split(",", ','), ElementsAre(""));
  EXPECT_THAT(StringUtil::Split("", ','), IsEmpty());
}
