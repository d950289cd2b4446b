// Sends one line and prints the line that comes back.
//
//     request_client tcp IP PORT LINE             over a connection
//     request_client tls IP PORT LINE ROOTS.PEM   the same through TLS, to a server with a
//                                                 certificate for IP that ends in one of the roots
//     request_client unix PATH LINE               in a datagram
//
// Exit status: 0 answered, 1 no answer, 2 wrong command line.

#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "util/SocketClient.h"
#include "util/SslWrapper.h"

using hvn::util::Socket;
using hvn::util::SocketClient;
using hvn::util::SslWrapper;

namespace {

constexpr int kPatienceMs = 5000;

/// With TLS there is no RecvTimedWait: the wrapper's limit holds.
int Ask(SocketClient& client, bool with_tls, const std::string& line) {
  std::string answer;
  if (client.is_connected() && client.Send(line) == static_cast<ssize_t>(line.size())) {
    char chunk[4096];
    while (answer.find('\n') == std::string::npos) {
      const ssize_t n = with_tls
                            ? client.Recv(chunk, sizeof(chunk))
                            : client.RecvTimedWait(chunk, sizeof(chunk), 1000ULL * kPatienceMs, 0);
      if (n < 1) break;
      answer.append(chunk, static_cast<size_t>(n));
    }
  }
  std::fputs(answer.c_str(), stdout);
  return !answer.empty() && answer.back() == '\n' ? 0 : 1;
}

int AskDatagram(const std::string& path, const std::string& line) {
  const std::string own = path + "." + std::to_string(getpid());  // answers come here
  SocketClient client(own, Socket::kUdp, Socket::kUnix, path, SocketClient::SocketClientOption());
  client.SetSendLimit(kPatienceMs);
  return Ask(client, false, line);
}

int AskStream(const std::string& ip, const std::string& port, SslWrapper* ssl,
              const std::string& line) {
  SocketClient::SocketClientOption option;
  option.ssl = ssl;
  option.connect_timeout_us = 3000000;
  const auto domain = ip.find(':') == std::string::npos ? Socket::kIpv4 : Socket::kIpv6;
  SocketClient client("", Socket::kTcp, domain, ip + ";" + port, option);
  client.SetSendLimit(kPatienceMs);
  const int status = Ask(client, ssl != nullptr, line);
  if (ssl != nullptr) ssl->RemoveClient(client.fd());  // before the number is another's
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  openlog("request_client", LOG_PERROR, LOG_USER);  // why there is no answer is for the user
  setlogmask(LOG_UPTO(LOG_ERR));
  signal(SIGPIPE, SIG_IGN);
  const std::string way = argc > 1 ? argv[1] : "";
  if (way == "unix" && argc == 4) return AskDatagram(argv[2], std::string(argv[3]) + "\n");
  if (way == "tcp" && argc == 5) {
    return AskStream(argv[2], argv[3], nullptr, std::string(argv[4]) + "\n");
  }
  if (way == "tls" && argc == 6) {
    SslWrapper ssl(false, SslWrapper::kTlsV1_2);
    if (ssl.SetRootCaFile(argv[5], SslWrapper::kPem) != hvn::kSuccess || !ssl.VerifyPeer(argv[2]) ||
        !ssl.UseModernTls()) {
      return 2;
    }
    ssl.SetTimeLimit(kPatienceMs);
    return AskStream(argv[2], argv[3], &ssl, std::string(argv[4]) + "\n");
  }
  std::fprintf(stderr,
               "usage: request_client tcp IP PORT LINE | tls IP PORT LINE ROOTS.PEM | "
               "unix PATH LINE\n");
  return 2;
}
