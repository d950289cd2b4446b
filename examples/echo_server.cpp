// Sends back whatever arrives: in clear or, with a certificate and its key, through TLS.
//
//     echo_server PORT [CERT.PEM KEY.PEM]
//
// CERT.PEM holds the server's certificate and, behind it, those that lead to a root.

#include <signal.h>
#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "util/SocketServer.h"
#include "util/SslWrapper.h"

using hvn::util::Socket;
using hvn::util::SocketServer;
using hvn::util::SslWrapper;

namespace {

bool SetUp(SslWrapper& ssl, const char* cert, const char* key) {
  return ssl.SetCertAndKeyFile(cert, key, SslWrapper::kPem, SslWrapper::kPem) == hvn::kSuccess &&
         ssl.SetCertChainFile(cert) == hvn::kSuccess && ssl.UseModernTls();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 4) {
    std::fprintf(stderr, "usage: echo_server PORT [CERT.PEM KEY.PEM]\n");
    return 2;
  }
  openlog("echo_server", LOG_PID, LOG_DAEMON);
  setlogmask(LOG_UPTO(LOG_INFO));  // the library traces each client at LOG_DEBUG
  signal(SIGPIPE, SIG_IGN);        // a client that has gone shows in the result of Reply
  sigset_t ending;                 // blocked before any thread starts: only sigwait takes them
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);

  const bool with_tls = argc == 4;
  SslWrapper ssl(true, SslWrapper::kTlsV1_2);
  if (with_tls && !SetUp(ssl, argv[2], argv[3])) {
    std::fprintf(stderr, "echo_server: cannot use %s and %s, the log says why\n", argv[2], argv[3]);
    return EXIT_FAILURE;
  }

  SocketServer::SocketServerOption option;
  option.peer_timeout_ms = 5000;  // for a handshake, a record, an answer: nobody holds up the rest
  option.backlog = 128;           // who comes in a burst waits in the kernel, and is not refused
  option.linger = true;           // what is on its way to a client when it is closed arrives
  // An IPv6 path serves IPv4 clients too, and unlike an IPv4 one it keeps its port. The first
  // callback may come before the constructor returns; the server answers even then.
  SocketServer echo(
      std::string("::;") + argv[1], Socket::kTcp, Socket::kIpv6,
      [&echo](int, int, std::string, void* data, size_t size) {
        return echo.Reply(data, size) >= 0;
      },
      with_tls ? &ssl : nullptr, option);
  if (echo.fd() < 0) {
    std::fprintf(stderr, "echo_server: cannot listen on port %s, the log says why\n", argv[1]);
    return EXIT_FAILURE;
  }
  int caught = 0;
  sigwait(&ending, &caught);
  return EXIT_SUCCESS;  // the server goes first, then the wrapper that it uses
}
