// Each call that the library makes fails at each of its places in turn, or moves one byte only:
// nothing crashes, hangs or leaks, and what fails says so. Left out: OpenSSL's and libcurl's calls,
// which are theirs to test, and the writes that wake a loop, which no kernel fails.
#include "support/Kit.h"
#include "util/DhcpServer.h"
#include "util/NetworkManager.h"
#include "util/PersistentConfig.h"
#include "util/ProcessControl.h"
#include "util/SocketServer.h"
#include "util/SocketServerRunner.h"

namespace hutil_test {

using namespace hvn::util;
using C = Call;
constexpr long kFine = 1000, kMinusErrno = 1001, kSpared = 1002;

struct Row {
  Call call;
  int times;             // so many calls of the kind in a row; kAlways: all there are
  long result;           // what the scenario ends in where one of them fails
  std::string log = "";  // the message of that failure; empty: no error is logged
  long cut = kSpared;    // what the scenario ends in where one moves a single byte
};

std::tuple<Call, int, int> s_fault;  // kCount: none

void Arm() {  // from here on calls count
  ResetFaults();
  const auto [call, place, error] = s_fault;
  if (call != C::kCount) FailWithResult(call, error == 0 ? 1 : -1, error, 1, place);
}

void Want(long wanted, long got) { got == wanted ? void() : throw got; }

long Run(void (*scenario)()) try {
  ClearLogs();
  scenario();
  return kFine;
} catch (const long result) {
  return result;
}

bool Reported(const std::string& message, int error) {
  bool reported = message.empty();
  for (const LogLine& log : Logs()) {
    if (message.empty() && log.priority <= LOG_ERR) return false;
    if (log.format != message && log.format != "%s %d: " + message) continue;
    const size_t number = log.text.find_first_of("0123456789", log.text.find("errno"));
    reported |= number == std::string::npos || atoi(&log.text[number]) == error;
  }
  return reported;
}

void Check(void (*scenario)(), const std::vector<Row>& rows) {
  s_fault = {C::kCount, 0, 0};
  ASSERT_EQ(kFine, Run(scenario));
  int counts[int(C::kCount)], places[int(C::kCount)] = {};
  for (int call = 0; call < int(C::kCount); ++call) counts[call] = CallCount(Call(call));
  for (const auto& [call, times, failure, log, cut] : rows) {
    int& place = places[int(call)];
    for (const int end = times > 0 ? place + times : counts[int(call)]; place < end; ++place) {
      for (const int error : {EMFILE, ENOMEM, EINTR, EIO, 0}) {
        const long wanted = error == 0 ? cut : failure == kMinusErrno ? -error : failure;
        if (wanted == kSpared) continue;
        s_fault = {call, place, error};
        const long result = Run(scenario);
        const bool met = CallCount(call) > place;
        EXPECT_EQ(met ? wanted : kFine, result) << int(call) << " #" << place << " " << error;
        EXPECT_TRUE(!met || error == 0 || Reported(log, error)) << int(call) << " #" << place;
      }
    }
  }
  EXPECT_THAT(places, testing::ElementsAreArray(counts)) << "the table's calls, and those made";
}

// clang-format off
TEST(Faults, Sockets) {
  const char mode[] = "%s %d : fcntl [%d] F_SETFL flags [%d] cannot be executed\n";
  Check([] {
    Arm();
    const Socket local("/tmp/local", Socket::kTcp, Socket::kUnix, {5000, 6000});
    const Socket netlink("", Socket::kRaw, Socket::kNetlink, {});
    Socket server("::1", Socket::kTcp, Socket::kIpv6, {});
    Socket client("", Socket::kTcp, Socket::kIpv6, {});
    Want(1, local.fd() > 0 && netlink.fd() > 0 && server.fd() > 0 && client.fd() > 0);
    Want(1, client.BindToDevice("lo"));
    Want(0, server.Listen(5));
    Want(0, client.Connect("::1;" + std::to_string(LocalPort(server.fd())), 2000000));
    Want(0, client.SetTCPNoDelay(true));
    std::string path, hello = "hello";
    const int fd = server.Accept(path);
    Want(1, fd > 0);
    const std::shared_ptr<void> closer(nullptr, [fd](void*) { close(fd); });
    Want(5, client.Send(hello));
    Want(5, Socket(fd, Socket::kTcp, Socket::kIpv6).RecvTimedWait(&hello[0], 5, 2000000, 0));
  }, {{C::kSocket, 4, 0, "%s %d : socket failed, errno[%d]\n"}, {C::kGetSockOpt, 5, kFine},
      {C::kSetSockOpt, 3, kFine}, {C::kSetSockOpt, 2, kFine, "errno [%d]\n"},
      {C::kSetSockOpt, 1, kFine}, {C::kSetSockOpt, 1, kFine, "errno [%d]\n"},
      {C::kSetSockOpt, 1, kFine}, {C::kBind, 3, 0, "bind errno [%d] path [%s]\n"},
      {C::kGetIfAddrs, 1, 0, "getifaddrs errno [%d]\n"},
      {C::kIoctl, 1, kFine, "fd [%d] SIOCGIFINDEX errno [%d]\n"},
      {C::kSetSockOpt, 1, 0, "Cannot bind socket %d to device %s\n"},
      {C::kListen, 1, 1, "close socket fd [%d] errno [%d]\n"}, {C::kFcntl, 5, kFine},
      {C::kFcntl, 1, kFine, mode}, {C::kFcntl, 1, kFine}, {C::kFcntl, 1, kFine, mode},
      {C::kConnect, 1, 1, "con_ret %d errno %d\n"}, {C::kSelect, 1, 1, "con_ret %d sel_ret %d\n"},
      {C::kGetSockOpt, 1, 1, "sock_ret %d so_error %d\n"}, {C::kAccept4, 1, 0},
      {C::kSetSockOpt, 1, 1, "setsockopt TCP_NODELAY errno [%d]\n"},
      {C::kInetNtop, 1, kFine, "%s() : inet_ntop() failed, check errno[%d]\n"},
      {C::kSend, 1, kMinusErrno, "errno [%d]\n", kFine},
      {C::kSelect, 1, kMinusErrno, "res [%d] errno [%d]\n"},
      {C::kRecv, 1, -1, "errno %d rs [%zd]\n", 1}});
}

TEST(Faults, ServerThatLosesOneClientAtMost) {
  Check([] {
    Arm();
    const auto echo = [](int, int fd, const std::string&, void* data, size_t size) {
      const bool sent = Socket(fd, Socket::kTcp, Socket::kIpv4).Send(data, size) > 0;
      return sent || shutdown(fd, SHUT_RDWR) == 0;
    };
    SocketServer server("127.0.0.1", Socket::kTcp, Socket::kIpv4, echo, nullptr);
    Want(1, server.fd() > 0);
    std::atomic<int> clients{0};
    server.SetNewClientCb([&](int, int, const std::string&) { ++clients; });
    const Call fault = std::get<Call>(s_fault);
    int unserved = fault == C::kCount;
    for (int i = 0; i < 2; ++i) {
      RawClient client(LocalPort(server.fd()));
      unserved += !client.Send("x") || client.Recv(1, fault == C::kEventFd ? 20 : 5000) != "x";
    }
    WaitFor([&] { return CountLogged("%s %d: remove fd [%d] path [%s]\n") == clients; }, 5000);
    Want(1, unserved < 2);
  }, {{C::kSocket, 1, 0, "%s %d : socket failed, errno[%d]\n"}, {C::kGetSockOpt, 1, kFine},
      {C::kSetSockOpt, 1, kFine}, {C::kSetSockOpt, 1, kFine, "errno [%d]\n"}, {C::kEventFd, 1, 0},
      {C::kFcntl, 2, kFine},
      {C::kBind, 1, 0, "bind errno [%d] path [%s]\n"}, {C::kWrite, kAlways, kSpared},
      {C::kListen, 1, 0, "close socket fd [%d] errno [%d]\n"}, {C::kInetNtop, kAlways, kFine},
      {C::kSelect, kAlways, kFine, "select error"}, {C::kRead, kAlways, kFine, "", kFine},
      {C::kRecv, kAlways, kFine, "errno [%d]\n", kFine}, {C::kAccept4, kAlways, kFine, "\n"},
      {C::kSend, kAlways, kFine, "errno [%d]\n", kFine}});
}

TEST(Faults, DatagramsOfARunner) {
  Check([] {
    Arm();
    Socket udp("127.0.0.1", Socket::kUdp, Socket::kIpv4, {});
    Want(1, udp.fd() > 0);
    std::atomic<int> heard{0};
    SocketServerRunner runner([&](int, int, const std::string&, void*, size_t size) {
      heard += int(size);
      return true;
    });
    Want(1, runner.AddServer(&udp));
    const std::string dest = "127.0.0.1;" + std::to_string(LocalPort(udp.fd()));
    Want(5, udp.SendTo(dest, std::string("hello")));
    Want(1, WaitFor([&] { return heard == 5; }, 200));
  }, {{C::kSocket, 1, 0, "%s %d : socket failed, errno[%d]\n"},
      {C::kSetSockOpt, 1, kFine, "errno [%d]\n"}, {C::kBind, 1, 0, "bind errno [%d] path [%s]\n"},
      {C::kEventFd, 1, 0}, {C::kWrite, kAlways, kSpared}, {C::kRead, kAlways, kFine, "", kFine},
      {C::kFcntl, 2, kFine},
      {C::kSelect, kAlways, kFine, "select error"},
      {C::kSendTo, 1, 0, "errno [%d] cannot send data to [%s]\n", kFine},
      {C::kRecvFrom, 1, kFine, "fd [%d] recvfrom errno [%d]\n", 0}});
}

// A read or a write that goes wrong in SaveData costs other settings, with success reported.
TEST(Faults, QueriesAndFiles) {
  Check([] {
    WriteFile("/var/lib/misc/dnsmasq.leases", "1 a\n2 b\n");
    WriteFile("/data/persistent_data.conf", "b=!=%=2\na=!=%=long\n");
    std::string self = "f" + std::to_string(getpid()), ip = "10.78.0.1", got;
    pthread_setname_np(pthread_self(), self.c_str());
    std::vector<std::string> ipv4, ipv6;
    Arm();
    Want(1, NetworkManager::SetIpAddress("hutil1", ip));
    Want(1, NetworkManager::GetIpAddress("hutil1", got, false) && got == ip);
    Want(0, NetworkManager::GetIpAddress("hutil1", got, true));
    Want(3, long(NetworkManager::GetIfNames().size()));
    Want(0, NetworkManager::ResolveHostName(ip, ipv4, ipv6) || ipv4[0] != ip);
    Want(getpid(), ProcessControl::GetPidByProcessName(self, getpid()));
    Want(2, long(DhcpServer::GetAllLeaseInfo().size()));
    Want(0, PersistentConfig::SaveData("a", "1"));
    Want(1, PersistentConfig::LoadData("a") + PersistentConfig::LoadData("b") == "12");
  }, {{C::kSocket, 4, 0, "failed to open socket\n"}, {C::kFcntl, 4, kFine}, {C::kIoctl, 4, 0, "ioctlno [%d] errno [%d]\n"},
      {C::kInetNtop, 1, 1}, {C::kGetIfAddrs, 1, 0, "getifaddrs errno [%d]\n"},
      {C::kGetAddrInfo, 1, 1, "getaddrinfo errno %d\n"}, {C::kFopen, 1, kFine}, {C::kOpenDir, 1, -1}, {C::kOpen, 1, -1},
      {C::kRead, 1, -1, "", -1}, {C::kOpen, 1, 0}, {C::kLseek, 2, 0}, {C::kRead, 1, 0, "", 1}, {C::kLseek, 1, 1},
      {C::kOpen, 1, 1, "cannot open file [%s]\n"}, {C::kOpen, 2, 0, "Cannot open file %s\n"},
      {C::kLseek, 6, 0}, {C::kRead, 3, 0, "", 0}, {C::kFtruncate, 1, kFine},
      {C::kWrite, 1, 0, "Cannot write data requested size [%zu] writed size [%zd]\n", 0}});
}
// clang-format on

}  // namespace hutil_test
