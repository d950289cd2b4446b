#include "util/internal/PeerName.h"

#include <sys/socket.h>

#include "util/internal/SocketAddress.h"

namespace hvn {
namespace util {

std::string PeerName(int fd) {
  sockaddr_storage any = {};
  socklen_t length = sizeof(any);
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&any), &length) != 0) return {};
  const Socket::Domain domain = any.ss_family == AF_INET    ? Socket::kIpv4
                                : any.ss_family == AF_INET6 ? Socket::kIpv6
                                                            : Socket::kUnix;
  SocketAddress peer;
  peer.Expect(domain);
  if (getpeername(fd, peer.data(), peer.mutable_length()) != 0) return {};
  return peer.Text(domain);
}

}  // namespace util
}  // namespace hvn
