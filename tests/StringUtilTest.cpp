#include "support/Kit.h"
#include "util/Misc.h"
#include "util/StringUtil.h"

TEST(Misc, ReadsTheNumberThatTextStartsWithOrFails) {
  std::string ints, longs;
  bool failed = false;
  for (const char* text : {"42", " -7xyz", "\t\n+5 6", "0x1A", "", "abc", "2147483648",
                           "-99999999999", "9223372036854775808", "0"}) {
    const int as_int = hvn::util::Misc::StoiWithException(text, failed);
    ints += failed && as_int == 0 ? "fails " : std::to_string(as_int) + " ";
    const long long as_long = hvn::util::Misc::StollWithException(text, failed);
    longs += failed && as_long == 0 ? "fails " : std::to_string(as_long) + " ";
  }
  EXPECT_EQ("42 -7 5 0 fails fails fails fails fails 0 ", ints);
  EXPECT_EQ("42 -7 5 0 fails fails 2147483648 -99999999999 fails 0 ", longs);
}

TEST(StringUtil, SplitKeepsEveryFieldButAnEmptyLastOne) {
  std::string all;
  for (const char* text : {"a,b,,c", "a,b,", ",a", " a , b ", "", ",", ",,", "ab"}) {
    for (const std::string& field : hvn::util::StringUtil::Split(text, ',')) all += field + "|";
    all += "\n";
  }
  EXPECT_EQ("a|b||c|\na|b|\n|a|\n a | b |\n\n|\n||\nab|\n", all);
}
