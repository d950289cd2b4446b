#ifndef HUTIL_UTIL_STRINGUTIL_H_
#define HUTIL_UTIL_STRINGUTIL_H_

#include <string>
#include <vector>

#include "util/Export.h"

namespace hvn {
namespace util {

/// Helpers for text.
///
///     for (const std::string& line : StringUtil::Split(text, '\n')) Handle(line);
class HUTIL_EXPORT StringUtil {
 public:
  /// The fields of `text` between `delimiter`s, untrimmed. Empty fields are kept, but for the one
  /// after a delimiter that ends the text: "a,b," has two fields, "," has one, "" has none.
  /// Nothing logs. Any thread.
  static std::vector<std::string> Split(std::string const& text, char delimiter);
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_STRINGUTIL_H_
