#ifndef HUTIL_UTIL_INTERNAL_IGNORERESULT_H_
#define HUTIL_UTIL_INTERNAL_IGNORERESULT_H_

namespace hvn {
namespace util {

/// Marks a result that is left unused on purpose; the place says why.
template <typename T>
void IgnoreResult(const T& /*result*/) {}

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_IGNORERESULT_H_
