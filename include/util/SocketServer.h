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
///     SocketServer::SocketServerOption option;
///     option.peer_timeout_ms = 5000;
///     SocketServer echo("::;7007", Socket::kTcp, Socket::kIpv6,
///                       [&echo](int, int, std::string, void* data, size_t size) {
///                         return echo.Reply(data, size) >= 0;
///                       }, nullptr, option);
///
/// All callbacks run on the loop's thread with no lock held, all clients after one another: they
/// must not block it for long. None runs after the destructor has returned. Without a time limit
/// for peers, one that is silent in its TLS handshake or within a record, or does not read its
/// answer, holds all clients up. A callback gets 8192 bytes at the most: a longer message of a
/// stream comes in several, a longer datagram is cut.
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
    Socket::SocketOption
        socket_option;  ///< Of the listening socket; TCP clients inherit the sizes.
    int backlog = 5;    ///< Connections that may wait to be accepted; see listen(2).
    /// Milliseconds. Above 0 the loop waits for no peer: a client that has not finished a TLS
    /// handshake, a record that it has begun, or the taking of an answer within that time (each as
    /// a whole, however it drips) is taken out with a log line (3). SendTo and Reply keep what the
    /// peer does not take at once, and nothing more is read from it until then; a client that more
    /// than 8 MiB are kept for when more is to be sent is taken out too. Sends raise no SIGPIPE.
    /// Where descriptors run out, newcomers are turned away. To datagrams it is SetSendLimit.
    int peer_timeout_ms = 0;
    /// Closing a client sends what is still to be sent. False: it resets the connection.
    bool linger = false;
    /// Called on the loop's thread as (server, client, path) for each client that has left, by
    /// whatever road: before a client that the server accepts can have the number (one that AddFd
    /// enters can), and before the server closes it. Not for those that are left when the server
    /// goes, or leave just before it.
    std::function<void(int, int, std::string)> client_gone_cb;
  };

  /// Binds `path`, listens and serves at once; a wrapper, not owned, outlives the server. With an
  /// empty `cb`, where the socket could not be made (fd() is -1) and on descriptor 0, nothing is
  /// ever served. The loop logs each accept at 7 and failures at 3. Owner.
  SocketServer(std::string path, Socket::Protocol protocol, Socket::Domain domain, DataCallback cb,
               SslWrapper* ssl);
  SocketServer(std::string path, Socket::Protocol protocol, Socket::Domain domain, DataCallback cb,
               SslWrapper* ssl, SocketServerOption option);
  /// The same for a descriptor of the caller's, bound (it is made to listen) or listening already,
  /// such as one that systemd passes. It stays the caller's, who closes it after the server's end,
  /// but a TCP one becomes non-blocking, as other processes may serve it too. fd() is -1 where it
  /// could not be made to listen (logged, 3). Owner.
  SocketServer(int fd, Socket::Protocol protocol, Socket::Domain domain, DataCallback cb,
               SslWrapper* ssl);
  SocketServer(int fd, Socket::Protocol protocol, Socket::Domain domain, DataCallback cb,
               SslWrapper* ssl, SocketServerOption option);
  /// Ends the loop. Clients still connected are neither closed nor told, and stay known to the
  /// wrapper. A callback that is running finds none of them any more: its sends return -1. Where it
  /// lasts longer than a second, the connections that it is about or sends to are shut down, as is
  /// a handshake. A datagram to a Unix peer that has stopped reading is waited for, unless there is
  /// a time limit. Not to be called from a callback of this server. Owner.
  ~SocketServer();

  /// Sets what is called for each client accepted from now on; ignored unless TCP. Any thread.
  void SetNewClientCb(NewClientCallback cb);

  /// Sends to the client `fd`, through TLS where the server has it, as Socket::SendTo or
  /// SslWrapper::Send does. -1, silently, for a descriptor that is no client's, which another
  /// thread than the loop's may meet for a client that is just going; one that goes during the send
  /// is closed after it. After any other failure a part may have gone out: only Close remains, or
  /// RemoveFd, the wrapper's RemoveClient and close(2). A UDP server sends on its own descriptor
  /// only, which is connected to no one. Any thread.
  ssize_t SendTo(int fd, void* data, size_t size);
  ssize_t SendTo(int fd, std::string data);
  /// Socket::SendTo: a datagram to the address `path`, which callbacks name in another form for
  /// IPv4 ("IP:PORT"; here it is "IP;PORT"). For datagram servers only: a listening socket fails
  /// and tries again without end. Any thread.
  ssize_t SendTo(std::string path, std::string data);
  /// Within a data callback: sends to the client that the data come from, or a datagram to its
  /// sender, of any domain. As SendTo; -1, silently, anywhere else. Datagrams that are there
  /// already follow at once to a callback that answers in this way. Loop thread.
  ssize_t Reply(const void* data, size_t size);
  /// Ends a connection in order: what was sent arrives, then the TLS close-notify and the end of
  /// stream. What the client still sends is thrown away. It leaves when it closes its side too, or
  /// when peer_timeout_ms, if any, is over. Without that, a TLS client that does not read may hold
  /// this up for a second, one within a record for as long as it stays there, and a send of another
  /// thread that is under way fails as for a peer that has gone. False for a descriptor that is no
  /// client's. Any thread.
  bool Close(int client);

  /// Enters a client; one already known keeps its path, one without a TLS connection is dropped at
  /// its first data where the server has TLS. Any thread.
  void AddFd(int fd, std::string path);
  /// Forgets a client without closing `fd`; logs at 7. One last event may be under way, and sends
  /// of other threads go on: close `fd` in its own callback if no other thread sends to it, or when
  /// the server is gone, after RemoveClient on the wrapper if there is one. See Close for an end
  /// that needs no such care. Any thread.
  void RemoveFd(int fd);
  /// What the loop calls for the server's descriptor and each client's; not for callbacks. Loop
  /// thread.
  void FdCallback(int fd, FdType type);

 private:
  using ClientPtr = std::shared_ptr<Client>;

  void AdoptDescriptor();
  void Start();
  bool StartGuard();
  void ReleaseLoop();
  FdMonitor::Callback LoopCallback();
  void AcceptClient();
  bool ShakeHands(int client);
  void Admit(int client, const std::string& path);
  bool Enter(int fd, std::string path);
  void ReceiveFromClient(int fd, ClientPtr client);
  bool ReadOnce(ClientPtr& client);
  bool IsItsTurn(ClientPtr& client);
  void ReceiveDatagram();
  ssize_t SendToClient(int fd, const void* data, size_t size);
  ssize_t SendTo(Client& client, const void* data, size_t size);
  void DropClient(ClientPtr client);
  void TellOfDeparted();

  const pid_t maker_;  ///< The process that has the loop.
  uint32_t recv_buf_size_;
  const SocketServerOption server_option_;
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
