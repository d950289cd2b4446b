#include <memory>
#include <thread>

#include "support/Peers.h"

namespace hutil_test {

// A client that has been served once.
class ServedClient : public testing::Test {
 protected:
  Echo echo_;
  SocketServer& server_ = echo_.server;
  RawClient client_{echo_.port()};
  const bool served_ = Serves(client_);
  const int number_ = echo_.inbox.last().client;
};

TEST_F(ServedClient, HasALongMessageInPiecesOf8192Bytes) {
  const std::string message(10000, 'm');
  EXPECT_TRUE(client_.Send(message));
  EXPECT_TRUE(echo_.inbox.Await("x" + message));
  EXPECT_EQ(8192U, echo_.inbox.messages()[1].data.size());
}

TEST(SocketServer, CallbackMeetsZerosBehindItsMessage) {
  AllowLeftovers(1, 0);  // a server leaves its clients open
  std::vector<char> received;
  std::promise<void> twice;
  const auto receive = [&](int, int, std::string, void* data, size_t size) {
    received.assign(static_cast<char*>(data), static_cast<char*>(data) + 8192);
    if (size == 1) twice.set_value();
    return true;
  };
  SocketServer server(kHere, kTcp, kIpv4, receive, nullptr);
  RawClient client(LocalPort(server.fd()));
  EXPECT_TRUE(client.Send(std::string(8192, 'x') + "x"));
  twice.get_future().wait();
  EXPECT_EQ(8191, std::count(received.begin(), received.end(), '\0'));
}

TEST(SocketServer, NewClientCallbackHoldsNoLockAndItsClientCanBeAnswered) {
  Echo echo;
  echo.server.SetNewClientCb([&](int server, int client, std::string path) {
    echo.server.SetNewClientCb(nullptr);
    echo.server.SendTo(client, std::to_string(server) + path);
  });
  RawClient client(echo.port());
  const std::string welcome = std::to_string(echo.server.fd()) + NameOf(client.fd());
  EXPECT_EQ(welcome, client.Recv(welcome.size()));
}

TEST_F(ServedClient, ThatEndsItsStreamIsClosedAndForgotten) {
  client_.Close();
  EXPECT_TRUE(WaitForLog(kRemoved, 2000));
  EXPECT_FALSE(IsOpen(number_));
  EXPECT_EQ(-1, server_.SendTo(number_, std::string("x")));
  EXPECT_EQ(1U, echo_.inbox.messages().size());
}

TEST(SocketServer, TurnsAwayANewcomerWhomSelectCannotHold) {
  Echo echo;
  echo.server.SetNewClientCb([](int, int client, std::string) { EXPECT_LT(client, 1024); });
  FailWithResult(Call::kAccept4, 1024, 0);
  RawClient next(echo.port());
  EXPECT_TRUE(Serves(next));
}

TEST_F(ServedClient, IsNeitherReadNorClosedOnceItIsTakenOut) {
  server_.RemoveFd(number_);
  client_.Close();
  RawClient other(echo_.port());
  EXPECT_TRUE(Serves(other));  // so the loop has had its turn
  EXPECT_EQ(-1, server_.SendTo(number_, std::string("x")));
  EXPECT_EQ(0, close(number_));
}

// What two senders hear of a server that repeats their datagrams, both of which it finds at once.
std::string HeardBack(Socket::Domain domain, const std::string& path) {
  Barrier both_sent;
  Inbox inbox;
  SocketServer* replying = nullptr;
  const auto reply = [&](const Message& message) {
    if (message.data == "1") both_sent.Pass();
    EXPECT_EQ(domain == kIpv6, message.path.empty());
    replying->Reply(message.data.data(), 1);
  };
  SocketServer server(path, kUdp, domain, inbox.Callback(reply), nullptr);
  replying = &server;
  Socket first(domain == kUnix ? path + "1" : "", kUdp, domain, {});
  Socket second(domain == kUnix ? path + "2" : "", kUdp, domain, {});
  const std::string dest = domain == kIpv4 ? DestOf(server.fd()) : path;
  first.SendTo(dest, std::string("1"));
  second.SendTo(dest, std::string("2"));
  both_sent.open.set_value();
  char heard[] = "--";
  first.RecvTimedWait(&heard[0], 1, 2000000, 0);
  second.RecvTimedWait(&heard[1], 1, 2000000, 0);
  return heard;
}

TEST(SocketServer, RepliesToTheSendersOfDatagramsInARow) {
  const TempDir folder;
  EXPECT_EQ("12", HeardBack(kIpv4, kHere));
  EXPECT_EQ("12", HeardBack(kIpv6, "::1;7000"));
  EXPECT_EQ("12", HeardBack(kUnix, folder / "server"));
}

TEST(SocketServer, EndAwaitsTheCallbackUnderWayWhichFindsNobodyToSendTo) {
  AllowLeftovers(1, 0);  // a server leaves its clients open
  Barrier barrier;
  const auto act = [&](SocketServer& server, const Message& message) {
    barrier.Pass();
    EXPECT_EQ(-1, server.SendTo(message.client, std::string("x")));
    EXPECT_EQ(-1, server.Reply("x", 1));
  };
  auto echo = std::make_unique<Echo>(nullptr, Echo::Option(), act);
  echo->goes_first = true;
  RawClient client(echo->port());
  EXPECT_TRUE(client.Send("x"));
  barrier.AwaitArrival();
  EXPECT_TRUE(WaitsFor(barrier, [&] { echo.reset(); }));
}

TEST(SocketServer, EndCutsOffAPeerThatDoesNotReadAndNobodyElse) {
  AllowLeftovers(2, 0);
  FailWithResult(Call::kUsleep, 0, 0, kAlways);
  const auto act = [&](SocketServer& server, const Message&) {
    const std::string answer(64 << 20, 'x');
    server.Reply(answer.data(), answer.size());
  };
  auto echo = std::make_unique<Echo>(nullptr, Echo::Option(), act);
  echo->goes_first = true;
  RawClient idle(echo->port()), deaf(echo->port());
  EXPECT_TRUE(deaf.Send("x"));
  EXPECT_TRUE(WaitUntilReadable(deaf.fd(), 2000));
  echo.reset();
  EXPECT_TRUE(deaf.ClosedByPeer());
  EXPECT_FALSE(WaitUntilReadable(idle.fd(), 0));
}

TEST(SocketServer, EndIsNotHeldUpByAPeerThatIsSilentInItsHandshake) {
  ServerTls tls;
  auto echo = std::make_unique<Echo>(&tls);
  echo->goes_first = true;
  RawClient client(echo->port());
  EXPECT_TRUE(WaitForLog("%s %d: add fd [%d] path [%s] server path [%s] proto [%s]\n", 2000));
  echo.reset();
  EXPECT_TRUE(client.ClosedByPeer());
}

TEST_F(ServedClient, IsNotLostWhenAForkedChildDestroysItsServer) {
  EXPECT_TRUE(EndsInChild([this] { server_.~SocketServer(); }));
  EXPECT_TRUE(Serves(client_));
}

// Meanwhile no other client may have its number: the rest of the bytes would be that one's.
TEST_F(ServedClient, ThatGoesDuringASendOfAnotherThreadIsClosedAfterIt) {
  std::thread sender([&] { server_.SendTo(number_, std::string(64 << 20, 'x')); });
  EXPECT_TRUE(WaitUntilReadable(client_.fd(), 2000));
  shutdown(client_.fd(), SHUT_WR);
  EXPECT_TRUE(WaitForLog(kRemoved, 2000));
  EXPECT_TRUE(IsOpen(number_));
  sender.join();
  EXPECT_FALSE(IsOpen(number_));
}

}  // namespace hutil_test
