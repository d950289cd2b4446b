#ifndef EXAMPLES_GATEWAYD_LINESERVICE_H_
#define EXAMPLES_GATEWAYD_LINESERVICE_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "gatewayd/Gateway.h"
#include "gatewayd/Lines.h"
#include "gatewayd/SlowLane.h"
#include "util/SocketServer.h"
#include "util/SslWrapper.h"
#include "util/Thread.h"

/// Serves the gateway's commands to the clients of one listening stream socket. A client's lines
/// are answered one after another, in their order, whether quick or slow. Nobody keeps the loop
/// waiting: whoever stops halfway for longer than the server's time limit is taken out.
class LineService {
 public:
  LineService(std::string name, std::string path, hvn::util::Socket::Domain domain,
              hvn::util::SslWrapper* ssl, int patience_ms, Gateway& gateway, SlowLane& lane);

  bool listening() const { return server_.fd() >= 0; }
  /// One line for each client. Any thread.
  std::vector<std::string> Clients();

 private:
  /// What is kept for a client. A job in the slow lane holds it too, and so knows when its client
  /// has gone, whose number may be another's by then.
  struct Session {
    int fd;
    std::string path;
    LineBuffer input;
    bool busy = false;  ///< A line of this client is being worked on.
    bool over = false;  ///< It has gone, or has had its last answer.
  };
  using SessionPtr = std::shared_ptr<Session>;

  hvn::util::SocketServer::SocketServerOption Options(int patience_ms);
  SessionPtr Enter(int fd, const std::string& path);
  void Receive(int fd, const std::string& path, const char* data, size_t size);
  void Forget(int fd, const std::string& path);
  void Pump(const SessionPtr& session);
  bool Next(Session& session, std::string& line);
  void Answer(Session& session, const Reply& reply);
  void SendLocked(Session& session, const Reply& reply);

  std::string name_;
  Gateway& gateway_;
  SlowLane& lane_;
  hvn::util::Mutex mutex_;  ///< Guards sessions_ and all that they hold.
  std::map<int, SessionPtr> sessions_;
  hvn::util::SocketServer server_;  ///< Last: its loop calls back from the start and ends first.
};

#endif  // EXAMPLES_GATEWAYD_LINESERVICE_H_
