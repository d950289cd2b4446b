#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

#include "support/Kit.h"
#include "util/Socket.h"

namespace {

using namespace hutil_test;  // NOLINT: the kit is this file's language
using hvn::kFailure;
using hvn::kSuccess;
using hvn::util::Socket;

const char kInit[] = "hvn::Result hvn::util::Socket::Init()";
const char kConnect[] = "hvn::Result hvn::util::Socket::Connect(std::string, int)";

class Probe : public Socket {  // a socket whose address and mode the tests look at
 public:
  using Socket::Socket;
  template <typename T>
  T Local() const {
    T address = {};
    socklen_t length = sizeof(address);
    getsockname(fd(), reinterpret_cast<sockaddr*>(&address), &length);
    return address;
  }
  bool IsNonBlocking() const { return (fcntl(fd(), F_GETFL) & O_NONBLOCK) != 0; }
};

std::string N(long number) { return std::to_string(number); }

TEST(Socket, PathGrammarIsExact) {
  const struct {
    Socket::Domain domain;
    std::string path, outcome;  // result, address, port
  } cases[] = {{Socket::kIpv4, "192.168.1.1;8080", "0 192.168.1.1 8080"},
               {Socket::kIpv4, "65535", "0  65535"},
               {Socket::kIpv4, "10.0.0.1;", "0 10.0.0.1 0"},
               {Socket::kIpv6, "fe80::1;5000", "0 fe80::1 5000"},
               {Socket::kIpv6, "1.2.3.4", "0 1.2.3.4 0"},
               {Socket::kIpv4, ";80", "1  0"},
               {Socket::kIpv4, "::1;80", "1 ::1 0"},
               {Socket::kIpv4, "65536", "1  65536"},
               {Socket::kIpv4, "99999999999", "1  0"},
               {Socket::kIpv4, "1.2.3.4;-1", "1 1.2.3.4 0"},
               {Socket::kIpv4, "1.2.3.4;80;90", "1 1.2.3.4 0"},
               {Socket::kIpv4, "", "1 kept 7"},
               {Socket::kUnix, "8080", "1 kept 7"}};
  for (const auto& c : cases) {
    std::string ip = "kept";
    int port = 7;
    const int result = Socket(-1, Socket::kTcp, c.domain).GetIpAndPortByPath(c.path, ip, port);
    EXPECT_EQ(N(result) + " " + ip + " " + N(port), c.outcome) << c.path;
  }
  const char function[] =
      "hvn::Result hvn::util::Socket::GetIpAndPortByPath(std::string, std::string&, int&)";
  EXPECT_SAID(LOG_DEBUG, function, "IP address only %s\n", "");
  EXPECT_SAID(LOG_DEBUG, function, "domain_ %d path %s ip %s port %d\n", 2, "fe80::1;5000",
              "fe80::1", 5000);
  EXPECT_SAID(LOG_ERR, function, "Socket path should be [IP] or [PORT] or [IP;PORT]");
  EXPECT_EQ(CountLogged("%s %d: Socket path should be [IP] or [PORT] or [IP;PORT]"), 2);
}

TEST(Socket, Ipv4PathBindsItsAddressToAnEphemeralPort) {
  int fd = -1;
  {
    Probe socket("127.0.0.1;8080", Socket::kTcp, Socket::kIpv4, {5000, 6000});
    const auto address = socket.Local<sockaddr_in>();
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_NE(ntohs(address.sin_port), 8080);
    fd = socket.fd();
    EXPECT_SAID(LOG_DEBUG, kInit, "ret [%d] fd [%d] SO_SNDBUF [%d]\n", 0, fd, 10000);
    EXPECT_SAID(LOG_DEBUG, kInit, "ret [%d] fd [%d] SO_RCVBUF [%d]\n", 0, fd, 12000);
    EXPECT_SAID(LOG_DEBUG, kInit, "ret [%d] fd [%d] SO_LINGER [%d:%d]\n", 0, fd, 1, 0);
    EXPECT_SAID(LOG_DEBUG, kInit, "path_ %s\n", "127.0.0.1;8080");
    EXPECT_SAID(LOG_DEBUG, kInit, "multicast_ip [%s] ip [%s] port [%d] s_addr 0x%x\n", "",
                "127.0.0.1", 8080, 0x100007fU);
    EXPECT_SAID(LOG_INFO, kInit, "success to make socket fd [%d] path [%s]\n", fd,
                "127.0.0.1;8080");
  }
  EXPECT_SAID(LOG_INFO, nullptr, "success to close socket [%s] fd %d\n", "127.0.0.1;8080", fd);
  EXPECT_SAID(LOG_WARNING, nullptr, "shutdown fd [%d] errno [%d]\n", fd, ENOTCONN);
}

TEST(Socket, Ipv6PathBindsAddressAndPort) {
  Probe socket("::1;5000", Socket::kUdp, Socket::kIpv6, {});
  EXPECT_EQ(socket.Local<sockaddr_in6>().sin6_port, htons(5000));
  EXPECT_SAID(LOG_DEBUG, kInit, "ip %s port %d\n", "::1", 5000);
  EXPECT_EQ(Socket("1.2.3.4;80", Socket::kUdp, Socket::kIpv6, {}).fd(), -1);
  EXPECT_SAID(LOG_ERR, kInit, "inet_pton error %s\n", "1.2.3.4");
  EXPECT_GE(Socket("::1;5000", Socket::kUdp, Socket::kIpv6, {}).fd(), 0);  // SO_REUSEADDR
  EXPECT_EQ(Socket("2001:db8::1;80", Socket::kTcp, Socket::kIpv6, {}).fd(), -1);
  EXPECT_SAID(LOG_ERR, kInit, "bind errno [%d] path [%s]\n", EADDRNOTAVAIL, "2001:db8::1;80");
}

TEST(Socket, SetUpFailuresAreLoggedAndLeaveNoDescriptor) {
  const auto no_domain = static_cast<Socket::Domain>(4);
  EXPECT_EQ(Socket("x", Socket::kTcp, no_domain, {}).fd(), -1);
  EXPECT_SAID(LOG_ERR, "Init", " : unknown mSocketDomain [%d]\n", 4);
  const auto no_protocol = static_cast<Socket::Protocol>(0);
  EXPECT_EQ(Socket("x", no_protocol, Socket::kIpv4, {}).fd(), -1);
  EXPECT_SAID(LOG_ERR, "Init", " : unknown mSocketType [%d]\n", 0);
  FailNext(Call::kSocket, EMFILE);
  EXPECT_EQ(Socket("1", Socket::kTcp, Socket::kIpv4, {}).fd(), -1);
  EXPECT_SAID(LOG_ERR, "Init", " : socket failed, errno[%d]\n", EMFILE);
  EXPECT_EQ(Socket("1eth", Socket::kTcp, Socket::kIpv4, {}).fd(), -1);
  EXPECT_GE(Socket("", Socket::kTcp, Socket::kIpv4, {}).fd(), 0);
  EXPECT_SAID(LOG_DEBUG, kInit, "no path specified\n");
}

TEST(Socket, UnixPathReplacesAStaleFileAndRemovesItsOwn) {
  const TempDir dir;
  WriteFile(dir / "s", "stale");
  {
    Socket socket(dir / "s", Socket::kTcp, Socket::kUnix, {});
    struct stat status = {};
    ASSERT_EQ(stat((dir / "s").c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
  }
  EXPECT_NE(access((dir / "s").c_str(), F_OK), 0);
  const std::string longest = dir / std::string(108 - (dir / "").size(), 'x');
  EXPECT_GE(Socket(longest, Socket::kUdp, Socket::kUnix, {}).fd(), 0);
  EXPECT_EQ(Socket(longest + "x", Socket::kUdp, Socket::kUnix, {}).fd(), -1);
  EXPECT_SAID(LOG_ERR, kInit, "bind errno [%d] path [%s]\n", ENAMETOOLONG, (longest + "x").c_str());
}

TEST(Socket, AbstractNamesAreReachableAndPrintedWithoutTheirNul) {
  const std::string name("\0svc", 4);
  Socket server(name, Socket::kUdp, Socket::kUnix, {});
  EXPECT_SAID(LOG_INFO, kInit, "success to make socket fd [%d] path [%s]\n", server.fd(), "svc");
  Socket client("", Socket::kUdp, Socket::kUnix, {});
  EXPECT_EQ(client.SendTo(name, std::string("hello")), 5);
  char buffer[8] = {};
  EXPECT_EQ(server.Recv(buffer, sizeof(buffer), 3), 5);  // a peek
  EXPECT_EQ(server.Recv(buffer, sizeof(buffer), 2), 5);  // no peek
  EXPECT_STREQ(buffer, "hello");
  EXPECT_EQ(client.SendTo(std::string(109, 'x'), std::string("x")), -1);
  EXPECT_EQ(client.Connect(std::string(109, 'x'), 0), kFailure);
  EXPECT_EQ(client.Connect(name, 0), kSuccess);
}

TEST(Socket, NetlinkSocketsHearAllRouteGroupsButNeighboursUnderPortsOfTheirOwn) {
  Probe first("", Socket::kRaw, Socket::kNetlink, {});
  Probe second("", Socket::kRaw, Socket::kNetlink, {});
  const auto local = first.Local<sockaddr_nl>();
  EXPECT_EQ(local.nl_pid, static_cast<uint32_t>(getpid()) + 0xF0000000U);
  EXPECT_EQ(second.Local<sockaddr_nl>().nl_pid, local.nl_pid + 1);
  EXPECT_EQ(local.nl_groups, 0xFFBU);
  EXPECT_EQ(first.Connect("anywhere", 0), kFailure);
  EXPECT_SAID(LOG_DEBUG, kConnect, "dest [%s]\n", "anywhere");
  std::string path;
  EXPECT_EQ(first.Accept(path), 0);
  EXPECT_SAID(LOG_ERR, "int hvn::util::Socket::Accept(std::string&)",
              "unknown socket domain [%d]\n", 3);
}

TEST(Socket, PathThatStartsWithALetterBindsToADevice) {
  const char function[] = "bool hvn::util::Socket::BindToDevice(std::string)";
  Socket bound("hutil0", Socket::kUdp, Socket::kIpv4, {});
  char name[16] = {};
  socklen_t length = sizeof(name);
  ASSERT_EQ(getsockopt(bound.fd(), SOL_SOCKET, SO_BINDTODEVICE, name, &length), 0);
  EXPECT_STREQ(name, "hutil0");
  const int fd = bound.fd();
  EXPECT_SAID(LOG_DEBUG, function, "Success to bind socket %d to interface %s\n", fd, "hutil0");
  EXPECT_EQ(Socket("nowhere0", Socket::kUdp, Socket::kIpv6, {}).fd(), -1);
  EXPECT_SAID(LOG_ERR, function, "There's no interface named %s\n", "nowhere0");
  EXPECT_FALSE(Socket(-1, Socket::kUdp, Socket::kIpv4).BindToDevice("lo"));
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

TEST(Socket, SettersReportRefusals) {
  Socket socket("127.0.0.1", Socket::kTcp, Socket::kIpv4, {});
  Socket datagram("", Socket::kUdp, Socket::kIpv4, {});
  Socket none(-1, Socket::kTcp, Socket::kIpv4);
  for (const bool on : {true, false}) {
    EXPECT_FALSE(socket.SetTCPNoDelay(on) || socket.SetNonBlock(on));
  }
  EXPECT_EQ(datagram.SetTCPNoDelay(true), kFailure);
  EXPECT_FALSE(datagram.Listen(5) || socket.Bind("10.0.0.1", 80));
  EXPECT_TRUE(socket.IsMulticast("224.0.0.1") && socket.IsMulticast("239.255.255.250"));
  EXPECT_FALSE(socket.IsMulticast("240.0.0.1") || socket.IsMulticast(""));
  EXPECT_TRUE(none.SetNonBlock(true) && none.SetReuseAddress() && none.Listen(5));
  FailNext(Call::kSetSockOpt, EPERM, 2);
  EXPECT_EQ(socket.SetTCPNoDelay(true), kFailure);
  EXPECT_SAID(LOG_ERR, "hvn::Result hvn::util::Socket::SetTCPNoDelay(bool)",
              "setsockopt TCP_NODELAY errno [%d]\n", EPERM);
  EXPECT_EQ(socket.SetReuseAddress(), kFailure);
  EXPECT_SAID(LOG_ERR, "hvn::Result hvn::util::Socket::SetReuseAddress()", "errno [%d]\n", EPERM);
  FailNext(Call::kFcntl, EPERM, 1, 1);
  EXPECT_EQ(socket.SetNonBlock(true), kFailure);
  const int fd = socket.fd();
  EXPECT_SAID(LOG_WARNING, "SetNonBlock", " : fcntl [%d] F_SETFL flags [%d] cannot be executed\n",
              fd, fcntl(fd, F_GETFL) | O_NONBLOCK);
  FailNext(Call::kListen, EADDRINUSE);
  EXPECT_EQ(socket.Listen(5), kFailure);
  EXPECT_EQ(socket.fd(), -1);
  EXPECT_SAID(LOG_DEBUG, "hvn::Result hvn::util::Socket::Listen(int)",
              "close socket fd [%d] errno [%d]\n", fd, EADDRINUSE);
}

TEST(Socket, AdoptedDescriptorIsLeftOpen) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  { Socket adopted(pair[0], Socket::kTcp, Socket::kUnix); }
  EXPECT_EQ(write(pair[0], "x", 1), 1);
  close(pair[0]);
  close(pair[1]);
  close(Socket("", Socket::kUdp, Socket::kIpv4, {}).fd());
  EXPECT_SAID(LOG_ERR, nullptr, "Cannot close socket errno [%d]", EBADF);
}

TEST(Socket, ConnectReportsSuccessRefusalAndTimeOut) {
  Socket server("127.0.0.1", Socket::kTcp, Socket::kIpv4, {});
  ASSERT_EQ(server.Listen(5), kSuccess);
  const std::string dest = "127.0.0.1;" + N(LocalPort(server.fd()));
  Probe client("", Socket::kTcp, Socket::kIpv4, {});
  EXPECT_EQ(client.Connect(dest, 2500000), kSuccess);
  EXPECT_TRUE(client.is_connected() && !client.IsNonBlocking());
  EXPECT_SAID(LOG_DEBUG, kConnect, "timeout sec %ld usec %ld\n", 2L, 500000L);
  EXPECT_SAID(LOG_DEBUG, kConnect, "sock_ret %d so_error %d\n", 0, 0);
  EXPECT_SAID(LOG_DEBUG, kConnect, "con_ret %d sel_ret %d\n", 0, 0);
  EXPECT_SAID(LOG_DEBUG, kConnect, "[%s] success to connect [%s] fd %d\n", "", dest.c_str(),
              client.fd());
  std::string path;
  const int peer = server.Accept(path);
  EXPECT_EQ(path, "127.0.0.1:" + N(LocalPort(client.fd())));
  EXPECT_EQ(fcntl(peer, F_GETFD), FD_CLOEXEC);
  close(peer);

  Probe silent("", Socket::kTcp, Socket::kIpv4, {});
  EXPECT_EQ(silent.Connect("10.77.0.99;1", 100000), kFailure);  // nobody has the address
  EXPECT_FALSE(silent.is_connected() || silent.IsNonBlocking());
  EXPECT_SAID(LOG_DEBUG, kConnect, "con_ret %d sel_ret %d\n", -1, 0);
}

// During the wait a refusal shows in both sets, and the first look at it clears it.
TEST(Socket, RefusalIsAFailureWheneverItComes) {
  Probe waiting("", Socket::kTcp, Socket::kIpv4, {});
  EXPECT_EQ(waiting.Connect("127.0.0.1;1", 1000000), kFailure);
  EXPECT_FALSE(waiting.is_connected() || waiting.IsNonBlocking());
  EXPECT_SAID(LOG_DEBUG, kConnect, "sock_ret %d so_error %d\n", 0, ECONNREFUSED);
  EXPECT_EQ(CountLogged("%s %d: sock_ret %d so_error %d\n"), 2);

  Probe at_once("", Socket::kTcp, Socket::kUnix, {});
  EXPECT_EQ(at_once.Connect("/nowhere", 1000000), kFailure);
  EXPECT_TRUE(at_once.IsNonBlocking());
  EXPECT_SAID(LOG_DEBUG, kConnect, "con_ret %d errno %d\n", -1, ENOENT);
  Socket other("", Socket::kTcp, Socket::kIpv6, {});
  EXPECT_EQ(other.Connect("1.2.3.4;80", 0), hvn::kInvalidArgument);
  EXPECT_SAID(LOG_ERR, kConnect, "inet_pton error %s\n", "1.2.3.4");
}

TEST(Socket, ConnectToAGroupJoinsItAndNeverFails) {
  Socket member("", Socket::kUdp, Socket::kIpv4, {});
  FailNext(Call::kSetSockOpt, ENODEV);
  EXPECT_EQ(member.Connect("239.1.2.3;5000", 0), kSuccess);
  EXPECT_SAID(LOG_ERR, kConnect, "Cannot join multicast on [%s]\n", "239.1.2.3");
  FailWithResult(Call::kSetSockOpt, 0, 0);  // the namespace has no route to the group
  EXPECT_EQ(member.Connect("239.1.2.3;5000", 0), kSuccess);
  EXPECT_SAID(LOG_INFO, nullptr, "success to join multicast on [%s]\n", "239.1.2.3");
  EXPECT_FALSE(member.is_connected());
}

TEST(Socket, DescriptorSendTriesTenMoreTimes) {
  const char function[] = "ssize_t hvn::util::Socket::SendTo(int, const void*, size_t)";
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  Socket socket(pair[0], Socket::kTcp, Socket::kUnix);
  std::string bytes = std::string(16, '-') + "payload";
  char* const payload = &bytes[16];
  FailWithResult(Call::kUsleep, 0, 0, kAlways);
  FailNext(Call::kSend, EAGAIN, 11);
  EXPECT_EQ(socket.Send(payload, 7), -EAGAIN);
  EXPECT_EQ(Sleeps(), std::vector<unsigned>(10, 100000));
  EXPECT_SAID(LOG_ERR, function, "errno [%d] exceed max_try_cnt [%d]\n", 11, 10);
  EXPECT_SAID(LOG_DEBUG, function,
              "socket send errno [%d] try one more time try_cnt [%d] max_try_cnt [%d]\n", 11, 10,
              10);

  // Each retry steps back by one byte; a short count goes on from where it ended.
  FailWithResult(Call::kSend, 3, 0);
  FailNext(Call::kSend, EPIPE, 2);
  EXPECT_EQ(socket.Send(payload, 7), 7);
  char received[32] = {};
  EXPECT_EQ(read(pair[1], received, sizeof(received)), 9);
  EXPECT_STREQ(received, "payayload");

  FailWithResult(Call::kSend, 3, 0);
  FailNext(Call::kSend, EIO, 1);
  EXPECT_EQ(socket.Send(payload, 7), 3);
  EXPECT_SAID(LOG_ERR, function, "errno [%d]\n", 5);
  FailNext(Call::kSend, EIO);
  EXPECT_EQ(socket.Send(std::string("x")), -EIO);
  const int calls = CallCount(Call::kSend);
  EXPECT_EQ(socket.Send(std::string()) + socket.SendTo(-1, payload, 1), -2);
  EXPECT_EQ(socket.Send(static_cast<void*>(nullptr), 1), -1);
  EXPECT_EQ(CallCount(Call::kSend), calls);
  close(pair[0]);
  close(pair[1]);
}

TEST(Socket, AddressedSendTriesAgainWithoutAPause) {
  const char function[] = "ssize_t hvn::util::Socket::SendTo(std::string, const void*, size_t)";
  Probe server("127.0.0.1", Socket::kUdp, Socket::kIpv4, {});
  const std::string dest = "127.0.0.1;" + N(LocalPort(server.fd()));
  Socket client("", Socket::kUdp, Socket::kIpv4, {});
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

  Probe any("::;7000", Socket::kUdp, Socket::kIpv6, {});
  Socket six("", Socket::kUdp, Socket::kIpv6, {});
  EXPECT_EQ(six.SendTo("2001:db8::1;7000", std::string("six")), 3);  // goes to port 7000 of ::
  char buffer[8] = {};
  EXPECT_EQ(any.RecvTimedWait(buffer, sizeof(buffer), 2000000, 0), 3);
}

TEST(Socket, ReceiveReportsTimeOutsClosesAndBadArguments) {
  const char function[] = "ssize_t hvn::util::Socket::Recv(void*, size_t, int)";
  const char timed[] = "ssize_t hvn::util::Socket::RecvTimedWait(void*, size_t, uint64_t, int)";
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  Socket socket(pair[0], Socket::kTcp, Socket::kUnix);
  char buffer[8];
  errno = 0;
  EXPECT_EQ(socket.RecvTimedWait(buffer, sizeof(buffer), 20000, 0), -ETIME);
  EXPECT_SAID(LOG_ERR, timed, "res [%d] errno [%d]\n", 0, 0);
  FailNext(Call::kSelect, EINTR);
  EXPECT_EQ(socket.RecvTimedWait(buffer, sizeof(buffer), UINT64_MAX, 0), -EINTR);
  EXPECT_EQ(socket.Recv(nullptr, 1, 0), -1);
  EXPECT_SAID(LOG_ERR, function, "Receive buffer is null\n");
  close(pair[1]);
  EXPECT_EQ(socket.RecvTimedWait(buffer, sizeof(buffer), UINT64_MAX, 0), 0);
  FailNext(Call::kRecv, EIO);
  EXPECT_EQ(socket.Recv(buffer, sizeof(buffer), 0), -1);
  EXPECT_SAID(LOG_ERR, function, "errno %d rs [%zd]\n", 5, ssize_t{-1});
  close(pair[0]);
  Socket none(-1, Socket::kTcp, Socket::kIpv4);
  EXPECT_EQ(none.Recv(buffer, 1, 0), -1);
  EXPECT_SAID(LOG_ERR, function, "Invalid fd_ %d\n", -1);
  EXPECT_EQ(none.RecvTimedWait(buffer, 1, 0, 0), -1);
  EXPECT_EQ(none.Connect("127.0.0.1;1", 0), kFailure);
}

TEST(Socket, AcceptDescribesThePeerOfEachDomain) {
  const TempDir dir;
  Socket six("::1;6000", Socket::kTcp, Socket::kIpv6, {});
  Socket local(dir / "server", Socket::kTcp, Socket::kUnix, {});
  ASSERT_EQ(six.Listen(5), kSuccess);
  ASSERT_EQ(local.Listen(5), kSuccess);
  Socket six_client("", Socket::kTcp, Socket::kIpv6, {});
  Socket local_client(dir / "client", Socket::kTcp, Socket::kUnix, {});
  ASSERT_EQ(six_client.Connect("::1;6000", 1000000), kSuccess);
  ASSERT_EQ(local_client.Connect(dir / "server", 1000000), kSuccess);
  std::string path;
  close(six.Accept(path));
  EXPECT_EQ(path, "::1;" + N(LocalPort(six_client.fd())));
  close(local.Accept(path));
  EXPECT_EQ(path, dir / "client");
  Socket again("", Socket::kTcp, Socket::kIpv6, {});
  ASSERT_EQ(again.Connect("::1;6000", 0), kSuccess);
  FailNext(Call::kInetNtop, ENOSPC);
  const int client = six.Accept(path);
  EXPECT_GT(client, 0);
  EXPECT_EQ(path, "");
  EXPECT_SAID(LOG_ERR, nullptr, "%s() : inet_ntop() failed, check errno[%d]\n", "Accept", ENOSPC);
  close(client);
  FailNext(Call::kAccept4, EMFILE);
  EXPECT_EQ(six.Accept(path), -1);
}

TEST(Socket, TcpFiguresGoToTheLogOnly) {
  const char function[] = "bool hvn::util::Socket::GetTcpInfo(hvn::util::Socket::TcpInfo&)";
  Socket server("127.0.0.1", Socket::kTcp, Socket::kIpv4, {});
  ASSERT_EQ(server.Listen(5), kSuccess);
  Socket::TcpInfo info = {};
  info.rtt = 42;
  EXPECT_TRUE(server.GetTcpInfo(info));
  EXPECT_EQ(info.rtt, 42U);
  const char* const formats[] = {
      "%s %d: state [%u] ca_state [%u] retransmits [%u] probes [%u] backoff [%u] options [%u] "
      "snd_wscale [%u]",
      "%s %d: rcv_wscale [%u] rto [%u] ato [%u] snd_mss [%u] rcv_mss [%u] unacked [%u] sacked [%u]",
      "%s %d: tcpi_lost [%u] retrans [%u] fackets [%u] last_data_sent [%u] last_ack_sent [%u] "
      "last_data_recv [%u]",
      "%s %d: last_ack_recv [%u] pmtu [%u] rcv_ssthresh [%u] rtt [%u] rttvar [%u] snd_ssthresh "
      "[%u] snd_cwnd [%u]",
      "%s %d: advmss [%u] reordering [%u] rcv_rtt [%u] rcv_space [%u] total_retrans [%u]"};
  const auto logs = Logs();
  ASSERT_GE(logs.size(), 5U);
  auto line = logs.end() - 5;
  EXPECT_EQ(line->text.find(std::string(function) + " #: state [10] ca_state"), 0U);  // listening
  for (const char* format : formats) {
    EXPECT_EQ(line->format, format);
    EXPECT_EQ((line++)->priority, LOG_DEBUG);
  }
  Socket datagram("", Socket::kUdp, Socket::kIpv4, {});
  EXPECT_FALSE(datagram.GetTcpInfo(info));
  EXPECT_SAID(LOG_ERR, function, "Cannot get getsockopt(TCP_INFO)\n");
  EXPECT_FALSE(Socket(-1, Socket::kTcp, Socket::kIpv4).GetTcpInfo(info));
  EXPECT_SAID(LOG_ERR, function, "Socket is not inialized");
}

TEST(Socket, DescriptorThatSelectCannotHoldIsRefusedBeforeAnyWait) {
  const rlimit limit = {2048, 2048};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  Socket socket("", Socket::kTcp, Socket::kIpv4, {});
  ASSERT_EQ(dup2(socket.fd(), 1024), 1024);
  Socket high(1024, Socket::kTcp, Socket::kIpv4);
  char buffer[1];
  EXPECT_EQ(high.RecvTimedWait(buffer, 1, 1000, 0), -1);
  EXPECT_EQ(high.Connect("127.0.0.1;1", 1000), kFailure);
  EXPECT_EQ(CountLogged("%s %d: select cannot wait for fd [%d]\n"), 2);
  EXPECT_EQ(CallCount(Call::kSelect) + CallCount(Call::kConnect), 0);
  close(1024);
}

}  // namespace
