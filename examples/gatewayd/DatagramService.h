#ifndef EXAMPLES_GATEWAYD_DATAGRAMSERVICE_H_
#define EXAMPLES_GATEWAYD_DATAGRAMSERVICE_H_

#include <cstdint>
#include <string>

#include "gatewayd/Gateway.h"
#include "gatewayd/SlowLane.h"
#include "util/Socket.h"
#include "util/SocketServerRunner.h"
#include "util/Thread.h"

/// The control socket and the discovery socket, both served by one loop.
///
/// CONTROL takes Unix datagrams, one command in each, and not a stream: a runner takes a stream
/// client without a path of its own, which is what most Unix clients are, for an event of the
/// listening socket. A sender that wants the answer binds a path, as datagrams need anyway.
///
/// DISCOVERY takes UDP over IPv4 at a port that people can know. The library binds IPv4 paths to
/// ephemeral ports only, so this daemon binds the descriptor and lends it to a Socket. IPv6 would
/// bind a port, but its datagrams come without the sender's address, and nobody could be answered.
class DatagramService {
 public:
  DatagramService(const std::string& control_path, uint16_t port, Gateway& gateway, SlowLane& lane);
  ~DatagramService();
  DatagramService(const DatagramService&) = delete;
  DatagramService& operator=(const DatagramService&) = delete;

  bool listening() const { return control_.fd() >= 0 && discovery_fd_ >= 0; }

 private:
  void Receive(int server, const std::string& sender, std::string text);
  void Control(const std::string& sender, const std::string& line);
  void Discover(std::string sender, const std::string& question);

  Gateway& gateway_;
  SlowLane& lane_;
  const uint16_t port_;
  hvn::util::Mutex mutex_;  ///< One answer at a time goes out through control_.
  hvn::util::Socket control_;
  const int discovery_fd_;
  hvn::util::Socket discovery_;
  hvn::util::SocketServerRunner runner_;  ///< Last: the loop ends before its sockets.
};

#endif  // EXAMPLES_GATEWAYD_DATAGRAMSERVICE_H_
