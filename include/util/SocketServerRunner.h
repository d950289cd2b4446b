#ifndef HUTIL_UTIL_SOCKETSERVERRUNNER_H_
#define HUTIL_UTIL_SOCKETSERVERRUNNER_H_

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "util/Export.h"
#include "util/FdMonitor.h"
#include "util/Socket.h"
#include "util/Thread.h"

namespace hvn {
namespace util {

struct Client;
class PeerWatch;

/// Serves several sockets of the daemon's, listening ones and datagram ones, on one event loop.
///
///     Socket control("/run/control.sock", Socket::kTcp, Socket::kUnix, Socket::SocketOption());
///     control.Listen(5);
///     SocketServerRunner runner(OnData);
///     runner.AddServer(&control);
///
/// The callback runs on the runner's thread with no lock held and gets what SocketServer's gets, up
/// to 32768 bytes at a time. Sockets stay the daemon's, which answers through them (to a stream
/// client from the callback: at its end of stream the runner closes it) and destroys them when the
/// runner is gone. Accepts log at 7; failed and empty reads at 3, an orderly end of stream among
/// them. A client whose read failed stays; one that select(2) cannot hold is closed.
///
/// A stream client whose path is empty (an unnamed Unix peer) cannot be served: its data counts as
/// an event of its server's listening socket, stays unread and slows the loop down. Give Unix
/// clients a path of their own, or let them send datagrams.
class HUTIL_EXPORT SocketServerRunner {
 public:
  using DataCallback = std::function<bool(int, int, std::string, void*, size_t)>;

  /// Gets the server's descriptor, the client's, which is still its own, and its path.
  using ClientGoneCallback = std::function<void(int, int, std::string)>;

  /// A registered socket and the stream clients accepted from it.
  struct ServerInfo {
    Socket* server;
    int fd;
    std::map<int, std::string> clients;
  };

  /// Starts the loop. Owner.
  explicit SocketServerRunner(DataCallback cb);
  /// Ends the loop; closes nothing. Not to be called from the callback. Owner.
  ~SocketServerRunner();
  SocketServerRunner(const SocketServerRunner&) = delete;
  SocketServerRunner& operator=(const SocketServerRunner&) = delete;

  /// Sets what is called for each stream client that has left since, by whatever road (its end of
  /// stream, RemoveFd, RemoveServer), but for those that are left when the runner goes, or leave
  /// just before it: on the loop's thread, and before a client that the runner accepts can have the
  /// number (one that AddFd enters can). An empty one calls nothing. Any thread.
  void SetClientGoneCb(ClientGoneCallback cb);
  /// Within the callback: sends to the client that the data come from, as Socket::SendTo does, or a
  /// datagram to its sender, of any domain. -1, silently, anywhere else. Loop thread.
  ssize_t Reply(const void* data, size_t size);

  /// Serves `server`, bound and listening already, not owned. False with a log line (3) where the
  /// socket or its descriptor is served already, silently for null. Any thread.
  bool AddServer(Socket* server);
  /// Stops serving the socket of that descriptor. Take its clients out with RemoveFd first: one
  /// that is left is closed at its next event, with a log line (3), but stays in the loop, where
  /// select(2) fails from then on. An event of the socket that is under way, or of the same pass as
  /// the callback that calls this, still takes place or, with a log line (3), closes the socket's
  /// descriptor: remove sockets when they are silent. Always true. Any thread.
  bool RemoveServer(int fd);
  bool RemoveServer(Socket* server);

  /// Enters or forgets one client of `server`; an unknown server is ignored. `fd` stays open, but
  /// for a client with an event under way, or in the same pass as the callback that forgets it: it
  /// is closed, with a log line (3), when its turn comes. Any thread.
  void AddFd(Socket* server, int fd, std::string path);
  void RemoveFd(Socket* server, int fd);
  /// What the loop calls for every descriptor. Loop thread.
  void FdCallback(int fd, FdType type);

  /// Placeholders: always -1, silently. Any thread.
  HUTIL_DEPRECATED("answer with Reply, or through the daemon's own Socket")
  ssize_t Send(int fd, void* data, size_t size);
  HUTIL_DEPRECATED("answer with Reply, or through the daemon's own Socket")
  ssize_t Send(int fd, std::string data);
  HUTIL_DEPRECATED("answer with Reply, or through the daemon's own Socket")
  ssize_t SendTo(int fd, std::string path, std::string data);

 private:
  /// What an event's descriptor is.
  struct Origin {
    std::string path;       ///< A client's; empty for a server and for an unnamed client.
    bool may_wait = false;  ///< Whether there may be nobody to accept.
  };

  using ClientPtr = std::shared_ptr<Client>;

  Socket* FindServer(int fd, Origin& origin);
  static bool HasUnnamedClient(const ServerInfo& info);
  ClientPtr Forget(const Socket* server, int fd);
  ClientPtr Note(const ServerInfo& server, int fd, const std::string& path);
  void TellOfDeparted();
  void CloseClient(const Socket* server, int fd);
  bool RemoveMatching(const Socket* server, int fd);
  void AcceptClient(Socket* server, bool may_wait);
  void ReceiveDatagram(Socket* server, int fd);
  void ReceiveFromClient(Socket* server, int fd, const std::string& path);
  FdMonitor::Callback LoopCallback();

  uint32_t recv_buf_size_;
  Mutex aux_mutex_;  ///< Reserved; no operation takes it.
  Mutex mutex_;      ///< Guards servers_.
  std::list<ServerInfo> servers_;
  DataCallback data_cb_;
  ClientGoneCallback client_gone_cb_;
  std::atomic<bool> tells_of_departed_{false};
  std::vector<std::pair<int, ClientPtr>> departed_;  ///< With their server's descriptor.
  std::unique_ptr<PeerWatch> watch_;                 ///< Wakes the loop to tell of them.
  std::unique_ptr<FdMonitor> fd_monitor_;  ///< Last, so that the loop ends before the rest goes.
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_SOCKETSERVERRUNNER_H_
