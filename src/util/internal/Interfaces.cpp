#include "util/internal/Interfaces.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>

#include "util/internal/FilePtr.h"
#include "util/internal/Ipv4.h"
#include "util/internal/Log.h"
#include "util/internal/UniqueFd.h"

namespace hvn {
namespace util {

namespace {

struct IfAddrsFree {
  void operator()(ifaddrs* list) const { freeifaddrs(list); }
};
using IfAddrsPtr = std::unique_ptr<ifaddrs, IfAddrsFree>;

/// As strncpy(3) does, with a count of the name's own length: a name of IFNAMSIZ bytes and more
/// fills the field without a terminator, and the caller's zeros end a shorter one.
void CopyName(const std::string& ifname, ifreq& ifr) {
  const size_t count = std::min<size_t>(ifname.size(), IFNAMSIZ);
  std::memset(ifr.ifr_name, 0, count);
  std::memcpy(ifr.ifr_name, ifname.c_str(), strnlen(ifname.c_str(), count));
}

/// The kernel's 32 hex digits in groups of four.
std::string GroupHexDigits(const std::string& digits) {
  std::string text;
  for (size_t i = 0; i < digits.size(); i += 4) {
    if (i > 0) text += ':';
    text.append(digits, i, 4);
  }
  return text;
}

/// The address of an if_inet6 line that is a global unicast one of `ifname`, or empty.
std::string GlobalAddressOf(const std::string& line, const std::string& ifname) {
  if (line.empty() || line[0] != '2') return {};
  const size_t last_space = line.rfind(' ');
  if (last_space == std::string::npos ||
      line.compare(last_space + 1, std::string::npos, ifname) != 0) {
    return {};
  }
  const std::string digits = line.substr(0, line.find(' '));
  return digits.size() % 4 == 0 ? GroupHexDigits(digits) : std::string();
}

}  // namespace

bool CallInterface(const std::string& ifname, int request, ifreq& ifr) {
  static constexpr char kFunction[] =
      "static bool hvn::util::NetworkManager::CallGeneral(std::string, int, ifreq&)";
  if (ifname.empty()) {
    HUTIL_LOG(LOG_ERR, "%s %d: no ifname", kFunction, __LINE__);
    return false;
  }
  const UniqueFd fd(CloseOnExec(socket(AF_INET, SOCK_DGRAM, 0)));
  if (fd.get() < 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: failed to open socket\n", kFunction, __LINE__);
    return false;
  }
  CopyName(ifname, ifr);
  if (ioctl(fd.get(), static_cast<unsigned long>(request), &ifr) != 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: ioctlno [%d] errno [%d]\n", kFunction, __LINE__, request, errno);
    return false;
  }
  return true;
}

int InterfaceFlags(const std::string& ifname, int otherwise) {
  ifreq ifr = {};
  if (!CallInterface(ifname, SIOCGIFFLAGS, ifr)) return otherwise;
  return ifr.ifr_flags;
}

bool BringUpInterface(const std::string& ifname, ifreq& ifr) {
  if (!CallInterface(ifname, SIOCGIFFLAGS, ifr)) return false;
  ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP);
  return CallInterface(ifname, SIOCSIFFLAGS, ifr);
}

std::string HardwareAddress(const std::string& ifname) {
  ifreq ifr = {};
  if (!CallInterface(ifname, SIOCGIFHWADDR, ifr)) return {};
  unsigned char mac[6];
  std::memcpy(mac, ifr.ifr_hwaddr.sa_data, sizeof(mac));
  char text[128] = {};
  std::snprintf(text, sizeof(text), "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2], mac[3],
                mac[4], mac[5]);
  return text;
}

bool IsWirelessInterface(const std::string& ifname) {
  return access(("/sys/class/net/" + ifname + "/wireless").c_str(), F_OK) == 0;
}

bool SetIpv4Setting(const std::string& ifname, const std::string& text,
                    const Ipv4Setting& setting) {
  ifreq ifr = {};
  if (!BringUpInterface(ifname, ifr)) return false;
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  inet_aton(text.c_str(), &address.sin_addr);
  std::memcpy(&ifr.ifr_addr, &address, sizeof(address));
  if (!CallInterface(ifname, setting.request, ifr)) return false;
  HUTIL_LOG(LOG_DEBUG, "%s %d: ifname [%s] ip set as [%s]\n", setting.function, __LINE__,
            ifname.c_str(), text.c_str());
  return true;
}

bool GetIpv4Setting(const std::string& ifname, int request, std::string& out) {
  ifreq ifr = {};
  if (!CallInterface(ifname, request, ifr)) return false;
  sockaddr_in address;  // where all members of the request's union begin
  std::memcpy(&address, &ifr.ifr_addr, sizeof(address));
  out = Ipv4Text(address.sin_addr);
  return true;
}

std::string GlobalIpv6Address(const std::string& ifname) {
  const FilePtr file(std::fopen("/proc/net/if_inet6", "r"));
  if (!file) return {};
  std::string address;
  char buffer[512];
  while (address.empty() && std::fgets(buffer, sizeof(buffer), file.get()) != nullptr) {
    std::string line = buffer;
    if (!line.empty() && line.back() == '\n') line.pop_back();
    address = GlobalAddressOf(line, ifname);
  }
  return address;
}

std::vector<std::string> InterfaceNames() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    HUTIL_LOG(
        LOG_ERR, "%s %d: getifaddrs errno [%d]\n",
        "static std::vector<std::basic_string<char> > hvn::util::NetworkManager::GetIfNames()",
        __LINE__, errno);
    return {};
  }
  const IfAddrsPtr owner(list);
  std::set<std::string> names;
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr) continue;
    const int family = entry->ifa_addr->sa_family;
    if (family == AF_INET || family == AF_INET6 || family == AF_PACKET) {
      names.insert(entry->ifa_name);
    }
  }
  return {names.begin(), names.end()};
}

}  // namespace util
}  // namespace hvn
