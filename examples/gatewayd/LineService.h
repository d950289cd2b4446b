#ifndef EXAMPLES_GATEWAYD_LINESERVICE_H_
#define EXAMPLES_GATEWAYD_LINESERVICE_H_

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "gatewayd/Gateway.h"
#include "gatewayd/Lines.h"
#include "gatewayd/SlowLane.h"
#include "util/SocketServer.h"
#include "util/SslWrapper.h"
#include "util/Thread.h"

/// Serves the gateway's commands to the clients of one listening stream socket. A client's lines
/// are answered one after another, in their order, whether quick or slow.
class LineService {
 public:
  LineService(std::string name, std::string path, hvn::util::Socket::Domain domain,
              hvn::util::SslWrapper* ssl, Gateway& gateway, SlowLane& lane);

  bool listening() const { return server_.fd() >= 0; }
  /// One line for each client. Any thread.
  std::vector<std::string> Clients();
  /// Cuts off who was told goodbye at the last call already and still holds the line. Any thread.
  void Sweep();

 private:
  /// A descriptor's number serves one client after another; the socket's inode tells them apart.
  struct Session {
    ino_t inode;
    std::string path;
    LineBuffer input;
    bool busy = false;     ///< A line of this client is being worked on.
    bool leaving = false;  ///< Answers have ended; the client is to close.
    bool swept = false;
  };

  void Greet(int fd, const std::string& path);
  void Receive(int fd, const std::string& path, const char* data, size_t size);
  void Pump(int fd, ino_t inode);
  bool Next(int fd, ino_t inode, std::string& line);
  void Answer(int fd, ino_t inode, const Reply& reply);

  Session& Enter(int fd, const std::string& path);
  Session* Find(int fd, ino_t inode);
  void SendLocked(int fd, Session& session, const Reply& reply);
  void ForgetTheGone();

  std::string name_;
  Gateway& gateway_;
  SlowLane& lane_;
  hvn::util::Mutex mutex_;  ///< Guards sessions_.
  std::map<int, Session> sessions_;
  hvn::util::SocketServer server_;  ///< Last: its loop calls back from the start and ends first.
};

#endif  // EXAMPLES_GATEWAYD_LINESERVICE_H_
