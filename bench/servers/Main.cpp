// bench_server_STACK KIND [CERT KEY] [--log | --limits]: one echo server. Ends with its parent.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "servers/Server.h"

namespace {

constexpr unsigned int kLongestLife = 300;

int Fail(const char* what) {
  perror(what);
  exit(1);
}

Plan ReadPlan(int argc, char** argv) {
  const char* const names[] = {"tcp", "tls", "unix", "udp"};
  Plan plan = {};
  for (int i = 0; i < 4; ++i) {
    if (argc > 1 && strcmp(argv[1], names[i]) == 0) plan.kind = static_cast<Plan::Kind>(i);
  }
  if (argc > 3) {
    plan.cert = argv[2];
    plan.key = argv[3];
  }
  plan.limited = strcmp(argv[argc - 1], "--limits") == 0;
  return plan;
}

}  // namespace

void Ready(uint16_t port) {
  printf("ready %d\n", port);
  fflush(stdout);
}

int OpenServer(Plan::Kind kind) {
  sockaddr_un local = {AF_UNIX, {}};
  strcpy(local.sun_path, kUnixPath);
  sockaddr_in udp = {};
  udp.sin_family = AF_INET;
  udp.sin_port = htons(kPort);
  sockaddr_in6 tcp = {};
  tcp.sin6_family = AF_INET6;
  tcp.sin6_port = htons(kPort);
  const bool is_stream = kind == Plan::kTcp || kind == Plan::kTls;
  const sockaddr* address = reinterpret_cast<sockaddr*>(&tcp);
  socklen_t length = sizeof(tcp);
  if (kind == Plan::kUnix) {
    unlink(kUnixPath);
    address = reinterpret_cast<sockaddr*>(&local);
    length = sizeof(local);
  } else if (kind == Plan::kUdp) {
    address = reinterpret_cast<sockaddr*>(&udp);
    length = sizeof(udp);
  }
  const int fd = socket(address->sa_family, is_stream ? SOCK_STREAM : SOCK_DGRAM, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  // Inherited by every client: libevent reads, and so answers, long messages in parts.
  if (is_stream) setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  if (bind(fd, address, length) != 0) Fail("bind");
  if (is_stream && listen(fd, kBacklog) != 0) Fail("listen");
  return fd;
}

bool EchoOnce(int fd) {
  char buffer[kReceiveSize];
  const ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
  for (ssize_t sent = 0; sent < n;) {
    const ssize_t more = send(fd, buffer + sent, static_cast<size_t>(n - sent), 0);
    if (more < 1) return false;
    sent += more;
  }
  return n > 0;
}

int main(int argc, char** argv) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  alarm(kLongestLife);
  signal(SIGPIPE, SIG_IGN);
  // What a daemon in production logs, unless the cost of the other lines is the question.
  if (strcmp(argv[argc - 1], "--log") != 0) setlogmask(LOG_UPTO(LOG_NOTICE));
  Serve(ReadPlan(argc, argv));
}
