#include "util/internal/Ipv4.h"

#include <arpa/inet.h>

#include <cctype>

#include "util/internal/Log.h"

namespace hvn {
namespace util {

namespace {
constexpr size_t kMacTextLength = 17;
}  // namespace

std::string Ipv4Text(in_addr address) { return Ipv4Text(ntohl(address.s_addr)); }

// Each datagram's sender is made text: inet_ntop takes several times as long.
std::string Ipv4Text(uint32_t address) {
  std::string text = std::to_string(address >> 24);
  for (const int shift : {16, 8, 0}) {
    text.append(1, '.').append(std::to_string(address >> shift & 0xFF));
  }
  return text;
}

uint32_t Ipv4Number(const std::string& text) { return ntohl(inet_addr(text.c_str())); }

bool IsValidAddress(const std::string& text, bool ipv6) {
  unsigned char address[sizeof(in6_addr)];
  return !text.empty() && inet_pton(ipv6 ? AF_INET6 : AF_INET, text.c_str(), address) == 1;
}

bool IsIpv4Netmask(const std::string& text) {
  if (!IsValidAddress(text, false)) return false;
  const uint32_t host_bits = ~Ipv4Number(text);
  return (host_bits & (host_bits + 1)) == 0;
}

bool IsMacAddress(const std::string& text) {
  if (text.size() != kMacTextLength) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const int c = std::toupper(static_cast<unsigned char>(text[i]));
    const bool hex = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
    if (i % 3 == 2 ? c != ':' : !hex) return false;
  }
  return true;
}

bool GetIpv4Range(const std::string& gateway, const std::string& netmask, std::string& start,
                  std::string& end) {
  static constexpr char kFunction[] =
      "static bool hvn::util::NetworkManager::GetIpv4DhcpRange(std::string, std::string, "
      "std::string&, std::string&)";
  if (!IsValidAddress(gateway, false) || !IsIpv4Netmask(netmask)) return false;
  const uint32_t g = Ipv4Number(gateway);
  const uint32_t m = Ipv4Number(netmask);
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

bool IsIpv4Range(const std::string& gateway, const std::string& netmask, const std::string& start,
                 const std::string& end) {
  if (!IsValidAddress(gateway, false) || !IsIpv4Netmask(netmask) || !IsValidAddress(start, false) ||
      !IsValidAddress(end, false)) {
    return false;
  }
  const uint32_t g = Ipv4Number(gateway);
  const uint32_t m = Ipv4Number(netmask);
  const uint32_t s = Ipv4Number(start);
  const uint32_t e = Ipv4Number(end);
  const bool same_subnet = (g & m) == (s & m) && (g & m) == (e & m);
  if (same_subnet && s <= e && g < s && g < e) return true;
  HUTIL_LOG(LOG_ERR, "%s %d: gw [%s] netmask [%s] start [%s] end [%s]\n",
            "static bool hvn::util::NetworkManager::CheckIpv4DhcpRangeValidation(std::string, "
            "std::string, std::string, std::string)",
            __LINE__, gateway.c_str(), netmask.c_str(), start.c_str(), end.c_str());
  return false;
}

}  // namespace util
}  // namespace hvn
