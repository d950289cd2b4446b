// The echo server as systemd starts it: on a listening socket that is there already, and saying
// when it is ready. The guide has the units.
//
//     activated_echo        with LISTEN_PID and LISTEN_FDS in the environment, the socket as
//                           descriptor 3 and, for Type=notify, NOTIFY_SOCKET

#include <fcntl.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "util/SocketServer.h"

using hvn::util::Socket;
using hvn::util::SocketServer;

namespace {

constexpr int kFirstPassed = 3;  // see sd_listen_fds(3)

std::string Environment(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

/// Whether exactly one descriptor was passed, to this very process.
bool IsActivated() {
  return Environment("LISTEN_PID") == std::to_string(getpid()) && Environment("LISTEN_FDS") == "1";
}

/// Where nobody asks to be told, nobody is; see sd_notify(3).
void TellReady() {
  const std::string path = Environment("NOTIFY_SOCKET");
  if (path.empty() || path[0] != '/') return;
  Socket notify("", Socket::kUdp, Socket::kUnix, Socket::SocketOption());
  notify.SendTo(path, std::string("READY=1"));
}

}  // namespace

int main() {
  openlog("activated_echo", LOG_PID, LOG_DAEMON);
  setlogmask(LOG_UPTO(LOG_INFO));
  signal(SIGPIPE, SIG_IGN);
  sigset_t ending;  // blocked before any thread starts: only sigwait takes them
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  if (!IsActivated()) {
    syslog(LOG_ERR, "no socket was passed: start the socket unit");
    return EXIT_FAILURE;
  }
  fcntl(kFirstPassed, F_SETFD, FD_CLOEXEC);  // it came through an exec, and goes through no other

  SocketServer::SocketServerOption option;
  option.peer_timeout_ms = 5000;
  SocketServer echo(
      kFirstPassed, Socket::kTcp, Socket::kIpv6,
      [&echo](int, int, std::string, void* data, size_t size) {
        return echo.Reply(data, size) >= 0;
      },
      nullptr, option);
  if (echo.fd() < 0) return EXIT_FAILURE;
  TellReady();
  int caught = 0;
  sigwait(&ending, &caught);
  return EXIT_SUCCESS;  // the socket stays systemd's: who connects meanwhile waits in its queue
}
