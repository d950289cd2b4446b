#ifndef HUTIL_UTIL_INTERNAL_SOCKETPATH_H_
#define HUTIL_UTIL_INTERNAL_SOCKETPATH_H_

#include <string>

#include "util/Result.h"
#include "util/Socket.h"

namespace hvn {
namespace util {

/// Splits "IP", "PORT" or "IP;PORT"; logs for Socket::GetIpAndPortByPath.
hvn::Result ParseSocketPath(Socket::Domain domain, const std::string& path, std::string& ip,
                            int& port);

inline bool IsIp(Socket::Domain domain) {
  return domain == Socket::kIpv4 || domain == Socket::kIpv6;
}

/// Whether `path` is a Linux abstract name.
inline bool IsAbstract(const std::string& path) { return !path.empty() && path[0] == '\0'; }

/// `path` for a log line: an abstract name without the NUL in front, which would end the text.
inline const char* PrintablePath(const std::string& path) {
  return IsAbstract(path) ? path.c_str() + 1 : path.c_str();
}

/// How an interface's name is told from a malformed address.
inline bool StartsWithLetter(const std::string& path) {
  const char c = path.empty() ? '\0' : path[0];
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_SOCKETPATH_H_
