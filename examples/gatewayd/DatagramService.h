#ifndef EXAMPLES_GATEWAYD_DATAGRAMSERVICE_H_
#define EXAMPLES_GATEWAYD_DATAGRAMSERVICE_H_

#include <cstdint>
#include <string>

#include "gatewayd/Gateway.h"
#include "gatewayd/SlowLane.h"
#include "util/Socket.h"
#include "util/SocketServerRunner.h"

/// The control socket and the discovery socket, both served by one loop.
///
/// CONTROL takes Unix datagrams, one command in each, and not a stream: a runner takes a stream
/// client without a path of its own, which is what most Unix clients are, for an event of the
/// listening socket. A sender that wants the answer binds a path, as datagrams need anyway.
///
/// DISCOVERY takes UDP at a port that people can know, so its path is an IPv6 one, which serves
/// IPv4 hosts and their broadcasts too.
class DatagramService {
 public:
  DatagramService(const std::string& control_path, uint16_t port, Gateway& gateway, SlowLane& lane);

  bool listening() const { return control_.fd() >= 0 && discovery_.fd() >= 0; }

 private:
  void Receive(int server, const std::string& sender, std::string text);
  void Control(const std::string& sender, const std::string& line);
  void Answer(const Reply& reply);

  Gateway& gateway_;
  SlowLane& lane_;
  const uint16_t port_;
  hvn::util::Socket control_;
  hvn::util::Socket discovery_;
  hvn::util::SocketServerRunner runner_;  ///< Last: the loop ends before its sockets.
};

#endif  // EXAMPLES_GATEWAYD_DATAGRAMSERVICE_H_
