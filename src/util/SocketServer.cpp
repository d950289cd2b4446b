#include "util/SocketServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <thread>
#include <utility>

#include "util/internal/Log.h"
#include "util/internal/ReceiveBuffer.h"
#include "util/internal/Select.h"
#include "util/internal/SocketAddress.h"

namespace hvn {
namespace util {

namespace {

constexpr char kFdCallback[] = "void hvn::util::SocketServer::FdCallback(int, hvn::util::FdType)";
constexpr int kBacklog = 5;
constexpr uint32_t kRecvBufSize = 8192;
constexpr int kNoFd = -1;
constexpr int64_t kStopWaitUs = 100000;
constexpr int kStopWaits = 10;

/// Waits for nothing: the event may be old, and the number another's by now, who may have nothing
/// to read.
void DrainStranger(int fd, char* scratch, size_t size) {
  if (WaitUntilReadable(fd, 0) && read(fd, scratch, size) < 0) return;
}

}  // namespace

// The wrapper is stored before the loop can hear of a client: none may miss its handshake.
SocketServer::SocketServer(std::string path, Socket::Protocol protocol, Socket::Domain domain,
                           DataCallback cb, SslWrapper* ssl)
    : Socket(std::move(path), protocol, domain, SocketOption()),
      recv_buf_size_(kRecvBufSize),
      data_cb_(std::move(cb)),
      ssl_(ssl) {
  Listen(kBacklog);
  if (!data_cb_ || fd_ <= 0) return;
  fd_monitor_ = std::make_unique<FdMonitor>();
  fd_monitor_->Add(fd_, kRead, [this](int fd, FdType type) { FdCallback(fd, type); });
}

SocketServer::~SocketServer() { ReleaseLoop(); }

/// Lets no further event in and waits for the one under way. A peer that holds it up (by its
/// handshake, within a TLS record, or by not reading an answer) is cut off after a moment, or the
/// loop's thread could not be joined.
void SocketServer::ReleaseLoop() {
  std::lock_guard<Mutex> lock(mutex_);
  stopping_ = true;
  for (int i = 0; busy_ && i < kStopWaits; ++i) idle_.WaitUntil(mutex_, kStopWaitUs);
  if (!busy_) return;
  shutdown(fd_, SHUT_RDWR);
  if (handshake_fd_ != kNoFd) shutdown(handshake_fd_, SHUT_RDWR);
  for (const auto& client : clients_) shutdown(client.first, SHUT_RDWR);
}

void SocketServer::SetNewClientCb(NewClientCallback cb) {
  if (protocol_ != kTcp) return;
  std::lock_guard<Mutex> lock(mutex_);
  new_client_cb_.swap(cb);  // the replaced one goes with the argument, without the lock
}

ssize_t SocketServer::SendTo(int fd, void* data, size_t size) {
  if (protocol_ == kUdp) return fd == fd_ ? Socket::Send(data, size) : -1;
  if (protocol_ != kTcp) return -1;
  if (IsInEventOf(fd)) return SendToClient(fd, data, size);
  if (!BeginSend(fd)) return -1;
  const ssize_t sent = SendToClient(fd, data, size);
  EndSend(fd);
  return sent;
}

ssize_t SocketServer::SendToClient(int fd, const void* data, size_t size) {
  return ssl_ != nullptr ? ssl_->Send(fd, data, size) : Socket::SendTo(fd, data, size);
}

ssize_t SocketServer::SendTo(int fd, std::string data) {
  return SendTo(fd, data.data(), data.size());
}

ssize_t SocketServer::SendTo(std::string path, std::string data) {
  return Socket::SendTo(std::move(path), std::move(data));
}

void SocketServer::AddFd(int fd, std::string path) {
  std::lock_guard<Mutex> lock(mutex_);
  if (!clients_.emplace(fd, std::move(path)).second || !fd_monitor_) return;
  fd_monitor_->Add(fd, kRead, [this](int ready, FdType type) { FdCallback(ready, type); });
}

void SocketServer::RemoveFd(int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  RemoveLocked(fd);
}

void SocketServer::RemoveLocked(int fd) {
  const auto found = clients_.find(fd);
  if (found == clients_.end()) return;
  HUTIL_LOG(LOG_DEBUG, "%s %d: remove fd [%d] path [%s]\n",
            "void hvn::util::SocketServer::RemoveFd(int)", __LINE__, fd, found->second.c_str());
  clients_.erase(found);
  if (fd == event_client_) SetEventThread(std::thread::id());
  if (fd_monitor_) fd_monitor_->Remove(fd, kRead);
}

void SocketServer::FdCallback(int fd, FdType /*type*/) {
  std::string path;
  if (!BeginEvent(fd, path)) return;
  if (fd != fd_) {
    ReceiveFromClient(fd, std::move(path));
  } else if (protocol_ == kTcp) {
    AcceptClient();
  } else if (protocol_ == kUdp) {
    ReceiveOneDatagram();
  }
  EndEvent();
}

/// False where the server is going. The event's thread knows its client without another look-up.
bool SocketServer::BeginEvent(int fd, std::string& path) {
  std::lock_guard<Mutex> lock(mutex_);
  busy_ = !stopping_;
  if (busy_ && fd != fd_ && FindLocked(fd, path)) {
    event_client_ = fd;
    SetEventThread(std::this_thread::get_id());
  }
  return busy_;
}

void SocketServer::EndEvent() {
  std::lock_guard<Mutex> lock(mutex_);
  SetEventThread(std::thread::id());
  busy_ = false;
  if (stopping_) idle_.Signal();
}

/// Relaxed, as the load below: a thread that finds itself there has written all that it goes on to
/// read, and no other thread does.
void SocketServer::SetEventThread(std::thread::id thread) {
  event_thread_.store(thread, std::memory_order_relaxed);
}

/// Whether `fd` is the client whose event the calling thread is in: only that thread may close it.
bool SocketServer::IsInEventOf(int fd) const {
  return event_thread_.load(std::memory_order_relaxed) == std::this_thread::get_id() &&
         event_client_ == fd;
}

bool SocketServer::FindLocked(int fd, std::string& path) const {
  const auto found = clients_.find(fd);
  if (found == clients_.end()) return false;
  path = found->second;
  return true;
}

bool SocketServer::FindClient(int fd, std::string& path) {
  std::lock_guard<Mutex> lock(mutex_);
  return FindLocked(fd, path);
}

bool SocketServer::BeginSend(int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  if (clients_.count(fd) == 0) return false;
  sending_.push_back(fd);
  return true;
}

void SocketServer::EndSend(int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  sending_.erase(std::find(sending_.begin(), sending_.end(), fd));
  const auto left = std::find(left_.begin(), left_.end(), fd);
  if (left == left_.end() || IsSending(fd)) return;
  left_.erase(left);
  close(fd);
}

bool SocketServer::IsSending(int fd) const {
  return std::find(sending_.begin(), sending_.end(), fd) != sending_.end();
}

/// One read, or as many as it takes to empty what the TLS layer holds decrypted: select does not
/// see those bytes, and the rest of a record would wait for the peer's next one.
void SocketServer::ReceiveFromClient(int fd, std::string&& path) {
  const ReceiveBuffer buffer = MakeReceiveBuffer(recv_buf_size_);
  if (!buffer) return;
  if (!IsInEventOf(fd) && !FindClient(fd, path)) {
    HUTIL_LOG(LOG_ERR, "%s %d: Unknown client fd [%d]\n", kFdCallback, __LINE__, fd);
    DrainStranger(fd, buffer.get(), recv_buf_size_);
    return;
  }
  while (ReadOnce(fd, std::move(path), buffer.get()) && ssl_ != nullptr && ssl_->Pending(fd) > 0 &&
         FindClient(fd, path)) {
  }
}

bool SocketServer::ReadOnce(int fd, std::string&& path, char* buffer) {
  const ssize_t n = ssl_ != nullptr ? ssl_->Recv(fd, buffer, recv_buf_size_)
                                    : recv(fd, buffer, recv_buf_size_, 0);
  if (n < 1) {
    if (n != 0) HUTIL_LOG(LOG_ERR, "%s %d: errno [%d]\n", kFdCallback, __LINE__, errno);
    DropClient(fd);
    return false;
  }
  ZeroRest(buffer, n, recv_buf_size_);
  if (data_cb_) data_cb_(fd_, fd, std::move(path), buffer, static_cast<size_t>(n));
  return true;
}

/// Closing and forgetting are one step: the number may be another client's right after. Where
/// another thread is still sending, that closes, or its bytes could go to the number's next owner.
/// A client that was taken out meanwhile is its taker's to close.
void SocketServer::DropClient(int fd) {
  {
    std::lock_guard<Mutex> lock(mutex_);
    if (clients_.count(fd) == 0) return;
    shutdown(fd, SHUT_RDWR);
    if (IsSending(fd)) {
      left_.push_back(fd);
    } else {
      close(fd);
    }
    RemoveLocked(fd);
  }
  if (ssl_ != nullptr) ssl_->RemoveClient(fd);
}

void SocketServer::AcceptClient() {
  std::string path;
  const int client = Accept(path);
  HUTIL_LOG(LOG_DEBUG, "%s %d: add fd [%d] path [%s] server path [%s] proto [%s]\n", kFdCallback,
            __LINE__, client, path.c_str(), path_.c_str(), protocol_ == kTcp ? "tcp" : "udp");
  if (!AdmitClient(client)) {
    HUTIL_LOG(LOG_ERR, "%s %d: \n", kFdCallback, __LINE__);
    return;
  }
  AddFd(client, path);
  NewClientCallback new_client_cb;
  {
    std::lock_guard<Mutex> lock(mutex_);
    new_client_cb = new_client_cb_;
  }
  if (new_client_cb) new_client_cb(fd_, client, std::move(path));
}

/// Whether `client` may enter the table; if not, it is closed. A client on descriptor 0 enters
/// without a handshake.
bool SocketServer::AdmitClient(int client) {
  if (client < 0) return false;
  bool admitted = FitsSelect(client);
  if (admitted && ssl_ != nullptr && client > 0) {
    admitted = SetHandshake(client) && ssl_->Accept(client);
    SetHandshake(kNoFd);
  }
  if (!admitted) {
    shutdown(client, SHUT_RDWR);
    close(client);
  }
  return admitted;
}

/// False where the server is going: a handshake begun now would be waited for.
bool SocketServer::SetHandshake(int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  handshake_fd_ = fd;
  return !stopping_;
}

void SocketServer::ReceiveOneDatagram() {
  const ReceiveBuffer buffer = MakeReceiveBuffer(recv_buf_size_);
  if (!buffer) return;
  std::string path;
  const ssize_t n = ReceiveDatagram(fd_, domain_, buffer.get(), recv_buf_size_, path);
  if (n < 1) {
    HUTIL_LOG(LOG_ERR, "%s %d: fd [%d] recvfrom errno [%d]\n", kFdCallback, __LINE__, fd_, errno);
    return;
  }
  if (data_cb_) data_cb_(fd_, 0, std::move(path), buffer.get(), static_cast<size_t>(n));
}

}  // namespace util
}  // namespace hvn
