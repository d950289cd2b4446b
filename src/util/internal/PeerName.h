#ifndef HUTIL_UTIL_INTERNAL_PEERNAME_H_
#define HUTIL_UTIL_INTERNAL_PEERNAME_H_

#include <string>

namespace hvn {
namespace util {

/// Whom the socket `fd` is connected to, for a log line: "IP:PORT", "IP;PORT" for IPv6; empty for
/// whoever has no address.
std::string PeerName(int fd);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_PEERNAME_H_
