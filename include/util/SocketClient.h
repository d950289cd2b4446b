#ifndef HUTIL_UTIL_SOCKETCLIENT_H_
#define HUTIL_UTIL_SOCKETCLIENT_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "util/Export.h"
#include "util/Result.h"
#include "util/Socket.h"
#include "util/SslWrapper.h"

namespace hvn {
namespace util {

/// A blocking client that connects once, when constructed; in clear or through TLS.
///
///     SocketClient::SocketClientOption option;
///     option.connect_timeout_us = 2000000;
///     SocketClient client("", Socket::kTcp, Socket::kIpv6, "::1;8443", option);
///     if (client.is_connected()) client.Send(std::string("ifaces\n"));
///
/// It does not connect again: build another one. In clear one thread may send while another
/// receives; with TLS a waiting Recv holds up every Send. A wrapper is not told when the client
/// goes: call RemoveClient(fd()) before.
class HUTIL_EXPORT SocketClient : public Socket {
 public:
  struct SocketClientOption {
    SocketClientOption(SslWrapper* wrapper = nullptr, int timeout_us = 0,  // NOLINT: as above
                       Socket::SocketOption option = Socket::SocketOption())
        : ssl(wrapper), connect_timeout_us(timeout_us), socket_option(option) {}
    SslWrapper* ssl;         ///< Not owned, outlives the client; null for clear text.
    int connect_timeout_us;  ///< Microseconds; 0 or less waits without a limit.
    Socket::SocketOption socket_option;
  };

  /// Binds to `path` (usually empty), connects to `dest` and runs the TLS handshake where a wrapper
  /// is given, which is tried in any case, with no time limit but SslWrapper::SetTimeLimit's. UDP
  /// and raw sockets of the IP domains are not connected: use SendTo with a path. is_connected()
  /// tells whether the connection stands; a failed handshake shows at the first Send. Logs the
  /// limit at 7; Socket and SslWrapper log the failures. Owner.
  SocketClient(std::string path, Socket::Protocol protocol, Socket::Domain domain, std::string dest,
               SocketClientOption option);

  /// Sends as SslWrapper::Send or Socket::Send does. -1 with a log line (3) while unconnected. Any
  /// thread.
  ssize_t Send(const void* data, size_t size);
  ssize_t Send(std::string data);
  ssize_t Send(void* data, size_t size);
  /// Receives as SslWrapper::Recv or Socket::Recv does. Any thread.
  ssize_t Recv(void* buf, size_t size);
  /// Socket::RecvTimedWait; -1 at once with TLS, which offers no timed receive. Any thread.
  ssize_t RecvTimedWait(void* buf, size_t size, uint64_t timeout_us, int flags);

 private:
  SslWrapper* ssl_;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_SOCKETCLIENT_H_
