// The guide's first daemon: sends back whatever comes over TLS to port 8443, until SIGTERM.

#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <syslog.h>

#include <string>

#include "util/SocketServer.h"
#include "util/SslWrapper.h"

using namespace hvn::util;

int main() {
  openlog("first_daemon", LOG_PID | LOG_PERROR, LOG_DAEMON);  // LOG_PERROR: and to the terminal
  setlogmask(LOG_UPTO(LOG_INFO));                             // priority 7 traces each client
  signal(SIGPIPE, SIG_IGN);  // a client that has gone shows in the result of SendTo
  sigset_t ending;           // blocked before any thread starts: only sigwait takes it
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);

  SslWrapper ssl(true, SslWrapper::kTlsV1_2);
  if (ssl.SetCertAndKeyFile("cert.pem", "key.pem", SslWrapper::kPem, SslWrapper::kPem) !=
      hvn::kSuccess) {
    return 1;  // the log says why
  }
  SocketServer echo(
      "::;8443", Socket::kTcp, Socket::kIpv6,
      [&echo](int, int client, std::string, void* data, size_t size) {
        return echo.SendTo(client, data, size) >= 0;
      },
      &ssl);
  if (echo.fd() < 0) return 1;
  const timeval patience = {5, 0};  // inherited by each client: a silent one must not stop all
  setsockopt(echo.fd(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));

  int caught = 0;
  sigwait(&ending, &caught);
  return 0;
}
