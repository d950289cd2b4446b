// Asks gatewayd one question and prints the answer.
//
// Exit status: 0 answered, 1 answered with an error, 2 wrong command line, 3 no answer.
//
// Through TLS it asks no one but the gateway: who cannot show a certificate for that address which
// ends in the root of CA.PEM hears nothing of the question.

#include <sys/socket.h>
#include <syslog.h>
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
constexpr int kPatienceMs = 20000;
constexpr char kUsageText[] =
    "usage: lanclient tls CA.PEM IP PORT COMMAND...    a stream through TLS\n"
    "       lanclient unix PATH COMMAND...             a stream in clear, on the gateway itself\n"
    "       lanclient control PATH COMMAND...          a datagram, on the gateway itself\n"
    "       lanclient discover IP PORT                 a datagram to whoever may be there\n";

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

/// `receive` is given a buffer and its size, and waits no longer than the way allows.
template <typename Receive>
ExitStatus Ask(SocketClient& client, const std::string& question, Receive receive) {
  std::string answer;
  if (client.Send(question) == static_cast<ssize_t>(question.size())) {
    char buffer[65536];
    while (!IsComplete(answer)) {
      const ssize_t n = receive(buffer, sizeof(buffer));
      if (n < 1) break;
      answer.append(buffer, static_cast<size_t>(n));
    }
  }
  return Print(answer);
}

ExitStatus AskTls(char** argv, const std::string& question) {
  const std::string ip = argv[3];
  SslWrapper ssl(false, SslWrapper::kTlsV1_2);
  if (ssl.SetRootCaFile(argv[2], SslWrapper::kPem) != hvn::kSuccess || !ssl.VerifyPeer(ip) ||
      !ssl.UseModernTls()) {
    return kUsage;  // the log says why
  }
  ssl.SetTimeLimit(kPatienceMs);
  SocketClient::SocketClientOption option;
  option.ssl = &ssl;
  option.connect_timeout_us = kConnectUs;
  const auto domain = ip.find(':') == std::string::npos ? Socket::kIpv4 : Socket::kIpv6;
  SocketClient client("", Socket::kTcp, domain, ip + ";" + argv[4], option);
  const auto receive = [&](char* data, size_t size) { return client.Recv(data, size); };
  const ExitStatus status = Ask(client, question, receive);
  ssl.RemoveClient(client.fd());
  return status;
}

/// The answer to a datagram needs somewhere to go, which `own` is; a stream needs none.
ExitStatus AskLocal(Socket::Protocol protocol, const std::string& own, const std::string& path,
                    const std::string& question) {
  SocketClient client(own, protocol, Socket::kUnix, path, SocketClient::SocketClientOption());
  client.SetSendLimit(kPatienceMs);
  return Ask(client, question, [&](char* data, size_t size) {
    return client.RecvTimedWait(data, size, 1000ULL * kPatienceMs, 0);
  });
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
  openlog("lanclient", LOG_PERROR, LOG_USER);  // why there is no answer is for the user
  setlogmask(LOG_UPTO(LOG_ERR));
  std::signal(SIGPIPE, SIG_IGN);
  const std::string way = argc > 1 ? argv[1] : "";
  if (way == "tls" && argc > 5) return AskTls(argv, Join(argc, argv, 5));
  if (way == "unix" && argc > 3) {
    return AskLocal(Socket::kTcp, "", argv[2], Join(argc, argv, 3));
  }
  if (way == "control" && argc > 3) {
    const std::string own = argv[2] + ("." + std::to_string(getpid()));
    return AskLocal(Socket::kUdp, own, argv[2], Join(argc, argv, 3));
  }
  if (way == "discover" && argc == 4) return Discover(argv[2], argv[3]);
  std::fputs(kUsageText, stderr);
  return kUsage;
}
