#ifndef HUTIL_UTIL_SOCKETSERVER_H_
#define HUTIL_UTIL_SOCKETSERVER_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "util/Export.h"
#include "util/FdMonitor.h"
#include "util/Socket.h"
#include "util/SslWrapper.h"
#include "util/Thread.h"

namespace hvn {
namespace util {

struct Client;
class ClientTable;
class EventGate;
class ServerGuard;

/// A listening socket that serves its clients, or its datagrams, on an event loop of its own.
///
///     SocketServer echo("::;7007", Socket::kTcp, Socket::kIpv6,
///                       [&echo](int, int client, std::string, void* data, size_t size) {
///                         return echo.SendTo(client, data, size) >= 0;
///                       }, nullptr);
///
/// Both callbacks run on the loop's thread with no lock held, all clients after one another: they
/// must not block it for long. No callback runs after the destructor has returned. A TLS handshake
/// runs on that thread too, and a peer that is silent in it, or within a record, holds all clients
/// up: set SO_RCVTIMEO (see socket(7)) on fd(), which they inherit. A callback gets 8192 bytes at
/// the most: a longer message of a stream comes in several, a longer datagram is cut.
class HUTIL_EXPORT SocketServer : public Socket {
 public:
  /// Gets the server's descriptor, the client's (0 for a datagram), the peer's path ("IP:PORT" for
  /// IPv4, "IP;PORT" for IPv6 but empty for its datagrams, the peer's file or nothing for kUnix)
  /// and the bytes, which live for the call only. The result is ignored.
  using DataCallback = std::function<bool(int, int, std::string, void*, size_t)>;
  /// Gets the server's descriptor, the new client's and its path.
  using NewClientCallback = std::function<void(int, int, std::string)>;

  /// What a server does beyond serving; by default nothing.
  struct SocketServerOption {
    Socket::SocketOption socket_option;  ///< Of the listening socket; clients inherit the sizes.
    int backlog = 5;  ///< Connections that may wait to be accepted; see listen(2).
    /// Milliseconds above 0: the loop waits for no peer, and a client that keeps it waiting longer
    /// than that is taken out.
    int peer_timeout_ms = 0;
    /// Closing a client sends what is still to be sent. False: it resets the connection.
    bool linger = false;
    /// Called on the loop's thread as (server, client, path) for each client that has left.
    std::function<void(int, int, std::string)> client_gone_cb;
  };

  /// Binds `path`, listens and serves at once; a wrapper, not owned, outlives the server. With an
  /// empty `cb`, where the socket could not be made (fd() is -1) and on descriptor 0, nothing is
  /// ever served. The loop logs each accept at 7 and failures at 3. Owner.
  SocketServer(std::string path, Socket::Protocol protocol, Socket::Domain domain, DataCallback cb,
               SslWrapper* ssl);
  SocketServer(std::string path, Socket::Protocol protocol, Socket::Domain domain, DataCallback cb,
               SslWrapper* ssl, SocketServerOption option);
  SocketServer(int fd, Socket::Protocol protocol, Socket::Domain domain, DataCallback cb,
               SslWrapper* ssl);
  SocketServer(int fd, Socket::Protocol protocol, Socket::Domain domain, DataCallback cb,
               SslWrapper* ssl, SocketServerOption option);
  /// Ends the loop. Clients still connected are neither closed nor told, but for this: an event
  /// that lasts longer than a second (a silent peer's handshake, a full send) has the connections
  /// of all clients shut down. One that another thread took out during its own event is not among
  /// them, and is waited for. Not to be called from a callback of this server. Owner.
  ~SocketServer();

  /// Sets what is called for each client accepted from now on; ignored unless TCP. Any thread.
  void SetNewClientCb(NewClientCallback cb);

  /// Sends to the client `fd`, through TLS where the server has it, as Socket::SendTo or
  /// SslWrapper::Send does. -1, silently, for a descriptor that is no client's, which another
  /// thread than the loop's may meet for a client that is just going; one that goes during the send
  /// is closed after it. A UDP server sends on its own descriptor only, which is connected to no
  /// one. Any thread.
  ssize_t SendTo(int fd, void* data, size_t size);
  ssize_t SendTo(int fd, std::string data);
  /// Socket::SendTo: a datagram to the address `path`. Any thread.
  ssize_t SendTo(std::string path, std::string data);

  ssize_t Reply(const void* data, size_t size);
  bool Close(int client);

  /// Enters a client; one already known keeps its path, one without a TLS connection is dropped at
  /// its first data where the server has TLS. Any thread.
  void AddFd(int fd, std::string path);
  /// Forgets a client without closing `fd`; logs at 7. One last event may be under way, and sends
  /// of other threads go on: close `fd` in its own callback if no other thread sends to it, or when
  /// the server is gone, after RemoveClient on the wrapper if there is one. Any thread.
  void RemoveFd(int fd);
  /// What the loop calls for the server's descriptor and each client's; not for callbacks. Loop
  /// thread.
  void FdCallback(int fd, FdType type);

 private:
  using ClientPtr = std::shared_ptr<Client>;

  void Start();
  bool StartGuard();
  void ReleaseLoop();
  FdMonitor::Callback LoopCallback();
  void AcceptClient();
  bool ShakeHands(int client);
  void Admit(int client, const std::string& path);
  void ReceiveFromClient(int fd, ClientPtr client);
  bool ReadOnce(ClientPtr& client);
  bool IsItsTurn(ClientPtr& client);
  void ReceiveOneDatagram();
  ssize_t SendToClient(int fd, const void* data, size_t size);
  void DropClient(ClientPtr client);
  void TellOfDeparted();

  const pid_t maker_;  ///< The process that has the loop.
  uint32_t recv_buf_size_;
  const SocketServerOption option_;
  Mutex mutex_;  ///< Guards new_client_cb_.
  DataCallback data_cb_;
  NewClientCallback new_client_cb_;
  SslWrapper* ssl_;
  std::unique_ptr<EventGate> gate_;
  std::unique_ptr<ClientTable> clients_;
  std::unique_ptr<ServerGuard> guard_;     ///< Null without options that need it.
  std::unique_ptr<FdMonitor> fd_monitor_;  ///< Last, so that the loop ends before the rest goes.
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_SOCKETSERVER_H_
