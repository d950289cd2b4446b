#ifndef HUTIL_UTIL_INTERNAL_FIELDS_H_
#define HUTIL_UTIL_INTERNAL_FIELDS_H_

#include <string_view>

namespace hvn {
namespace util {

/// Takes the next field off the front of `rest`; false where none is left. Empty fields count, but
/// for the one after a delimiter that ends the text.
inline bool NextField(std::string_view& rest, char delimiter, std::string_view& field) {
  if (rest.empty()) return false;
  const size_t end = rest.find(delimiter);
  field = rest.substr(0, end);
  rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  return true;
}

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_FIELDS_H_
