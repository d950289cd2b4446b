// What a server does beyond serving: limits for its peers, orderly ends, word of those who leave.
#include <sys/resource.h>

#include <memory>
#include <thread>

#include "support/Peers.h"

namespace hutil_test {

constexpr char kTakenOut[] = "%s %d: client fd [%d] path [%s] taken out: %s\n";
constexpr int kLongMs = 20000;  // which no test waits for
const int kShortMs = Stretched(200);

// More than the kernel's buffers hold, no byte like its neighbours.
std::string LongAnswer() {
  std::string answer(8 << 20, '\0');
  for (size_t i = 0; i < answer.size(); ++i) answer[i] = char(i * 7 + i / 256);
  return answer;
}

Echo::Option Limit(int ms) {
  Echo::Option option;
  option.peer_timeout_ms = ms;
  return option;
}

bool TakenOutFor(const std::string& why) {
  EXPECT_TRUE(WaitForLog(kTakenOut, 3000));
  for (const LogLine& log : Logs()) {
    if (log.format == kTakenOut) return log.text.find(why) != std::string::npos;
  }
  return false;
}

// A client in clear or through TLS.
class Visitor {
 public:
  Visitor(uint16_t port, bool secure) : raw(port), secure_(secure) {
    EXPECT_TRUE(!secure_ || tls_.Connect(raw.fd()));
  }
  bool Send(const std::string& data) {
    return secure_ ? tls_.Send(raw.fd(), data.data(), data.size()) > 0 : raw.Send(data);
  }
  std::string Recv(size_t size) { return secure_ ? RecvAll(tls_, raw.fd(), size) : raw.Recv(size); }

  RawClient raw;

 private:
  const bool secure_;
  SslWrapper tls_{false, SslWrapper::kTlsV1_2};
};

// In clear and with TLS, and with SIGPIPE as the kernel has it: whoever raises it ends the test.
class LimitedServer : public testing::TestWithParam<bool> {
 protected:
  LimitedServer() { signal(SIGPIPE, SIG_DFL); }
  Echo Limited(int ms, const Echo::ServerAct& act = Echo::Answer) {
    return Echo(GetParam() ? &tls_ : nullptr, Limit(ms), act);
  }
  Visitor Visit(const Echo& echo) { return Visitor(echo.port(), GetParam()); }
  // Where a server with that limit closes as soon as it has answered.
  void ExpectAllBeforeTheEnd(int ms) {
    Echo echo = Limited(ms, [this](SocketServer& server, const Message& message) {
      answers_(server, message);
      EXPECT_TRUE(server.Close(message.client));
      EXPECT_EQ(-1, server.Reply("x", 1));
    });
    Visitor client = Visit(echo);
    EXPECT_TRUE(client.Send("x"));
    EXPECT_EQ(long_, client.Recv(long_.size()));
    EXPECT_TRUE(client.Send("still there"));
    EXPECT_EQ(GetParam() ? "\x15" : "", client.raw.Recv(SIZE_MAX).substr(0, 1));  // an alert
    EXPECT_TRUE(WaitUntilReadable(client.raw.fd(), 0));                           // the end
    client.raw.Close();
    EXPECT_TRUE(WaitForLog(kRemoved, 2000));
    EXPECT_EQ("x", echo.inbox.text());
  }

  ServerTls tls_;
  const std::string long_ = LongAnswer();
  const Echo::ServerAct answers_ = [this](SocketServer& server, const Message&) {
    server.Reply(long_.data(), long_.size());
  };
};
INSTANTIATE_TEST_SUITE_P(InClear, LimitedServer, testing::Values(false));
INSTANTIATE_TEST_SUITE_P(WithTls, LimitedServer, testing::Values(true));

TEST_P(LimitedServer, HearsNothingFromAPeerThatDoesNotTakeItsAnswerAndRepeatsNoByte) {
  Echo echo = Limited(kLongMs, answers_);
  Visitor slow = Visit(echo), other = Visit(echo);
  EXPECT_TRUE(slow.Send("1"));
  EXPECT_TRUE(echo.inbox.Await("1"));
  EXPECT_TRUE(slow.Send("2"));
  EXPECT_TRUE(other.Send("o"));
  EXPECT_EQ(long_, other.Recv(long_.size()));
  EXPECT_TRUE(echo.inbox.Await("1o"));
  EXPECT_EQ(long_, slow.Recv(long_.size()));
  EXPECT_TRUE(echo.inbox.Await("1o2"));
}

TEST_P(LimitedServer, CutsOffAPeerThatDripsItsAnswer) {
  Echo echo = Limited(kShortMs, answers_);
  Visitor dripping = Visit(echo);
  const int64_t start = NowMs();
  EXPECT_TRUE(dripping.Send("x"));
  EXPECT_TRUE(echo.inbox.Await("x"));
  while (CountLogged(kTakenOut) == 0 && NowMs() - start < Stretched(5000)) dripping.raw.Recv(1, 1);
  EXPECT_GE(NowMs() - start, kShortMs - 1);
  EXPECT_TRUE(TakenOutFor("answer not taken in time"));
}

TEST_P(LimitedServer, KeepsAnswersInTheirOrderUntilTheyAreMoreThan8MiB) {
  Echo echo = Limited(kLongMs);
  Visitor client = Visit(echo);
  EXPECT_TRUE(client.Send("x"));
  EXPECT_TRUE(echo.inbox.Await("x"));
  const int number = echo.inbox.last().client;
  const auto size = ssize_t(long_.size());
  EXPECT_EQ(size, echo.server.SendTo(number, long_));
  EXPECT_EQ(4, echo.server.SendTo(number, std::string("last")));
  EXPECT_EQ("x" + long_ + "last", client.Recv(1 + long_.size() + 4));
  EXPECT_EQ(size, echo.server.SendTo(number, long_));
  EXPECT_EQ(size, echo.server.SendTo(number, long_));
  EXPECT_EQ(-1, echo.server.SendTo(number, long_));
  EXPECT_TRUE(TakenOutFor("too many answers not taken"));
}

TEST_P(LimitedServer, CloseLetsAllArrive) { ExpectAllBeforeTheEnd(kLongMs); }
TEST_P(LimitedServer, CloseLetsAllArriveWithoutALimitToo) { ExpectAllBeforeTheEnd(0); }

TEST_P(LimitedServer, CloseTakesOutAPeerThatStays) {
  Echo echo = Limited(kShortMs, [](SocketServer& server, const Message& message) {
    EXPECT_TRUE(server.Close(message.client));
  });
  Visitor staying = Visit(echo);
  EXPECT_TRUE(staying.Send("x"));
  EXPECT_TRUE(TakenOutFor("connection not closed in time"));
}

TEST_P(LimitedServer, TurnsANewcomerAwayWhenDescriptorsHaveRunOut) {
  Echo echo = Limited(kLongMs);
  const rlimit one_left = {rlim_t(NextFd()) + 1, 1024}, enough = {1024, 1024};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &one_left));
  RawClient newcomer(echo.port());  // has the last number
  EXPECT_TRUE(newcomer.ClosedByPeer());
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &enough));
  EXPECT_TRUE(Visit(echo).Send("x"));
}

// A byte now and then, until the server has had enough; in how many milliseconds.
int64_t DripUntilClosed(RawClient& client) {
  const int64_t start = NowMs();
  const int64_t end = start + Stretched(5000);
  while (client.Send("-") && !WaitUntilReadable(client.fd(), 5) && NowMs() < end) continue;
  EXPECT_TRUE(client.ClosedByPeer(0));
  return NowMs() - start;
}

TEST(TlsServer, HearsARecordThatIsLongerThanABufferAtOnce) {
  ServerTls tls;
  const std::string record(16384, 'r');
  Echo echo(&tls);
  Visitor client(echo.port(), true);
  EXPECT_TRUE(client.Send(record));
  EXPECT_TRUE(echo.inbox.Await(record));
}

TEST(TlsServer, TurnsAwayANewcomerWhoDripsItsHandshake) {
  ServerTls tls;
  Echo echo(&tls, Limit(kShortMs));
  RawClient client(echo.port());
  EXPECT_TRUE(client.Send(std::string("\x16\x03\x01\x02\x00\x01", 6)));  // a long hello's beginning
  EXPECT_GE(DripUntilClosed(client), kShortMs - 10);
  EXPECT_TRUE(TakenOutFor("handshake not finished in time"));
}

TEST(TlsServer, CutsOffAClientThatDripsARecord) {
  ServerTls tls;
  Echo echo(&tls, Limit(kShortMs));
  Visitor client(echo.port(), true);
  EXPECT_TRUE(client.raw.Send(std::string("\x17\x03\x03\x20\x00", 5)));  // a record's header
  EXPECT_GE(DripUntilClosed(client.raw), kShortMs - 10);
  EXPECT_TRUE(TakenOutFor("record not completed in time"));
}

TEST(TlsServer, ServesOthersWhileANewcomerIsSilentAndEndsWithoutIt) {
  ServerTls tls;
  auto echo = std::make_unique<Echo>(&tls, Limit(kLongMs));
  echo->goes_first = true;
  RawClient silent(echo->port());
  {
    Visitor honest(echo->port(), true);
    EXPECT_TRUE(honest.Send("x"));
    EXPECT_EQ("x", honest.Recv(1));
  }
  EXPECT_TRUE(WaitForLog(kRemoved, 2000));
  echo.reset();
  EXPECT_TRUE(silent.ClosedByPeer());
}

TEST(TlsServer, DropsAPeerWhoseFailureFindsNoRoomForItsAlert) {
  ServerTls tls;
  SslWrapper peer_tls(false, SslWrapper::kTlsV1_2);
  Pair pair;
  std::thread peer([&] { EXPECT_TRUE(peer_tls.Connect(pair.far())); });
  EXPECT_TRUE(tls.Accept(pair.near()));
  peer.join();
  Echo echo(&tls, Limit(kLongMs));
  echo.server.AddFd(pair.near(), "of the daemon's own");
  pair.Fill();
  EXPECT_EQ(9, send(pair.far(), "no record", 9, 0));
  EXPECT_TRUE(WaitForLog(kRemoved, 2000));
}

TEST(SocketServerOption, GoneCallbackTellsOfAClientWhileItsNumberIsStillTaken) {
  Departure departure;
  Echo::Option option;
  option.client_gone_cb = departure.Callback();
  Echo echo(nullptr, option);
  RawClient client(echo.port());
  const std::string path = NameOf(client.fd());
  client.Close();
  EXPECT_EQ(std::to_string(echo.server.fd()) + " open " + path, departure.Await());
}

TEST(SocketServerOption, GoneCallbackTellsOfAClientThatWasTakenOutButNotOfTheLastOnes) {
  Departure departure;
  Echo::Option option;
  option.client_gone_cb = departure.Callback();
  const Pair taken_out, left;
  Echo echo(nullptr, option);
  echo.server.AddFd(taken_out.near(), "taken out");
  echo.server.AddFd(left.near(), "left");
  echo.server.RemoveFd(taken_out.near());
  EXPECT_EQ(std::to_string(echo.server.fd()) + " open taken out", departure.Await());
}

TEST(SocketServerOption, LingerKeepsClientsFromBeingReset) {
  Echo::Option option;
  option.linger = true;
  Echo echo(nullptr, option);
  RawClient client(echo.port());
  EXPECT_TRUE(Serves(client));
  EXPECT_EQ(0, OptionOf(echo.inbox.last().client, SOL_SOCKET, SO_LINGER));
}

TEST(SocketServerOption, DescriptorOfTheCallersIsServedAndLeftOpen) {
  AllowLeftovers(1, 0);  // a server leaves its clients open
  const Socket bound(kHere, kTcp, kIpv4, {});
  {
    Inbox inbox;
    const SocketServer server(bound.fd(), kTcp, kIpv4, inbox.Callback(), nullptr);
    RawClient client(LocalPort(bound.fd()));
    EXPECT_TRUE(client.Send("hello"));
    EXPECT_TRUE(inbox.Await("hello"));
  }
  EXPECT_EQ(1, OptionOf(bound.fd(), SOL_SOCKET, SO_ACCEPTCONN));
}

}  // namespace hutil_test
