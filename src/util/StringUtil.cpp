#include "util/StringUtil.h"

#include <string_view>

#include "util/internal/Fields.h"

namespace hvn {
namespace util {

std::vector<std::string> StringUtil::Split(std::string const& text, char delimiter) {
  std::vector<std::string> fields;
  std::string_view rest = text;
  for (std::string_view field; NextField(rest, delimiter, field);) fields.emplace_back(field);
  return fields;
}

}  // namespace util
}  // namespace hvn
