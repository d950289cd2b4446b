#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>

#include "support/Kit.h"
#include "util/SocketClient.h"
#include "util/SocketServer.h"

namespace {

using hutil_test::Call;
using hutil_test::CertPath;
using hutil_test::CountLogged;
using hutil_test::FailNext;
using hutil_test::Fault;
using hutil_test::RawClient;
using hutil_test::WaitFor;
using hvn::util::Socket;
using hvn::util::SocketClient;
using hvn::util::SocketServer;
using hvn::util::SslWrapper;

const char kFdCallback[] = "void hvn::util::SocketServer::FdCallback(int, hvn::util::FdType)";

// A server that answers every message with itself and remembers what came from whom.
class Echo {
 public:
  explicit Echo(const std::string& path, Socket::Protocol protocol = Socket::kTcp,
                Socket::Domain domain = Socket::kIpv4, SslWrapper* ssl = nullptr) {
    const std::lock_guard<std::mutex> guard(mutex_);  // a client may come at once
    server_ = std::make_unique<SocketServer>(
        path, protocol, domain,
        [this](int, int client, std::string from, void* data, size_t size) {
          const std::lock_guard<std::mutex> inner_guard(mutex_);
          text_.append(static_cast<char*>(data), size);
          from_ = from;
          client_ = client;
          ++calls_;
          if (client > 0 && answers_) server_->SendTo(client, data, size);
          return false;  // changes nothing
        },
        ssl);
  }
  SocketServer& server() { return *server_; }
  void Destroy() { server_.reset(); }
  void KeepQuiet() { answers_ = false; }
  uint16_t port() { return hutil_test::LocalPort(server_->fd()); }
  std::string dest() { return "127.0.0.1;" + std::to_string(port()); }
  bool Got(const std::string& text) {
    return WaitFor([&] { return Locked(text_) == text; }, 2000);
  }
  std::string from() { return Locked(from_); }
  int client() { return Locked(client_); }
  int calls() { return Locked(calls_); }

 private:
  template <typename T>
  T Locked(const T& value) {
    const std::lock_guard<std::mutex> guard(mutex_);
    return value;
  }
  std::mutex mutex_;
  std::string text_, from_;
  int client_ = -1, calls_ = 0;
  std::atomic<bool> answers_{true};
  std::unique_ptr<SocketServer> server_;
};

SocketClient::SocketClientOption Within2Seconds(SslWrapper* ssl = nullptr) {
  SocketClient::SocketClientOption option;
  option.connect_timeout_us = 2000000;
  option.ssl = ssl;
  return option;
}

std::unique_ptr<SslWrapper> ServerTls() {
  auto ssl = std::make_unique<SslWrapper>(true, SslWrapper::kTlsV1_2);
  EXPECT_EQ(ssl->SetCertAndKeyFile(CertPath("server.pem"), CertPath("server-key.pem"),
                                   SslWrapper::kPem, SslWrapper::kPem),
            hvn::kSuccess);
  return ssl;
}

TEST(SocketServer, ClientIsServedFromItsArrivalToItsClose) {
  Echo echo("127.0.0.1");
  std::atomic<int> newcomer{0};
  echo.server().SetNewClientCb([&](int, int client, std::string) { newcomer = client; });
  RawClient client(echo.port());
  ASSERT_TRUE(client.Send("hello"));
  EXPECT_EQ(client.Recv(5), "hello");
  EXPECT_EQ(newcomer, echo.client());
  const std::string path = "127.0.0.1:" + std::to_string(hutil_test::LocalPort(client.fd()));
  EXPECT_EQ(echo.from(), path);
  EXPECT_SAID(LOG_DEBUG, kFdCallback, "add fd [%d] path [%s] server path [%s] proto [%s]\n",
              newcomer.load(), path.c_str(), "127.0.0.1", "tcp");
  echo.server().AddFd(newcomer, "another path");  // changes nothing
  const std::string pieces(20000, 'x');           // more than one read's worth
  ASSERT_TRUE(client.Send(pieces));
  EXPECT_EQ(client.Recv(pieces.size()), pieces);
  EXPECT_EQ(echo.from(), path);
  client.Close();
  ASSERT_TRUE(hutil_test::WaitForLog("%s %d: remove fd [%d] path [%s]\n", 2000));
  EXPECT_SAID(LOG_DEBUG, "void hvn::util::SocketServer::RemoveFd(int)",
              "remove fd [%d] path [%s]\n", newcomer.load(), path.c_str());
  char byte = 'x';
  EXPECT_EQ(echo.server().SendTo(newcomer, &byte, 1), -1);
  EXPECT_EQ(CountLogged("%s %d: errno [%d]\n"), 0);
}

TEST(SocketServer, FailuresOfOneClientLeaveTheOthersServed) {
  Echo echo("127.0.0.1");
  FailNext(Call::kAccept4, EMFILE);
  RawClient first(echo.port());
  ASSERT_TRUE(hutil_test::WaitForLog("%s %d: \n", 2000));
  EXPECT_SAID(LOG_ERR, kFdCallback, "\n");
  EXPECT_SAID(LOG_DEBUG, kFdCallback, "add fd [%d] path [%s] server path [%s] proto [%s]\n", -1, "",
              "127.0.0.1", "tcp");
  ASSERT_TRUE(first.Send("a"));
  EXPECT_EQ(first.Recv(1), "a");
  RawClient second(echo.port());
  FailNext(Call::kRecv, ECONNRESET);
  ASSERT_TRUE(first.Send("b"));
  EXPECT_TRUE(first.ClosedByPeer());
  EXPECT_SAID(LOG_ERR, kFdCallback, "errno [%d]\n", ECONNRESET);
  ASSERT_TRUE(second.Send("c"));
  EXPECT_EQ(second.Recv(1), "c");
  second.Close();
  EXPECT_TRUE(WaitFor([] { return CountLogged("%s %d: remove fd [%d] path [%s]\n") == 2; }, 2000));

  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  EXPECT_EQ(write(pair[1], "stray", 5), 5);
  echo.server().FdCallback(pair[0], hvn::util::kRead);
  EXPECT_SAID(LOG_ERR, kFdCallback, "Unknown client fd [%d]\n", pair[0]);
  char byte;
  EXPECT_EQ(recv(pair[0], &byte, 1, MSG_DONTWAIT), -1);  // drained
  close(pair[0]);
  close(pair[1]);
}

TEST(SocketServer, DatagramsNameTheirSenders) {
  Echo echo("127.0.0.1", Socket::kUdp);
  Socket sender("127.0.0.1", Socket::kUdp, Socket::kIpv4, {});
  ASSERT_EQ(sender.SendTo(echo.dest(), std::string("ping")), 4);
  ASSERT_TRUE(echo.Got("ping"));
  const std::string port = std::to_string(hutil_test::LocalPort(sender.fd()));
  EXPECT_EQ(echo.from(), "127.0.0.1:" + port);
  EXPECT_EQ(echo.client(), 0);
  EXPECT_EQ(echo.server().SendTo("127.0.0.1;" + port, std::string("pong")), 4);
  char answer[8];
  EXPECT_EQ(sender.RecvTimedWait(answer, sizeof(answer), 2000000, 0), 4);
  EXPECT_EQ(echo.server().SendTo(echo.server().fd() + 1, answer, 1), -1);
  EXPECT_EQ(echo.server().SendTo(echo.server().fd(), std::string("x")), -EDESTADDRREQ);
  echo.server().SetNewClientCb([](int, int, std::string) { ADD_FAILURE(); });
  ASSERT_EQ(sender.SendTo(echo.dest(), "x", 1), 1);
  ASSERT_TRUE(echo.Got("pingx"));
  FailNext(Call::kRecvFrom, EIO);
  ASSERT_EQ(sender.SendTo(echo.dest(), "y", 1), 1);
  ASSERT_TRUE(echo.Got("pingxy"));
  EXPECT_SAID(LOG_ERR, kFdCallback, "fd [%d] recvfrom errno [%d]\n", echo.server().fd(), EIO);

  const hutil_test::TempDir dir;
  Echo local(dir / "server", Socket::kUdp, Socket::kUnix);
  SocketClient named(dir / "client", Socket::kUdp, Socket::kUnix, dir / "server", {});
  EXPECT_EQ(named.Send(std::string("hi")), 2);
  ASSERT_TRUE(local.Got("hi"));
  EXPECT_EQ(local.from(), dir / "client");
}

TEST(SocketServer, WithoutADataCallbackNothingIsServed) {
  SocketServer idle("127.0.0.1", Socket::kTcp, Socket::kIpv4, nullptr, nullptr);
  RawClient client(hutil_test::LocalPort(idle.fd()));
  EXPECT_TRUE(client.Send("x"));
  EXPECT_EQ(client.Recv(1, 50), "");
  idle.AddFd(client.fd(), "entered by hand");
  EXPECT_EQ(idle.SendTo(client.fd(), std::string("x")), 1);
  idle.RemoveFd(client.fd());
  EXPECT_EQ(hutil_test::CallCount(Call::kAccept4), 0);
}

TEST(SocketServer, TlsMessageOfAWholeRecordArrivesInSeveralCallbacks) {
  const auto server_tls = ServerTls();
  SslWrapper client_tls(false, SslWrapper::kTlsV1_2);
  Echo echo("127.0.0.1", Socket::kTcp, Socket::kIpv4, server_tls.get());
  SocketClient client("", Socket::kTcp, Socket::kIpv4, echo.dest(), Within2Seconds(&client_tls));
  ASSERT_TRUE(client.is_connected());
  echo.KeepQuiet();
  const std::string record(16384, 'r');
  EXPECT_EQ(client.Send(record), static_cast<ssize_t>(record.size()));
  EXPECT_TRUE(echo.Got(record));
  EXPECT_EQ(echo.calls(), 2);
  EXPECT_EQ(echo.server().SendTo(echo.client(), std::string("done")), 4);
  char answer[8];
  EXPECT_EQ(client.Recv(answer, sizeof(answer)), 4);
  EXPECT_EQ(client.RecvTimedWait(answer, 1, 1000, 0), -1);  // not offered with TLS
  EXPECT_TRUE(client_tls.RemoveClient(client.fd()));
  shutdown(client.fd(), SHUT_RDWR);
  ASSERT_TRUE(hutil_test::WaitForLog("%s %d: remove fd [%d] path [%s]\n", 2000));
  EXPECT_TRUE(WaitFor([&] { return server_tls->Send(echo.client(), "x", 1) == -1; }, 2000));
}

TEST(SocketServer, FailedHandshakeIsClosedAndNeverAnnounced) {
  const auto tls = ServerTls();
  Echo echo("127.0.0.1", Socket::kTcp, Socket::kIpv4, tls.get());
  echo.server().SetNewClientCb([](int, int, std::string) { ADD_FAILURE(); });
  RawClient stranger(echo.port());
  EXPECT_TRUE(stranger.Send("GET / HTTP/1.0\r\n\r\n"));
  EXPECT_TRUE(stranger.ClosedByPeer());
  EXPECT_TRUE(hutil_test::WaitForLog("%s %d: \n", 2000));
  EXPECT_SAID(LOG_ERR, kFdCallback, "\n");
}

// A daemon that stops must not hang on a peer that says nothing, nor on one that does not read.
TEST(SocketServer, DestructionIsNotHeldUpByAPeer) {
  const auto tls = ServerTls();
  Echo in_handshake("127.0.0.1", Socket::kTcp, Socket::kIpv4, tls.get());
  RawClient silent(in_handshake.port());
  EXPECT_TRUE(silent.Send("\x16\x03"));  // the beginning of a record
  ASSERT_TRUE(
      hutil_test::WaitForLog("%s %d: add fd [%d] path [%s] server path [%s] proto [%s]\n", 2000));
  in_handshake.Destroy();

  std::atomic<int> client_fd{-1};
  std::atomic<SocketServer*> self{nullptr};
  auto flood = std::make_unique<SocketServer>(
      "127.0.0.1", Socket::kTcp, Socket::kIpv4,
      [&](int, int client, std::string, void*, size_t) {
        client_fd = client;
        const std::string block(1 << 24, 'x');
        return self.load()->SendTo(client, block) > 0;
      },
      nullptr);
  self = flood.get();
  hutil_test::FailWithResult(Call::kUsleep, 0, 0, hutil_test::kAlways);
  RawClient deaf(hutil_test::LocalPort(flood->fd()));
  ASSERT_TRUE(deaf.Send("go"));
  ASSERT_TRUE(WaitFor([&] { return client_fd > 0; }, 2000));
  flood.reset();
  close(client_fd);  // left open by contract
}

TEST(SocketServer, DestructionUnderLoadIsOrderly) {
  for (int round = 0; round < 20; ++round) {
    std::atomic<bool> gone{false}, late{false}, stop{false};
    auto server = std::make_unique<SocketServer>(
        "127.0.0.1", Socket::kTcp, Socket::kIpv4,
        [&](int, int, std::string, void*, size_t) { return late = late || gone; }, nullptr);
    std::mutex mutex;
    std::vector<int> admitted;
    server->SetNewClientCb([&](int, int client, std::string) {
      const std::lock_guard<std::mutex> guard(mutex);
      admitted.push_back(client);
    });
    const uint16_t port = hutil_test::LocalPort(server->fd());
    RawClient first(port), second(port);
    std::thread load([&] {
      while (!stop) {
        if (!first.Send("a") || !second.Send("b")) return;
      }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(round % 4));
    server.reset();
    gone = true;
    stop = true;
    shutdown(first.fd(), SHUT_RDWR);
    shutdown(second.fd(), SHUT_RDWR);
    load.join();
    EXPECT_FALSE(late);
    for (const int client : admitted) close(client);
  }
}

// select(2) holds 1024 descriptors: the clients beyond are turned away, the others served.
TEST(SocketServer, ServesTheClientsItCanHoldOutOfFifteenHundred) {
  const rlimit limit = {4096, 4096};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  Echo echo("127.0.0.1");
  std::vector<std::unique_ptr<RawClient>> clients;
  int served = 0;
  for (int i = 0; i < 1500; ++i) {
    clients.push_back(std::make_unique<RawClient>(echo.port()));
    ASSERT_TRUE(clients.back()->MoveAbove(1100));
    if (clients.back()->Send("x") && clients.back()->Recv(1) == "x") ++served;
  }
  EXPECT_TRUE(clients.back()->ClosedByPeer());
  int still_served = 0;
  for (const auto& client : clients) {
    if (client->Send("y") && client->Recv(1) == "y") ++still_served;
  }
  EXPECT_EQ(still_served, served);
  EXPECT_GT(served, 950);
  EXPECT_LT(served, 1024);
  clients.clear();
  EXPECT_TRUE(
      WaitFor([&] { return CountLogged("%s %d: remove fd [%d] path [%s]\n") == served; }, 5000));
}

TEST(SocketClient, UnconnectedClientsCannotSend) {
  Echo echo("127.0.0.1", Socket::kUdp);
  SocketClient datagram("", Socket::kUdp, Socket::kIpv4, echo.dest(), {});
  SocketClient refused("", Socket::kTcp, Socket::kIpv4, "127.0.0.1;1", Within2Seconds());
  EXPECT_SAID(LOG_DEBUG,
              "hvn::util::SocketClient::SocketClient(std::string, "
              "hvn::util::Socket::Protocol, hvn::util::Socket::Domain, std::string, "
              "hvn::util::SocketClient::SocketClientOption)",
              "connect_timeout_us %d\n", 2000000);
  EXPECT_EQ(CountLogged("%s %d: connect_timeout_us %d\n"), 1);
  for (SocketClient* client : {&datagram, &refused}) {
    EXPECT_FALSE(client->is_connected());
    EXPECT_EQ(client->Send(std::string("x")), -1);
  }
  EXPECT_SAID(LOG_ERR, "ssize_t hvn::util::SocketClient::Send(const void*, size_t)",
              "Cannot Send without connection\n");
  EXPECT_EQ(datagram.SendTo(echo.dest(), std::string("addressed")), 9);
  EXPECT_TRUE(echo.Got("addressed"));
}

TEST(SocketClient, ClearClientExchangesMessages) {
  Echo echo("::1;7001", Socket::kTcp, Socket::kIpv6);
  SocketClient client("", Socket::kTcp, Socket::kIpv6, "::1;7001", Within2Seconds());
  char text[] = "hello", answer[8] = {};
  EXPECT_EQ(client.Send(text, 5), 5);
  EXPECT_EQ(client.RecvTimedWait(answer, sizeof(answer), 2000000, 1), 5);  // a peek
  EXPECT_EQ(client.Recv(answer, sizeof(answer)), 5);
  EXPECT_STREQ(answer, "hello");
  EXPECT_EQ(echo.from().rfind("::1;", 0), 0U);
  shutdown(client.fd(), SHUT_RDWR);
  EXPECT_TRUE(hutil_test::WaitForLog("%s %d: remove fd [%d] path [%s]\n", 2000));
}

}  // namespace
