// Faults that the kernel makes itself: a full netlink socket, and a kill in the middle of a save.
#include <sys/prctl.h>
#include <sys/wait.h>

#include <mutex>
#include <random>
#include <thread>

#include "support/Kit.h"
#include "util/NetworkManager.h"
#include "util/PersistentConfig.h"

namespace hutil_test {

using hvn::util::EventDic, hvn::util::NetworkManager, hvn::util::PersistentConfig;

TEST(NetworkMonitor, ReportsAnOverrunAndHearsLaterChanges) {
  AllowLeftovers(2, 1);  // the monitor's socket and loop
  std::mutex busy;
  std::atomic<bool> heard{false};
  NetworkManager network;
  network.SetEventCb([&](EventDic& event) {
    const std::lock_guard<std::mutex> guard(busy);
    heard = heard || event.GetParam(EventDic::kIfName) == "lo";
  });
  int fd = 2, domain = 0, tiny = 1;
  socklen_t size = sizeof(int);
  while (domain != AF_NETLINK && fd < 99) getsockopt(++fd, SOL_SOCKET, SO_DOMAIN, &domain, &size);
  ASSERT_EQ(0, setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &tiny, sizeof(tiny)));
  busy.lock();
  for (int i = 1; i < 50; ++i)
    NetworkManager::SetIpAddress("hutil1", "10.9.0." + std::to_string(i));
  busy.unlock();
  EXPECT_TRUE(WaitForLog("%s %d: Cannot read data from Network monitor", 5000));
  const auto hears_again = [&, last = 1]() mutable {  // once it has caught up
    NetworkManager::SetIpAddress("lo", "127.0.0." + std::to_string(last = last % 250 + 1));
    return heard.load();
  };
  EXPECT_TRUE(WaitFor(hears_again, 5000));
  network.UnsetEventCb();
}

// Whether that is one of the texts, or the beginning of one in front of the rest of another: all of
// it, where the file was not shortened any more, or some pages, as a kill ends a write between two.
bool Permitted(const std::string& left, const std::string (&texts)[3]) {
  for (const std::string& one : texts) {
    for (size_t cut = 0; cut < one.size() + 4096; cut += 4096) {
      const std::string begin = one.substr(0, cut);
      for (const std::string& other : texts) {
        if (left == begin + other.substr(std::min(begin.size(), other.size()))) return true;
      }
    }
  }
  return false;
}

// In a file of one page no setting is ever lost; in a longer one, those that such a seam meets.
TEST(PersistentConfig, KilledSaveLeavesOldAndNewText) {
  constexpr char kFile[] = "/data/persistent_data.conf";
  const std::string values[] = {"", std::string(100, 'x'), std::string(37, 'y')};
  std::mt19937 random;
  const auto last_round = [&, round = 0]() mutable {
    const int keys = round % 3 > 0 ? 40 : 600;
    std::string halves[2], texts[3];
    for (int i = 0; i < keys; ++i) halves[i % 2] += "key" + std::to_string(i) + "=!=%=kept\n";
    for (int i = 0; i < 3; ++i) texts[i] = halves[0] + "k=!=%=" + values[i] + "\n" + halves[1];
    WriteFile(kFile, texts[0]);
    const pid_t writer = fork();
    if (writer == 0) prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (int i = 1; writer == 0 && i > 0; ++i) PersistentConfig::SaveData("k", values[i % 3]);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 1000));
    EXPECT_TRUE(kill(writer, SIGKILL) == 0 && waitpid(writer, nullptr, 0) == writer);
    EXPECT_TRUE(Permitted(ReadFile(kFile), texts)) << ReadFile(kFile);
    for (int i = 0; i < keys && keys == 40; ++i) {
      EXPECT_EQ("kept", PersistentConfig::LoadData("key" + std::to_string(i)));
    }
    return ++round == 1000;
  };
  EXPECT_TRUE(WaitFor(last_round, 15000));
}

}  // namespace hutil_test
