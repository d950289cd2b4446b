#ifndef HUTIL_UTIL_INTERNAL_SOCKETADDRESS_H_
#define HUTIL_UTIL_INTERNAL_SOCKETADDRESS_H_

#include <linux/netlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <string>

#include "util/Socket.h"

namespace hvn {
namespace util {

/// A socket address of any of the library's domains. Zero-filled, so what the texts do not say is
/// 0; while nothing is set it is the null address of length 0.
class SocketAddress {
 public:
  /// The address of `domain` that is `host`, which is a file's or abstract name for kUnix, and
  /// `port`. kNetlink has none to set. An IPv4 text that is no literal, the empty one included,
  /// becomes 255.255.255.255. False, with nothing set, for an IPv6 text that is no literal and for
  /// a name that sun_path cannot hold (errno is ENAMETOOLONG then).
  bool Set(Socket::Domain domain, const std::string& host, int port);
  void SetNetlink(uint32_t port_id, uint32_t groups);

  bool is_set() const { return length_ > 0; }
  const sockaddr* get() const { return is_set() ? &address_.any : nullptr; }
  socklen_t length() const { return length_; }
  /// The IPv4 address as it goes over the wire.
  uint32_t ipv4_word() const { return address_.ipv4.sin_addr.s_addr; }

  /// Makes room for a peer's address of `domain`, to be filled through data() and mutable_length().
  /// None for kNetlink.
  void Expect(Socket::Domain domain);
  sockaddr* data() { return is_set() ? &address_.any : nullptr; }
  socklen_t* mutable_length() { return is_set() ? &length_ : nullptr; }

  /// A peer's path, `domain` being the one that was expected: "IP:PORT" for IPv4, "IP;PORT" for
  /// IPv6 (empty with errno set where it cannot be told), the file of a Unix peer (empty for an
  /// unnamed or abstract one).
  std::string Text(Socket::Domain domain) const;

 private:
  std::string UnixText() const;
  std::string Ipv4Text() const;
  std::string Ipv6Text() const;
  bool SetUnix(const std::string& path);
  void SetIpv4(const std::string& ip, int port);
  bool SetIpv6(const std::string& ip, int port);

  union {
    sockaddr_un local;  // the largest comes first, so that all of the union is zeroed
    sockaddr any;
    sockaddr_in ipv4;
    sockaddr_in6 ipv6;
    sockaddr_nl netlink;
  } address_ = {};
  socklen_t length_ = 0;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_SOCKETADDRESS_H_
