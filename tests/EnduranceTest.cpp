// Many threads, many clients: what shows a race where there is one.
#include <sys/resource.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "support/Kit.h"
#include "util/PersistentConfig.h"
#include "util/SocketServer.h"
#include "util/TimerManager.h"

namespace hutil_test {

using hvn::util::PersistentConfig, hvn::util::Socket, hvn::util::SocketServer;

constexpr char kRemoved[] = "%s %d: remove fd [%d] path [%s]\n";

bool Serves(RawClient& client) { return client.Send("x") && client.Recv(1) == "x"; }

// select(2) holds 1024 descriptors: the clients beyond are turned away, the others served.
TEST(SocketServer, ServesTheClientsItCanHoldOutOfFifteenHundred) {
  const rlimit limit = {4096, 4096};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  SocketServer echo(
      "127.0.0.1", Socket::kTcp, Socket::kIpv4,
      [&echo](int, int client, std::string, void* data, size_t size) {
        return echo.SendTo(client, data, size) > 0;
      },
      nullptr);
  std::vector<std::unique_ptr<RawClient>> clients;
  int served = 0, still_served = 0;
  while (clients.size() < 1500) {
    clients.push_back(std::make_unique<RawClient>(LocalPort(echo.fd())));
    ASSERT_TRUE(clients.back()->MoveAbove(1100));
    served += Serves(*clients.back());
  }
  EXPECT_TRUE(clients.back()->ClosedByPeer());
  for (const auto& client : clients) still_served += Serves(*client);
  EXPECT_EQ(still_served, served);
  EXPECT_GT(served, 950);
  EXPECT_LT(served, 1024);
  clients.clear();
  EXPECT_TRUE(WaitFor([&] { return CountLogged(kRemoved) == served; }, 5000));
}

TEST(TimerService, NumberOfATaskRemovedWhileItEndsIsFreedOnce) {
  AllowLeftovers(0, 1);  // the worker
  constexpr long long kHour = 3600000000;
  hvn::util::TimerManager timers;
  const auto keep = [](int, void*) { return true; };
  std::atomic<int> runs{0};
  const auto end = [&](int id, void*) {
    if (runs % 2 > 0 && timers.RemoveTask(id)) timers.AddTask(kHour, keep, nullptr);
    return ++runs < 0;
  };
  for (int i = 0; i < 300; ++i) {
    const int id = timers.AddTask(1, end, nullptr);
    while (runs <= i) std::this_thread::yield();
    if (i % 2 == 0) timers.RemoveTask(id);
    for (int next = i % 2; next < 2; ++next) ASSERT_EQ(next, timers.AddTask(kHour, keep, nullptr));
    ASSERT_TRUE(timers.RemoveTask(0) && timers.RemoveTask(1));
  }
}

TEST(PersistentConfig, ThreadsLoseNoUpdate) {
  WriteFile("/data/persistent_data.conf", "");
  std::vector<std::thread> threads;
  for (const char* key : {"a", "b", "c", "d"}) {
    threads.emplace_back([key] {
      for (int i = 0; i < 250; ++i) {
        const std::string value(1, "xyz"[i % 3]);
        PersistentConfig::SaveData(key, value);
        EXPECT_EQ(value, PersistentConfig::LoadData(key));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(4 * sizeof("a=!=%=x"), ReadFile("/data/persistent_data.conf").size());
}

}  // namespace hutil_test
