#ifndef HUTIL_UTIL_INTERNAL_IPV4_H_
#define HUTIL_UTIL_INTERNAL_IPV4_H_

#include <netinet/in.h>

#include <cstdint>
#include <string>

namespace hvn {
namespace util {

/// IPv4 addresses as text and as numbers; in host order unless their type says otherwise. What is
/// logged is logged for the operations of NetworkManager of the same names.

std::string Ipv4Text(in_addr address);
std::string Ipv4Text(uint32_t address);

/// A text that is no address becomes 255.255.255.255.
uint32_t Ipv4Number(const std::string& text);

/// What inet_pton(3) takes, of either family.
bool IsValidAddress(const std::string& text, bool ipv6);

/// Ones followed by zeros.
bool IsIpv4Netmask(const std::string& text);

/// Six pairs of hex digits joined by ":".
bool IsMacAddress(const std::string& text);

/// The first and the last address behind `gateway` in its subnet; false leaves both alone.
bool GetIpv4Range(const std::string& gateway, const std::string& netmask, std::string& start,
                  std::string& end);

/// Whether that range lies in the gateway's subnet, above the gateway.
bool IsIpv4Range(const std::string& gateway, const std::string& netmask, const std::string& start,
                 const std::string& end);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_IPV4_H_
