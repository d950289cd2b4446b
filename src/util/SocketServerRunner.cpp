#include "util/SocketServerRunner.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <mutex>
#include <utility>

#include "util/internal/Accept.h"
#include "util/internal/Client.h"
#include "util/internal/CurrentEvent.h"
#include "util/internal/Datagram.h"
#include "util/internal/HeapBuffer.h"
#include "util/internal/Log.h"
#include "util/internal/PeerWatch.h"
#include "util/internal/Select.h"

namespace hvn {
namespace util {

namespace {

constexpr char kFdCallback[] =
    "void hvn::util::SocketServerRunner::FdCallback(int, hvn::util::FdType)";
constexpr char kSetClientGoneCb[] =
    "void hvn::util::SocketServerRunner::SetClientGoneCb("
    "hvn::util::SocketServerRunner::ClientGoneCallback)";
constexpr uint32_t kRecvBufSize = 32768;
constexpr int kAcceptWaitMs = 1;

}  // namespace

SocketServerRunner::SocketServerRunner(DataCallback cb)
    : recv_buf_size_(kRecvBufSize),
      data_cb_(std::move(cb)),
      fd_monitor_(std::make_unique<FdMonitor>()) {}

SocketServerRunner::~SocketServerRunner() = default;

void SocketServerRunner::SetClientGoneCb(ClientGoneCallback cb) {
  std::lock_guard<Mutex> lock(mutex_);
  client_gone_cb_.swap(cb);  // the replaced one goes with the argument, without the lock
  tells_of_departed_ = client_gone_cb_ != nullptr;
  if (watch_ || !client_gone_cb_) return;
  watch_ = std::make_unique<PeerWatch>();
  if (watch_->fd() < 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: cannot watch peers errno [%d]\n", kSetClientGoneCb, __LINE__, errno);
  }
  fd_monitor_->Add(watch_->fd(), kRead, [this](int /*fd*/, FdType /*type*/) {
    watch_->Serve([](int /*fd*/) {}, [] { return INT64_MAX; });
    TellOfDeparted();
  });
}

FdMonitor::Callback SocketServerRunner::LoopCallback() {
  return [this](int fd, FdType type) { FdCallback(fd, type); };
}

bool SocketServerRunner::AddServer(Socket* server) {
  if (server == nullptr) return false;
  const int fd = server->fd();
  std::lock_guard<Mutex> lock(mutex_);
  for (const ServerInfo& info : servers_) {
    if (info.server != server && info.fd != fd) continue;
    HUTIL_LOG(LOG_ERR, "%s %d: server [%p] fd [%d] is already in the list\n",
              "bool hvn::util::SocketServerRunner::AddServer(hvn::util::Socket*)", __LINE__,
              static_cast<void*>(server), fd);
    return false;
  }
  servers_.push_back({server, fd, {}});
  fd_monitor_->Add(fd, kRead, LoopCallback());
  return true;
}

bool SocketServerRunner::RemoveServer(int fd) { return RemoveMatching(nullptr, fd); }

bool SocketServerRunner::RemoveServer(Socket* server) {
  return server == nullptr || RemoveMatching(server, server->fd());
}

bool SocketServerRunner::RemoveMatching(const Socket* server, int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  servers_.remove_if([&](const ServerInfo& info) {
    if (info.server != server && info.server->fd() != fd) return false;
    for (const auto& client : info.clients) Note(info, client.first, client.second);
    fd_monitor_->Remove(fd, kRead);
    return true;
  });
  return true;
}

void SocketServerRunner::AddFd(Socket* server, int fd, std::string path) {
  std::lock_guard<Mutex> lock(mutex_);
  for (ServerInfo& info : servers_) {
    if (info.server != server || info.clients.count(fd) > 0) continue;
    fd_monitor_->Add(fd, kRead, LoopCallback());
    info.clients.emplace(fd, std::move(path));
    return;
  }
}

void SocketServerRunner::RemoveFd(Socket* server, int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  if (Forget(server, fd)) fd_monitor_->Remove(fd, kRead);
}

/// With the lock held: the client, which it is no longer, or null where it was none.
SocketServerRunner::ClientPtr SocketServerRunner::Forget(const Socket* server, int fd) {
  for (ServerInfo& info : servers_) {
    const auto found = info.clients.find(fd);
    if (info.server != server || found == info.clients.end()) continue;
    ClientPtr client = Note(info, fd, found->second);
    info.clients.erase(found);
    return client;
  }
  return nullptr;
}

/// With the lock held: a client that leaves, to be told of by the loop.
SocketServerRunner::ClientPtr SocketServerRunner::Note(const ServerInfo& server, int fd,
                                                       const std::string& path) {
  auto client = std::make_shared<Client>(fd, path, nullptr);
  if (client_gone_cb_) {
    departed_.emplace_back(server.fd, client);
    watch_->Ring();
  }
  return client;
}

/// The records keep the descriptors of closed clients open until the daemon has heard of them.
void SocketServerRunner::TellOfDeparted() {
  for (;;) {
    decltype(departed_) departed;
    ClientGoneCallback client_gone_cb;
    {
      std::lock_guard<Mutex> lock(mutex_);
      departed.swap(departed_);
      client_gone_cb = client_gone_cb_;
    }
    if (departed.empty()) return;
    for (const auto& entry : departed) {
      if (client_gone_cb) client_gone_cb(entry.first, entry.second->fd, entry.second->path);
    }
  }
}

/// What `fd` is decides less than its path: a client without one is handled as its server.
void SocketServerRunner::FdCallback(int fd, FdType /*type*/) {
  Origin origin;
  Socket* const server = FindServer(fd, origin);
  if (server == nullptr) {
    HUTIL_LOG(LOG_ERR,
              "%s %d: This is very weird situation close this fd and remove this fd from monitor",
              kFdCallback, __LINE__);
    RemoveServer(fd);
    close(fd);
  } else if (!origin.path.empty()) {
    ReceiveFromClient(server, fd, origin.path);
  } else if (server->protocol() == Socket::kTcp) {
    AcceptClient(server, origin.may_wait);
  } else if (server->protocol() == Socket::kUdp) {
    ReceiveDatagram(server, fd);
  }
}

/// The server that `fd` is, or that it is a client of, in which case its path is given too.
Socket* SocketServerRunner::FindServer(int fd, Origin& origin) {
  std::lock_guard<Mutex> lock(mutex_);
  for (const ServerInfo& info : servers_) {
    const auto client = info.clients.find(fd);
    if (info.fd != fd && client == info.clients.end()) continue;
    if (info.fd != fd) origin.path = client->second;
    origin.may_wait = info.fd != fd || HasUnnamedClient(info);
    return info.server;
  }
  return nullptr;
}

bool SocketServerRunner::HasUnnamedClient(const ServerInfo& info) {
  return std::any_of(info.clients.begin(), info.clients.end(),
                     [](const auto& client) { return client.second.empty(); });
}

/// An unnamed client's event comes here too, and finds nobody to accept, or takes the one whom the
/// server's own event of the same pass is about: an accept that may wait does so for a moment only,
/// and counts as failed then.
void SocketServerRunner::AcceptClient(Socket* server, bool may_wait) {
  std::string path;
  const bool comes = !may_wait || WaitUntilReadable(server->fd(), kAcceptWaitMs);
  const int client = comes ? server->Accept(path) : -1;
  const int error = comes ? errno : 0;
  if (tells_of_departed_) TellOfDeparted();  // one of whom may have had the number
  HUTIL_LOG(LOG_DEBUG, "%s %d: server [%d:%s] accept client [%d:%s\n", kFdCallback, __LINE__,
            server->fd(), server->path().c_str(), client, path.c_str());
  if (client < 0) PauseIfExhausted(error);
  if (client <= 0) return;
  if (FitsSelect(client)) {
    AddFd(server, client, std::move(path));
  } else {
    TurnAway(client);
  }
}

void SocketServerRunner::ReceiveDatagram(Socket* server, int fd) {
  ReceiveDatagrams(fd, server->domain(), recv_buf_size_, kFdCallback,
                   [this, server](const Sender& sender, char* data, size_t size) {
                     const CurrentEvent event(this, *server, sender);
                     if (data_cb_) data_cb_(server->fd(), 0, sender.path, data, size);
                     return event.is_answered();
                   });
}

void SocketServerRunner::ReceiveFromClient(Socket* server, int fd, const std::string& path) {
  const HeapBuffer buffer = MakeZeroedBuffer(recv_buf_size_);
  if (!buffer) return;
  const ssize_t n = recv(fd, buffer.get(), recv_buf_size_, 0);
  if (n < 1) {
    HUTIL_LOG(LOG_ERR, "%s %d: errno [%d]\n", kFdCallback, __LINE__, errno);
    if (n == 0) CloseClient(server, fd);
    return;
  }
  if (!data_cb_) return;
  const CurrentEvent event(this, *server, fd, nullptr);
  data_cb_(server->fd(), fd, path, buffer.get(), static_cast<size_t>(n));
}

ssize_t SocketServerRunner::Reply(const void* data, size_t size) {
  const CurrentEvent* const event = CurrentEvent::Of(this);
  if (event == nullptr) return -1;
  if (event->sender() != nullptr) {
    event->NoteAnswer();
    return event->server().ReplyTo(*event->sender(), data, size);
  }
  const int fd = event->client_fd();
  Origin origin;
  return FindServer(fd, origin) == &event->server() ? event->server().SendTo(fd, data, size) : -1;
}

/// In one step, since the number may be another client's right after. One that was taken out
/// meanwhile is its taker's to close.
void SocketServerRunner::CloseClient(const Socket* server, int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  ClientPtr client = Forget(server, fd);
  if (!client) return;
  client->dropped = true;
  client.reset();
  fd_monitor_->Remove(fd, kRead);
}

ssize_t SocketServerRunner::Send(int /*fd*/, void* /*data*/, size_t /*size*/) { return -1; }

ssize_t SocketServerRunner::Send(int /*fd*/, std::string /*data*/) { return -1; }

ssize_t SocketServerRunner::SendTo(int /*fd*/, std::string /*path*/, std::string /*data*/) {
  return -1;
}

}  // namespace util
}  // namespace hvn
