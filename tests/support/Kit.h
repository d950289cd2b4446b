// What every test starts from. Its main() fails a test that leaves a descriptor or a thread behind.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <string>

#include "support/Faults.h"
#include "support/SyslogCapture.h"

namespace hutil_test {

// What the running test may leave because nothing ever ends it: monitors of a registry, singletons.
void AllowLeftovers(std::size_t fds, std::size_t threads);

// Every limit here is stretched for slow builds (HUTIL_TEST_TIMEOUT_SCALE).
int Stretched(int milliseconds);
bool WaitFor(const std::function<bool()>& holds, int milliseconds);
bool WaitUntilReadable(int fd, int milliseconds);
inline bool WaitForLog(const std::string& format, int milliseconds) {
  return WaitFor([&format] { return CountLogged(format) > 0; }, milliseconds);
}

inline int NextFd() {  // the number that the next descriptor gets
  const int fd = int(syscall(SYS_fcntl, STDERR_FILENO, F_DUPFD, 0));
  close(fd);
  return fd;
}
// Whether that thread of ours comes to a wait.
bool WaitUntilAsleep(long tid);
// Holds up the one who passes, until it is opened.
struct Barrier {
  void Pass() {
    reached.set_value();
    open.get_future().wait();
  }
  void AwaitArrival() { reached.get_future().wait(); }
  std::promise<void> reached, open;
};
// Whether `action`, on a thread of its own, waits until the barrier is opened, which happens here.
bool WaitsFor(Barrier& barrier, const std::function<void()>& action);
// Whether a forked child, which has the calling thread only, comes to the end of `body` in time.
bool EndsInChild(const std::function<void()>& body);
void Shell(const std::string& command);

// Meanwhile no thread can be started: none can have the stack that is asked for.
void WithoutThreads(const std::function<void()>& body);

std::string CertPath(const std::string& name);
inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.good()) << path;
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}
inline void WriteFile(const std::string& path, const std::string& text) {
  EXPECT_TRUE(std::ofstream(path, std::ios::binary) << text << std::flush) << path;
}
inline std::uint16_t LocalPort(int fd) {
  sockaddr_in6 address{};  // whose port lies where IPv4's does
  socklen_t size = sizeof(address);
  EXPECT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size));
  return ntohs(address.sin6_port);
}

// Each test has a /tmp of its own.
struct TempDir {
  std::string operator/(const std::string& name) const { return "/tmp/" + name; }
};

// A stranger's TCP client on 127.0.0.1. Faults never meet its calls, which go to the kernel.
class RawClient {
 public:
  explicit RawClient(std::uint16_t port)
      : fd_(int(syscall(SYS_socket, AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))) {
    const sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    const bool connected = syscall(SYS_connect, fd_, &address, sizeof(address)) == 0;
    // Who is turned away at once hears of it here: FIN and RST may come before connect() returns.
    const int error = connected || errno == EPIPE ? 0 : errno;
    EXPECT_EQ(0, error);
  }
  ~RawClient() { Close(); }
  RawClient(const RawClient&) = delete;
  int fd() const { return fd_; }
  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }
  bool Send(const std::string& data) {
    const long size = long(data.size());
    return syscall(SYS_sendto, fd_, data.data(), size, MSG_NOSIGNAL, nullptr, 0) == size;
  }
  // Up to `size` bytes; fewer when the peer closes, or stays silent for that long.
  std::string Recv(std::size_t size, int milliseconds = 2000) {
    std::string data;
    char chunk[4096];
    while (data.size() < size && WaitUntilReadable(fd_, milliseconds)) {
      const std::size_t want = std::min(size - data.size(), sizeof(chunk));
      const long got = syscall(SYS_recvfrom, fd_, chunk, want, 0, nullptr, nullptr);
      if (got <= 0) break;
      data.append(chunk, std::size_t(got));
    }
    return data;
  }
  bool ClosedByPeer(int milliseconds = 2000) {  // end of stream or RST; drops what comes before
    Recv(SIZE_MAX, milliseconds);
    return WaitUntilReadable(fd_, 0);
  }

 private:
  int fd_;
};

}  // namespace hutil_test
