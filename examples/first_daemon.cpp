// The guide's first daemon: sends back whatever comes over TLS to port 8443, until it is told to
// end.

#include <signal.h>
#include <syslog.h>

#include <string>

#include "util/SocketServer.h"
#include "util/SslWrapper.h"

using namespace hvn::util;

int main() {
  openlog("first_daemon", LOG_PID | LOG_PERROR, LOG_DAEMON);  // LOG_PERROR: and to the terminal
  setlogmask(LOG_UPTO(LOG_INFO));                             // priority 7 traces each client
  signal(SIGPIPE, SIG_IGN);  // a client that has gone shows in the result of Reply
  sigset_t ending;           // blocked before any thread starts: only sigwait takes them
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);

  SslWrapper ssl(true, SslWrapper::kTlsV1_2);
  if (ssl.SetCertAndKeyFile("cert.pem", "key.pem", SslWrapper::kPem, SslWrapper::kPem) !=
          hvn::kSuccess ||
      !ssl.UseModernTls()) {
    return 1;  // the log says why
  }
  SocketServer::SocketServerOption option;
  option.peer_timeout_ms = 5000;  // or a client that stops halfway stops all
  SocketServer echo(
      "::;8443", Socket::kTcp, Socket::kIpv6,
      [&echo](int, int, std::string, void* data, size_t size) {
        return echo.Reply(data, size) >= 0;
      },
      &ssl, option);
  if (echo.fd() < 0) return 1;

  int caught = 0;
  sigwait(&ending, &caught);
  return 0;
}
