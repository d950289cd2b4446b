// Each call that the library makes fails at each of its places in turn, or moves one byte only:
// nothing crashes, hangs or leaks, and what fails says so. The table leaves out malloc, thread
// creation (see WithoutThreads), poll, getnameinfo, if_indextoname, close and shutdown, the writes
// that wake a loop, which no kernel fails, and OpenSSL's and libcurl's calls, which are theirs to
// test.
#include "support/Kit.h"
#include "util/SocketServer.h"

namespace hutil_test {

using namespace hvn::util;
using C = Call;
constexpr int kOneByte = 0;  // among errors: the call is made, but moves a single byte
constexpr char kEnd[] = "end", kSpared[] = "spared";

struct Row {
  Call call;
  int times;                        // so many calls of the kind in a row; kAlways: all the others
  std::string stops;                // the step that one's failure stops the scenario at, or kEnd
  std::string log = "";             // the message of that failure; empty: no error is logged
  std::string cut_stops = kSpared;  // the same step where one moves a single byte
};

struct {
  Call call;  // kCount: none
  int place, error;
} s_fault;

// For a scenario: from here on calls count.
void Arm() {
  ResetFaults();
  const auto [call, place, error] = s_fault;
  if (call != C::kCount) FailWithResult(call, error == kOneByte ? 1 : -1, error, 1, place);
}

// For a scenario, which stops at this step if it gets something else.
template <typename Wanted, typename Got>
void ExpectAt(const std::string& step, const Wanted& wanted, const Got& got) {
  if (!(wanted == got)) throw step;
}

// Runs it to the step where it stops.
std::string Run(void (*scenario)()) try {
  ClearLogs();
  scenario();
  return kEnd;
} catch (const std::string& step) {
  return step;
}

// Whether the message is there, with that errno if it tells one.
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

void CheckFault(void (*scenario)(), const Row& row) {
  const bool is_cut = s_fault.error == kOneByte;
  const std::string& wanted = is_cut ? row.cut_stops : row.stops;
  if (wanted == kSpared) return;
  const std::string stopped = Run(scenario);
  if (CallCount(row.call) <= s_fault.place) return;  // a loop makes fewer calls at times
  EXPECT_EQ(wanted, stopped);
  EXPECT_TRUE(is_cut || Reported(row.log, s_fault.error));
}

void Check(void (*scenario)(), const std::vector<Row>& rows,
           const std::vector<int>& errors = {EMFILE, ENOMEM, EINTR, EIO, kOneByte}) {
  s_fault = {C::kCount, 0, 0};
  ASSERT_EQ(kEnd, Run(scenario));
  int counts[int(C::kCount)], places[int(C::kCount)] = {};
  for (int call = 0; call < int(C::kCount); ++call) counts[call] = CallCount(Call(call));
  for (const Row& row : rows) {
    int& place = places[int(row.call)];
    const int end = row.times == kAlways ? counts[int(row.call)] : place + row.times;
    for (; place < end; ++place) {
      for (const int error : errors) {
        s_fault = {row.call, place, error};
        SCOPED_TRACE(testing::PrintToString(std::make_tuple(int(row.call), place, error)));
        CheckFault(scenario, row);
      }
    }
  }
  EXPECT_THAT(places, testing::ElementsAreArray(counts)) << "the table's calls, and those made";
}

constexpr char kNoSocket[] = "%s %d : socket failed, errno[%d]\n";
constexpr char kNotBound[] = "bind errno [%d] path [%s]\n";
constexpr char kNotListening[] = "close socket fd [%d] errno [%d]\n";
constexpr char kNoMode[] = "%s %d : fcntl [%d] F_SETFL flags [%d] cannot be executed\n";
constexpr char kErrno[] = "errno [%d]\n";

// clang-format off
TEST(Faults, Sockets) {
  const auto scenario = [] {
    Arm();
    const Socket netlink("", Socket::kRaw, Socket::kNetlink, {});
    Socket server("::1", Socket::kTcp, Socket::kIpv6, {5000, 6000});
    Socket client("", Socket::kTcp, Socket::kIpv6, {});
    const int lowest = std::min({netlink.fd(), server.fd(), client.fd()});
    ExpectAt("make", true, lowest > 0);
    ExpectAt("to device", true, client.BindToDevice("lo"));
    ExpectAt("listen", hvn::kSuccess, server.Listen(5));
    const std::string address = "::1;" + std::to_string(LocalPort(server.fd()));
    ExpectAt("connect", hvn::kSuccess, client.Connect(address, 2000000));
    ExpectAt("no delay", hvn::kSuccess, client.SetTCPNoDelay(true));
    std::string path, hello = "hello";
    const int fd = server.Accept(path);
    ExpectAt("accept", true, fd > 0);
    const std::shared_ptr<void> closer(nullptr, [fd](void*) { close(fd); });
    ExpectAt("send", 5, client.Send(hello));
    Socket peer(fd, Socket::kTcp, Socket::kIpv6);
    ExpectAt("receive", 5, peer.RecvTimedWait(&hello[0], 5, 2000000, 0));
  };
  Check(scenario, {
      {C::kSocket, 3, "make", kNoSocket}, {C::kGetSockOpt, 4, kEnd},
      {C::kSetSockOpt, 1, kEnd, kErrno}, {C::kSetSockOpt, 3, kEnd},
      {C::kSetSockOpt, 1, kEnd, kErrno}, {C::kSetSockOpt, 1, kEnd},
      {C::kBind, 2, "make", kNotBound}, {C::kGetIfAddrs, 1, "to device", "getifaddrs errno [%d]\n"},
      {C::kIoctl, 1, kEnd, "fd [%d] SIOCGIFINDEX errno [%d]\n"},
      {C::kSetSockOpt, 1, "to device", "Cannot bind socket %d to device %s\n"},
      {C::kListen, 1, "listen", kNotListening}, {C::kFcntl, 4, kEnd}, {C::kFcntl, 1, kEnd, kNoMode},
      {C::kFcntl, 1, kEnd}, {C::kFcntl, 1, kEnd, kNoMode},
      {C::kConnect, 1, "connect", "con_ret %d errno %d\n"},
      {C::kSelect, 1, "connect", "con_ret %d sel_ret %d\n"},
      {C::kGetSockOpt, 1, "connect", "sock_ret %d so_error %d\n"}, {C::kAccept4, 1, "accept"},
      {C::kSetSockOpt, 1, "no delay", "setsockopt TCP_NODELAY errno [%d]\n"},
      {C::kInetNtop, 1, kEnd, "%s() : inet_ntop() failed, check errno[%d]\n"},
      {C::kSend, 1, "send", kErrno, kEnd}, {C::kSelect, 1, "receive", "res [%d] errno [%d]\n"},
      {C::kRecv, 1, "receive", "errno %d rs [%zd]\n", "receive"}});
}

// Serves two clients, of whom a fault may cost one.
void ServeTwoClients(int peer_timeout_ms) {
  Arm();
  SocketServer::SocketServerOption option;
  option.peer_timeout_ms = peer_timeout_ms;
  const auto echo = [](int, int fd, const std::string&, void* data, size_t size) {
    const bool is_sent = Socket(fd, Socket::kTcp, Socket::kIpv4).Send(data, size) > 0;
    return is_sent || shutdown(fd, SHUT_RDWR) == 0;
  };
  SocketServer server("127.0.0.1", Socket::kTcp, Socket::kIpv4, echo, nullptr, option);
  ExpectAt("make", true, server.fd() > 0);
  std::atomic<int> clients{0};
  server.SetNewClientCb([&clients](int, int, const std::string&) { ++clients; });
  const Call call = s_fault.call;
  const bool is_deaf = call == C::kEventFd || call == C::kEpollCreate || call == C::kTimerFd;
  int served = call == C::kCount ? 0 : 1;
  for (int i = 0; i < 2; ++i) {
    RawClient client(LocalPort(server.fd()));
    client.Send("x");
    served += client.Recv(1, is_deaf ? 20 : 5000) == "x" ? 1 : 0;
  }
  WaitFor([&] { return CountLogged("%s %d: remove fd [%d] path [%s]\n") == clients; }, 5000);
  ExpectAt("serve", true, served >= 2);
}

TEST(Faults, ServerWithAndWithoutALimitForItsPeers) {
  std::vector<Row> rows = {
      {C::kSocket, 1, "make", kNoSocket}, {C::kGetSockOpt, 1, kEnd}, {C::kSetSockOpt, 1, kEnd},
      {C::kSetSockOpt, 1, kEnd, kErrno}, {C::kBind, 1, "make", kNotBound},
      {C::kListen, 1, "make", kNotListening}, {C::kEventFd, 1, "serve"}, {C::kFcntl, kAlways, kEnd},
      {C::kWrite, kAlways, kSpared}, {C::kInetNtop, kAlways, kEnd},
      {C::kSelect, kAlways, kEnd, "select error"}, {C::kRead, kAlways, kEnd, "", kEnd},
      {C::kRecv, kAlways, kEnd, kErrno, kEnd}, {C::kAccept4, kAlways, kEnd, "\n"},
      {C::kSend, kAlways, kEnd, kErrno, kEnd}};
  Check([] { ServeTwoClients(0); }, rows);
  const char log[] = "cannot watch peers errno [%d]\n";
  for (const Call call : {C::kEpollCreate, C::kTimerFd}) rows.push_back({call, 1, "serve", log});
  for (const Call call : {C::kEpollCtl, C::kOpen}) rows.push_back({call, 1, kEnd});
  Check([] { ServeTwoClients(5000); }, rows, {EMFILE, EIO, kOneByte});
}
// clang-format on

}  // namespace hutil_test
