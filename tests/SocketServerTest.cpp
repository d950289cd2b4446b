#include "support/Kit.h"
#include "util/SocketClient.h"
#include "util/SocketServer.h"

using namespace hutil_test;
using namespace hvn::util;
constexpr char kFdCallback[] = "void hvn::util::SocketServer::FdCallback(int, hvn::util::FdType)";
constexpr char kAdded[] = "add fd [%d] path [%s] server path [%s] proto [%s]\n";
constexpr char kRemoved[] = "%s %d: remove fd [%d] path [%s]\n";

// A server that answers every message with itself and remembers what came from whom.
struct Echo {
  explicit Echo(SslWrapper* ssl = nullptr, Socket::Protocol protocol = Socket::kTcp,
                Socket::Domain domain = Socket::kIpv4, const std::string& path = "127.0.0.1")
      : server(path, protocol, domain, callback, ssl) {}
  uint16_t port() { return LocalPort(server.fd()); }
  std::string dest() { return "127.0.0.1;" + std::to_string(port()); }
  bool Got(const std::string& text) {
    return WaitFor([&] { return heard().text == text; }, 2000);
  }
  struct Heard {
    std::string text, from;
    int client = -1;
  } last;
  Heard heard() {
    const std::lock_guard<Mutex> guard(mutex);
    return last;
  }
  Mutex mutex;
  std::atomic<int> answers{1};
  const SocketServer::DataCallback callback = [this](int, int client, std::string from, void* data,
                                                     size_t size) {
    mutex.lock();
    last = {last.text.append(static_cast<char*>(data), size), from, client};
    mutex.unlock();
    int left = client > 0 ? answers.load() : 0;
    while (left > 0 && server.SendTo(client, data, size) > 0) --left;
    return false;  // changes nothing
  };
  SocketServer server;
};

bool Serves(RawClient& client, const std::string& text = "x") {
  return client.Send(text) && client.Recv(text.size()) == text;
}

TEST(SocketServer, ClientIsServedFromItsArrivalToItsClose) {
  Echo echo;
  std::atomic<int> newcomer{0};
  echo.server.SetNewClientCb([&](int, int client, std::string) { newcomer = client; });
  RawClient client(echo.port());
  ASSERT_TRUE(Serves(client));
  const std::string path = "127.0.0.1:" + std::to_string(LocalPort(client.fd()));
  EXPECT_SAID(LOG_DEBUG, kFdCallback, kAdded, newcomer.load(), path.c_str(), "127.0.0.1", "tcp");
  echo.server.AddFd(newcomer, "another path");           // changes nothing
  EXPECT_TRUE(Serves(client, std::string(20000, 'x')));  // more than one read's worth
  EXPECT_EQ(echo.heard().from, path);
  client.Close();
  ASSERT_TRUE(WaitForLog(kRemoved, 2000));
  EXPECT_SAID(LOG_DEBUG, "void hvn::util::SocketServer::RemoveFd(int)",
              "remove fd [%d] path [%s]\n", newcomer.load(), path.c_str());
  EXPECT_EQ(echo.server.SendTo(newcomer, std::string("x")), -1);
  EXPECT_EQ(CountLogged("%s %d: errno [%d]\n"), 0);
}

TEST(SocketServer, FailuresOfOneClientLeaveTheOthersServed) {
  Echo echo;
  FailNext(Call::kAccept4, EMFILE);
  RawClient first(echo.port());
  ASSERT_TRUE(WaitForLog("%s %d: \n", 2000));
  EXPECT_SAID(LOG_ERR, kFdCallback, "\n");
  EXPECT_SAID(LOG_DEBUG, kFdCallback, kAdded, -1, "", "127.0.0.1", "tcp");
  EXPECT_TRUE(Serves(first));
  RawClient second(echo.port());
  FailNext(Call::kRecv, ECONNRESET);
  ASSERT_TRUE(first.Send("b"));
  EXPECT_TRUE(first.ClosedByPeer());
  EXPECT_SAID(LOG_ERR, kFdCallback, "errno [%d]\n", ECONNRESET);
  EXPECT_TRUE(Serves(second));
  second.Close();
  EXPECT_TRUE(WaitFor([] { return CountLogged(kRemoved) == 2; }, 2000));
  Socket stray("::1;7001", Socket::kUdp, Socket::kIpv6, {});
  ASSERT_EQ(stray.SendTo("::1;7001", "stray", 5), 5);
  echo.server.FdCallback(stray.fd(), kRead);
  EXPECT_SAID(LOG_ERR, kFdCallback, "Unknown client fd [%d]\n", stray.fd());
  EXPECT_FALSE(WaitUntilReadable(stray.fd(), 0));  // drained
}

TEST(SocketServer, DatagramsNameTheirSenders) {
  Echo echo(nullptr, Socket::kUdp);
  echo.server.SetNewClientCb([](int, int, std::string) { ADD_FAILURE(); });
  Socket sender("127.0.0.1", Socket::kUdp, Socket::kIpv4, {});
  ASSERT_EQ(sender.SendTo(echo.dest(), std::string("ping")), 4);
  ASSERT_TRUE(echo.Got("ping"));
  const std::string port = std::to_string(LocalPort(sender.fd()));
  EXPECT_EQ(echo.heard().from, "127.0.0.1:" + port);
  EXPECT_EQ(echo.heard().client, 0);
  EXPECT_EQ(echo.server.SendTo("127.0.0.1;" + port, std::string("pong")), 4);
  char answer[8];
  EXPECT_EQ(sender.RecvTimedWait(answer, sizeof(answer), 2000000, 0), 4);
  EXPECT_EQ(echo.server.SendTo(echo.server.fd() + 1, answer, 1), -1);
  EXPECT_EQ(echo.server.SendTo(echo.server.fd(), answer, 1), -EDESTADDRREQ);
  FailNext(Call::kRecvFrom, EIO);
  ASSERT_EQ(sender.SendTo(echo.dest(), "x", 1), 1);
  ASSERT_TRUE(echo.Got("pingx"));
  EXPECT_SAID(LOG_ERR, kFdCallback, "fd [%d] recvfrom errno [%d]\n", echo.server.fd(), EIO);
  const TempDir dir;
  Echo local(nullptr, Socket::kUdp, Socket::kUnix, dir / "server");
  SocketClient named(dir / "client", Socket::kUdp, Socket::kUnix, dir / "server", {});
  EXPECT_EQ(named.Send(std::string("hi")), 2);
  ASSERT_TRUE(local.Got("hi"));
  EXPECT_EQ(local.heard().from, dir / "client");
}

TEST(SocketServer, CallbackMeetsZerosBehindItsMessageAndMayTakeItsClientOut) {
  std::atomic<ssize_t> stale{-1}, answered{0};
  SocketServer server(
      "127.0.0.1", Socket::kTcp, Socket::kIpv4,
      [&](int, int client, std::string, void* data, size_t size) {
        const auto* const bytes = static_cast<char*>(data);
        stale = std::count_if(bytes + size, bytes + 8192, [](char byte) { return byte != 0; });
        if (size > 5) return server.SendTo(client, data, 1) == 1;
        server.RemoveFd(client);
        answered = server.SendTo(client, data, size);
        server.AddFd(client, "again");
        if (answered < 0 && server.SendTo(client, data, size) == 5) server.RemoveFd(client);
        return close(client) == 0;
      },
      nullptr);
  RawClient client(LocalPort(server.fd()));
  ASSERT_TRUE(client.Send(std::string(8192, 'x')) && client.Recv(1) == "x");
  EXPECT_TRUE(client.Send("short") && client.Recv(5) == "short" && client.ClosedByPeer());
  EXPECT_EQ(stale, 0);
  EXPECT_EQ(answered, -1);
}

TEST(SocketServer, WithoutADataCallbackNothingIsServed) {
  SocketServer idle("127.0.0.1", Socket::kTcp, Socket::kIpv4, nullptr, nullptr);
  RawClient client(LocalPort(idle.fd()));
  EXPECT_EQ(client.Recv(1, 50), "");
  idle.AddFd(client.fd(), "entered by hand");
  EXPECT_EQ(idle.SendTo(client.fd(), std::string("x")), 1);
  idle.RemoveFd(client.fd());
  EXPECT_EQ(CallCount(Call::kAccept4), 0);
}

TEST(SocketServer, TlsServesWholeRecordsAndClosesWhoFailsTheHandshake) {
  SslWrapper tls(true, SslWrapper::kTlsV1_2), client_tls(false, SslWrapper::kTlsV1_2);
  EXPECT_EQ(tls.SetCertAndKeyFile(CertPath("server.pem"), CertPath("server-key.pem"),
                                  SslWrapper::kPem, SslWrapper::kPem),
            hvn::kSuccess);
  Echo echo(&tls);
  echo.server.SetNewClientCb([](int, int, std::string) { ADD_FAILURE(); });
  RawClient stranger(echo.port());
  EXPECT_TRUE(stranger.Send("GET / HTTP/1.0\r\n\r\n"));
  EXPECT_TRUE(stranger.ClosedByPeer());
  EXPECT_TRUE(WaitForLog("%s %d: \n", 2000));
  echo.server.SetNewClientCb(nullptr);
  SocketClient client("", Socket::kTcp, Socket::kIpv4, echo.dest(), {&client_tls, 2000000, {}});
  const std::string record(16384, 'r');
  EXPECT_EQ(client.Send(record), static_cast<ssize_t>(record.size()));
  EXPECT_TRUE(echo.Got(record));
  const int fd = echo.heard().client;
  char answer[8];
  EXPECT_EQ(client.Recv(answer, sizeof(answer)), 8);
  EXPECT_EQ(client.RecvTimedWait(answer, 1, 1000, 0), -1);  // not offered with TLS
  EXPECT_TRUE(client_tls.RemoveClient(client.fd()));
  shutdown(client.fd(), SHUT_RDWR);
  ASSERT_TRUE(WaitForLog(kRemoved, 2000));
  const char gone[] = "%s %d: NO ssl instanace for fd [%d]\n";
  EXPECT_TRUE(WaitFor([&] { return tls.Send(fd, "x", 1) < 0 && CountLogged(gone) > 0; }, 2000));
}

// A daemon that stops must not hang on a peer that says nothing, nor on one that does not read.
TEST(SocketServer, DestructionIsNotHeldUpByAPeer) {
  SslWrapper tls(true, SslWrapper::kTlsV1_2);
  FailWithResult(Call::kUsleep, 0, 0, kAlways);
  for (const bool silent : {true, false}) {
    auto echo = std::make_unique<Echo>(silent ? &tls : nullptr);
    echo->answers = 1 << 20;
    RawClient peer(echo->port());
    ASSERT_TRUE(peer.Send("\x16\x03" + std::string(silent ? 0 : 8000, 'x')));
    const auto busy = [&] {
      return silent ? CountLogged(std::string("%s %d: ") + kAdded) : echo->heard().client > 0;
    };
    ASSERT_TRUE(WaitFor(busy, 2000));
    const int left_open = echo->heard().client;
    echo.reset();
    close(left_open);
  }
}

TEST(SocketClient, ExchangesMessagesOnceConnected) {
  const char constructor[] =
      "hvn::util::SocketClient::SocketClient(std::string, hvn::util::Socket::Protocol, "
      "hvn::util::Socket::Domain, std::string, hvn::util::SocketClient::SocketClientOption)";
  SocketClient datagram("", Socket::kUdp, Socket::kIpv4, "127.0.0.1;7001", {});
  SocketClient refused("", Socket::kTcp, Socket::kIpv4, "127.0.0.1;1", {nullptr, 2000000, {}});
  EXPECT_SAID(LOG_DEBUG, constructor, "connect_timeout_us %d\n", 2000000);
  for (SocketClient* client : {&datagram, &refused}) {
    EXPECT_FALSE(client->is_connected());
    EXPECT_EQ(client->Send(std::string("x")), -1);
  }
  EXPECT_SAID(LOG_ERR, "ssize_t hvn::util::SocketClient::Send(const void*, size_t)",
              "Cannot Send without connection\n");
  Echo echo(nullptr, Socket::kTcp, Socket::kIpv6, "::1;7001");
  SocketClient client("", Socket::kTcp, Socket::kIpv6, "::1;7001", {nullptr, 2000000, {}});
  char text[] = "hello", answer[8] = {};
  EXPECT_EQ(client.Send(text, 5), 5);
  EXPECT_EQ(client.RecvTimedWait(answer, sizeof(answer), 2000000, 1), 5);  // a peek
  EXPECT_EQ(client.Recv(answer, sizeof(answer)), 5);
  EXPECT_STREQ(answer, "hello");
  EXPECT_EQ(echo.heard().from.rfind("::1;", 0), 0U);
  shutdown(client.fd(), SHUT_RDWR);
  EXPECT_TRUE(WaitForLog(kRemoved, 2000));
}
