// What every test starts from. The kit's main() fails a test that leaves a descriptor or a thread
// behind.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>

#include "support/Faults.h"
#include "support/SyslogCapture.h"

namespace hutil_test {

// What the running test may leave by contract: the monitors of a registry, singletons.
void AllowLeftovers(std::size_t fds, std::size_t threads);

// This and every other limit here is stretched for slow builds (HUTIL_TEST_TIMEOUT_SCALE).
bool WaitFor(const std::function<bool()>& holds, int milliseconds);

std::string CertPath(const std::string& name);
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& text);
std::uint16_t LocalPort(int fd);

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_ = "/tmp/hutil-XXXXXX";
};

// A stranger's TCP client on 127.0.0.1. Faults never meet its calls.
class RawClient {
 public:
  explicit RawClient(std::uint16_t port);
  ~RawClient() { Close(); }
  RawClient(const RawClient&) = delete;

  int fd() const { return fd_; }
  void Close();
  void Reset();                // closes with RST
  bool MoveAbove(int lowest);  // leaves the low numbers to the library
  bool Send(const std::string& data);
  // Up to `size` bytes; fewer when the peer closes, or stays silent for that long.
  std::string Recv(std::size_t size, int milliseconds = 2000);
  bool ClosedByPeer(int milliseconds = 2000);  // end of stream or RST; drops what comes before

 private:
  int fd_;
};

}  // namespace hutil_test
