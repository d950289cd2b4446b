#ifndef EXAMPLES_GATEWAYD_LINESERVICE_H_
#define EXAMPLES_GATEWAYD_LINESERVICE_H_

#include <cstdint>
#include <map>
#include <string>
#include <utility>
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
  /// A descriptor of our own for a client's connection. The server closes its own as soon as the
  /// client goes and tells nobody, and then the number is another client's.
  class Line {
   public:
    explicit Line(int fd);
    ~Line();
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;
    bool IsDown() const;
    void Shut(int how) const;

   private:
    const int fd_;
  };

  struct Session {
    Session(int fd, uint64_t number, std::string peer)
        : line(fd), id(number), path(std::move(peer)) {}
    Line line;
    uint64_t id;  ///< Unlike the descriptor's number, never used again.
    std::string path;
    LineBuffer input;
    bool busy = false;     ///< A line of this client is being worked on.
    bool leaving = false;  ///< Answers have ended; the client is to close.
    bool swept = false;
  };

  void Greet(int fd, const std::string& path);
  void Receive(int fd, const std::string& path, const char* data, size_t size);
  void Pump(int fd, uint64_t id);
  bool Next(int fd, uint64_t id, std::string& line);
  void Answer(int fd, uint64_t id, const Reply& reply);

  Session& Enter(int fd, const std::string& path);
  Session* Find(int fd, uint64_t id);
  void SendLocked(int fd, Session& session, const Reply& reply);
  void ForgetTheGone();

  std::string name_;
  Gateway& gateway_;
  SlowLane& lane_;
  hvn::util::Mutex mutex_;  ///< Guards sessions_.
  std::map<int, Session> sessions_;
  uint64_t last_id_ = 0;
  hvn::util::SocketServer server_;  ///< Last: its loop calls back from the start and ends first.
};

#endif  // EXAMPLES_GATEWAYD_LINESERVICE_H_
