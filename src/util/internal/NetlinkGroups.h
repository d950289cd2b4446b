#ifndef HUTIL_UTIL_INTERNAL_NETLINKGROUPS_H_
#define HUTIL_UTIL_INTERNAL_NETLINKGROUPS_H_

#include <cstdint>

namespace hvn {
namespace util {

/// What a netlink socket of the library hears: every route multicast group from link to IPv6
/// interface information, except neighbours. See rtnetlink(7).
constexpr uint32_t kNetlinkGroups = 0xFFB;

/// Where the numbers of netlink ports begin, to which the process's own is added: below lie those
/// that the kernel gives to sockets that ask for none.
constexpr uint32_t kNetlinkPortBase = 0xF0000000;

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_NETLINKGROUPS_H_
