#include "util/SocketClient.h"

#include <utility>

#include "util/internal/Log.h"

namespace hvn {
namespace util {

namespace {
[[maybe_unused]] const std::string kTag = "util::SocketClient";  // for a debugger
}  // namespace

SocketClient::SocketClient(std::string path, Socket::Protocol protocol, Socket::Domain domain,
                           std::string dest, SocketClientOption option)
    : Socket(std::move(path), protocol, domain, option.socket_option), ssl_(option.ssl) {
  if (!dest.empty() && (protocol == kTcp || domain == kUnix)) {
    HUTIL_LOG(LOG_DEBUG, "%s %d: connect_timeout_us %d\n",
              "hvn::util::SocketClient::SocketClient(std::string, hvn::util::Socket::Protocol, "
              "hvn::util::Socket::Domain, std::string, "
              "hvn::util::SocketClient::SocketClientOption)",
              __LINE__, option.connect_timeout_us);
    Socket::Connect(std::move(dest), option.connect_timeout_us);
  }
  if (ssl_ != nullptr) ssl_->Connect(fd_);
}

ssize_t SocketClient::Send(const void* data, size_t size) {
  if (!is_connected_) {
    HUTIL_LOG(LOG_ERR, "%s %d: Cannot Send without connection\n",
              "ssize_t hvn::util::SocketClient::Send(const void*, size_t)", __LINE__);
    return -1;
  }
  return ssl_ != nullptr ? ssl_->Send(fd_, data, size) : Socket::Send(data, size);
}

ssize_t SocketClient::Send(std::string data) { return Send(data.data(), data.size()); }

ssize_t SocketClient::Send(void* data, size_t size) {
  return Send(static_cast<const void*>(data), size);
}

ssize_t SocketClient::Recv(void* buf, size_t size) {
  return ssl_ != nullptr ? ssl_->Recv(fd_, buf, size) : Socket::Recv(buf, size, 0);
}

ssize_t SocketClient::RecvTimedWait(void* buf, size_t size, uint64_t timeout_us, int flags) {
  return ssl_ != nullptr ? -1 : Socket::RecvTimedWait(buf, size, timeout_us, flags);
}

}  // namespace util
}  // namespace hvn
