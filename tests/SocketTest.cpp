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

using hutil_test::Call;
using hutil_test::CallCount;
using hutil_test::ClearLogs;
using hutil_test::CountLogged;
using hutil_test::FailNext;
using hutil_test::FailWithResult;
using hutil_test::Fault;
using hutil_test::kAlways;
using hutil_test::Logged;
using hvn::util::Socket;

const Socket::SocketOption kDefault;
const char kInit[] = "hvn::Result hvn::util::Socket::Init()";
const char kConnect[] = "hvn::Result hvn::util::Socket::Connect(std::string, int)";

class Probe : public Socket {  // a socket whose address the tests look at
 public:
  using Socket::Socket;
  sockaddr_storage Local() const {
    sockaddr_storage address = {};
    socklen_t length = sizeof(address);
    getsockname(fd(), reinterpret_cast<sockaddr*>(&address), &length);
    return address;
  }
  uint32_t NetlinkPort() const {
    const sockaddr_storage local = Local();
    return reinterpret_cast<const sockaddr_nl&>(local).nl_pid;
  }
  bool IsNonBlocking() const { return (fcntl(fd(), F_GETFL) & O_NONBLOCK) != 0; }
};

std::string N(long number) { return std::to_string(number); }

TEST(Socket, PathGrammarIsExact) {
  const struct {
    Socket::Domain domain;
    const char* path;
    hvn::Result result;
    const char* ip;
    int port;
  } cases[] = {
      {Socket::kIpv4, "192.168.1.1;8080", hvn::kSuccess, "192.168.1.1", 8080},
      {Socket::kIpv4, "8080", hvn::kSuccess, "", 8080},
      {Socket::kIpv4, "10.0.0.1;", hvn::kSuccess, "10.0.0.1", 0},
      {Socket::kIpv6, "fe80::1;5000", hvn::kSuccess, "fe80::1", 5000},
      {Socket::kIpv6, "1.2.3.4", hvn::kSuccess, "1.2.3.4", 0},
      {Socket::kIpv4, "65535", hvn::kSuccess, "", 65535},
      {Socket::kIpv4, ";80", hvn::kFailure, "", 0},
      {Socket::kIpv4, "::1;80", hvn::kFailure, "::1", 0},
      {Socket::kIpv4, "65536", hvn::kFailure, "", 65536},
      {Socket::kIpv4, "99999999999", hvn::kFailure, "", 0},
      {Socket::kIpv4, "1.2.3.4;-1", hvn::kFailure, "1.2.3.4", 0},
      {Socket::kIpv4, "1.2.3.4;80;90", hvn::kFailure, "1.2.3.4", 0},
      {Socket::kIpv4, "", hvn::kFailure, "kept", 7},
      {Socket::kUnix, "8080", hvn::kFailure, "kept", 7},
  };
  for (const auto& c : cases) {
    Socket socket(-1, Socket::kTcp, c.domain);
    std::string ip = "kept";
    int port = 7;
    EXPECT_EQ(socket.GetIpAndPortByPath(c.path, ip, port), c.result) << c.path;
    EXPECT_EQ(ip, c.ip) << c.path;
    EXPECT_EQ(port, c.port) << c.path;
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
  std::string closed;
  {
    Probe socket("127.0.0.1;8080", Socket::kTcp, Socket::kIpv4, {5000, 6000});
    const auto local = socket.Local();
    const auto& address = reinterpret_cast<const sockaddr_in&>(local);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_NE(ntohs(address.sin_port), 8080);
    const int fd = socket.fd();
    EXPECT_SAID(LOG_DEBUG, kInit, "ret [%d] fd [%d] SO_SNDBUF [%d]\n", 0, fd, 10000);
    EXPECT_SAID(LOG_DEBUG, kInit, "ret [%d] fd [%d] SO_RCVBUF [%d]\n", 0, fd, 12000);
    EXPECT_SAID(LOG_DEBUG, kInit, "ret [%d] fd [%d] SO_LINGER [%d:%d]\n", 0, fd, 1, 0);
    EXPECT_SAID(LOG_DEBUG, kInit, "path_ %s\n", "127.0.0.1;8080");
    EXPECT_SAID(LOG_DEBUG, kInit, "multicast_ip [%s] ip [%s] port [%d] s_addr 0x%x\n", "",
                "127.0.0.1", 8080, 0x100007fU);
    EXPECT_SAID(LOG_INFO, kInit, "success to make socket fd [%d] path [%s]\n", fd,
                "127.0.0.1;8080");
    closed = "success to close socket [127.0.0.1;8080] fd " + N(fd) + "\n";
  }
  EXPECT_TRUE(Logged(LOG_INFO, "success to close socket [%s] fd %d\n", closed));
  EXPECT_EQ(CountLogged("shutdown fd [%d] errno [%d]\n"), 1);  // it was never connected
}

TEST(Socket, Ipv6PathBindsAddressAndPort) {
  Probe socket("::1;5000", Socket::kUdp, Socket::kIpv6, kDefault);
  const auto local = socket.Local();
  EXPECT_EQ(reinterpret_cast<const sockaddr_in6&>(local).sin6_port, htons(5000));
  EXPECT_SAID(LOG_DEBUG, kInit, "ip %s port %d\n", "::1", 5000);
  Socket mixed("1.2.3.4;80", Socket::kUdp, Socket::kIpv6, kDefault);
  EXPECT_EQ(mixed.fd(), -1);
  EXPECT_SAID(LOG_ERR, kInit, "inet_pton error %s\n", "1.2.3.4");
  Socket taken("::1;5000", Socket::kTcp, Socket::kIpv6, kDefault);
  Socket second("::1;5000", Socket::kUdp, Socket::kIpv6, kDefault);
  EXPECT_GE(second.fd(), 0);  // SO_REUSEADDR
  Socket foreign("2001:db8::1;80", Socket::kTcp, Socket::kIpv6, kDefault);
  EXPECT_EQ(foreign.fd(), -1);
  EXPECT_SAID(LOG_ERR, kInit, "bind errno [%d] path [%s]\n", EADDRNOTAVAIL, "2001:db8::1;80");
}

TEST(Socket, SetUpFailuresAreLoggedAndLeaveNoDescriptor) {
  Socket domain("x", Socket::kTcp, static_cast<Socket::Domain>(4), kDefault);
  EXPECT_TRUE(Logged(LOG_ERR, "%s %d : unknown mSocketDomain [%d]\n",
                     "Init # : unknown mSocketDomain [4]\n"));
  Socket protocol("x", static_cast<Socket::Protocol>(0), Socket::kIpv4, kDefault);
  EXPECT_TRUE(
      Logged(LOG_ERR, "%s %d : unknown mSocketType [%d]\n", "Init # : unknown mSocketType [0]\n"));
  const Fault fault(Call::kSocket, EMFILE);
  Socket refused("1", Socket::kTcp, Socket::kIpv4, kDefault);
  EXPECT_TRUE(Logged(LOG_ERR, "%s %d : socket failed, errno[%d]\n",
                     "Init # : socket failed, errno[" + N(EMFILE) + "]\n"));
  Socket malformed("1eth", Socket::kTcp, Socket::kIpv4, kDefault);
  for (const Socket* socket : {&domain, &protocol, &refused, &malformed}) {
    EXPECT_EQ(socket->fd(), -1);
  }
  Socket unbound("", Socket::kTcp, Socket::kIpv4, kDefault);
  EXPECT_GE(unbound.fd(), 0);
  EXPECT_SAID(LOG_DEBUG, kInit, "no path specified\n");
}

TEST(Socket, UnixPathReplacesAStaleFileAndRemovesItsOwn) {
  const hutil_test::TempDir dir;
  hutil_test::WriteFile(dir / "s", "stale");
  {
    Socket socket(dir / "s", Socket::kTcp, Socket::kUnix, kDefault);
    struct stat status = {};
    ASSERT_EQ(stat((dir / "s").c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
  }
  EXPECT_NE(access((dir / "s").c_str(), F_OK), 0);
  const std::string longest = dir / std::string(107 - (dir / "").size() + 1, 'x');
  ASSERT_EQ(longest.size(), 108U);
  EXPECT_GE(Socket(longest, Socket::kUdp, Socket::kUnix, kDefault).fd(), 0);
  EXPECT_EQ(Socket(longest + "x", Socket::kUdp, Socket::kUnix, kDefault).fd(), -1);
  EXPECT_SAID(LOG_ERR, kInit, "bind errno [%d] path [%s]\n", ENAMETOOLONG, (longest + "x").c_str());
}

TEST(Socket, AbstractNamesAreReachableAndPrintedWithoutTheirNul) {
  const std::string name("\0svc", 4);
  Socket server(name, Socket::kUdp, Socket::kUnix, kDefault);
  EXPECT_SAID(LOG_INFO, kInit, "success to make socket fd [%d] path [%s]\n", server.fd(), "svc");
  Socket client("", Socket::kUdp, Socket::kUnix, kDefault);
  EXPECT_EQ(client.SendTo(name, std::string("hello")), 5);
  char buffer[8] = {};
  EXPECT_EQ(server.Recv(buffer, sizeof(buffer), 3), 5);  // a peek
  EXPECT_EQ(server.Recv(buffer, sizeof(buffer), 2), 5);  // no peek
  EXPECT_STREQ(buffer, "hello");
  EXPECT_EQ(client.SendTo(std::string(109, 'x'), std::string("x")), -1);
  EXPECT_EQ(client.Connect(std::string(109, 'x'), 0), hvn::kFailure);
  EXPECT_EQ(client.Connect(name, 0), hvn::kSuccess);
}

TEST(Socket, NetlinkSocketsHearAllRouteGroupsButNeighboursUnderPortsOfTheirOwn) {
  Probe first("", Socket::kRaw, Socket::kNetlink, kDefault);
  Probe second("", Socket::kRaw, Socket::kNetlink, kDefault);
  EXPECT_EQ(first.NetlinkPort(), static_cast<uint32_t>(getpid()) + 0xF0000000U);
  EXPECT_EQ(second.NetlinkPort(), first.NetlinkPort() + 1);
  const auto local = first.Local();
  EXPECT_EQ(reinterpret_cast<const sockaddr_nl&>(local).nl_groups, 0xFFBU);
  EXPECT_EQ(first.Connect("anywhere", 0), hvn::kFailure);
  EXPECT_SAID(LOG_DEBUG, kConnect, "dest [%s]\n", "anywhere");
  std::string path;
  EXPECT_EQ(first.Accept(path), 0);
  EXPECT_TRUE(Logged(LOG_ERR, "%s %d: unknown socket domain [%d]\n",
                     "int hvn::util::Socket::Accept(std::string&) #: unknown socket domain [3]\n"));
}

TEST(Socket, PathThatStartsWithALetterBindsToADevice) {
  const char function[] = "bool hvn::util::Socket::BindToDevice(std::string)";
  Socket bound("hutil0", Socket::kUdp, Socket::kIpv4, kDefault);
  char name[16] = {};
  socklen_t length = sizeof(name);
  ASSERT_EQ(getsockopt(bound.fd(), SOL_SOCKET, SO_BINDTODEVICE, name, &length), 0);
  EXPECT_STREQ(name, "hutil0");
  const int fd = bound.fd();
  EXPECT_SAID(LOG_DEBUG, function, "Success to bind socket %d to interface %s\n", fd, "hutil0");
  EXPECT_EQ(Socket("nowhere0", Socket::kUdp, Socket::kIpv6, kDefault).fd(), -1);
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
  Socket socket("127.0.0.1", Socket::kTcp, Socket::kIpv4, kDefault);
  Socket datagram("", Socket::kUdp, Socket::kIpv4, kDefault);
  Socket none(-1, Socket::kTcp, Socket::kIpv4);
  for (const bool on : {true, false}) {
    EXPECT_EQ(socket.SetTCPNoDelay(on), hvn::kSuccess);
    EXPECT_EQ(socket.SetNonBlock(on), hvn::kSuccess);
  }
  EXPECT_EQ(datagram.SetTCPNoDelay(true), hvn::kFailure);
  EXPECT_EQ(datagram.Listen(5), hvn::kSuccess);
  EXPECT_EQ(socket.Bind("10.0.0.1", 80), hvn::kSuccess);
  EXPECT_TRUE(socket.IsMulticast("224.0.0.1") && socket.IsMulticast("239.255.255.250"));
  EXPECT_FALSE(socket.IsMulticast("240.0.0.1") || socket.IsMulticast(""));
  EXPECT_EQ(none.SetNonBlock(true), hvn::kFailure);
  EXPECT_EQ(none.SetReuseAddress(), hvn::kFailure);
  EXPECT_EQ(none.Listen(5), hvn::kFailure);
  FailNext(Call::kSetSockOpt, EPERM, 2);
  EXPECT_EQ(socket.SetTCPNoDelay(true), hvn::kFailure);
  EXPECT_TRUE(Logged(LOG_ERR, "%s %d: setsockopt TCP_NODELAY errno [%d]\n",
                     "hvn::Result hvn::util::Socket::SetTCPNoDelay(bool) #: setsockopt "
                     "TCP_NODELAY errno [1]\n"));
  EXPECT_EQ(socket.SetReuseAddress(), hvn::kFailure);
  EXPECT_TRUE(Logged(LOG_ERR, "%s %d: errno [%d]\n",
                     "hvn::Result hvn::util::Socket::SetReuseAddress() #: errno [1]\n"));
  FailNext(Call::kFcntl, EPERM, 1, 1);
  EXPECT_EQ(socket.SetNonBlock(true), hvn::kFailure);
  EXPECT_TRUE(Logged(LOG_WARNING, "%s %d : fcntl [%d] F_SETFL flags [%d] cannot be executed\n",
                     "SetNonBlock # : fcntl [" + N(socket.fd()) + "] F_SETFL flags [" +
                         N(fcntl(socket.fd(), F_GETFL) | O_NONBLOCK) + "] cannot be executed\n"));
  const int fd = socket.fd();
  FailNext(Call::kListen, EADDRINUSE);
  EXPECT_EQ(socket.Listen(5), hvn::kFailure);
  EXPECT_EQ(socket.fd(), -1);
  EXPECT_TRUE(Logged(LOG_DEBUG, "%s %d: close socket fd [%d] errno [%d]\n",
                     "hvn::Result hvn::util::Socket::Listen(int) #: close socket fd [" + N(fd) +
                         "] errno [" + N(EADDRINUSE) + "]\n"));
}

TEST(Socket, AdoptedDescriptorIsLeftOpen) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  { Socket adopted(pair[0], Socket::kTcp, Socket::kUnix); }
  EXPECT_EQ(write(pair[0], "x", 1), 1);
  close(pair[0]);
  close(pair[1]);
  {
    Socket owner("", Socket::kUdp, Socket::kIpv4, kDefault);
    close(owner.fd());
  }
  EXPECT_TRUE(Logged(LOG_ERR, "Cannot close socket errno [%d]", "Cannot close socket errno [9]"));
}

TEST(Socket, ConnectReportsSuccessRefusalAndTimeOut) {
  Socket server("127.0.0.1", Socket::kTcp, Socket::kIpv4, kDefault);
  ASSERT_EQ(server.Listen(5), hvn::kSuccess);
  const std::string dest = "127.0.0.1;" + N(hutil_test::LocalPort(server.fd()));
  Probe client("", Socket::kTcp, Socket::kIpv4, kDefault);
  EXPECT_EQ(client.Connect(dest, 2500000), hvn::kSuccess);
  EXPECT_TRUE(client.is_connected() && !client.IsNonBlocking());
  EXPECT_SAID(LOG_DEBUG, kConnect, "timeout sec %ld usec %ld\n", 2L, 500000L);
  EXPECT_SAID(LOG_DEBUG, kConnect, "sock_ret %d so_error %d\n", 0, 0);
  EXPECT_SAID(LOG_DEBUG, kConnect, "con_ret %d sel_ret %d\n", 0, 0);
  EXPECT_SAID(LOG_DEBUG, kConnect, "[%s] success to connect [%s] fd %d\n", "", dest.c_str(),
              client.fd());
  std::string path;
  const int peer = server.Accept(path);
  EXPECT_EQ(path, "127.0.0.1:" + N(hutil_test::LocalPort(client.fd())));
  EXPECT_EQ(fcntl(peer, F_GETFD), FD_CLOEXEC);
  close(peer);

  Probe silent("", Socket::kTcp, Socket::kIpv4, kDefault);
  EXPECT_EQ(silent.Connect("10.77.0.99;1", 100000), hvn::kFailure);  // nobody has the address
  EXPECT_FALSE(silent.is_connected() || silent.IsNonBlocking());
  EXPECT_SAID(LOG_DEBUG, kConnect, "con_ret %d sel_ret %d\n", -1, 0);
}

// During the wait a refusal shows in both sets, and the first look at it clears it.
TEST(Socket, RefusalIsAFailureWheneverItComes) {
  Probe waiting("", Socket::kTcp, Socket::kIpv4, kDefault);
  EXPECT_EQ(waiting.Connect("127.0.0.1;1", 1000000), hvn::kFailure);
  EXPECT_FALSE(waiting.is_connected() || waiting.IsNonBlocking());
  EXPECT_SAID(LOG_DEBUG, kConnect, "sock_ret %d so_error %d\n", 0, ECONNREFUSED);
  EXPECT_EQ(CountLogged("%s %d: sock_ret %d so_error %d\n"), 2);

  Probe at_once("", Socket::kTcp, Socket::kUnix, kDefault);
  EXPECT_EQ(at_once.Connect("/nowhere", 1000000), hvn::kFailure);
  EXPECT_TRUE(at_once.IsNonBlocking());
  EXPECT_SAID(LOG_DEBUG, kConnect, "con_ret %d errno %d\n", -1, ENOENT);
  Socket other("", Socket::kTcp, Socket::kIpv6, kDefault);
  EXPECT_EQ(other.Connect("1.2.3.4;80", 0), hvn::kInvalidArgument);
  EXPECT_SAID(LOG_ERR, kConnect, "inet_pton error %s\n", "1.2.3.4");
}

TEST(Socket, ConnectToAGroupJoinsItAndNeverFails) {
  Socket member("", Socket::kUdp, Socket::kIpv4, kDefault);
  FailNext(Call::kSetSockOpt, ENODEV);
  EXPECT_EQ(member.Connect("239.1.2.3;5000", 0), hvn::kSuccess);
  EXPECT_SAID(LOG_ERR, kConnect, "Cannot join multicast on [%s]\n", "239.1.2.3");
  FailWithResult(Call::kSetSockOpt, 0, 0);  // the namespace has no route to the group
  EXPECT_EQ(member.Connect("239.1.2.3;5000", 0), hvn::kSuccess);
  EXPECT_TRUE(Logged(LOG_INFO, "success to join multicast on [%s]\n",
                     "success to join multicast on [239.1.2.3]\n"));
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
  EXPECT_EQ(hutil_test::Sleeps(), std::vector<unsigned>(10, 100000));
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
  EXPECT_EQ(socket.Send(std::string()), -1);
  EXPECT_EQ(socket.Send(static_cast<void*>(nullptr), 1), -1);
  EXPECT_EQ(socket.SendTo(-1, payload, 1), -1);
  EXPECT_EQ(CallCount(Call::kSend), calls);
  close(pair[0]);
  close(pair[1]);
}

TEST(Socket, AddressedSendTriesAgainWithoutAPause) {
  const char function[] = "ssize_t hvn::util::Socket::SendTo(std::string, const void*, size_t)";
  Probe server("127.0.0.1", Socket::kUdp, Socket::kIpv4, kDefault);
  const std::string dest = "127.0.0.1;" + N(hutil_test::LocalPort(server.fd()));
  Socket client("", Socket::kUdp, Socket::kIpv4, kDefault);
  FailNext(Call::kSendTo, EAGAIN, 20);
  char text[] = "abc";
  EXPECT_EQ(client.SendTo(dest, text, 3), 3);
  EXPECT_TRUE(hutil_test::Sleeps().empty());
  EXPECT_EQ(CountLogged("%s %d: errno [%d] send ret [%zd] try one more time\n"), 20);
  EXPECT_SAID(LOG_ERR, function, "errno [%d] send ret [%zd] try one more time\n", 11, ssize_t{-1});
  FailNext(Call::kSendTo, ENETDOWN);
  EXPECT_EQ(client.SendTo(dest, std::string("abc")), 0);
  EXPECT_SAID(LOG_ERR, function, "errno [%d] cannot send data to [%s]\n", 100, dest.c_str());
  EXPECT_EQ(client.SendTo("80a", std::string("abc")), -1);

  Probe any("::;7000", Socket::kUdp, Socket::kIpv6, kDefault);
  Socket six("", Socket::kUdp, Socket::kIpv6, kDefault);
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
  EXPECT_EQ(CountLogged("%s %d: errno %d rs [%zd]\n"), 1);
  FailNext(Call::kRecv, EIO);
  EXPECT_EQ(socket.Recv(buffer, sizeof(buffer), 0), -1);
  EXPECT_SAID(LOG_ERR, function, "errno %d rs [%zd]\n", 5, ssize_t{-1});
  close(pair[0]);
  Socket none(-1, Socket::kTcp, Socket::kIpv4);
  EXPECT_EQ(none.Recv(buffer, 1, 0), -1);
  EXPECT_SAID(LOG_ERR, function, "Invalid fd_ %d\n", -1);
  EXPECT_EQ(none.RecvTimedWait(buffer, 1, 0, 0), -1);
  EXPECT_EQ(none.Connect("127.0.0.1;1", 0), hvn::kFailure);
}

TEST(Socket, AcceptDescribesThePeerOfEachDomain) {
  const hutil_test::TempDir dir;
  Socket six("::1;6000", Socket::kTcp, Socket::kIpv6, kDefault);
  Socket local(dir / "server", Socket::kTcp, Socket::kUnix, kDefault);
  ASSERT_EQ(six.Listen(5), hvn::kSuccess);
  ASSERT_EQ(local.Listen(5), hvn::kSuccess);
  Socket six_client("", Socket::kTcp, Socket::kIpv6, kDefault);
  Socket local_client(dir / "client", Socket::kTcp, Socket::kUnix, kDefault);
  ASSERT_EQ(six_client.Connect("::1;6000", 1000000), hvn::kSuccess);
  ASSERT_EQ(local_client.Connect(dir / "server", 1000000), hvn::kSuccess);
  std::string path;
  close(six.Accept(path));
  EXPECT_EQ(path, "::1;" + N(hutil_test::LocalPort(six_client.fd())));
  close(local.Accept(path));
  EXPECT_EQ(path, dir / "client");
  Socket again("", Socket::kTcp, Socket::kIpv6, kDefault);
  ASSERT_EQ(again.Connect("::1;6000", 0), hvn::kSuccess);
  FailNext(Call::kInetNtop, ENOSPC);
  const int client = six.Accept(path);
  EXPECT_GT(client, 0);
  EXPECT_EQ(path, "");
  EXPECT_TRUE(Logged(LOG_ERR, "%s() : inet_ntop() failed, check errno[%d]\n",
                     "Accept() : inet_ntop() failed, check errno[28]\n"));
  close(client);
  FailNext(Call::kAccept4, EMFILE);
  EXPECT_EQ(six.Accept(path), -1);
}

TEST(Socket, TcpFiguresGoToTheLogOnly) {
  const char function[] = "bool hvn::util::Socket::GetTcpInfo(hvn::util::Socket::TcpInfo&)";
  Socket server("127.0.0.1", Socket::kTcp, Socket::kIpv4, kDefault);
  ASSERT_EQ(server.Listen(5), hvn::kSuccess);
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
  const auto logs = hutil_test::Logs();
  ASSERT_GE(logs.size(), 5U);
  for (size_t i = 0; i < 5; ++i) {
    const auto& line = logs[logs.size() - 5 + i];
    EXPECT_EQ(line.priority, LOG_DEBUG);
    EXPECT_EQ(line.format, formats[i]);
    EXPECT_EQ(line.text.rfind(function, 0), 0U);
  }
  EXPECT_NE(logs[logs.size() - 5].text.find(" state [" + N(TCP_LISTEN) + "]"), std::string::npos);
  Socket datagram("", Socket::kUdp, Socket::kIpv4, kDefault);
  EXPECT_FALSE(datagram.GetTcpInfo(info));
  EXPECT_SAID(LOG_ERR, function, "Cannot get getsockopt(TCP_INFO)\n");
  EXPECT_FALSE(Socket(-1, Socket::kTcp, Socket::kIpv4).GetTcpInfo(info));
  EXPECT_SAID(LOG_ERR, function, "Socket is not inialized");
}

TEST(Socket, DescriptorThatSelectCannotHoldIsRefusedBeforeAnyWait) {
  const rlimit limit = {2048, 2048};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  Socket socket("", Socket::kTcp, Socket::kIpv4, kDefault);
  ASSERT_EQ(dup2(socket.fd(), 1024), 1024);
  Socket high(1024, Socket::kTcp, Socket::kIpv4);
  char buffer[1];
  EXPECT_EQ(high.RecvTimedWait(buffer, 1, 1000, 0), -1);
  EXPECT_EQ(high.Connect("127.0.0.1;1", 1000), hvn::kFailure);
  EXPECT_EQ(CountLogged("%s %d: select cannot wait for fd [%d]\n"), 2);
  EXPECT_EQ(CallCount(Call::kSelect) + CallCount(Call::kConnect), 0);
  close(1024);
}

}  // namespace
