#include "util/internal/SocketOptions.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "util/internal/Interfaces.h"
#include "util/internal/Log.h"
#include "util/internal/SocketConnect.h"

namespace hvn {
namespace util {

namespace {

constexpr char kInit[] = "hvn::Result hvn::util::Socket::Init()";
constexpr char kBindToDevice[] = "bool hvn::util::Socket::BindToDevice(std::string)";

/// Asks for a size and reads back what the kernel made of it; getsockopt's result.
int SetBufferSize(int fd, int option, int32_t& size) {
  socklen_t length = sizeof(size);
  setsockopt(fd, SOL_SOCKET, option, &size, length);
  return getsockopt(fd, SOL_SOCKET, option, &size, &length);
}

bool SetFlag(int fd, int level, int option, bool on) {
  const int value = on ? 1 : 0;
  return setsockopt(fd, level, option, &value, sizeof(value)) == 0;
}

bool IsInterface(const std::string& ifname) {
  const std::vector<std::string> names = InterfaceNames();
  if (names.empty()) {
    HUTIL_LOG(LOG_ERR, "%s %d: No available interface", kBindToDevice, __LINE__);
    return false;
  }
  if (std::find(names.begin(), names.end(), ifname) != names.end()) return true;
  HUTIL_LOG(LOG_ERR, "%s %d: There's no interface named %s\n", kBindToDevice, __LINE__,
            ifname.c_str());
  return false;
}

}  // namespace

void TuneSocket(int fd, const Socket::SocketOption& option, bool is_tcp) {
  if (int32_t size = option.send_buffer_size; size > 0) {
    const int ret = SetBufferSize(fd, SO_SNDBUF, size);
    HUTIL_LOG(LOG_DEBUG, "%s %d: ret [%d] fd [%d] SO_SNDBUF [%d]\n", kInit, __LINE__, ret, fd,
              size);
  }
  if (int32_t size = option.recv_buffer_size; size > 0) {
    const int ret = SetBufferSize(fd, SO_RCVBUF, size);
    HUTIL_LOG(LOG_DEBUG, "%s %d: ret [%d] fd [%d] SO_RCVBUF [%d]\n", kInit, __LINE__, ret, fd,
              size);
  }
  if (is_tcp) {
    linger value = {1, 0};
    socklen_t length = sizeof(value);
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &value, length);
    const int ret = getsockopt(fd, SOL_SOCKET, SO_LINGER, &value, &length);
    HUTIL_LOG(LOG_DEBUG, "%s %d: ret [%d] fd [%d] SO_LINGER [%d:%d]\n", kInit, __LINE__, ret, fd,
              value.l_onoff, value.l_linger);
  }
}

hvn::Result SetReuseAddressOf(int fd) {
  if (SetFlag(fd, SOL_SOCKET, SO_REUSEADDR, true)) return hvn::kSuccess;
  HUTIL_LOG(LOG_ERR, "%s %d: errno [%d]\n", "hvn::Result hvn::util::Socket::SetReuseAddress()",
            __LINE__, errno);
  return hvn::kFailure;
}

hvn::Result SetNoDelayOf(int fd, bool on) {
  if (SetFlag(fd, IPPROTO_TCP, TCP_NODELAY, on)) return hvn::kSuccess;
  HUTIL_LOG(LOG_ERR, "%s %d: setsockopt TCP_NODELAY errno [%d]\n",
            "hvn::Result hvn::util::Socket::SetTCPNoDelay(bool)", __LINE__, errno);
  return hvn::kFailure;
}

hvn::Result SetNonBlockOf(int fd, bool on) {
  int flags = fcntl(fd, F_GETFL);
  if (flags < 0) return hvn::kFailure;
  flags = on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
  if (fcntl(fd, F_SETFL, flags) >= 0) return hvn::kSuccess;
  HUTIL_LOG(LOG_WARNING, "%s %d : fcntl [%d] F_SETFL flags [%d] cannot be executed\n",
            "SetNonBlock", __LINE__, fd, flags);
  return hvn::kFailure;
}

bool BindSocketToDevice(int fd, const std::string& ifname) {
  if (fd < 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: No fd\n", kBindToDevice, __LINE__);
    return false;
  }
  if (!IsInterface(ifname)) return false;
  ifreq ifr = {};
  std::snprintf(ifr.ifr_name, sizeof(ifr.ifr_name), "%s", ifname.c_str());
  // The index is not needed: that it cannot be had tells of an interface that is just going.
  if (ioctl(fd, SIOCGIFINDEX, &ifr) != 0) {
    HUTIL_LOG(LOG_WARNING, "%s %d: fd [%d] SIOCGIFINDEX errno [%d]\n", kBindToDevice, __LINE__, fd,
              errno);
  }
  if (setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, &ifr, sizeof(ifr)) != 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: Cannot bind socket %d to device %s\n", kBindToDevice, __LINE__, fd,
              ifname.c_str());
    return false;
  }
  HUTIL_LOG(LOG_DEBUG, "%s %d: Success to bind socket %d to interface %s\n", kBindToDevice,
            __LINE__, fd, ifname.c_str());
  return true;
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

int TakeConnectError(int fd) {
  int error = 0;
  socklen_t length = sizeof(error);
  const int ret = getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
  HUTIL_LOG(LOG_DEBUG, "%s %d: sock_ret %d so_error %d\n", kConnect, __LINE__, ret, error);
  return ret == 0 ? error : -1;
}

void SendAtOnce(int fd) { SetFlag(fd, IPPROTO_TCP, TCP_NODELAY, true); }

void EnlargeReceiveBuffer(int fd, int size) {
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) == 0) return;
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
}

void SetGracefulClose(int fd) {
  const linger off = {0, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &off, sizeof(off));
}

void SetAbortiveClose(int fd) {
  const linger none = {1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &none, sizeof(none));
}

bool IsListening(int fd) {
  int value = 0;
  socklen_t length = sizeof(value);
  return getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &value, &length) == 0 && value != 0;
}

bool ReadTcpInfo(int fd, tcp_info& info) {
  static_assert(sizeof(info) == 104, "the record that the kernel is asked for");
  socklen_t length = sizeof(info);
  return getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0;
}

}  // namespace util
}  // namespace hvn
