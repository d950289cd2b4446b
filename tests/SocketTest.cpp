#include "support/Peers.h"

namespace hutil_test {

using hvn::kFailure, hvn::kSuccess;

constexpr int kSecond = 1000000;

Socket Open(const std::string& path, Socket::Protocol protocol, Socket::Domain domain) {
  return Socket(path, protocol, domain, {});
}

template <typename Address>
Address LocalAddress(const Socket& socket) {
  Address address = {};
  socklen_t length = sizeof(address);
  EXPECT_EQ(0, getsockname(socket.fd(), reinterpret_cast<sockaddr*>(&address), &length));
  return address;
}

// "RESULT ADDRESS PORT"
std::string Parsed(Socket::Domain domain, const std::string& path) {
  std::string ip = "before";
  int port = 7;
  const int result = Socket(-1, kTcp, domain).GetIpAndPortByPath(path, ip, port);
  return std::to_string(result) + " " + ip + " " + std::to_string(port);
}

TEST(SocketPath, IsReadAsFarAsItNamesAnAddressOrAPortOrBoth) {
  EXPECT_EQ("0 192.168.1.1 8080", Parsed(kIpv4, "192.168.1.1;8080"));
  EXPECT_EQ("0 fe80::1 5000", Parsed(kIpv6, "fe80::1;5000"));
  EXPECT_EQ("0 1.2.3.4 0", Parsed(kIpv6, "1.2.3.4"));
  EXPECT_EQ("0 10.0.0.1 0", Parsed(kIpv4, "10.0.0.1;"));
  EXPECT_EQ("0  65535", Parsed(kIpv4, "65535"));
  EXPECT_EQ("1 ::1 0", Parsed(kIpv4, "::1;80"));
  EXPECT_EQ("1 1.2.3.4 0", Parsed(kIpv4, "1.2.3.4;80;90"));
  EXPECT_EQ("1  65536", Parsed(kIpv4, "65536"));
  EXPECT_EQ("1  0", Parsed(kIpv4, "99999999999"));
  EXPECT_EQ("1 before 7", Parsed(kIpv4, ""));
  EXPECT_EQ("1 before 7", Parsed(kUnix, "8080"));
}

TEST(Socket, Ipv4PathBindsItsAddressButNeverItsPort) {
  const Socket one = Open("127.0.0.1;8080", kTcp, kIpv4);
  const Socket all = Open("8080", kUdp, kIpv4);
  EXPECT_EQ(htonl(INADDR_LOOPBACK), LocalAddress<sockaddr_in>(one).sin_addr.s_addr);
  EXPECT_EQ(htonl(INADDR_ANY), LocalAddress<sockaddr_in>(all).sin_addr.s_addr);
  EXPECT_NE(8080, LocalPort(one.fd()));
  EXPECT_NE(0, LocalPort(one.fd()));
}

TEST(Socket, WhatCannotBeMadeOrBoundLeavesNoDescriptor) {
  EXPECT_EQ(-1, Open("x", kTcp, Socket::Domain(4)).fd());
  EXPECT_EQ(-1, Open("127.0.0.1", Socket::Protocol(0), kIpv4).fd());
  EXPECT_EQ(-1, Open("1.2.3.4;80", kUdp, kIpv6).fd());
  EXPECT_EQ(-1, Open("2001:db8::1;80", kTcp, kIpv6).fd());
  EXPECT_EQ(-1, Open("1eth", kTcp, kIpv4).fd());
  EXPECT_EQ(-1, Open("nowhere0", kUdp, kIpv6).fd());
}

TEST(Socket, StreamSocketHasItsOptionsResetsWhenItIsClosedAndIsClosedForExecutedPrograms) {
  const Socket socket("", kTcp, kIpv4, {5000, 6000});
  EXPECT_EQ(10000, OptionOf(socket.fd(), SOL_SOCKET, SO_SNDBUF));  // the kernel doubles it
  EXPECT_EQ(12000, OptionOf(socket.fd(), SOL_SOCKET, SO_RCVBUF));
  EXPECT_EQ(1, OptionOf(socket.fd(), SOL_SOCKET, SO_LINGER));
  EXPECT_EQ(FD_CLOEXEC, fcntl(socket.fd(), F_GETFD));
}

TEST(Socket, StaleSocketFileIsReplacedAndItsOwnGoesWithTheSocket) {
  const TempDir folder;
  WriteFile(folder / "socket", "stale");
  {
    const Socket socket = Open(folder / "socket", kTcp, kUnix);
    EXPECT_TRUE(std::filesystem::is_socket(folder / "socket"));
  }
  EXPECT_FALSE(std::filesystem::exists(folder / "socket"));
}

TEST(Socket, UnixPathMayFillTheAddressButNotMore) {
  const TempDir folder;
  const std::string longest = folder / std::string(108 - (folder / "").size(), 'x');
  Socket socket = Open(longest, kUdp, kUnix);
  EXPECT_NE(-1, socket.fd());
  EXPECT_EQ(-1, Open(longest + "x", kUdp, kUnix).fd());
  EXPECT_EQ(-1, socket.SendTo(longest + "x", std::string("x")));
  EXPECT_EQ(kFailure, socket.Connect(longest + "x", 0));
}

TEST(Socket, ConnectWithinALimitLeavesTheSocketBlocking) {
  Socket server = Open("127.0.0.1", kTcp, kIpv4);
  Socket client = Open("", kTcp, kIpv4);
  server.Listen(5);
  EXPECT_EQ(kSuccess, client.Connect(DestOf(server.fd()), 3500000));
  EXPECT_TRUE(client.is_connected());
  EXPECT_EQ(0, fcntl(client.fd(), F_GETFL) & O_NONBLOCK);
}

TEST(Socket, PeerThatIsSilentFailsTheConnectWhenTheTimeIsOver) {
  Socket client = Open("", kTcp, kIpv4);
  const int64_t start = NowMs();
  EXPECT_EQ(kFailure, client.Connect("10.77.0.99;1", 50000));  // nobody has the address
  EXPECT_GE(NowMs() - start, 49);
}

TEST(Socket, TimedOperationsRefuseADescriptorThatSelectCannotHold) {
  Socket high(1024, kTcp, kUnix);
  char byte = 0;
  EXPECT_EQ(-1, high.RecvTimedWait(&byte, 1, kSecond, 0));
  EXPECT_EQ(kFailure, high.Connect("/anywhere", kSecond));
  EXPECT_EQ(0, CallCount(Call::kSelect) + CallCount(Call::kConnect));
}

TEST(Socket, AcceptNamesIpv6PeersWithASemicolonAndClosesThemForExecutedPrograms) {
  Socket server = Open("::1;6000", kTcp, kIpv6);
  Socket client = Open("", kTcp, kIpv6);
  server.Listen(5);
  client.Connect("::1;6000", 0);
  std::string path;
  const int accepted = server.Accept(path);
  EXPECT_EQ("::1;" + std::to_string(LocalPort(client.fd())), path);
  EXPECT_EQ(FD_CLOEXEC, fcntl(accepted, F_GETFD));
  close(accepted);
}

// A socket of the caller's, which stays open, and its peer.
class SocketData : public testing::Test {
 protected:
  Pair pair_;
  Socket socket_{pair_.near(), kTcp, kUnix};
  char data_[8] = {};
};

TEST_F(SocketData, SendIsTriedTenTimesMoreATenthOfASecondApart) {
  const std::string data(100, 'x');
  FailWithResult(Call::kUsleep, 0, 0, kAlways);
  FailNext(Call::kSend, EAGAIN, 11);
  EXPECT_EQ(-EAGAIN, socket_.Send(&data[50], 7));
  EXPECT_EQ(std::vector<unsigned>(10, 100000), Sleeps());
}

TEST_F(SocketData, RetriedSendGoesBackByAByte) {
  FailWithResult(Call::kUsleep, 0, 0, kAlways);
  FailWithResult(Call::kSend, 4, 0);
  FailNext(Call::kSend, EPIPE, 2);
  EXPECT_EQ(7, socket_.Send(std::string("payload")));
  EXPECT_EQ("paylyload", pair_.ReadFar());
}

TEST_F(SocketData, TimedReceiveEndsWhenTheTimeIsOver) {
  const int64_t start = NowMs();
  EXPECT_EQ(-ETIME, socket_.RecvTimedWait(data_, 1, 20000, 0));
  EXPECT_GE(NowMs() - start, 19);
}

TEST_F(SocketData, LimitEndsASendThatThePeerDoesNotTake) {
  pair_.Fill();
  EXPECT_EQ(kSuccess, socket_.SetSendLimit(50));
  const int64_t start = NowMs();
  EXPECT_EQ(-ETIMEDOUT, socket_.Send(std::string("x")));
  EXPECT_GE(NowMs() - start, 49);
}

TEST_F(SocketData, LimitedSendRepeatsNoByte) {
  socket_.SetSendLimit(1000);
  FailWithResult(Call::kSend, 3, 0);
  FailNext(Call::kSend, EAGAIN);
  FailNext(Call::kSend, EINTR);
  EXPECT_EQ(7, socket_.Send(std::string("payload")));
  EXPECT_EQ("payload", pair_.ReadFar());
}

TEST_F(SocketData, LimitedSendGivesAPeerThatHasGoneUpAtOnceAndWithoutASignal) {
  signal(SIGPIPE, SIG_DFL);
  pair_.CloseFar();
  socket_.SetSendLimit(1000);
  EXPECT_EQ(-EPIPE, socket_.Send(std::string("x")));
  EXPECT_EQ(1, CallCount(Call::kSend));
}

}  // namespace hutil_test
