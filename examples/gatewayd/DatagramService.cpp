#include "gatewayd/DatagramService.h"

#include "util/Socket.h"

using hvn::util::Socket;

namespace {
constexpr int kSendLimitMs = 200;  // for a client that asks and does not read
}  // namespace

DatagramService::DatagramService(const std::string& control_path, uint16_t port, Gateway& gateway,
                                 SlowLane& lane)
    : gateway_(gateway),
      lane_(lane),
      port_(port),
      control_(control_path, Socket::kUdp, Socket::kUnix, Socket::SocketOption()),
      discovery_("::;" + std::to_string(port), Socket::kUdp, Socket::kIpv6, Socket::SocketOption()),
      runner_([this](int server, int, const std::string& sender, void* data, size_t size) {
        Receive(server, sender, std::string(static_cast<const char*>(data), size));
        return true;
      }) {
  if (!listening()) return;
  control_.SetSendLimit(kSendLimitMs);
  discovery_.SetSendLimit(kSendLimitMs);
  runner_.AddServer(&control_);
  runner_.AddServer(&discovery_);
}

void DatagramService::Receive(int server, const std::string& sender, std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  if (server == control_.fd()) {
    Control(sender, text);
  } else if (text == "discover") {  // strangers hear no more than where to ask
    Answer(Reply::Line("gatewayd tls " + std::to_string(port_)));
  }
}

/// Whoever sends without a path has the command run, and hears nothing.
void DatagramService::Control(const std::string& sender, const std::string& line) {
  const auto job = [this, sender, line] {
    const Reply reply = gateway_.Run(line);
    if (!sender.empty()) control_.SendTo(sender, reply.Text());
  };
  if (!Gateway::IsSlow(line)) {
    job();
  } else if (!lane_.Run(job) && !sender.empty()) {
    Answer(Reply::Error("busy, try again later"));
  }
}

/// To whoever the datagram of this event comes from.
void DatagramService::Answer(const Reply& reply) {
  const std::string text = reply.Text();
  runner_.Reply(text.data(), text.size());
}
