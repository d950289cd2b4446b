// Asks gatewayd one question and prints the answer.
//
// Exit status: 0 answered, 1 answered with an error, 2 wrong command line, 3 no answer.

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "util/Socket.h"
#include "util/SocketClient.h"
#include "util/SslWrapper.h"

using hvn::util::Socket;
using hvn::util::SocketClient;
using hvn::util::SslWrapper;

namespace {

enum ExitStatus : int { kAnswered = 0, kRefused = 1, kUsage = 2, kUnreachable = 3 };

constexpr int kConnectUs = 3000000;
constexpr timeval kPatience = {20, 0};
constexpr char kUsageText[] =
    "usage: lanclient tls IP PORT COMMAND...     a stream through TLS\n"
    "       lanclient unix PATH COMMAND...       a stream in clear, on the gateway itself\n"
    "       lanclient control PATH COMMAND...    a datagram, on the gateway itself\n"
    "       lanclient discover IP PORT           a datagram to whoever may be there\n";

/// Whether `text` is a whole answer: an error, or "ok N" and N lines.
bool IsComplete(const std::string& text) {
  const size_t end = text.find('\n');
  if (end == std::string::npos) return false;
  size_t lines = 0;
  if (std::sscanf(text.c_str(), "ok %zu", &lines) != 1) return true;
  size_t at = end;
  while (lines > 0 && at != std::string::npos) {
    at = text.find('\n', at + 1);
    if (at != std::string::npos) --lines;
  }
  return lines == 0;
}

/// Prints the answer without its "ok N" line.
ExitStatus Print(const std::string& text) {
  if (!IsComplete(text)) {
    std::fprintf(stderr, "lanclient: no answer\n");
    return kUnreachable;
  }
  if (text.compare(0, 3, "ok ") != 0) {
    std::fputs(text.c_str(), stdout);
    return kRefused;
  }
  std::fputs(text.c_str() + text.find('\n') + 1, stdout);
  return kAnswered;
}

/// One timed receive serves both: with TLS the library itself offers none.
void LimitPatience(int fd) {
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof(kPatience));
}

ExitStatus Ask(SocketClient& client, const std::string& question) {
  LimitPatience(client.fd());
  std::string answer;
  if (client.Send(question) == static_cast<ssize_t>(question.size())) {
    char buffer[65536];
    while (!IsComplete(answer)) {
      const ssize_t n = client.Recv(buffer, sizeof(buffer));
      if (n < 1) break;
      answer.append(buffer, static_cast<size_t>(n));
    }
  }
  return Print(answer);
}

ExitStatus AskTls(const std::string& ip, const std::string& port, const std::string& question) {
  const bool ipv6 = ip.find(':') != std::string::npos;
  SslWrapper ssl(false, SslWrapper::kTlsV1_2);
  SocketClient::SocketClientOption option;
  option.ssl = &ssl;
  option.connect_timeout_us = kConnectUs;
  SocketClient client("", Socket::kTcp, ipv6 ? Socket::kIpv6 : Socket::kIpv4, ip + ";" + port,
                      option);
  const ExitStatus status = Ask(client, question);
  ssl.RemoveClient(client.fd());
  return status;
}

ExitStatus AskUnix(const std::string& path, const std::string& question) {
  SocketClient client("", Socket::kTcp, Socket::kUnix, path, SocketClient::SocketClientOption());
  return Ask(client, question);
}

/// The answer to a datagram needs somewhere to go.
ExitStatus AskControl(const std::string& path, const std::string& question) {
  const std::string own = path + "." + std::to_string(getpid());
  SocketClient client(own, Socket::kUdp, Socket::kUnix, path, SocketClient::SocketClientOption());
  return Ask(client, question);
}

ExitStatus Discover(const std::string& ip, const std::string& port) {
  Socket socket("0.0.0.0", Socket::kUdp, Socket::kIpv4, Socket::SocketOption());
  const int on = 1;
  setsockopt(socket.fd(), SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
  char buffer[1024];
  ssize_t n = -1;
  if (socket.SendTo(ip + ";" + port, std::string("discover")) > 0) {
    n = socket.RecvTimedWait(buffer, sizeof(buffer), kConnectUs, 0);
  }
  return Print(std::string(buffer, n > 0 ? static_cast<size_t>(n) : 0));
}

std::string Join(int argc, char** argv, int first) {
  std::string line;
  for (int i = first; i < argc; ++i) line += std::string(i > first ? " " : "") + argv[i];
  return line + "\n";
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  const std::string way = argc > 1 ? argv[1] : "";
  if (way == "tls" && argc > 4) return AskTls(argv[2], argv[3], Join(argc, argv, 4));
  if (way == "unix" && argc > 3) return AskUnix(argv[2], Join(argc, argv, 3));
  if (way == "control" && argc > 3) return AskControl(argv[2], Join(argc, argv, 3));
  if (way == "discover" && argc == 4) return Discover(argv[2], argv[3]);
  std::fputs(kUsageText, stderr);
  return kUsage;
}
