#include "support/Kit.h"
#include "util/Misc.h"

using hvn::util::Misc;

template <typename Number>
void ExpectNumber(Number wanted, bool fails, Number (*convert)(std::string, bool&),
                  const std::string& text) {
  bool failed = !fails;  // whatever the flag said before
  EXPECT_EQ(wanted, convert(text, failed)) << text;
  EXPECT_EQ(fails, failed) << text;
}

TEST(Misc, ReadsTheNumberThatATextBeginsWith) {
  ExpectNumber(-7, false, Misc::StoiWithException, " -7xyz");
  ExpectNumber(8, false, Misc::StoiWithException, "\t\n+08 6");
  ExpectNumber(-99999999999LL, false, Misc::StollWithException, " -99999999999xyz");
}

TEST(Misc, FailsWithZeroWithoutANumberAndWhereTheTypeCannotHoldIt) {
  ExpectNumber(0, true, Misc::StoiWithException, "abc");
  ExpectNumber(2147483647, false, Misc::StoiWithException, "2147483647");
  ExpectNumber(0, true, Misc::StoiWithException, "2147483648");
  ExpectNumber(0LL, true, Misc::StollWithException, "");
}
