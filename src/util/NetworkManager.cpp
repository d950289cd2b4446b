#include "util/NetworkManager.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <utility>

#include "util/NetworkMonitor.h"
#include "util/internal/FilePtr.h"
#include "util/internal/Log.h"
#include "util/internal/UniqueFd.h"

namespace hvn {
namespace util {

namespace {

constexpr size_t kMacTextLength = 17;

struct AddrInfoFree {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using AddrInfoPtr = std::unique_ptr<addrinfo, AddrInfoFree>;

struct IfAddrsFree {
  void operator()(ifaddrs* list) const { freeifaddrs(list); }
};
using IfAddrsPtr = std::unique_ptr<ifaddrs, IfAddrsFree>;

std::string Ipv4Text(in_addr address) {
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &address, text, sizeof(text));
  return text;
}

std::string Ipv4Text(uint32_t host_order) { return Ipv4Text(in_addr{htonl(host_order)}); }

uint32_t HostOrder(const std::string& ip) { return ntohl(inet_addr(ip.c_str())); }

/// The IPv4 address in a request's answer; the union's members overlay one another.
in_addr AddressOf(const ifreq& ifr) {
  sockaddr_in address;
  std::memcpy(&address, &ifr.ifr_addr, sizeof(address));
  return address.sin_addr;
}

/// The interface's flags, or `otherwise` where they are not to be had.
int FlagsOf(const std::string& ifname, int otherwise) {
  ifreq ifr = {};
  if (!NetworkManager::CallGeneral(ifname, SIOCGIFFLAGS, ifr)) return otherwise;
  return ifr.ifr_flags;
}

bool SetAddress(const std::string& ifname, const std::string& text, int request) {
  ifreq ifr = {};
  if (!NetworkManager::WakeUpIfNeeded(ifname, ifr)) return false;
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  inet_aton(text.c_str(), &address.sin_addr);
  std::memcpy(&ifr.ifr_addr, &address, sizeof(address));
  return NetworkManager::CallGeneral(ifname, request, ifr);
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

bool FindGlobalIpv6(const std::string& ifname, std::string& out) {
  const FilePtr file(std::fopen("/proc/net/if_inet6", "r"));
  if (!file) return false;
  char buffer[512];
  while (out.empty() && std::fgets(buffer, sizeof(buffer), file.get()) != nullptr) {
    std::string line = buffer;
    if (!line.empty() && line.back() == '\n') line.pop_back();
    out = GlobalAddressOf(line, ifname);
  }
  return !out.empty();
}

void LogResolveTime(const char* function, const timeval& start, const timeval& end,
                    const std::string& host) {
  const intmax_t diff =
      (intmax_t{end.tv_sec} - start.tv_sec) * 1000000 + end.tv_usec - start.tv_usec;
  HUTIL_LOG(LOG_DEBUG, "%s %d: s %ld %ld e %ld %ld diff %jd host_name %s\n", function, __LINE__,
            static_cast<long>(start.tv_sec), static_cast<long>(start.tv_usec),
            static_cast<long>(end.tv_sec), static_cast<long>(end.tv_usec), diff, host.c_str());
}

/// The address text of a resolver's entry.
std::string EntryText(const addrinfo& entry) {
  char text[128] = {};
  if (entry.ai_family == AF_INET) {
    sockaddr_in address;
    std::memcpy(&address, entry.ai_addr, sizeof(address));
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text));
  } else {
    sockaddr_in6 address;
    std::memcpy(&address, entry.ai_addr, sizeof(address));
    inet_ntop(AF_INET6, &address.sin6_addr, text, sizeof(text));
  }
  return text;
}

}  // namespace

NetworkManager::NetworkManager() : monitor_(NetworkMonitor::GetInstance()) {}

void NetworkManager::SetEventCb(EventCallback cb) {
  if (monitor_ != nullptr) monitor_->SetCallback(this, std::move(cb));
}

void NetworkManager::UnsetEventCb() {
  if (monitor_ != nullptr) monitor_->RemoveCallback(this);
}

bool NetworkManager::CallGeneral(std::string ifname, int request, ifreq& ifr) {
  constexpr char kFunction[] =
      "static bool hvn::util::NetworkManager::CallGeneral(std::string, int, ifreq&)";
  if (ifname.empty()) {
    HUTIL_LOG(LOG_ERR, "%s %d: no ifname", kFunction, __LINE__);
    return false;
  }
  const UniqueFd fd(socket(AF_INET, SOCK_DGRAM, 0));
  if (fd.get() < 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: failed to open socket\n", kFunction, __LINE__);
    return false;
  }
  ifname.copy(ifr.ifr_name, IFNAMSIZ);
  if (ioctl(fd.get(), static_cast<unsigned long>(request), &ifr) != 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: ioctlno [%d] errno [%d]\n", kFunction, __LINE__, request, errno);
    return false;
  }
  return true;
}

std::string NetworkManager::GetMacAddress(std::string ifname) {
  ifreq ifr = {};
  if (!CallGeneral(std::move(ifname), SIOCGIFHWADDR, ifr)) return {};
  unsigned char mac[6];
  std::memcpy(mac, ifr.ifr_hwaddr.sa_data, sizeof(mac));
  char text[128] = {};
  std::snprintf(text, sizeof(text), "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2], mac[3],
                mac[4], mac[5]);
  return text;
}

bool NetworkManager::IsWirelessDevice(std::string ifname) {
  return access(("/sys/class/net/" + ifname + "/wireless").c_str(), F_OK) == 0;
}

bool NetworkManager::IsLoopBackDevice(std::string ifname) {
  return (FlagsOf(ifname, 0) & IFF_LOOPBACK) != 0;
}

bool NetworkManager::IsArpSupportedDevice(std::string ifname) {
  return (FlagsOf(ifname, IFF_NOARP) & IFF_NOARP) == 0;
}

bool NetworkManager::IsEthernetDevice(std::string ifname) {
  return !IsLoopBackDevice(ifname) && IsArpSupportedDevice(ifname) && !IsWirelessDevice(ifname);
}

bool NetworkManager::IsUpState(std::string ifname) { return (FlagsOf(ifname, 0) & IFF_UP) != 0; }

bool NetworkManager::WakeUpIfNeeded(std::string ifname, ifreq& ifr) {
  if (!CallGeneral(ifname, SIOCGIFFLAGS, ifr)) return false;
  ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP);
  return CallGeneral(std::move(ifname), SIOCSIFFLAGS, ifr);
}

bool NetworkManager::SetIpAddress(std::string ifname, std::string ip) {
  if (!SetAddress(ifname, ip, SIOCSIFADDR)) return false;
  HUTIL_LOG(LOG_DEBUG, "%s %d: ifname [%s] ip set as [%s]\n",
            "static bool hvn::util::NetworkManager::SetIpAddress(std::string, std::string)",
            __LINE__, ifname.c_str(), ip.c_str());
  return true;
}

bool NetworkManager::SetSubnetMask(std::string ifname, std::string mask) {
  if (!SetAddress(ifname, mask, SIOCSIFNETMASK)) return false;
  HUTIL_LOG(LOG_DEBUG, "%s %d: ifname [%s] ip set as [%s]\n",
            "static bool hvn::util::NetworkManager::SetSubnetMask(std::string, std::string)",
            __LINE__, ifname.c_str(), mask.c_str());
  return true;
}

bool NetworkManager::GetIpAddress(std::string ifname, std::string& out, bool ipv6) {
  out.clear();
  if (ipv6) return FindGlobalIpv6(ifname, out);
  ifreq ifr = {};
  if (!CallGeneral(std::move(ifname), SIOCGIFADDR, ifr)) return false;
  out = Ipv4Text(AddressOf(ifr));
  return !out.empty();
}

bool NetworkManager::GetSubnetMask(std::string ifname, std::string& out) {
  ifreq ifr = {};
  if (!CallGeneral(std::move(ifname), SIOCGIFNETMASK, ifr)) return false;
  out = Ipv4Text(AddressOf(ifr));
  return true;
}

std::vector<std::string> NetworkManager::GetIfNames() {
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

bool NetworkManager::CheckIpv4MacValidation(std::string mac) {
  if (mac.size() != kMacTextLength) return false;
  for (size_t i = 0; i < mac.size(); ++i) {
    const int c = std::toupper(static_cast<unsigned char>(mac[i]));
    const bool hex = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
    if (i % 3 == 2 ? c != ':' : !hex) return false;
  }
  return true;
}

bool NetworkManager::IsValidAddress(std::string address, bool ipv6) {
  unsigned char buffer[sizeof(in6_addr)];
  return !address.empty() && inet_pton(ipv6 ? AF_INET6 : AF_INET, address.c_str(), buffer) == 1;
}

bool NetworkManager::CheckIpv4SubnetMaskValidation(std::string netmask) {
  if (!IsValidAddress(netmask, false)) return false;
  const uint32_t host_bits = ~HostOrder(netmask);
  return (host_bits & (host_bits + 1)) == 0;
}

bool NetworkManager::GetIpv4DhcpRange(std::string gateway, std::string netmask, std::string& start,
                                      std::string& end) {
  constexpr char kFunction[] =
      "static bool hvn::util::NetworkManager::GetIpv4DhcpRange(std::string, std::string, "
      "std::string&, std::string&)";
  if (!IsValidAddress(gateway, false) || !CheckIpv4SubnetMaskValidation(netmask)) return false;
  const uint32_t g = HostOrder(gateway);
  const uint32_t m = HostOrder(netmask);
  const uint32_t s = g + 1;
  const uint32_t e = ~m | (g & m);
  HUTIL_LOG(LOG_DEBUG, "%s %d: gw [%x] nm [%x] start [%x] end [%x]\n", kFunction, __LINE__, g, m, s,
            e);
  if ((g & m) < (s & m)) return false;
  start = Ipv4Text(s);
  end = Ipv4Text(e);
  HUTIL_LOG(LOG_DEBUG, "%s %d: start [%s] end [%s]\n", kFunction, __LINE__, start.c_str(),
            end.c_str());
  return true;
}

bool NetworkManager::CheckIpv4DhcpRangeValidation(std::string gateway, std::string netmask,
                                                  std::string start, std::string end) {
  if (!IsValidAddress(gateway, false) || !CheckIpv4SubnetMaskValidation(netmask) ||
      !IsValidAddress(start, false) || !IsValidAddress(end, false)) {
    return false;
  }
  const uint32_t g = HostOrder(gateway);
  const uint32_t m = HostOrder(netmask);
  const uint32_t s = HostOrder(start);
  const uint32_t e = HostOrder(end);
  const bool same_subnet = (g & m) == (s & m) && (g & m) == (e & m);
  if (same_subnet && s <= e && g < s && g < e) return true;
  HUTIL_LOG(LOG_ERR, "%s %d: gw [%s] netmask [%s] start [%s] end [%s]\n",
            "static bool hvn::util::NetworkManager::CheckIpv4DhcpRangeValidation(std::string, "
            "std::string, std::string, std::string)",
            __LINE__, gateway.c_str(), netmask.c_str(), start.c_str(), end.c_str());
  return false;
}

std::string NetworkManager::GetHostNameByIp(std::string ip) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = inet_addr(ip.c_str());
  char name[NI_MAXHOST] = {};
  if (getnameinfo(reinterpret_cast<const sockaddr*>(&address), sizeof(address), name, sizeof(name),
                  nullptr, 0, NI_NAMEREQD) != 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: cannot get host info from ip [%s]\n",
              "static std::string hvn::util::NetworkManager::GetHostNameByIp(std::string)",
              __LINE__, ip.c_str());
    return {};
  }
  return name;
}

hvn::Result NetworkManager::ResolveHostName(std::string host, std::vector<std::string>& ipv4_list,
                                            std::vector<std::string>& ipv6_list) {
  constexpr char kFunction[] =
      "static hvn::Result hvn::util::NetworkManager::ResolveHostName(std::string, "
      "std::vector<std::basic_string<char> >&, std::vector<std::basic_string<char> >&)";
  ipv4_list.clear();
  ipv6_list.clear();
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo* list = nullptr;
  timeval start = {};
  timeval end = {};
  gettimeofday(&start, nullptr);
  const int error = getaddrinfo(host.c_str(), nullptr, &hints, &list);
  const int saved_errno = errno;
  gettimeofday(&end, nullptr);
  LogResolveTime(kFunction, start, end, host);
  if (error != 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: getaddrinfo errno %d\n", kFunction, __LINE__, saved_errno);
    return hvn::kFailure;
  }
  const AddrInfoPtr owner(list);
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_family == AF_INET) {
      ipv4_list.push_back(EntryText(*entry));
      HUTIL_LOG(LOG_DEBUG, "%s %d: <bind info:  %d %d %s>\n", kFunction, __LINE__,
                entry->ai_protocol, entry->ai_socktype, ipv4_list.back().c_str());
    } else if (entry->ai_family == AF_INET6) {
      ipv6_list.push_back(EntryText(*entry));
      HUTIL_LOG(LOG_DEBUG, "%s %d: <bind info: %d %d %s>\n", kFunction, __LINE__,
                entry->ai_protocol, entry->ai_socktype, ipv6_list.back().c_str());
    }
  }
  return hvn::kSuccess;
}

}  // namespace util
}  // namespace hvn
