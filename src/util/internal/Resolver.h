#ifndef HUTIL_UTIL_INTERNAL_RESOLVER_H_
#define HUTIL_UTIL_INTERNAL_RESOLVER_H_

#include <string>
#include <vector>

#include "util/Result.h"

namespace hvn {
namespace util {

/// Names to addresses and back, by the system's resolver, for whose time limit both block. What is
/// logged is logged for the operations of NetworkManager.

/// The name of an IPv4 address, or empty.
std::string HostNameOf(const std::string& ip);

hvn::Result ResolveHost(const std::string& host, std::vector<std::string>& ipv4_list,
                        std::vector<std::string>& ipv6_list);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_RESOLVER_H_
