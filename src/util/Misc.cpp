#include "util/Misc.h"

#include <exception>

namespace hvn {
namespace util {

int Misc::StoiWithException(std::string text, bool& failed) {
  failed = false;
  try {
    return std::stoi(text);
  } catch (const std::exception&) {
    failed = true;
    return 0;
  }
}

long long Misc::StollWithException(std::string text, bool& failed) {
  failed = false;
  try {
    return std::stoll(text);
  } catch (const std::exception&) {
    failed = true;
    return 0;
  }
}

}  // namespace util
}  // namespace hvn
