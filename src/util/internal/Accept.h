#ifndef HUTIL_UTIL_INTERNAL_ACCEPT_H_
#define HUTIL_UTIL_INTERNAL_ACCEPT_H_

namespace hvn {
namespace util {

/// Waits a few milliseconds after an accept that failed with `error` for lack of descriptors or
/// memory: the connection stays in the queue and the loop comes back to it at once, which would
/// fill the log and leave the other clients little time.
void PauseIfExhausted(int error);

/// Shuts a descriptor down and closes it.
void TurnAway(int fd);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_ACCEPT_H_
