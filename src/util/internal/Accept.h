#ifndef HUTIL_UTIL_INTERNAL_ACCEPT_H_
#define HUTIL_UTIL_INTERNAL_ACCEPT_H_

#include <string>

namespace hvn {
namespace util {

/// Whether an accept failed with `error` for lack of descriptors or memory: the connection stays in
/// the queue then, and the loop comes back to it at once.
bool IsExhaustion(int error);

/// Waits a few milliseconds after such a failure, which would fill the log otherwise and leave the
/// other clients little time.
void PauseIfExhausted(int error);

/// The one line about a client that a limit or a failure takes out of a SocketServer.
void LogTakenOut(int fd, const std::string& path, const std::string& why);

/// Shuts a descriptor down and closes it.
void TurnAway(int fd);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_ACCEPT_H_
