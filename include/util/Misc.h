#ifndef HUTIL_UTIL_MISC_H_
#define HUTIL_UTIL_MISC_H_

#include <string>

#include "util/Export.h"

namespace hvn {
namespace util {

/// Decimal text to numbers, without letting an exception out.
///
///     bool failed = false;
///     int port = Misc::StoiWithException(text, failed);
///     if (failed) return Usage();
class HUTIL_EXPORT Misc {
 public:
  /// The number that `text` starts with, as std::stoi reads it in base 10: leading white space and
  /// a sign count, whatever follows the digits is ignored. 0 with `failed` true for text that
  /// starts with no number and for one that `int` cannot hold; nothing logs. Any thread.
  static int StoiWithException(std::string text, bool& failed);

  /// The same in 64 bits, as std::stoll reads it. Any thread.
  static long long StollWithException(std::string text, bool& failed);
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_MISC_H_
