// Sends one line and prints the line that comes back.
//
//     request_client tcp|tls IP PORT LINE     over a connection
//     request_client unix PATH LINE           in a datagram
//
// Exit status: 0 answered, 1 no answer, 2 wrong command line.

#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "util/SocketClient.h"
#include "util/SslWrapper.h"

using hvn::util::Socket;
using hvn::util::SocketClient;
using hvn::util::SslWrapper;

namespace {

int Ask(SocketClient& client, const std::string& line) {
  const timeval patience = {5, 0};  // on the descriptor: with TLS there is no RecvTimedWait
  setsockopt(client.fd(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  std::string answer;
  if (client.is_connected() && client.Send(line) == static_cast<ssize_t>(line.size())) {
    char chunk[4096];
    while (answer.find('\n') == std::string::npos) {
      const ssize_t n = client.Recv(chunk, sizeof(chunk));
      if (n < 1) break;
      answer.append(chunk, static_cast<size_t>(n));
    }
  }
  std::fputs(answer.c_str(), stdout);
  return !answer.empty() && answer.back() == '\n' ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  const std::string way = argc > 1 ? argv[1] : "";
  SocketClient::SocketClientOption option;
  if (way == "unix" && argc == 4) {
    const std::string own = argv[2] + ("." + std::to_string(getpid()));  // answers come here
    SocketClient client(own, Socket::kUdp, Socket::kUnix, argv[2], option);
    return Ask(client, std::string(argv[3]) + "\n");
  }
  if ((way != "tcp" && way != "tls") || argc != 5) {
    std::fprintf(stderr, "usage: request_client tcp|tls IP PORT LINE | unix PATH LINE\n");
    return 2;
  }
  const std::string ip = argv[2];
  const auto domain = ip.find(':') == std::string::npos ? Socket::kIpv4 : Socket::kIpv6;
  SslWrapper ssl(false, SslWrapper::kTlsV1_2);
  option.ssl = way == "tls" ? &ssl : nullptr;
  option.connect_timeout_us = 3000000;
  SocketClient client("", Socket::kTcp, domain, ip + ";" + argv[3], option);
  const int status = Ask(client, std::string(argv[4]) + "\n");
  ssl.RemoveClient(client.fd());  // the wrapper outlives the client, whose descriptor ends here
  return status;
}
