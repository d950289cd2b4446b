#include "support/Kit.h"

#include <poll.h>

#include <chrono>
#include <csignal>
#include <set>
#include <thread>

namespace hutil_test {
namespace {

std::set<std::string> Entries(const char* folder) {
  std::set<std::string> entries;
  std::error_code gone;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const auto target = std::filesystem::read_symlink(entry.path(), gone);
    entries.insert(entry.path().filename().string() + " " + target.string());
  }
  return entries;
}

constexpr const char* kFolders[] = {"/proc/self/fd", "/proc/self/task"};
std::size_t s_allowed[2];  // more entries of each

class LeakCheck : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo& /*test*/) override {
    ClearLogs();
    ResetFaults();
    AllowLeftovers(0, 0);
    for (const int i : {0, 1}) before_[i] = Entries(kFolders[i]);
  }

  // With some patience: a joined thread stays listed for a moment.
  void OnTestEnd(const testing::TestInfo& /*test*/) override {
    ResetFaults();
    for (const int i : {0, 1}) {
      std::set<std::string> now;
      const auto settled = [&] {
        now = Entries(kFolders[i]);
        return now.size() >= before_[i].size() && now.size() <= before_[i].size() + s_allowed[i];
      };
      EXPECT_TRUE(WaitFor(settled, 1000)) << testing::PrintToString(before_[i]) << " became "
                                          << testing::PrintToString(now) << " in " << kFolders[i];
    }
  }

  std::set<std::string> before_[2];
};

}  // namespace

void AllowLeftovers(std::size_t fds, std::size_t threads) {
  s_allowed[0] = fds;
  s_allowed[1] = threads;
}

bool WaitFor(const std::function<bool()>& holds, int milliseconds) {
  using Clock = std::chrono::steady_clock;
  const auto span = std::chrono::milliseconds(milliseconds) * HUTIL_TEST_TIMEOUT_SCALE;
  for (const auto end = Clock::now() + span; !holds();) {
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

bool WaitUntilReadable(int fd, int milliseconds) {
  pollfd wanted{fd, POLLIN, 0};
  return poll(&wanted, 1, milliseconds * HUTIL_TEST_TIMEOUT_SCALE) > 0;
}

std::string CertPath(const std::string& name) { return HUTIL_CERT_DIR "/" + name; }

}  // namespace hutil_test

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);  // as every daemon does
  testing::InitGoogleMock(&argc, argv);
  // Thread sanitizer adds a thread of its own to the first: before anything is counted.
  std::thread([] {}).join();
  testing::UnitTest::GetInstance()->listeners().Append(new hutil_test::LeakCheck);
  return RUN_ALL_TESTS();
}
