// Servers that go while their clients come, send and go.
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "support/Kit.h"
#include "util/SocketServer.h"
#include "util/SocketServerRunner.h"

namespace hutil_test {

using hvn::util::Socket, hvn::util::SocketServer, hvn::util::SocketServerRunner;

TEST(SocketServer, DestructionUnderLoadIsOrderly) {
  for (int round = 0; round < 20; ++round) {
    std::atomic<bool> gone{false}, late{false};
    const auto note = [&](int, int, std::string, void*, size_t) { return late = late || gone; };
    auto server =
        std::make_unique<SocketServer>("127.0.0.1", Socket::kTcp, Socket::kIpv4, note, nullptr);
    std::vector<int> admitted;
    server->SetNewClientCb([&](int, int fd, std::string) { admitted.push_back(fd); });
    RawClient first(LocalPort(server->fd())), second(LocalPort(server->fd()));
    std::thread load([&] {
      while (first.Send("a") && second.Send("b")) continue;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(round % 4));
    server.reset();
    gone = true;
    for (const RawClient* client : {&first, &second}) shutdown(client->fd(), SHUT_RDWR);
    load.join();
    EXPECT_FALSE(late);
    for (const int fd : admitted) close(fd);
  }
}

// The clients that a runner has not come to are taken out of the queue, which is short.
TEST(SocketServerRunner, DestructionUnderLoadIsOrderly) {
  AllowLeftovers(50, 0);  // a runner leaves its clients open
  Socket server("127.0.0.1", Socket::kTcp, Socket::kIpv4, {});
  ASSERT_EQ(server.Listen(5), hvn::kSuccess);
  ASSERT_EQ(server.SetNonBlock(true), hvn::kSuccess);
  for (int i = 0; i < 50; ++i) {
    {
      SocketServerRunner runner([](int, int, std::string, void*, size_t) { return true; });
      ASSERT_TRUE(runner.AddServer(&server));
      RawClient passer_by(LocalPort(server.fd()));
    }
    std::string path;
    for (int fd = 0; (fd = server.Accept(path)) > 0;) close(fd);
  }
}

}  // namespace hutil_test
