// Serves two sockets on one thread: TCP connections, and datagrams to a Unix socket.
//
//     multi_server_runner PORT PATH

#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <map>
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
  if (lines.Listen(128) != hvn::kSuccess || control.fd() < 0) {
    std::fprintf(stderr, "multi_server_runner: cannot listen, the log says why\n");
    return EXIT_FAILURE;
  }
  for (Socket* socket : {&lines, &control}) socket->SetSendLimit(1000);  // who does not read
  std::map<int, int> counts;  // of each client's messages; the loop's thread alone uses it
  SocketServerRunner runner([&](int server, int client, std::string from, void* data, size_t size) {
    const std::string text(static_cast<const char*>(data), size);
    std::string answer = "control: " + text;
    if (server == lines.fd()) {
      answer = "line " + std::to_string(++counts[client]) + ": " + text;
    } else if (from.empty()) {
      return false;  // who sends from no path of its own has nowhere to hear an answer
    }
    return runner.Reply(answer.data(), answer.size()) >= 0;
  });
  // Its number may be another client's soon.
  runner.SetClientGoneCb([&](int, int client, std::string) { counts.erase(client); });
  runner.AddServer(&lines);
  runner.AddServer(&control);
  int caught = 0;
  sigwait(&ending, &caught);
  return EXIT_SUCCESS;  // the runner goes first; the Unix socket takes its file away
}
