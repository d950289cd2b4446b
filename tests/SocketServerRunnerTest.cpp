#include "support/Peers.h"
#include "util/SocketServerRunner.h"

namespace hutil_test {

using hvn::util::SocketServerRunner;

constexpr char kFdCallback[] =
    "void hvn::util::SocketServerRunner::FdCallback(int, hvn::util::FdType)";
constexpr char kAccepted[] = "server [%d:%s] accept client [%d:%s\n";

// A runner that answers each message with itself, and a TCP server of its own.
class Runner : public testing::Test {
 protected:
  Runner() {
    server_.Listen(5);
    server_.SetNonBlock(true);  // so that an accept of nobody shows
    EXPECT_TRUE(runner_.AddServer(&server_));
  }
  ~Runner() override {  // clients are left open, so they have to be gone
    EXPECT_TRUE(WaitFor([this] { return CountSockets() <= sockets_; }, 3000));
  }
  uint16_t port() const { return LocalPort(server_.fd()); }

  Inbox inbox_;
  Socket server_{kHere, kTcp, kIpv4, {}};
  SocketServerRunner runner_{inbox_.Callback(
      [this](const Message& message) { runner_.Reply(message.data.data(), message.data.size()); })};
  const int64_t sockets_ = CountSockets();
};

TEST_F(Runner, ServesAStreamClientUntilItEndsItsStream) {
  RawClient client(port());
  EXPECT_TRUE(Serves(client));
  EXPECT_EQ(server_.fd(), inbox_.last().server);
  EXPECT_EQ(NameOf(client.fd()), inbox_.last().path);
  client.Close();
  EXPECT_TRUE(WaitFor([&] { return !IsOpen(inbox_.last().client); }, 2000));
  EXPECT_EQ("x", inbox_.text());
}

TEST_F(Runner, LeavesAClientThatWasTakenOutToItsTaker) {
  Pair pair;
  runner_.AddFd(&server_, pair.near(), "path");
  send(pair.far(), "x", 1, 0);
  EXPECT_TRUE(inbox_.Await("x"));
  runner_.RemoveFd(&server_, pair.near());
  pair.CloseFar();
  RawClient other(port());
  EXPECT_TRUE(Serves(other));  // so the loop has had its turn
  EXPECT_TRUE(IsOpen(pair.near()));
}

TEST_F(Runner, PausesForLackOfMeansAndEntersNobodyWhomItCannotServe) {
  for (const int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM, EINTR, EPROTO}) {
    FailNext(Call::kAccept4, error);
  }
  FailWithResult(Call::kAccept4, 0, 0);
  FailWithResult(Call::kAccept4, 1024, 0);
  RawClient client(port());
  EXPECT_TRUE(Serves(client));
  EXPECT_EQ(std::vector<unsigned>(4, 5000), Sleeps());
}

// An unnamed client's event is its server's, which wants to accept.
TEST(SocketServerRunner, AwaitsNobodyForUnnamedClientsThatItCannotRead) {
  AllowLeftovers(21, 0);  // a runner leaves its clients open
  Inbox inbox;
  Socket server("/tmp/server", kTcp, kUnix, {}), named("/tmp/client", kTcp, kUnix, {});
  server.Listen(30);
  std::vector<std::unique_ptr<Socket>> unnamed(20);
  for (auto& client : unnamed) {
    client = std::make_unique<Socket>("", kTcp, kUnix, Socket::SocketOption());
    client->Connect("/tmp/server", 0);
    client->Send(std::string("unread"));
  }
  SocketServerRunner runner(inbox.Callback());
  EXPECT_TRUE(runner.AddServer(&server));
  named.Connect("/tmp/server", 0);
  named.Send(std::string("x"));
  EXPECT_TRUE(inbox.Await("x"));
  EXPECT_SAID(LOG_DEBUG, kFdCallback, kAccepted, server.fd(), server.path().c_str(), -1, "");
}

TEST_F(Runner, HearsDatagramsOf32768BytesAndRepliesToTheirSenders) {
  Socket datagrams(kHere, kUdp, kIpv4, {}), sender(kHere, kUdp, kIpv4, {});
  EXPECT_TRUE(runner_.AddServer(&datagrams));
  sender.SendTo(DestOf(datagrams.fd()), std::string(40000, 'x'));
  EXPECT_TRUE(inbox_.Await(std::string(32768, 'x')));
  EXPECT_EQ(NameOf(sender.fd()), inbox_.last().path);
  EXPECT_EQ(0, inbox_.last().client);
  std::string answer(40000, '-');
  EXPECT_EQ(32768, sender.RecvTimedWait(&answer[0], answer.size(), 2000000, 0));
  EXPECT_EQ(-1, runner_.Reply("x", 1));  // which is for the callback
  runner_.RemoveServer(&datagrams);
}

}  // namespace hutil_test
