#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
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
  tls->SetCertAndKeyFile(plan.cert, plan.key, SslWrapper::kPem, SslWrapper::kPem);
  tls->SetCipherLists({kCiphers});
  return tls;
}

[[noreturn]] void ServeStreams(const Plan& plan) {
  const std::unique_ptr<SslWrapper> tls = MakeTls(plan);
  SocketServer* self = nullptr;
  SocketServer server(
      "::;" + std::to_string(kPort), Socket::kTcp, Socket::kIpv6,
      [&self](int, int client, const std::string&, void* data, size_t size) {
        return self->SendTo(client, data, size) >= 0;
      },
      tls.get());
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
      [&self, is_unix](int, int, std::string sender, void* data, size_t size) {
        const char* const text = static_cast<char*>(data);
        if (text[0] != kAnswerMe) return true;
        if (!is_unix) std::replace(sender.begin(), sender.end(), ':', ';');
        return self->SendTo(std::move(sender), std::string(text, size)) >= 0;
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
