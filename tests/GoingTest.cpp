// Servers that go while their clients come, send and go.
#include <signal.h>
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

// Meanwhile no other client may have its number: the rest of the bytes would be that one's.
TEST(SocketServer, ClientThatGoesDuringASendOfAnotherThreadIsClosedAfterIt) {
  signal(SIGPIPE, SIG_IGN);
  SocketServer server(
      "127.0.0.1", Socket::kTcp, Socket::kIpv4,
      [](int, int, std::string, void*, size_t) { return true; }, nullptr);
  std::atomic<int> newest{0}, sent_to{0};
  server.SetNewClientCb([&](int, int fd, std::string) { newest = fd; });
  RawClient going(LocalPort(server.fd()));
  ASSERT_TRUE(WaitFor([&] { return newest > 0; }, 2000));
  const int number = newest;
  std::thread sender([&] {
    std::string text(64 << 20, 'x');
    server.SendTo(number, &text[0], text.size());
    sent_to = number;
  });
  ASSERT_TRUE(WaitUntilReadable(going.fd(), 2000));
  shutdown(going.fd(), SHUT_WR);
  ASSERT_TRUE(WaitForLog("%s %d: remove fd [%d] path [%s]\n", 2000));
  EXPECT_EQ(server.SendTo(number, std::string("late")), -1);
  const RawClient next(LocalPort(server.fd()));
  ASSERT_TRUE(WaitFor([&] { return newest != number; }, 2000));
  EXPECT_EQ(sent_to, 0) << "the send ended before it could be looked at";
  sender.join();
  EXPECT_EQ(fcntl(number, F_GETFD), -1);
  server.RemoveFd(newest);
  close(newest);
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
