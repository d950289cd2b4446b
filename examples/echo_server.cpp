// Sends back whatever arrives: in clear or, with a certificate and its key, through TLS.
//
//     echo_server PORT [CERT.PEM KEY.PEM]

#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "util/SocketServer.h"
#include "util/SslWrapper.h"

using hvn::util::Socket;
using hvn::util::SocketServer;
using hvn::util::SslWrapper;

int main(int argc, char** argv) {
  if (argc != 2 && argc != 4) {
    std::fprintf(stderr, "usage: echo_server PORT [CERT.PEM KEY.PEM]\n");
    return 2;
  }
  openlog("echo_server", LOG_PID, LOG_DAEMON);
  setlogmask(LOG_UPTO(LOG_INFO));  // the library traces each client at LOG_DEBUG
  signal(SIGPIPE, SIG_IGN);        // a client that has gone shows in the result of SendTo
  sigset_t ending;                 // blocked before any thread starts: only sigwait takes them
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);

  const bool with_tls = argc == 4;
  SslWrapper ssl(true, SslWrapper::kTlsV1_2);
  if (with_tls && ssl.SetCertAndKeyFile(argv[2], argv[3], SslWrapper::kPem, SslWrapper::kPem) !=
                      hvn::kSuccess) {
    std::fprintf(stderr, "echo_server: cannot use %s and %s, the log says why\n", argv[2], argv[3]);
    return EXIT_FAILURE;
  }

  // An IPv6 path serves IPv4 clients too, and unlike an IPv4 one it keeps its port. The first
  // callback may come before the constructor returns; the server answers even then.
  SocketServer echo(
      std::string("::;") + argv[1], Socket::kTcp, Socket::kIpv6,
      [&echo](int, int client, std::string, void* data, size_t size) {
        return echo.SendTo(client, data, size) >= 0;
      },
      with_tls ? &ssl : nullptr);
  if (echo.fd() < 0) {
    std::fprintf(stderr, "echo_server: cannot listen on port %s, the log says why\n", argv[1]);
    return EXIT_FAILURE;
  }
  const timeval patience = {5, 0};  // each client has it too: a handshake must not wait for ever
  setsockopt(echo.fd(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  int caught = 0;
  sigwait(&ending, &caught);
  return EXIT_SUCCESS;  // the server goes first, then the wrapper that it uses
}
