#ifndef HUTIL_UTIL_INTERNAL_SOCKETOPTIONS_H_
#define HUTIL_UTIL_INTERNAL_SOCKETOPTIONS_H_

#include <string>

#include "util/Socket.h"

namespace hvn {
namespace util {

/// Sets the buffer sizes and, for TCP, has closing reset the connection; logs for Socket::Init what
/// the kernel made of it.
void TuneSocket(int fd, const Socket::SocketOption& option, bool is_tcp);

/// Binds `fd` to a network interface; logs for Socket::BindToDevice.
bool BindSocketToDevice(int fd, const std::string& ifname);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_SOCKETOPTIONS_H_
