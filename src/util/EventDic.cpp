#include "util/EventDic.h"

#include <utility>

namespace hvn {
namespace util {

void EventDic::AddParam(Param key, std::string value) { params_[key] = std::move(value); }

std::string EventDic::GetParam(Param key) { return params_[key]; }

}  // namespace util
}  // namespace hvn
