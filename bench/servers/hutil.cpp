#include <arpa/inet.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "servers/Server.h"
#include "util/SocketServer.h"

using hvn::util::Socket;
using hvn::util::SocketServer;
using hvn::util::SslWrapper;

namespace {

uint16_t PortOf(int fd) {
  sockaddr_in address = {};
  socklen_t length = sizeof(address);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

std::unique_ptr<SslWrapper> MakeTls(const Plan& plan) {
  if (plan.kind != Plan::kTls) return nullptr;
  auto tls = std::make_unique<SslWrapper>(true, SslWrapper::kTlsV1_2);
  const bool is_set_up = tls->SetCertAndKeyFile(plan.cert, plan.key, SslWrapper::kPem,
                                                SslWrapper::kPem) == hvn::kSuccess &&
                         tls->SetCipherLists({kCiphers});
  if (!is_set_up) exit(1);
  return tls;
}

[[noreturn]] void ServeStreams(const Plan& plan) {
  const std::unique_ptr<SslWrapper> tls = MakeTls(plan);
  SocketServer::SocketServerOption option;
  if (plan.limited) {
    option.peer_timeout_ms = 5000;
    option.linger = true;
    option.client_gone_cb = [](int, int, const std::string&) {};
  }
  SocketServer* self = nullptr;
  SocketServer server(
      "::;" + std::to_string(kPort), Socket::kTcp, Socket::kIpv6,
      [&self](int, int client, const std::string&, void* data, size_t size) {
        return self->SendTo(client, data, size) >= 0;
      },
      tls.get(), option);
  self = &server;
  server.SetTCPNoDelay(true);
  Ready(kPort);
  for (;;) pause();
}

[[noreturn]] void ServeDatagrams(const Plan& plan) {
  const bool is_unix = plan.kind == Plan::kUnix;
  SocketServer* self = nullptr;
  SocketServer server(
      is_unix ? kUnixPath : "127.0.0.1", Socket::kUdp, is_unix ? Socket::kUnix : Socket::kIpv4,
      [&self](int, int, const std::string&, void* data, size_t size) {
        return *static_cast<char*>(data) != kAnswerMe || self->Reply(data, size) >= 0;
      },
      nullptr);
  self = &server;
  Ready(is_unix ? 0 : PortOf(server.fd()));  // an IPv4 path binds a port of the kernel's choice
  for (;;) pause();
}

}  // namespace

void Serve(const Plan& plan) {
  if (plan.kind == Plan::kTcp || plan.kind == Plan::kTls) ServeStreams(plan);
  ServeDatagrams(plan);
}
