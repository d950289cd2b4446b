// Serves two sockets on one thread: TCP connections, and datagrams to a Unix socket.
//
//     multi_server_runner PORT PATH

#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "util/SocketServerRunner.h"

using hvn::util::Socket;
using hvn::util::SocketServerRunner;

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: multi_server_runner PORT PATH\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  umask(S_IRWXG | S_IRWXO);  // the Unix socket is for this user alone
  sigset_t ending;           // blocked before any thread starts: only sigwait takes them
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);

  // The sockets are the daemon's, and are there for as long as the runner may use them.
  Socket lines(std::string("::;") + argv[1], Socket::kTcp, Socket::kIpv6, Socket::SocketOption());
  Socket control(argv[2], Socket::kUdp, Socket::kUnix, Socket::SocketOption());
  if (lines.Listen(5) != hvn::kSuccess || control.fd() < 0) {
    std::fprintf(stderr, "multi_server_runner: cannot listen, the log says why\n");
    return EXIT_FAILURE;
  }
  SocketServerRunner runner([&](int server, int client, std::string from, void* data, size_t size) {
    const std::string text(static_cast<const char*>(data), size);
    if (server == lines.fd()) return lines.SendTo(client, "line: " + text) >= 0;
    // Who sends from no path of its own has nowhere to hear an answer.
    return !from.empty() && control.SendTo(from, "control: " + text) >= 0;
  });
  runner.AddServer(&lines);
  runner.AddServer(&control);
  int caught = 0;
  sigwait(&ending, &caught);
  return EXIT_SUCCESS;  // the runner goes first; the Unix socket takes its file away
}
