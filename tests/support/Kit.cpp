#include "support/Kit.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <thread>

namespace hutil_test {
namespace {

namespace fs = std::filesystem;

std::size_t s_allowed_fds = 0;
std::size_t s_allowed_threads = 0;

std::set<std::string> Entries(const char* folder) {
  std::set<std::string> entries;
  std::error_code gone;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    entries.insert(entry.path().filename().string() + " " +
                   fs::read_symlink(entry.path(), gone).string());
  }
  return entries;
}

class LeakCheck : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo& /*test*/) override {
    ClearLogs();
    ResetFaults();
    s_allowed_fds = s_allowed_threads = 0;
    fds_ = Entries("/proc/self/fd");
    threads_ = Entries("/proc/self/task");
  }

  void OnTestEnd(const testing::TestInfo& /*test*/) override {
    ResetFaults();
    Compare("/proc/self/fd", fds_, s_allowed_fds);
    Compare("/proc/self/task", threads_, s_allowed_threads);
  }

  // With some patience: a joined thread stays listed for a moment.
  static void Compare(const char* folder, const std::set<std::string>& before, std::size_t more) {
    std::set<std::string> now;
    const auto settled = [&] {
      now = Entries(folder);
      return now.size() >= before.size() && now.size() <= before.size() + more;
    };
    EXPECT_TRUE(WaitFor(settled, 1000)) << folder << " had " << testing::PrintToString(before)
                                        << ", has " << testing::PrintToString(now);
  }

  std::set<std::string> fds_;
  std::set<std::string> threads_;
};

bool Ready(int fd, int milliseconds) {
  pollfd wanted{fd, POLLIN, 0};
  return poll(&wanted, 1, milliseconds * HUTIL_TEST_TIMEOUT_SCALE) > 0;
}

}  // namespace

void AllowLeftovers(std::size_t fds, std::size_t threads) {
  s_allowed_fds = fds;
  s_allowed_threads = threads;
}

bool WaitFor(const std::function<bool()>& holds, int milliseconds) {
  const auto span = std::chrono::milliseconds(milliseconds) * HUTIL_TEST_TIMEOUT_SCALE;
  const auto end = std::chrono::steady_clock::now() + span;
  while (!holds()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

std::string CertPath(const std::string& name) { return HUTIL_CERT_DIR "/" + name; }

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.good()) << path;
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  EXPECT_TRUE(file << text << std::flush) << path;
}

std::uint16_t LocalPort(int fd) {
  sockaddr_in6 address{};  // whose port lies where IPv4's does
  socklen_t size = sizeof(address);
  EXPECT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size));
  return ntohs(address.sin6_port);
}

TempDir::TempDir() { EXPECT_NE(nullptr, mkdtemp(&path_[0])); }

TempDir::~TempDir() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

// Straight to the kernel, past the faults.
RawClient::RawClient(std::uint16_t port)
    : fd_(static_cast<int>(syscall(SYS_socket, AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(0, syscall(SYS_connect, fd_, &address, sizeof(address)));
}

void RawClient::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

void RawClient::Reset() {
  const linger abort{1, 0};
  EXPECT_EQ(0, syscall(SYS_setsockopt, fd_, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort)));
  Close();
}

bool RawClient::MoveAbove(int lowest) {
  const long moved = syscall(SYS_fcntl, fd_, F_DUPFD_CLOEXEC, lowest);
  Close();
  fd_ = static_cast<int>(moved);
  return fd_ >= lowest;
}
bool RawClient::Send(const std::string& data) {
  const long size = static_cast<long>(data.size());
  return syscall(SYS_sendto, fd_, data.data(), size, MSG_NOSIGNAL, nullptr, 0) == size;
}

std::string RawClient::Recv(std::size_t size, int milliseconds) {
  std::string data;
  char chunk[4096];
  while (data.size() < size && Ready(fd_, milliseconds)) {
    const std::size_t want = std::min(size - data.size(), sizeof(chunk));
    const long got = syscall(SYS_recvfrom, fd_, chunk, want, 0, nullptr, nullptr);
    if (got <= 0) break;
    data.append(chunk, static_cast<std::size_t>(got));
  }
  return data;
}

bool RawClient::ClosedByPeer(int milliseconds) {
  char chunk[4096];
  while (Ready(fd_, milliseconds)) {
    if (syscall(SYS_recvfrom, fd_, chunk, sizeof(chunk), 0, nullptr, nullptr) <= 0) return true;
  }
  return false;
}

}  // namespace hutil_test

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);  // as every daemon does
  testing::InitGoogleMock(&argc, argv);
  // Thread sanitizer adds a thread of its own to the first: before anything is counted.
  std::thread([] {}).join();
  testing::UnitTest::GetInstance()->listeners().Append(new hutil_test::LeakCheck);
  return RUN_ALL_TESTS();
}
