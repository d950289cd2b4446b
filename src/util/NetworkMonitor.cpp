#include "util/NetworkMonitor.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <utility>

#include "util/internal/ByteView.h"
#include "util/internal/Log.h"
#include "util/internal/NetlinkEvents.h"
#include "util/internal/NetlinkListing.h"
#include "util/internal/Select.h"
#include "util/internal/SocketOptions.h"

namespace hvn {
namespace util {

namespace {
constexpr char kFdCallback[] = "void hvn::util::NetworkMonitor::FdCallback(int, hvn::util::FdType)";
constexpr size_t kDatagramSize = 4096;
constexpr int kEnlargedBuffer = 1 << 20;
}  // namespace

NetworkMonitor* NetworkMonitor::s_ins_ = nullptr;

NetworkMonitor* NetworkMonitor::GetInstance() {
  static std::once_flag once;
  std::call_once(once, [] { s_ins_ = new NetworkMonitor(); });
  return s_ins_;
}

NetworkMonitor::NetworkMonitor()
    : socket_(
          std::make_unique<Socket>("", Socket::kRaw, Socket::kNetlink, Socket::SocketOption())) {
  static constexpr char kFunction[] = "hvn::util::NetworkMonitor::NetworkMonitor()";
  if (!FitsSelect(socket_->fd())) {  // none, or one that no loop can wait for
    HUTIL_LOG(LOG_ERR, "%s %d: Cannot create NETLINK socket\n", kFunction, __LINE__);
    return;
  }
  fd_monitor_ = FdMonitor::Get(0);
  if (fd_monitor_ == nullptr) fd_monitor_ = FdMonitor::Create();
  if (fd_monitor_ == nullptr) {
    HUTIL_LOG(LOG_ERR, "%s %d: Cannot create fd monitor", kFunction, __LINE__);
    return;
  }
  listing_ =
      std::make_unique<NetlinkListing>(fd_monitor_, [this](EventDic& event) { Dispatch(event); });
  fd_monitor_->Add(socket_->fd(), kRead, [this](int fd, FdType type) { FdCallback(fd, type); });
}

NetworkMonitor::~NetworkMonitor() {
  if (socket_->fd() > 0 && fd_monitor_ != nullptr) fd_monitor_->Remove(socket_->fd(), kRead);
}

void NetworkMonitor::FdCallback(int fd, FdType /*type*/) {
  ReadDatagram(fd);
  // While the queue is being read the kernel drops what comes: what is read afresh only then is so.
  if (has_lost_ && !WaitUntilReadable(fd, 0)) DispatchLoss();
}

void NetworkMonitor::ReadDatagram(int fd) {
  alignas(nlmsghdr) char buffer[kDatagramSize] = {};
  ssize_t n = tells_losses_ ? recv(fd, buffer, sizeof(buffer), MSG_TRUNC)
                            : read(fd, buffer, sizeof(buffer));
  if (n < 1) {
    has_lost_ = has_lost_ || (tells_losses_ && n < 0 && errno == ENOBUFS);
    HUTIL_LOG(LOG_ERR, "%s %d: Cannot read data from Network monitor", kFdCallback, __LINE__);
    return;
  }
  if (n > static_cast<ssize_t>(sizeof(buffer))) {  // as only recv tells
    has_lost_ = true;
    n = sizeof(buffer);
  }
  ByteView left(buffer, static_cast<size_t>(n), sizeof(buffer));
  for (ByteView message = left; TakeNetlinkMessage(left, message);) {
    if (message.size() < kNetlinkEventHeader) {
      HUTIL_LOG(LOG_ERR, "%s %d:  netlink packet too small or truncated", kFdCallback, __LINE__);
      return;
    }
    EventDic event = DecodeNetlinkEvent(message);
    if (event.type_ != EventDic::kEventNone) Dispatch(event);
  }
}

void NetworkMonitor::Dispatch(EventDic& event) {
  std::lock_guard<Mutex> lock(mutex_);
  for (const auto& entry : callbacks_) {
    if (entry.second) entry.second(event);
  }
}

void NetworkMonitor::DispatchLoss() {
  has_lost_ = false;
  std::lock_guard<Mutex> lock(mutex_);
  for (const auto& entry : loss_callbacks_) entry.second();
}

void NetworkMonitor::SetLossCallback(void* owner, LossCallback callback) {
  if (callback && fd_monitor_ != nullptr) EnlargeReceiveBuffer(socket_->fd(), kEnlargedBuffer);
  LossCallback replaced;  // destroyed without the lock: what it owns may call back in here
  std::lock_guard<Mutex> lock(mutex_);
  replaced.swap(loss_callbacks_[owner]);
  if (callback) {
    loss_callbacks_[owner] = std::move(callback);
  } else {
    loss_callbacks_.erase(owner);
  }
  tells_losses_ = !loss_callbacks_.empty();
}

void NetworkMonitor::Resync() {
  if (listing_) listing_->Request();
}

void NetworkMonitor::SetCallback(void* owner, EventCallback callback) {
  // The replaced callback goes with the argument, without the lock: what it owns may call back in.
  std::lock_guard<Mutex> lock(mutex_);
  callbacks_[owner].swap(callback);
}

void NetworkMonitor::RemoveCallback(void* owner) {
  decltype(callbacks_)::node_type removed;
  std::lock_guard<Mutex> lock(mutex_);
  removed = callbacks_.extract(owner);
}

}  // namespace util
}  // namespace hvn
