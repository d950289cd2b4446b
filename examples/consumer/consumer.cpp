// Asks itself for an echo; exits 0 when it comes.
#include <unistd.h>

#include <csignal>

#include "util/SocketClient.h"
#include "util/SocketServer.h"

using hvn::util::Socket;
using hvn::util::SocketClient;
using hvn::util::SocketServer;

int main() {
  std::signal(SIGPIPE, SIG_IGN);
  const std::string name = std::string(1, '\0') + "hutil-consumer-" + std::to_string(getpid());
  SocketServer echo(
      name, Socket::kTcp, Socket::kUnix,
      [&echo](int, int client, std::string, void* data, size_t size) {
        return echo.SendTo(client, data, size) >= 0;
      },
      nullptr);
  SocketClient client("", Socket::kTcp, Socket::kUnix, name, SocketClient::SocketClientOption());
  client.Send(std::string("hello"));
  char answer[5] = {};
  client.RecvTimedWait(answer, sizeof(answer), 5000000, 0);
  return std::string(answer, sizeof(answer)) == "hello" ? 0 : 1;
}
