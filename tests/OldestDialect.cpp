// How daemons write the structures of the interface, which has to compile in every dialect.
#include "util/DhcpServer.h"
#include "util/SocketClient.h"
#include "util/SocketServer.h"

using namespace hvn::util;

void UseEachStructure();  // which nobody calls

void UseEachStructure() {
  const Socket::SocketOption sizes{1, 2};
  const SocketClient::SocketClientOption client{nullptr, 1000, {1, 2}};
  SocketServer::SocketServerOption server;
  server.backlog = 128;
  server.socket_option = {1, 2};
  server.client_gone_cb = [](int, int, std::string) {};
  DhcpServer::LeaseInfo lease;
  lease.expiry_time = 1;
  Socket probe("", Socket::kUdp, Socket::kIpv4, {});
  static_cast<void>(sizes.send_buffer_size + sizes.recv_buffer_size + client.connect_timeout_us +
                    int(lease.expiry_time) + probe.fd());
}
