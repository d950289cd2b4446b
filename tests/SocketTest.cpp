#include <linux/netlink.h>
#include <sys/resource.h>

#include "support/Kit.h"
#include "util/Socket.h"

using namespace hutil_test;
using hvn::kFailure, hvn::kSuccess, hvn::util::Socket, std::to_string;

const auto kTcp = Socket::kTcp, kUdp = Socket::kUdp;
const auto kUnix = Socket::kUnix, kIpv4 = Socket::kIpv4, kIpv6 = Socket::kIpv6;
const char kInit[] = "hvn::Result hvn::util::Socket::Init()";
const char kConnect[] = "hvn::Result hvn::util::Socket::Connect(std::string, int)";

struct Probe : Socket {  // a socket whose address and mode the tests look at
  Probe(const std::string& path, Protocol protocol, Domain domain, SocketOption option = {})
      : Socket(path, protocol, domain, option) {}
  sockaddr_nl Local() const {  // whose port lies where IPv4's address does
    sockaddr_nl address = {};
    socklen_t length = sizeof(address);
    getsockname(fd(), reinterpret_cast<sockaddr*>(&address), &length);
    return address;
  }
  bool IsNonBlocking() const { return (fcntl(fd(), F_GETFL) & O_NONBLOCK) != 0; }
};

bool Opens(const std::string& path, Socket::Protocol protocol, Socket::Domain domain) {
  return Probe(path, protocol, domain).fd() != -1;
}

TEST(Socket, PathGrammarIsExact) {
  const auto outcome = [](Socket::Domain domain, const char* path) {  // result, address, port
    std::string ip = "kept";
    int port = 7;
    const int result = Socket(-1, kTcp, domain).GetIpAndPortByPath(path, ip, port);
    return to_string(result) + " " + ip + " " + to_string(port) + ", ";
  };
  std::string all;
  const auto paths = {"192.168.1.1;8080", "65535",      "10.0.0.1;",     ";80", "::1;80", "65536",
                      "99999999999",      "1.2.3.4;-1", "1.2.3.4;80;90", ""};
  for (const char* path : paths) all += outcome(kIpv4, path);
  for (const char* path : {"fe80::1;5000", "1.2.3.4"}) all += outcome(kIpv6, path);
  EXPECT_EQ(all + outcome(kUnix, "8080"),
            "0 192.168.1.1 8080, 0  65535, 0 10.0.0.1 0, 1  0, 1 ::1 0, 1  65536, 1  0, "
            "1 1.2.3.4 0, 1 1.2.3.4 0, 1 kept 7, 0 fe80::1 5000, 0 1.2.3.4 0, 1 kept 7, ");
  const char function[] =
      "hvn::Result hvn::util::Socket::GetIpAndPortByPath(std::string, std::string&, int&)";
  EXPECT_SAID(LOG_DEBUG, function, "IP address only %s\n", "");
  EXPECT_SAID(LOG_DEBUG, function, "domain_ %d path %s ip %s port %d\n", 2, "fe80::1;5000",
              "fe80::1", 5000);
  EXPECT_SAID(LOG_ERR, function, "Socket path should be [IP] or [PORT] or [IP;PORT]");
  EXPECT_EQ(CountLogged("%s %d: Socket path should be [IP] or [PORT] or [IP;PORT]"), 2);
}

TEST(Socket, SetUpBindsThePathOrLeavesNoDescriptor) {
  const std::string path = "127.0.0.1;8080";
  auto four = std::make_unique<Probe>(path, kTcp, kIpv4, Socket::SocketOption{5000, 6000});
  const int fd = four->fd();
  EXPECT_TRUE(four->Local().nl_pid == htonl(INADDR_LOOPBACK) && LocalPort(fd) != 8080);
  four.reset();
  EXPECT_SAID(LOG_DEBUG, kInit, "ret [%d] fd [%d] SO_SNDBUF [%d]\n", 0, fd, 10000);
  EXPECT_SAID(LOG_DEBUG, kInit, "ret [%d] fd [%d] SO_RCVBUF [%d]\n", 0, fd, 12000);
  EXPECT_SAID(LOG_DEBUG, kInit, "ret [%d] fd [%d] SO_LINGER [%d:%d]\n", 0, fd, 1, 0);
  EXPECT_SAID(LOG_DEBUG, kInit, "path_ %s\n", path.c_str());
  EXPECT_SAID(LOG_DEBUG, kInit, "multicast_ip [%s] ip [%s] port [%d] s_addr 0x%x\n", "",
              "127.0.0.1", 8080, 0x100007fU);
  EXPECT_SAID(LOG_INFO, kInit, "success to make socket fd [%d] path [%s]\n", fd, path.c_str());
  EXPECT_SAID(LOG_INFO, nullptr, "success to close socket [%s] fd %d\n", path.c_str(), fd);
  EXPECT_SAID(LOG_WARNING, nullptr, "shutdown fd [%d] errno [%d]\n", fd, ENOTCONN);

  Probe six("::1;5000", kUdp, kIpv6);
  EXPECT_SAID(LOG_DEBUG, kInit, "ip %s port %d\n", "::1", 5000);
  EXPECT_TRUE(LocalPort(six.fd()) == 5000 && Opens("::1;5000", kUdp, kIpv6));  // SO_REUSEADDR

  FailNext(Call::kSocket, EMFILE);
  EXPECT_FALSE(Opens("1", kTcp, kIpv4) || Opens("1eth", kTcp, kIpv4));
  EXPECT_FALSE(Opens("x", kTcp, Socket::Domain(4)) || Opens("x", Socket::Protocol(0), kIpv4));
  EXPECT_FALSE(Opens("1.2.3.4;80", kUdp, kIpv6) || Opens("2001:db8::1;80", kTcp, kIpv6));
  EXPECT_SAID(LOG_ERR, "Init", " : socket failed, errno[%d]\n", EMFILE);
  EXPECT_SAID(LOG_ERR, "Init", " : unknown mSocketDomain [%d]\n", 4);
  EXPECT_SAID(LOG_ERR, "Init", " : unknown mSocketType [%d]\n", 0);
  EXPECT_SAID(LOG_ERR, kInit, "inet_pton error %s\n", "1.2.3.4");
  EXPECT_SAID(LOG_ERR, kInit, "bind errno [%d] path [%s]\n", EADDRNOTAVAIL, "2001:db8::1;80");
}

TEST(Socket, UnixPathsAreFilesOrAbstractNames) {
  const TempDir dir;
  WriteFile(dir / "s", "stale");
  EXPECT_TRUE(Opens(dir / "s", kTcp, kUnix) && !std::filesystem::exists(dir / "s"));
  const std::string longest = dir / std::string(108 - (dir / "").size(), 'x'), over = longest + "x";
  EXPECT_TRUE(Opens(longest, kUdp, kUnix) && !Opens(over, kUdp, kUnix));
  EXPECT_SAID(LOG_ERR, kInit, "bind errno [%d] path [%s]\n", ENAMETOOLONG, over.c_str());

  const std::string name("\0svc", 4);
  Probe server(name, kUdp, kUnix), client("", kUdp, kUnix);
  EXPECT_SAID(LOG_DEBUG, kInit, "no path specified\n");
  EXPECT_SAID(LOG_INFO, kInit, "success to make socket fd [%d] path [%s]\n", server.fd(), "svc");
  EXPECT_EQ(client.SendTo(name, std::string("hello")), 5);
  char buffer[8] = {};
  EXPECT_EQ(server.Recv(buffer, sizeof(buffer), 3), 5);  // a peek
  EXPECT_EQ(server.Recv(buffer, sizeof(buffer), 2), 5);  // no peek
  EXPECT_STREQ(buffer, "hello");
  EXPECT_EQ(client.SendTo(over, std::string("x")), -1);
  EXPECT_TRUE(client.Connect(over, 0) == kFailure && client.Connect(name, 0) == kSuccess);
}

TEST(Socket, NetlinkSocketsHearAllRouteGroupsButNeighboursUnderPortsOfTheirOwn) {
  Probe first("", Socket::kRaw, Socket::kNetlink), second("", Socket::kRaw, Socket::kNetlink);
  const auto local = first.Local();
  EXPECT_TRUE(local.nl_pid == uint32_t(getpid()) + 0xF0000000U && local.nl_groups == 0xFFBU);
  EXPECT_EQ(second.Local().nl_pid, local.nl_pid + 1);
  EXPECT_EQ(first.Connect("anywhere", 0), kFailure);
  EXPECT_SAID(LOG_DEBUG, kConnect, "dest [%s]\n", "anywhere");
  std::string path;
  EXPECT_EQ(first.Accept(path), 0);
  EXPECT_SAID(LOG_ERR, "int hvn::util::Socket::Accept(std::string&)",
              "unknown socket domain [%d]\n", 3);
}

TEST(Socket, PathThatStartsWithALetterBindsToADevice) {
  const char function[] = "bool hvn::util::Socket::BindToDevice(std::string)";
  Probe bound("hutil0", kUdp, kIpv4);
  const int fd = bound.fd();
  char name[16] = {};
  socklen_t length = sizeof(name);
  EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name, &length), 0);
  EXPECT_STREQ(name, "hutil0");
  EXPECT_SAID(LOG_DEBUG, function, "Success to bind socket %d to interface %s\n", fd, "hutil0");
  EXPECT_FALSE(Opens("nowhere0", kUdp, kIpv6) || Socket(-1, kUdp, kIpv4).BindToDevice("lo"));
  EXPECT_SAID(LOG_ERR, function, "There's no interface named %s\n", "nowhere0");
  EXPECT_SAID(LOG_ERR, function, "No fd\n");
  FailNext(Call::kGetIfAddrs, ENOMEM);
  EXPECT_FALSE(bound.BindToDevice("lo"));
  EXPECT_SAID(LOG_ERR, function, "No available interface");
  FailNext(Call::kIoctl, EIO);
  FailNext(Call::kSetSockOpt, EPERM);
  EXPECT_FALSE(bound.BindToDevice("lo"));
  EXPECT_SAID(LOG_WARNING, function, "fd [%d] SIOCGIFINDEX errno [%d]\n", fd, EIO);
  EXPECT_SAID(LOG_ERR, function, "Cannot bind socket %d to device %s\n", fd, "lo");
}

TEST(Socket, SettersReportRefusalsAndFiguresGoToTheLogOnly) {
  Probe socket("127.0.0.1", kTcp, kIpv4), datagram("", kUdp, kIpv4);
  const int fd = socket.fd();
  for (const bool on : {true, false}) {
    EXPECT_FALSE(socket.SetTCPNoDelay(on) || socket.SetNonBlock(on) ||
                 socket.IsNonBlocking() != on);
  }
  EXPECT_EQ(datagram.SetTCPNoDelay(true), kFailure);
  EXPECT_FALSE(datagram.Listen(5) || socket.Bind("10.0.0.1", 80));
  EXPECT_TRUE(socket.IsMulticast("224.0.0.1") && socket.IsMulticast("239.255.255.250"));
  EXPECT_FALSE(socket.IsMulticast("240.0.0.1") || socket.IsMulticast(""));
  const std::string function = "bool hvn::util::Socket::GetTcpInfo(hvn::util::Socket::TcpInfo&)";
  ClearLogs();
  Socket::TcpInfo info = {};
  info.rtt = 42;
  EXPECT_TRUE(socket.GetTcpInfo(info) && info.rtt == 42);
  EXPECT_EQ(Logs().at(0).text.find(function + " #: state [7] ca_state"), 0U);  // closed
  std::string said;
  for (const LogLine& line : Logs()) said += to_string(line.priority) + line.format;
  EXPECT_EQ(said,
            "7%s %d: state [%u] ca_state [%u] retransmits [%u] probes [%u] backoff [%u] options "
            "[%u] snd_wscale [%u]7%s %d: rcv_wscale [%u] rto [%u] ato [%u] snd_mss [%u] rcv_mss "
            "[%u] unacked [%u] sacked [%u]7%s %d: tcpi_lost [%u] retrans [%u] fackets [%u] "
            "last_data_sent [%u] last_ack_sent [%u] last_data_recv [%u]7%s %d: last_ack_recv [%u] "
            "pmtu [%u] rcv_ssthresh [%u] rtt [%u] rttvar [%u] snd_ssthresh [%u] snd_cwnd [%u]"
            "7%s %d: advmss [%u] reordering [%u] rcv_rtt [%u] rcv_space [%u] total_retrans [%u]");
  EXPECT_FALSE(datagram.GetTcpInfo(info) || Socket(-1, kTcp, kIpv4).GetTcpInfo(info));
  EXPECT_SAID(LOG_ERR, function.c_str(), "Cannot get getsockopt(TCP_INFO)\n");
  EXPECT_SAID(LOG_ERR, function.c_str(), "Socket is not inialized");
  FailNext(Call::kSetSockOpt, EPERM, 2);
  FailNext(Call::kFcntl, EPERM, 1, 1);
  EXPECT_TRUE(socket.SetTCPNoDelay(true) && socket.SetReuseAddress() && socket.SetNonBlock(true));
  EXPECT_SAID(LOG_ERR, "hvn::Result hvn::util::Socket::SetTCPNoDelay(bool)",
              "setsockopt TCP_NODELAY errno [%d]\n", EPERM);
  EXPECT_SAID(LOG_ERR, "hvn::Result hvn::util::Socket::SetReuseAddress()", "errno [%d]\n", EPERM);
  EXPECT_SAID(LOG_WARNING, "SetNonBlock", " : fcntl [%d] F_SETFL flags [%d] cannot be executed\n",
              fd, fcntl(fd, F_GETFL) | O_NONBLOCK);
  FailNext(Call::kListen, EADDRINUSE);
  EXPECT_TRUE(socket.Listen(5) == kFailure && socket.fd() == -1);
  EXPECT_SAID(LOG_DEBUG, "hvn::Result hvn::util::Socket::Listen(int)",
              "close socket fd [%d] errno [%d]\n", fd, EADDRINUSE);
  EXPECT_TRUE(socket.SetNonBlock(true) && socket.SetReuseAddress() && socket.Listen(5));
  close(Probe("", kUdp, kIpv4).fd());
  EXPECT_SAID(LOG_ERR, nullptr, "Cannot close socket errno [%d]", EBADF);
}

TEST(Socket, ConnectReportsSuccessRefusalAndTimeOut) {
  Probe server("127.0.0.1", kTcp, kIpv4), client("", kTcp, kIpv4);
  const rlimit limit = {2048, 2048};
  ASSERT_TRUE(setrlimit(RLIMIT_NOFILE, &limit) == 0 && dup2(client.fd(), 1024) == 1024);
  Socket high(1024, kTcp, kIpv4);  // which select cannot hold
  EXPECT_EQ(high.RecvTimedWait(nullptr, 1, 1000, 0), -1);
  EXPECT_EQ(high.Connect("127.0.0.1;1", 1000), kFailure);
  EXPECT_EQ(CountLogged("%s %d: select cannot wait for fd [%d]\n"), 2);
  EXPECT_EQ(CallCount(Call::kSelect) + CallCount(Call::kConnect), 0);
  close(1024);
  ASSERT_EQ(server.Listen(5), kSuccess);
  const std::string dest = "127.0.0.1;" + to_string(LocalPort(server.fd()));
  EXPECT_EQ(client.Connect(dest, 2500000), kSuccess);
  EXPECT_TRUE(client.is_connected() && !client.IsNonBlocking());
  EXPECT_SAID(LOG_DEBUG, kConnect, "timeout sec %ld usec %ld\n", 2L, 500000L);
  EXPECT_SAID(LOG_DEBUG, kConnect, "sock_ret %d so_error %d\n", 0, 0);
  EXPECT_SAID(LOG_DEBUG, kConnect, "con_ret %d sel_ret %d\n", 0, 0);
  EXPECT_SAID(LOG_DEBUG, kConnect, "[%s] success to connect [%s] fd %d\n", "", dest.c_str(),
              client.fd());
  std::string path;
  const int peer = server.Accept(path);
  EXPECT_EQ(path, "127.0.0.1:" + to_string(LocalPort(client.fd())));
  EXPECT_EQ(fcntl(peer, F_GETFD), FD_CLOEXEC);
  close(peer);
  ClearLogs();
  Probe late("", kTcp, kIpv4), at_once("", kTcp, kUnix), six("", kTcp, kIpv6);
  EXPECT_EQ(late.Connect("10.77.0.99;1", 100000), kFailure);  // nobody has the address
  EXPECT_FALSE(late.is_connected() || late.IsNonBlocking());
  EXPECT_SAID(LOG_DEBUG, kConnect, "con_ret %d sel_ret %d\n", -1, 0);
  // During the wait a refusal shows in both sets, and the first look at it clears it.
  Probe refused("", kTcp, kIpv4);
  EXPECT_EQ(refused.Connect("127.0.0.1;1", 1000000), kFailure);
  EXPECT_FALSE(refused.is_connected() || refused.IsNonBlocking());
  EXPECT_SAID(LOG_DEBUG, kConnect, "sock_ret %d so_error %d\n", 0, ECONNREFUSED);
  EXPECT_EQ(CountLogged("%s %d: sock_ret %d so_error %d\n"), 2);
  EXPECT_TRUE(at_once.Connect("/nowhere", 1000000) == kFailure && at_once.IsNonBlocking());
  EXPECT_SAID(LOG_DEBUG, kConnect, "con_ret %d errno %d\n", -1, ENOENT);
  EXPECT_EQ(six.Connect("1.2.3.4;80", 0), hvn::kInvalidArgument);
  EXPECT_SAID(LOG_ERR, kConnect, "inet_pton error %s\n", "1.2.3.4");
  Probe member("", kUdp, kIpv4);
  FailNext(Call::kSetSockOpt, ENODEV);
  FailWithResult(Call::kSetSockOpt, 0, 0);  // the namespace has no route to the group
  for (int i = 0; i < 2; ++i)
    EXPECT_FALSE(member.Connect("239.1.2.3;5000", 0) || member.is_connected());
  EXPECT_SAID(LOG_ERR, kConnect, "Cannot join multicast on [%s]\n", "239.1.2.3");
  EXPECT_SAID(LOG_INFO, nullptr, "success to join multicast on [%s]\n", "239.1.2.3");
}

TEST(Socket, DescriptorOfTheCallerSendsAndReceivesAndStaysOpen) {
  const char sent[] = "ssize_t hvn::util::Socket::SendTo(int, const void*, size_t)";
  const char received[] = "ssize_t hvn::util::Socket::Recv(void*, size_t, int)";
  const char timed[] = "ssize_t hvn::util::Socket::RecvTimedWait(void*, size_t, uint64_t, int)";
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  { Socket adopted(pair[0], kTcp, kUnix); }
  Socket socket(pair[0], kTcp, kUnix), none(-1, kTcp, kIpv4);
  std::string bytes = std::string(16, '-') + "payload";
  char* payload = &bytes[16];
  FailWithResult(Call::kUsleep, 0, 0, kAlways);
  FailNext(Call::kSend, EAGAIN, 11);
  EXPECT_EQ(socket.Send(payload, 7), -EAGAIN);
  EXPECT_EQ(Sleeps(), std::vector<unsigned>(10, 100000));
  EXPECT_SAID(LOG_ERR, sent, "errno [%d] exceed max_try_cnt [%d]\n", 11, 10);
  EXPECT_SAID(LOG_DEBUG, sent,
              "socket send errno [%d] try one more time try_cnt [%d] max_try_cnt [%d]\n", 11, 10,
              10);
  // Each retry steps back by one byte; a short count goes on from where it ended.
  FailWithResult(Call::kSend, 3, 0);
  FailNext(Call::kSend, EPIPE, 2);
  EXPECT_EQ(socket.Send(payload, 7), 7);
  char buffer[32] = {};
  EXPECT_EQ(socket.Recv(nullptr, 1, 0), -1);
  FailWithResult(Call::kSend, 3, 0);
  FailNext(Call::kSend, EIO, 2);
  EXPECT_TRUE(socket.Send(payload, 7) == 3 && none.SendTo(pair[0], std::string("x")) == -EIO);
  EXPECT_SAID(LOG_ERR, sent, "errno [%d]\n", 5);
  EXPECT_EQ(read(pair[1], buffer, sizeof(buffer)), 12);
  EXPECT_STREQ(buffer, "payayloadpay");
  const int calls = CallCount(Call::kSend);
  EXPECT_EQ(socket.Send(std::string()) + none.Send(payload, 1), -2);
  payload = nullptr;
  EXPECT_TRUE(socket.Send(payload, 1) == -1 && CallCount(Call::kSend) == calls);
  errno = 0;
  EXPECT_EQ(socket.RecvTimedWait(buffer, sizeof(buffer), 20000, 0), -ETIME);
  EXPECT_SAID(LOG_ERR, timed, "res [%d] errno [%d]\n", 0, 0);
  FailNext(Call::kSelect, EINTR);
  EXPECT_EQ(socket.RecvTimedWait(buffer, sizeof(buffer), UINT64_MAX, 0), -EINTR);
  EXPECT_SAID(LOG_ERR, received, "Receive buffer is null\n");
  close(pair[1]);
  EXPECT_EQ(socket.RecvTimedWait(buffer, sizeof(buffer), UINT64_MAX, 0), 0);
  FailNext(Call::kRecv, EIO);
  EXPECT_EQ(socket.Recv(buffer, sizeof(buffer), 0), -1);
  EXPECT_SAID(LOG_ERR, received, "errno %d rs [%zd]\n", 5, ssize_t{-1});
  EXPECT_TRUE(none.Recv(buffer, 1, 0) == -1 && none.RecvTimedWait(buffer, 1, 0, 0) == -1);
  EXPECT_SAID(LOG_ERR, received, "Invalid fd_ %d\n", -1);
  EXPECT_EQ(none.Connect("127.0.0.1;1", 0), kFailure);
  close(pair[0]);
}

TEST(Socket, AddressedSendTriesAgainWithoutAPause) {
  const char function[] = "ssize_t hvn::util::Socket::SendTo(std::string, const void*, size_t)";
  Probe server("127.0.0.1", kUdp, kIpv4), client("", kUdp, kIpv4);
  const std::string dest = "127.0.0.1;" + to_string(LocalPort(server.fd()));
  FailNext(Call::kSendTo, EAGAIN, 20);
  char text[] = "abc";
  EXPECT_EQ(client.SendTo(dest, text, 3), 3);
  EXPECT_TRUE(Sleeps().empty());
  EXPECT_EQ(CountLogged("%s %d: errno [%d] send ret [%zd] try one more time\n"), 20);
  EXPECT_SAID(LOG_ERR, function, "errno [%d] send ret [%zd] try one more time\n", 11, ssize_t{-1});
  FailNext(Call::kSendTo, ENETDOWN);
  EXPECT_EQ(client.SendTo(dest, std::string("abc")), 0);
  EXPECT_SAID(LOG_ERR, function, "errno [%d] cannot send data to [%s]\n", 100, dest.c_str());
  EXPECT_EQ(client.SendTo("80a", std::string("abc")), -1);
  Probe any("::;7000", kUdp, kIpv6), six("", kUdp, kIpv6);
  EXPECT_EQ(six.SendTo("2001:db8::1;7000", std::string("six")), 3);  // goes to port 7000 of ::
  EXPECT_EQ(any.RecvTimedWait(text, sizeof(text), 2000000, 0), 3);
}

TEST(Socket, AcceptDescribesThePeerOfEachDomain) {
  const TempDir dir;
  Probe six("::1;6000", kTcp, kIpv6), local(dir / "server", kTcp, kUnix);
  ASSERT_FALSE(six.Listen(5) || local.Listen(5));
  Probe six_client("", kTcp, kIpv6), again("", kTcp, kIpv6), local_client(dir / "c", kTcp, kUnix);
  ASSERT_FALSE(six_client.Connect("::1;6000", 1000000) || again.Connect("::1;6000", 0) ||
               local_client.Connect(dir / "server", 1000000));
  std::string path;
  close(six.Accept(path));
  EXPECT_EQ(path, "::1;" + to_string(LocalPort(six_client.fd())));
  close(local.Accept(path));
  EXPECT_EQ(path, dir / "c");
  FailNext(Call::kInetNtop, ENOSPC);
  const int client = six.Accept(path);
  EXPECT_TRUE(client > 0 && path.empty());
  EXPECT_SAID(LOG_ERR, nullptr, "%s() : inet_ntop() failed, check errno[%d]\n", "Accept", ENOSPC);
  close(client);
  FailNext(Call::kAccept4, EMFILE);
  EXPECT_EQ(six.Accept(path), -1);
}
