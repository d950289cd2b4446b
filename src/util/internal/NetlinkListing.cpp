#include "util/internal/NetlinkListing.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <utility>

#include "util/internal/HeapBuffer.h"
#include "util/internal/Log.h"
#include "util/internal/NetlinkEvents.h"
#include "util/internal/Select.h"

namespace hvn {
namespace util {

namespace {

constexpr char kResync[] = "void hvn::util::NetworkManager::Resync()";
constexpr size_t kBufferSize = 32768;  // what the kernel fills at the most
constexpr int kMostRepeats = 3;

}  // namespace

NetlinkListing::NetlinkListing(FdMonitor* monitor, Deliver deliver)
    : monitor_(monitor), deliver_(std::move(deliver)) {}

void NetlinkListing::Request() {
  std::lock_guard<Mutex> lock(mutex_);
  repeats_ = 0;
  if (fd_ >= 0) {
    again_ = true;
  } else {
    BeginLocked();
  }
}

void NetlinkListing::BeginLocked() {
  again_ = false;
  is_stale_ = false;
  fd_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (FitsSelect(fd_) && Ask(RTM_GETLINK)) {
    monitor_->Add(fd_, kRead, [this](int fd, FdType /*type*/) { OnReadable(fd); });
    return;
  }
  Fail("begin", fd_ >= FD_SETSIZE ? EMFILE : errno);
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

bool NetlinkListing::Ask(uint16_t type) {
  struct {
    nlmsghdr header;
    rtgenmsg body;
  } request = {};
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = type;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.body.rtgen_family = AF_UNSPEC;
  asked_ = type;
  return send(fd_, &request, sizeof(request), 0) == static_cast<ssize_t>(sizeof(request));
}

void NetlinkListing::OnReadable(int fd) {
  const HeapBuffer buffer = MakeZeroedBuffer(kBufferSize);
  const ssize_t n = buffer ? recv(fd, buffer.get(), kBufferSize, MSG_DONTWAIT) : -1;
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (n < 1) {
    Fail("read", errno);
    End();
    return;
  }
  ByteView left(buffer.get(), static_cast<size_t>(n), kBufferSize);
  for (ByteView message = left; TakeNetlinkMessage(left, message);) {
    if (TakeMessage(message)) continue;
    End();
    return;
  }
}

/// False at the end of the listing. Both messages that end it carry a negative errno, or none.
bool NetlinkListing::TakeMessage(const ByteView& message) {
  const uint16_t type = NetlinkMessageType(message);
  const auto flags = message.Read<uint16_t>(offsetof(nlmsghdr, nlmsg_flags));
  is_stale_ = is_stale_ || (flags & NLM_F_DUMP_INTR) != 0;
  if (type == NLMSG_DONE || type == NLMSG_ERROR) {
    const auto error = message.Read<int32_t>(sizeof(nlmsghdr));
    if (error < 0) Fail("finish", -error);
    if (error < 0 || asked_ == RTM_GETADDR) return false;
    if (Ask(RTM_GETADDR)) return true;
    Fail("go on", errno);
    return false;
  }
  if (message.size() < kNetlinkEventHeader) return true;
  EventDic event = DecodeNetlinkEvent(message);
  if (event.type_ != EventDic::kEventNone) deliver_(event);
  return true;
}

void NetlinkListing::Fail(const char* what, int error) {
  HUTIL_LOG(LOG_ERR, "%s %d: cannot %s listing the network errno [%d]\n", kResync, __LINE__, what,
            error);
}

void NetlinkListing::End() {
  std::lock_guard<Mutex> lock(mutex_);
  monitor_->Remove(fd_, kRead);
  close(fd_);
  fd_ = -1;
  const bool repeats = is_stale_ && repeats_++ < kMostRepeats;
  if (again_ || repeats) BeginLocked();
}

}  // namespace util
}  // namespace hvn
