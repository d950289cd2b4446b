#include "util/internal/Datagram.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "util/internal/Deadline.h"
#include "util/internal/HeapBuffer.h"
#include "util/internal/Log.h"
#include "util/internal/SocketSend.h"

namespace hvn {
namespace util {

namespace {

constexpr char kSendTo[] = "ssize_t hvn::util::Socket::SendTo(std::string, const void*, size_t)";
constexpr useconds_t kPauseUs = 1000;
constexpr int kMostAtOnce = 16;

/// False at the end. poll cannot tell of room in a peer's queue that no connection leads to.
bool PauseWithin(const Deadline& deadline) {
  if (deadline.RemainingMs() == 0) return false;
  usleep(kPauseUs);
  return true;
}

}  // namespace

ssize_t SendDatagram(int fd, const Destination& to, const void* data, size_t size, int limit_ms) {
  const Deadline deadline(limit_ms);
  const int flags = limit_ms > 0 ? MSG_DONTWAIT | MSG_NOSIGNAL : 0;
  size_t sent = 0;
  while (sent < size) {
    const ssize_t n = sendto(fd, static_cast<const char*>(data) + sent, size - sent, flags,
                             to.address.get(), to.address.length());
    int error = errno;
    if (n > 0) {
      sent += std::min(static_cast<size_t>(n), size - sent);
      continue;
    }
    if (limit_ms > 0 && error == EAGAIN) {
      if (PauseWithin(deadline)) continue;
      error = ETIMEDOUT;
    }
    if (limit_ms > 0 || !WorthRetrying(error)) {
      HUTIL_LOG(LOG_ERR, "%s %d: errno [%d] cannot send data to [%s]\n", kSendTo, __LINE__, error,
                to.path);
      break;
    }
    HUTIL_LOG(LOG_ERR, "%s %d: errno [%d] send ret [%zd] try one more time\n", kSendTo, __LINE__,
              error, n);
  }
  return static_cast<ssize_t>(sent);
}

void ReceiveDatagrams(int fd, Socket::Domain domain, size_t buffer_size, const char* function,
                      const DatagramCallback& callback) {
  const HeapBuffer buffer = MakeZeroedBuffer(buffer_size);
  for (int count = 0; buffer && count < kMostAtOnce; ++count) {
    Sender sender;
    sender.address.Expect(domain);
    const ssize_t n = recvfrom(fd, buffer.get(), buffer_size, count == 0 ? 0 : MSG_DONTWAIT,
                               sender.address.data(), sender.address.mutable_length());
    if (n < 0 && count > 0 && errno == EAGAIN) return;
    if (n < 1) {
      HUTIL_LOG(LOG_ERR, "%s %d: fd [%d] recvfrom errno [%d]\n", function, __LINE__, fd, errno);
      return;
    }
    const bool is_named = domain == Socket::kUnix || domain == Socket::kIpv4;
    if (is_named) sender.path = sender.address.Text(domain);
    if (!callback(sender, buffer.get(), static_cast<size_t>(n))) return;
    std::memset(buffer.get(), 0, static_cast<size_t>(n));
  }
}

}  // namespace util
}  // namespace hvn
