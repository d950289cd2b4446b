#include "util/SocketServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <utility>

#include "util/internal/Accept.h"
#include "util/internal/Client.h"
#include "util/internal/Datagram.h"
#include "util/internal/HeapBuffer.h"
#include "util/internal/IgnoreResult.h"
#include "util/internal/Log.h"
#include "util/internal/Select.h"

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
  if (WaitUntilReadable(fd, 0)) IgnoreResult(read(fd, scratch, size));
}

}  // namespace

// ---- The server itself ----

// The wrapper is stored before the loop can hear of a client: none may miss its handshake.
SocketServer::SocketServer(std::string path, Socket::Protocol protocol, Socket::Domain domain,
                           DataCallback cb, SslWrapper* ssl)
    : Socket(std::move(path), protocol, domain, SocketOption()),
      maker_(getpid()),
      recv_buf_size_(kRecvBufSize),
      data_cb_(std::move(cb)),
      ssl_(ssl) {
  Listen(kBacklog);
  if (!data_cb_ || fd_ <= 0) return;
  fd_monitor_ = std::make_unique<FdMonitor>();
  fd_monitor_->Add(fd_, kRead, LoopCallback());
}

/// In a forked child there is no loop to wait for, and the clients are still the parent's.
SocketServer::~SocketServer() {
  if (getpid() == maker_) ReleaseLoop();
}

/// Lets no further event in and waits for the one under way, which finds nobody in the table to
/// send to any more. What it still waits for after a moment (its peer's handshake or record, room
/// for an answer) is cut off, or the loop's thread could not be joined.
void SocketServer::ReleaseLoop() {
  std::lock_guard<Mutex> lock(mutex_);
  stopping_ = true;
  ClientTable clients;
  clients.swap(clients_);
  for (int i = 0; busy_ && i < kStopWaits; ++i) idle_.WaitUntil(mutex_, kStopWaitUs);
  if (!busy_) return;
  if (waits_for_ != kNoFd) shutdown(waits_for_, SHUT_RDWR);
  for (const auto& entry : clients) {
    const bool in_use = entry.second.use_count() > 1;  // by the event, or by a send of its callback
    if (in_use) shutdown(entry.first, SHUT_RDWR);
  }
}

FdMonitor::Callback SocketServer::LoopCallback() {
  return [this](int fd, FdType type) { FdCallback(fd, type); };
}

void SocketServer::SetNewClientCb(NewClientCallback cb) {
  if (protocol_ != kTcp) return;
  std::lock_guard<Mutex> lock(mutex_);
  new_client_cb_.swap(cb);  // the replaced one goes with the argument, without the lock
}

void SocketServer::FdCallback(int fd, FdType /*type*/) {
  ClientPtr client;
  if (!BeginEvent(fd, client)) return;
  if (fd != fd_) {
    ReceiveFromClient(fd, std::move(client));
  } else if (protocol_ == kTcp) {
    AcceptClient();
  } else if (protocol_ == kUdp) {
    ReceiveOneDatagram();
  }
  EndEvent();
}

/// False where the server is going.
bool SocketServer::BeginEvent(int fd, ClientPtr& client) {
  std::lock_guard<Mutex> lock(mutex_);
  if (stopping_) return false;
  busy_ = true;
  if (fd != fd_) client = FindLocked(fd);
  if (fd == fd_ && protocol_ == kTcp) waits_for_ = fd;  // where another process took the client
  return true;
}

void SocketServer::EndEvent() {
  std::lock_guard<Mutex> lock(mutex_);
  busy_ = false;
  waits_for_ = kNoFd;
  if (stopping_) idle_.Signal();
}

// ---- A client comes ----

void SocketServer::AcceptClient() {
  std::string path;
  const int client = Accept(path);
  const int error = errno;
  // Only TCP servers come here, so the protocol's other name never shows.
  HUTIL_LOG(LOG_DEBUG, "%s %d: add fd [%d] path [%s] server path [%s] proto [%s]\n", kFdCallback,
            __LINE__, client, path.c_str(), path_.c_str(), protocol_ == kTcp ? "tcp" : "udp");
  if (!AdmitClient(client)) {
    HUTIL_LOG(LOG_ERR, "%s %d: \n", kFdCallback, __LINE__);
    if (client < 0) PauseIfExhausted(error);
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
    admitted = BeginHandshake(client) && ssl_->Accept(client);
    EndHandshake();
  }
  if (!admitted) TurnAway(client);
  return admitted;
}

/// False where the server is going: a handshake begun now would be waited for.
bool SocketServer::BeginHandshake(int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  waits_for_ = fd;
  return !stopping_;
}

void SocketServer::EndHandshake() {
  std::lock_guard<Mutex> lock(mutex_);
  waits_for_ = kNoFd;
}

void SocketServer::AddFd(int fd, std::string path) {
  std::lock_guard<Mutex> lock(mutex_);
  if (clients_.count(fd) > 0) return;
  if (fd_monitor_) fd_monitor_->Add(fd, kRead, LoopCallback());
  clients_.emplace(fd, std::make_shared<Client>(fd, std::move(path)));
}

// ---- It sends ----

/// One read, or as many as it takes to empty what the TLS layer holds decrypted: select does not
/// see those bytes, and the rest of a record would wait for the peer's next one. The table is asked
/// again before each, since the callback may have taken the client out.
void SocketServer::ReceiveFromClient(int fd, ClientPtr client) {
  const HeapBuffer scratch = client ? nullptr : MakeRawBuffer(recv_buf_size_);
  if (scratch) {
    HUTIL_LOG(LOG_ERR, "%s %d: Unknown client fd [%d]\n", kFdCallback, __LINE__, fd);
    DrainStranger(fd, scratch.get(), recv_buf_size_);
  }
  while (client && ReadOnce(client) && ssl_ != nullptr && ssl_->Pending(fd) > 0) {
    client = FindClient(fd);
  }
}

bool SocketServer::ReadOnce(ClientPtr& client) {
  const HeapBuffer buffer = MakeZeroedBuffer(recv_buf_size_);
  if (!buffer) return false;
  const ssize_t n = ssl_ != nullptr ? ssl_->Recv(client->fd, buffer.get(), recv_buf_size_)
                                    : recv(client->fd, buffer.get(), recv_buf_size_, 0);
  if (n < 1) {
    if (n != 0) HUTIL_LOG(LOG_ERR, "%s %d: errno [%d]\n", kFdCallback, __LINE__, errno);
    DropClient(client);
    return false;
  }
  if (data_cb_) data_cb_(fd_, client->fd, client->path, buffer.get(), static_cast<size_t>(n));
  return true;
}

void SocketServer::ReceiveOneDatagram() {
  const HeapBuffer buffer = MakeZeroedBuffer(recv_buf_size_);
  if (!buffer) return;
  std::string path;
  const ssize_t n = ReceiveDatagram(fd_, domain_, buffer.get(), recv_buf_size_, path);
  if (n < 1) {
    HUTIL_LOG(LOG_ERR, "%s %d: fd [%d] recvfrom errno [%d]\n", kFdCallback, __LINE__, fd_, errno);
    return;
  }
  if (data_cb_) data_cb_(fd_, 0, std::move(path), buffer.get(), static_cast<size_t>(n));
}

// ---- It is answered ----

ssize_t SocketServer::SendTo(int fd, void* data, size_t size) {
  if (protocol_ == kUdp) return fd == fd_ ? Socket::Send(data, size) : -1;
  if (protocol_ != kTcp) return -1;
  const ClientPtr client = FindClient(fd);
  if (!client) return -1;
  return ssl_ != nullptr ? ssl_->Send(fd, data, size) : Socket::SendTo(fd, data, size);
}

ssize_t SocketServer::SendTo(int fd, std::string data) {
  return SendTo(fd, data.data(), data.size());
}

ssize_t SocketServer::SendTo(std::string path, std::string data) {
  return Socket::SendTo(std::move(path), std::move(data));
}

ClientPtr SocketServer::FindClient(int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  return FindLocked(fd);
}

ClientPtr SocketServer::FindLocked(int fd) const {
  const auto found = clients_.find(fd);
  return found == clients_.end() ? nullptr : found->second;
}

// ---- It goes ----

/// Closing and forgetting are one step: the number may be another client's right after. Where
/// another thread is still sending, that closes. One that was taken out meanwhile is its taker's.
void SocketServer::DropClient(ClientPtr& client) {
  const int fd = client->fd;
  {
    std::lock_guard<Mutex> lock(mutex_);
    if (FindLocked(fd) != client) return;
    shutdown(fd, SHUT_RDWR);
    client->dropped = true;
    Forget(fd, std::move(client));
  }
  if (ssl_ != nullptr) ssl_->RemoveClient(fd);
}

void SocketServer::RemoveFd(int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  if (ClientPtr client = FindLocked(fd)) Forget(fd, std::move(client));
}

/// With the lock held. The last reference may be the one given, which closes a dropped client.
void SocketServer::Forget(int fd, ClientPtr client) {
  const std::string path = client->path;
  clients_.erase(fd);
  client.reset();
  HUTIL_LOG(LOG_DEBUG, "%s %d: remove fd [%d] path [%s]\n",
            "void hvn::util::SocketServer::RemoveFd(int)", __LINE__, fd, path.c_str());
  if (fd_monitor_) fd_monitor_->Remove(fd, kRead);
}

}  // namespace util
}  // namespace hvn
