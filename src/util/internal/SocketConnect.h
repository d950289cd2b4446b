#ifndef HUTIL_UTIL_INTERNAL_SOCKETCONNECT_H_
#define HUTIL_UTIL_INTERNAL_SOCKETCONNECT_H_

#include "util/internal/SocketAddress.h"

namespace hvn {
namespace util {

/// The steps of Socket::Connect that need nothing but the descriptor; all log for it.
constexpr char kConnect[] = "hvn::Result hvn::util::Socket::Connect(std::string, int)";

/// connect(2); a path that fitted no address fails with ENAMETOOLONG.
int ConnectTo(int fd, const SocketAddress& address);

/// Waits for the outcome of a connect that returned `result`, and returns the outcome.
int AwaitConnection(int fd, int timeout_us, int result);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_SOCKETCONNECT_H_
