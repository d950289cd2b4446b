#include "util/internal/SocketOptions.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "util/NetworkManager.h"
#include "util/internal/Log.h"

namespace hvn {
namespace util {

namespace {

constexpr char kInit[] = "hvn::Result hvn::util::Socket::Init()";

/// Asks for a size and reads back what the kernel made of it; getsockopt's result.
int SetBufferSize(int fd, int option, int32_t& size) {
  socklen_t length = sizeof(size);
  setsockopt(fd, SOL_SOCKET, option, &size, length);
  return getsockopt(fd, SOL_SOCKET, option, &size, &length);
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

bool BindSocketToDevice(int fd, const std::string& ifname) {
  constexpr char kFunction[] = "bool hvn::util::Socket::BindToDevice(std::string)";
  if (fd < 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: No fd\n", kFunction, __LINE__);
    return false;
  }
  const std::vector<std::string> names = NetworkManager::GetIfNames();
  if (names.empty()) {
    HUTIL_LOG(LOG_ERR, "%s %d: No available interface", kFunction, __LINE__);
    return false;
  }
  if (std::find(names.begin(), names.end(), ifname) == names.end()) {
    HUTIL_LOG(LOG_ERR, "%s %d: There's no interface named %s\n", kFunction, __LINE__,
              ifname.c_str());
    return false;
  }
  ifreq ifr = {};
  std::snprintf(ifr.ifr_name, sizeof(ifr.ifr_name), "%s", ifname.c_str());
  if (ioctl(fd, SIOCGIFINDEX, &ifr) != 0) {
    HUTIL_LOG(LOG_WARNING, "%s %d: fd [%d] SIOCGIFINDEX errno [%d]\n", kFunction, __LINE__, fd,
              errno);
  }
  if (setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, &ifr, sizeof(ifr)) != 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: Cannot bind socket %d to device %s\n", kFunction, __LINE__, fd,
              ifname.c_str());
    return false;
  }
  HUTIL_LOG(LOG_DEBUG, "%s %d: Success to bind socket %d to interface %s\n", kFunction, __LINE__,
            fd, ifname.c_str());
  return true;
}

}  // namespace util
}  // namespace hvn
