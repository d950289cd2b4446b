#include "util/internal/Datagram.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "util/internal/Log.h"
#include "util/internal/SocketSend.h"

namespace hvn {
namespace util {

ssize_t SendDatagram(int fd, const SocketAddress& address, const char* path, const void* data,
                     size_t size) {
  static constexpr char kFunction[] =
      "ssize_t hvn::util::Socket::SendTo(std::string, const void*, size_t)";
  size_t sent = 0;
  while (sent < size) {
    const ssize_t n = sendto(fd, static_cast<const char*>(data) + sent, size - sent, 0,
                             address.get(), address.length());
    const int error = errno;
    if (n > 0) {
      sent += std::min(static_cast<size_t>(n), size - sent);
    } else if (WorthRetrying(error)) {
      HUTIL_LOG(LOG_ERR, "%s %d: errno [%d] send ret [%zd] try one more time\n", kFunction,
                __LINE__, error, n);
    } else {
      HUTIL_LOG(LOG_ERR, "%s %d: errno [%d] cannot send data to [%s]\n", kFunction, __LINE__, error,
                path);
      break;
    }
  }
  return static_cast<ssize_t>(sent);
}

ssize_t ReceiveDatagram(int fd, Socket::Domain domain, char* buffer, size_t size,
                        std::string& path) {
  SocketAddress sender;
  if (domain == Socket::kUnix || domain == Socket::kIpv4) sender.Expect(domain);
  const ssize_t n = recvfrom(fd, buffer, size, 0, sender.data(), sender.mutable_length());
  if (n < 1) return n;
  if (domain == Socket::kUnix) path = sender.UnixText();
  if (domain == Socket::kIpv4) path = sender.Ipv4Text();
  return n;
}

}  // namespace util
}  // namespace hvn
