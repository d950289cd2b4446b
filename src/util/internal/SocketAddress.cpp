#include "util/internal/SocketAddress.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstring>

#include "util/internal/Ipv4.h"

namespace hvn {
namespace util {

bool SocketAddress::Set(Socket::Domain domain, const std::string& host, int port) {
  if (domain == Socket::kUnix) return SetUnix(host);
  if (domain == Socket::kIpv6) return SetIpv6(host, port);
  if (domain == Socket::kIpv4) SetIpv4(host, port);
  return true;
}

/// The length covers all of sun_path, so an abstract name is padded with NULs on both sides alike.
bool SocketAddress::SetUnix(const std::string& path) {
  if (path.size() > sizeof(address_.local.sun_path)) {
    errno = ENAMETOOLONG;
    return false;
  }
  address_.local.sun_family = AF_UNIX;
  path.copy(address_.local.sun_path, sizeof(address_.local.sun_path));
  length_ = sizeof(address_.local);
  return true;
}

void SocketAddress::SetIpv4(const std::string& ip, int port) {
  address_.ipv4.sin_family = AF_INET;
  address_.ipv4.sin_port = htons(static_cast<uint16_t>(port));
  address_.ipv4.sin_addr.s_addr = inet_addr(ip.c_str());
  length_ = sizeof(address_.ipv4);
}

bool SocketAddress::SetIpv6(const std::string& ip, int port) {
  in6_addr address;
  if (inet_pton(AF_INET6, ip.c_str(), &address) != 1) return false;
  address_.ipv6.sin6_family = AF_INET6;
  address_.ipv6.sin6_port = htons(static_cast<uint16_t>(port));
  address_.ipv6.sin6_addr = address;
  length_ = sizeof(address_.ipv6);
  return true;
}

void SocketAddress::SetNetlink(uint32_t port_id, uint32_t groups) {
  address_.netlink.nl_family = AF_NETLINK;
  address_.netlink.nl_pid = port_id;
  address_.netlink.nl_groups = groups;
  length_ = sizeof(address_.netlink);
}

void SocketAddress::Expect(Socket::Domain domain) {
  address_ = {};
  length_ = domain == Socket::kUnix   ? sizeof(address_.local)
            : domain == Socket::kIpv4 ? sizeof(address_.ipv4)
            : domain == Socket::kIpv6 ? sizeof(address_.ipv6)
                                      : 0;
}

std::string SocketAddress::Text(Socket::Domain domain) const {
  if (domain == Socket::kUnix) return UnixText();
  if (domain == Socket::kIpv4) return Ipv4Text();
  return domain == Socket::kIpv6 ? Ipv6Text() : std::string();
}

std::string SocketAddress::UnixText() const {
  const char* name = address_.local.sun_path;
  return std::string(name, strnlen(name, sizeof(address_.local.sun_path)));
}

std::string SocketAddress::Ipv4Text() const {
  std::string text = util::Ipv4Text(address_.ipv4.sin_addr);
  return text.append(1, ':').append(std::to_string(ntohs(address_.ipv4.sin_port)));
}

std::string SocketAddress::Ipv6Text() const {
  char text[INET6_ADDRSTRLEN] = {};
  if (inet_ntop(AF_INET6, &address_.ipv6.sin6_addr, text, sizeof(text)) == nullptr) return {};
  return text + (";" + std::to_string(ntohs(address_.ipv6.sin6_port)));
}

}  // namespace util
}  // namespace hvn
