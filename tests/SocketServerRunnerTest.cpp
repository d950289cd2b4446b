#include <sys/socket.h>

#include <atomic>
#include <mutex>

#include "support/Kit.h"
#include "util/SocketServerRunner.h"

namespace hutil_test {
using hvn::util::Socket, hvn::util::SocketServerRunner;
constexpr char kFdCallback[] =
    "void hvn::util::SocketServerRunner::FdCallback(int, hvn::util::FdType)";
constexpr char kAccepted[] = "server [%d:%s] accept client [%d:%s\n";

std::mutex s_busy;          // holds the loop up
std::atomic<int> s_client;  // whom a runner called back for last

bool Note(int server, int client, const std::string& path, void* data, size_t size) {
  s_client = client;
  syslog(LOG_NOTICE, "%d %s %.*s", server, path.c_str(), int(size), static_cast<char*>(data));
  const std::lock_guard<std::mutex> wait(s_busy);
  return false;  // which changes nothing
}

bool Heard(const Socket& server, const std::string& path, const std::string& data) {
  const std::string text = std::to_string(server.fd()) + " " + path + " " + data;
  return WaitFor([&] { return bool(Logged(LOG_NOTICE, "%d %s %.*s", text)); }, 3000);
}

std::string PathOf(int fd) { return "127.0.0.1:" + std::to_string(LocalPort(fd)); }

TEST(SocketServerRunner, ServesStreamClientsUntilTheyOrTheirServerGo) {
  AllowLeftovers(2, 0);  // clients: a runner that goes closes nothing
  FailNext(Call::kAccept4, EMFILE);
  FailWithResult(Call::kAccept4, 0, 0);
  FailWithResult(Call::kAccept4, 2000, 0);  // which select cannot hold
  Socket server("127.0.0.1", Socket::kTcp, Socket::kIpv4, {});
  server.Listen(5);
  Socket alias(server.fd(), Socket::kTcp, Socket::kIpv4);
  auto runner = std::make_unique<SocketServerRunner>(Note);
  EXPECT_TRUE(runner->AddServer(&alias) && runner->RemoveServer(&server) &&
              runner->AddServer(&server));
  for (Socket* const known : {&server, &alias}) {
    EXPECT_FALSE(runner->AddServer(known));
    EXPECT_SAID(LOG_ERR, "bool hvn::util::SocketServerRunner::AddServer(hvn::util::Socket*)",
                "server [%p] fd [%d] is already in the list\n", static_cast<void*>(known),
                server.fd());
  }
  RawClient client(LocalPort(server.fd()));
  const std::string path = PathOf(client.fd());
  EXPECT_TRUE(client.Send("one") && Heard(server, path, "one"));
  for (const int fd : {-1, 0, 2000, int(s_client)}) {  // only the last of which is a client
    EXPECT_SAID(LOG_DEBUG, kFdCallback, kAccepted, server.fd(), "127.0.0.1", fd,
                fd < 1       ? ""
                : fd == 2000 ? "0.0.0.0:0"
                             : path.c_str());
  }
  FailNext(Call::kRecv, ENOMEM, 1, 0, s_client);
  EXPECT_TRUE(client.Send("two") && Heard(server, path, "two"));
  EXPECT_SAID(LOG_ERR, kFdCallback, "errno [%d]\n", ENOMEM);
  client.Close();
  EXPECT_TRUE(WaitFor([] { return CountLogged("%s %d: errno [%d]\n") == 2; }, 3000));
  RawClient late(LocalPort(server.fd()));
  EXPECT_TRUE(late.Send("three") && Heard(server, PathOf(late.fd()), "three"));
  EXPECT_TRUE(runner->RemoveServer(server.fd()) && late.Send("four") && late.ClosedByPeer());
  EXPECT_SAID(LOG_ERR, kFdCallback,
              "This is very weird situation close this fd and remove this fd from monitor");
  EXPECT_EQ(3, CountLogged("%d %s %.*s"));
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  EXPECT_EQ(-3, runner->Send(1, nullptr, 1) + runner->Send(1, "x") + runner->SendTo(1, "x", "x"));
#pragma GCC diagnostic pop
}

TEST(SocketServerRunner, ServesUnixClientsAndDatagrams) {
  AllowLeftovers(2, 0);  // the clients
  const TempDir folder;
  const int low = dup(0);
  Socket server(folder / "server", Socket::kTcp, Socket::kUnix, {});
  Socket unnamed("", Socket::kTcp, Socket::kUnix, {});
  Socket named(folder / "named", Socket::kTcp, Socket::kUnix, {});
  Socket local(folder / "local", Socket::kUdp, Socket::kUnix, {});
  Socket udp("127.0.0.1", Socket::kUdp, Socket::kIpv4, {});
  server.Listen(5);
  SocketServerRunner runner(Note);
  EXPECT_TRUE(runner.AddServer(&server) && runner.AddServer(&udp) && runner.AddServer(&local));
  FailNext(Call::kRecvFrom, EIO, 1, 0, udp.fd());
  FailWithResult(Call::kRecvFrom, 0, EIO, 1, 0, udp.fd());
  udp.SendTo("127.0.0.1;" + std::to_string(LocalPort(udp.fd())), std::string(40000, 'x'));
  EXPECT_TRUE(Heard(udp, PathOf(udp.fd()), std::string(32768, 'x')));
  EXPECT_SAID(LOG_ERR, kFdCallback, "fd [%d] recvfrom errno [%d]\n", udp.fd(), EIO);
  EXPECT_EQ(2, CountLogged("%s %d: fd [%d] recvfrom errno [%d]\n"));
  close(low);  // to be the unnamed client's number, which the loop comes to before the server's
  EXPECT_EQ(hvn::kSuccess, unnamed.Connect(folder / "server", 0));
  EXPECT_TRUE(WaitForLog(std::string("%s %d: ") + kAccepted, 3000));
  s_busy.lock();
  EXPECT_TRUE(local.SendTo(folder / "local", "hello") == 5 &&
              Heard(local, folder / "local", "hello"));
  EXPECT_EQ(0, s_client);
  EXPECT_EQ(hvn::kSuccess, named.Connect(folder / "server", 0));
  EXPECT_TRUE(unnamed.Send("unread") == 6 && named.Send("read") == 4);
  s_busy.unlock();
  EXPECT_TRUE(Heard(server, folder / "named", "read"));
  runner.RemoveFd(&server, s_client);  // which is the daemon's to read and to close now
  char mine[4];
  EXPECT_TRUE(named.Send("mine") == 4 && recv(s_client, mine, 4, 0) == 4);
}

}  // namespace hutil_test
