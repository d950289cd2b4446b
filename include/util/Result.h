#ifndef HUTIL_UTIL_RESULT_H_
#define HUTIL_UTIL_RESULT_H_

namespace hvn {

/// What an operation of the library reports. Compare against kSuccess: the other values carry a
/// reason only where the operation says so, since the reason is in the system log.
enum Result : int {
  kSuccess = 0,           ///< Done, or there was nothing to do.
  kFailure = 1,           ///< Failed; the system log says why.
  kInvalidArgument = 11,  ///< Socket::Connect only: the destination is no IPv6 literal.
  kNotInitialized = 12,   ///< TLS set-up only: the wrapper has no context.
};

}  // namespace hvn

#endif  // HUTIL_UTIL_RESULT_H_
