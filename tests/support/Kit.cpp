#include "support/Kit.h"

#include <poll.h>
#include <pthread.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <thread>

namespace hutil_test {
namespace {

constexpr const char* kFolders[] = {"/proc/self/fd", "/proc/self/task"};
std::size_t s_allowed[2];  // more entries of each

std::size_t Count(const char* folder) {
  const std::filesystem::directory_iterator entries(folder);
  return std::size_t(std::distance(begin(entries), end(entries)));
}

class LeakCheck : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo& /*test*/) override {
    ClearLogs();
    ResetFaults();
    AllowLeftovers(0, 0);
    for (const int i : {0, 1}) before_[i] = Count(kFolders[i]);
  }

  // With some patience: a joined thread stays listed for a moment.
  void OnTestEnd(const testing::TestInfo& /*test*/) override {
    ResetFaults();
    for (const int i : {0, 1}) {
      const auto left = [this, i] { return long(Count(kFolders[i])) - long(before_[i]); };
      EXPECT_TRUE(WaitFor([&] { return left() <= long(s_allowed[i]); }, 1000))
          << left() << " entries more in " << kFolders[i];
    }
  }

  std::size_t before_[2];
};

}  // namespace

void AllowLeftovers(std::size_t fds, std::size_t threads) {
  s_allowed[0] = fds;
  s_allowed[1] = threads;
}

int Stretched(int milliseconds) { return milliseconds * HUTIL_TEST_TIMEOUT_SCALE; }

bool WaitFor(const std::function<bool()>& holds, int milliseconds) {
  using Clock = std::chrono::steady_clock;
  const auto span = std::chrono::milliseconds(Stretched(milliseconds));
  for (const auto end = Clock::now() + span; !holds();) {
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

bool WaitUntilReadable(int fd, int milliseconds) {
  pollfd wanted{fd, POLLIN, 0};
  return poll(&wanted, 1, Stretched(milliseconds)) > 0;
}

bool WaitUntilAsleep(long tid) {
  const std::string file = "/proc/self/task/" + std::to_string(tid) + "/stat";
  int looks = 0;  // in a row; an emulator's own locks are held for less
  const auto asleep = [&] {
    looks = ReadFile(file).find(") S ") == std::string::npos ? 0 : looks + 1;
    return looks == 3;
  };
  return WaitFor(asleep, 5000);
}

bool WaitsFor(Barrier& barrier, const std::function<void()>& action) {
  std::promise<long> tid;
  const auto end = std::async(std::launch::async, [&] {
    tid.set_value(gettid());
    action();
  });
  const bool sleeps = WaitUntilAsleep(tid.get_future().get());
  const bool has_ended = end.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  barrier.open.set_value();
  return sleeps && !has_ended;
}

bool EndsInChild(const std::function<void()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(5 * HUTIL_TEST_TIMEOUT_SCALE);
    body();
    _exit(0);
  }
  int status = -1;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  return status == 0;
}

void Shell(const std::string& command) {
  EXPECT_EQ(0, pclose(popen(command.c_str(), "r"))) << command;
}

void SetDefaultStack(std::size_t size) {
  pthread_attr_t attributes;
  EXPECT_EQ(0, pthread_getattr_default_np(&attributes));
  EXPECT_EQ(0, pthread_attr_setstacksize(&attributes, size));
  EXPECT_EQ(0, pthread_setattr_default_np(&attributes));
  pthread_attr_destroy(&attributes);
}

void WithoutThreads(const std::function<void()>& body) {
  SetDefaultStack(SIZE_MAX << 28);
  body();
  SetDefaultStack(8 << 20);
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
