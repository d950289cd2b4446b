#include "util/internal/SocketConnect.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

#include "util/internal/Log.h"
#include "util/internal/Select.h"

namespace hvn {
namespace util {

namespace {

/// The pending error of the socket, 0 for none and -1 where it could not be read.
int ReadError(int fd) {
  int error = 0;
  socklen_t length = sizeof(error);
  const int ret = getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
  HUTIL_LOG(LOG_DEBUG, "%s %d: sock_ret %d so_error %d\n", kConnect, __LINE__, ret, error);
  return ret == 0 ? error : -1;
}

}  // namespace

int ConnectTo(int fd, const SocketAddress& address) {
  if (address.is_set()) return connect(fd, address.get(), address.length());
  errno = ENAMETOOLONG;
  return -1;
}

int AwaitConnection(int fd, int timeout_us, int result) {
  fd_set read_set;
  FD_ZERO(&read_set);
  FD_SET(fd, &read_set);
  fd_set write_set = read_set;
  timeval span = ToTimeval(static_cast<uint64_t>(timeout_us));
  HUTIL_LOG(LOG_DEBUG, "%s %d: timeout sec %ld usec %ld\n", kConnect, __LINE__,
            static_cast<long>(span.tv_sec), static_cast<long>(span.tv_usec));
  if (select(fd + 1, &read_set, &write_set, nullptr, &span) > 0) {
    // Reading the error clears it, so a refusal that shows in both sets is seen in the first only.
    const bool refused = FD_ISSET(fd, &read_set) && ReadError(fd) > 0;
    const bool writable = FD_ISSET(fd, &write_set) && ReadError(fd) == 0;
    if (refused) {
      result = -1;
    } else if (writable) {
      result = 0;
    }
  }
  return result;
}

void JoinMulticast(int fd, const std::string& ip) {
  ip_mreq group = {};
  group.imr_multiaddr.s_addr = inet_addr(ip.c_str());
  group.imr_interface.s_addr = htonl(INADDR_ANY);
  if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof(group)) != 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: Cannot join multicast on [%s]\n", kConnect, __LINE__, ip.c_str());
  } else {
    HUTIL_LOG(LOG_INFO, "success to join multicast on [%s]\n", ip.c_str());
  }
}

}  // namespace util
}  // namespace hvn
