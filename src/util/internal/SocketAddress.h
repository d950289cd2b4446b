#ifndef HUTIL_UTIL_INTERNAL_SOCKETADDRESS_H_
#define HUTIL_UTIL_INTERNAL_SOCKETADDRESS_H_

#include <linux/netlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "util/Socket.h"

namespace hvn {
namespace util {

/// A socket address of any of the library's domains. Zero-filled, so what the texts do not say is
/// 0; while nothing is set it is the null address of length 0.
class SocketAddress {
 public:
  /// The whole of `path`, at most what sun_path holds; else false with errno ENAMETOOLONG. The
  /// length covers all of sun_path, so an abstract name is padded with NULs on both sides alike.
  bool SetUnix(const std::string& path);
  /// A text that is no literal, the empty one included, becomes 255.255.255.255.
  void SetIpv4(const std::string& ip, int port);
  /// False where `ip` is no IPv6 literal.
  bool SetIpv6(const std::string& ip, int port);
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

  /// The peer's socket file; empty for an unnamed or abstract peer.
  std::string UnixText() const;
  /// "IP:PORT".
  std::string Ipv4Text() const;
  /// "IP;PORT", or empty with errno set.
  std::string Ipv6Text() const;

 private:
  union {
    sockaddr_un local;  // the largest comes first, so that all of the union is zeroed
    sockaddr any;
    sockaddr_in ipv4;
    sockaddr_in6 ipv6;
    sockaddr_nl netlink;
  } address_ = {};
  socklen_t length_ = 0;
};

/// One datagram from `fd` into `buffer`, zeros behind it, with the sender's text in `path` where
/// `domain` has one (IPv4 and Unix). recvfrom's result.
ssize_t ReceiveDatagram(int fd, Socket::Domain domain, char* buffer, size_t size,
                        std::string& path);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_SOCKETADDRESS_H_
