#ifndef HUTIL_UTIL_INTERNAL_INTERFACES_H_
#define HUTIL_UTIL_INTERNAL_INTERFACES_H_

#include <string>
#include <vector>

struct ifreq;

namespace hvn {
namespace util {

/// What the kernel knows of its network interfaces, and how that is changed. What is logged is
/// logged for the operations of NetworkManager.

/// A netdevice(7) request about `ifname` on a socket of its own; false where it failed.
bool CallInterface(const std::string& ifname, int request, ifreq& ifr);

/// The interface's flags, or `otherwise` where they are not to be had.
int InterfaceFlags(const std::string& ifname, int otherwise);

/// Sets IFF_UP, also where it is set already; `ifr` holds the flags after.
bool BringUpInterface(const std::string& ifname, ifreq& ifr);

/// The hardware address in upper case, or empty.
std::string HardwareAddress(const std::string& ifname);

bool IsWirelessInterface(const std::string& ifname);

/// What an IPv4 setter changes of an interface, and the operation that it is logged for.
struct Ipv4Setting {
  int request;
  const char* function;
};
/// Brings the interface up and sets its IPv4 address or netmask; logs success.
bool SetIpv4Setting(const std::string& ifname, const std::string& text, const Ipv4Setting& setting);
/// The IPv4 address (SIOCGIFADDR) or netmask (SIOCGIFNETMASK); false leaves `out` alone.
bool GetIpv4Setting(const std::string& ifname, int request, std::string& out);

/// The first global IPv6 address in the kernel's uncompressed form; empty where there is none.
std::string GlobalIpv6Address(const std::string& ifname);

/// Every interface with an address of IP or of the link layer once, in bytewise order.
std::vector<std::string> InterfaceNames();

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_INTERFACES_H_
