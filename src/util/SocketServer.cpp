#include "util/SocketServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <utility>

#include "util/internal/Accept.h"
#include "util/internal/Client.h"
#include "util/internal/ClientTable.h"
#include "util/internal/CurrentEvent.h"
#include "util/internal/Datagram.h"
#include "util/internal/Deadline.h"
#include "util/internal/EventGate.h"
#include "util/internal/HeapBuffer.h"
#include "util/internal/IgnoreResult.h"
#include "util/internal/Log.h"
#include "util/internal/Select.h"
#include "util/internal/ServerGuard.h"
#include "util/internal/SocketOptions.h"

namespace hvn {
namespace util {

namespace {

constexpr char kFdCallback[] = "void hvn::util::SocketServer::FdCallback(int, hvn::util::FdType)";
constexpr char kConstructor[] =
    "hvn::util::SocketServer::SocketServer(int, hvn::util::Socket::Protocol, "
    "hvn::util::Socket::Domain, hvn::util::SocketServer::DataCallback, hvn::util::SslWrapper*, "
    "hvn::util::SocketServer::SocketServerOption)";
constexpr uint32_t kRecvBufSize = 8192;
constexpr int kNoFd = -1;
constexpr int kCloseNotifyWaitMs = 1000;

/// Waits for nothing: the event may be old, and the number another's by now, who may have nothing
/// to read.
void DrainStranger(int fd, char* scratch, size_t size) {
  if (WaitUntilReadable(fd, 0)) IgnoreResult(read(fd, scratch, size));
}

}  // namespace

// ---- The server itself ----

SocketServer::SocketServer(std::string path, Socket::Protocol protocol, Socket::Domain domain,
                           DataCallback cb, SslWrapper* ssl)
    : SocketServer(std::move(path), protocol, domain, std::move(cb), ssl, SocketServerOption()) {}

SocketServer::SocketServer(std::string path, Socket::Protocol protocol, Socket::Domain domain,
                           DataCallback cb, SslWrapper* ssl, SocketServerOption option)
    : Socket(std::move(path), protocol, domain, option.socket_option),
      maker_(getpid()),
      recv_buf_size_(kRecvBufSize),
      server_option_(std::move(option)),
      data_cb_(std::move(cb)),
      ssl_(ssl) {
  Listen(server_option_.backlog);
  Start();
}

SocketServer::SocketServer(int fd, Socket::Protocol protocol, Socket::Domain domain,
                           DataCallback cb, SslWrapper* ssl)
    : SocketServer(fd, protocol, domain, std::move(cb), ssl, SocketServerOption()) {}

// Not through Listen, which closes a descriptor that it fails for.
SocketServer::SocketServer(int fd, Socket::Protocol protocol, Socket::Domain domain,
                           DataCallback cb, SslWrapper* ssl, SocketServerOption option)
    : Socket(fd, protocol, domain),
      maker_(getpid()),
      recv_buf_size_(kRecvBufSize),
      server_option_(std::move(option)),
      data_cb_(std::move(cb)),
      ssl_(ssl) {
  AdoptDescriptor();
  Start();
}

// Other processes may serve it too: an accept must not wait for the client that one of them took.
void SocketServer::AdoptDescriptor() {
  TuneSocket(fd_, server_option_.socket_option, false);
  if (protocol_ != kTcp) return;
  if (!IsListening(fd_) && listen(fd_, server_option_.backlog) != 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: cannot listen on fd [%d] errno [%d]\n", kConstructor, __LINE__, fd_,
              errno);
    fd_ = kNoFd;
  }
  SetNonBlock(true);
}

// All is in place before the loop can hear of a client: none may miss its handshake or its limits.
void SocketServer::Start() {
  const bool serves = data_cb_ && fd_ > 0;
  if (serves) fd_monitor_ = std::make_unique<FdMonitor>();
  gate_ = std::make_unique<EventGate>();
  clients_ = std::make_unique<ClientTable>(fd_monitor_.get(), LoopCallback());
  if (serves && StartGuard()) fd_monitor_->Add(fd_, kRead, LoopCallback());
}

/// False where the limits that were asked for cannot be had: nothing is served then.
bool SocketServer::StartGuard() {
  const int limit_ms = server_option_.peer_timeout_ms;
  if (limit_ms > 0) SetSendLimit(limit_ms);  // for datagrams
  if (protocol_ != kTcp || (limit_ms <= 0 && !server_option_.client_gone_cb)) return true;
  guard_ = std::make_unique<ServerGuard>(
      *clients_, ssl_, limit_ms,
      ServerGuard::Hooks{
          [this](std::string& path) { return WaitUntilReadable(fd_, 0) ? Accept(path) : kNoFd; },
          [this](int fd, const std::string& path) { Admit(fd, path); },
          [this](const ClientPtr& client) { ReceiveFromClient(client->fd, client); }});
  if (guard_->fd() < 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: cannot watch peers errno [%d]\n", kConstructor, __LINE__, errno);
    return false;
  }
  if (server_option_.client_gone_cb) {
    clients_->KeepDeparted([this] {
      if (!gate_->IsInside()) guard_->Wake();  // the loop tells at the end of its event
    });
  }
  fd_monitor_->Add(guard_->fd(), kRead, LoopCallback());
  return true;
}

/// In a forked child there is no loop to wait for, and the clients are still the parent's.
SocketServer::~SocketServer() {
  if (getpid() == maker_) {
    ReleaseLoop();
    return;
  }
  gate_->AbandonParent();
  if (guard_) guard_->AbandonParent();
  owns_fd_ = false;  // nor is the socket file removed or the listener shut down
  path_.clear();
}

/// Lets no further event in and waits for the one under way, which finds nobody in the table to
/// send to any more. What it still waits for after a moment (its peer's handshake or record, room
/// for an answer) is cut off, or the loop's thread could not be joined.
void SocketServer::ReleaseLoop() {
  gate_->Shut();
  const std::vector<ClientPtr> clients = clients_->Shut();
  if (gate_->AwaitEnd()) return;
  for (const ClientPtr& client : clients) {
    const bool in_use = client.use_count() > 1;  // by the event, or by a send of its callback
    if (in_use) shutdown(client->fd, SHUT_RDWR);
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

// The table is asked before the gate, which shuts before the table is emptied: an event that is let
// in has not missed its client.
void SocketServer::FdCallback(int fd, FdType /*type*/) {
  ClientPtr client = fd == fd_ ? nullptr : clients_->Find(fd);
  if (!gate_->Enter()) return;
  if (guard_ && fd == guard_->fd()) {
    guard_->Serve();
  } else if (fd != fd_) {
    ReceiveFromClient(fd, std::move(client));
  } else if (protocol_ == kTcp) {
    AcceptClient();
  } else if (protocol_ == kUdp) {
    ReceiveDatagram();
  }
  if (server_option_.client_gone_cb) TellOfDeparted();
  gate_->Leave();
}

// ---- A client comes ----

void SocketServer::AcceptClient() {
  if (owns_fd_ && !gate_->SetWaitsFor(fd_)) return;
  std::string path;
  const int client = Accept(path);
  const int error = errno;
  gate_->SetWaitsFor(kNoFd);
  if (client < 0 && error == EAGAIN && !owns_fd_) return;
  if (server_option_.client_gone_cb) TellOfDeparted();  // one of whom may have had the number
  // Only TCP servers come here, so the protocol's other name never shows.
  HUTIL_LOG(LOG_DEBUG, "%s %d: add fd [%d] path [%s] server path [%s] proto [%s]\n", kFdCallback,
            __LINE__, client, path.c_str(), path_.c_str(), protocol_ == kTcp ? "tcp" : "udp");
  const bool limited = guard_ && guard_->limits() != nullptr;
  const bool admitted = client >= 0 && (limited || ShakeHands(client));
  if (!admitted) HUTIL_LOG(LOG_ERR, "%s %d: \n", kFdCallback, __LINE__);
  if (limited) {
    guard_->Welcome(client, path, error);
  } else if (admitted) {
    Admit(client, path);
  } else if (client < 0) {
    PauseIfExhausted(error);
  }
}

/// Whether `client` may enter the table; if not, it is closed. A client on descriptor 0 enters
/// without a handshake.
bool SocketServer::ShakeHands(int client) {
  bool admitted = FitsSelect(client);
  if (admitted && ssl_ != nullptr && client > 0) {
    admitted = gate_->SetWaitsFor(client) && ssl_->Accept(client);
    gate_->SetWaitsFor(kNoFd);
  }
  if (!admitted) TurnAway(client);
  return admitted;
}

void SocketServer::Admit(int client, const std::string& path) {
  if (server_option_.linger) {
    SetGracefulClose(client);
  } else if (!owns_fd_) {
    SetAbortiveClose(client);  // other clients inherit it from the listener
  }
  if (!Enter(client, path)) {
    TurnAway(client);
    if (ssl_ != nullptr) ssl_->RemoveClient(client);
    return;
  }
  NewClientCallback new_client_cb;
  {
    std::lock_guard<Mutex> lock(mutex_);
    new_client_cb = new_client_cb_;
  }
  if (new_client_cb) new_client_cb(fd_, client, path);
}

void SocketServer::AddFd(int fd, std::string path) { Enter(fd, std::move(path)); }

/// False where the server is going. A connection that the daemon has made itself must not keep the
/// loop waiting either.
bool SocketServer::Enter(int fd, std::string path) {
  const bool limited = guard_ && guard_->limits() != nullptr;
  if (limited && ssl_ != nullptr && !ImplOf(*ssl_).MakePatient(fd)) return false;
  return clients_->Add(fd, std::move(path), limited ? std::make_unique<Peer>() : nullptr);
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
    client = clients_->Find(fd);
  }
}

/// Whether more may be read of the client, whose record is let go of with the client.
bool SocketServer::ReadOnce(ClientPtr& client) {
  PeerLimits* const limits = client->peer ? guard_->limits() : nullptr;
  if (limits != nullptr && !IsItsTurn(client)) return false;
  const HeapBuffer buffer = MakeZeroedBuffer(recv_buf_size_);
  if (!buffer) return false;
  const ssize_t n = limits != nullptr ? limits->Receive(*client, buffer.get(), recv_buf_size_)
                    : ssl_ != nullptr ? ssl_->Recv(client->fd, buffer.get(), recv_buf_size_)
                                      : recv(client->fd, buffer.get(), recv_buf_size_, 0);
  if (n < 0 && limits != nullptr && errno == EAGAIN) return false;
  if (n < 1) {
    if (n != 0) HUTIL_LOG(LOG_ERR, "%s %d: errno [%d]\n", kFdCallback, __LINE__, errno);
    DropClient(std::move(client));
    return false;
  }
  if (client->closing || !data_cb_) return true;
  const CurrentEvent event(this, *this, client->fd, client.get());
  data_cb_(fd_, client->fd, client->path, buffer.get(), static_cast<size_t>(n));
  return true;
}

/// Takes the client out where a limit or a send has failed it.
bool SocketServer::IsItsTurn(ClientPtr& client) {
  std::string why;
  const PeerLimits::Turn turn = PeerLimits::TurnOf(*client, why);
  if (turn == PeerLimits::Turn::kTakeOut) {
    LogTakenOut(client->fd, client->path, why);
    DropClient(std::move(client));
  }
  return turn == PeerLimits::Turn::kRead;
}

void SocketServer::ReceiveDatagram() {
  ReceiveDatagrams(fd_, domain_, recv_buf_size_, kFdCallback,
                   [this](const Sender& sender, char* data, size_t size) {
                     const CurrentEvent event(this, *this, sender);
                     if (data_cb_) data_cb_(fd_, 0, sender.path, data, size);
                     return event.is_answered();
                   });
}

// ---- It is answered ----

ssize_t SocketServer::SendTo(int fd, void* data, size_t size) {
  return SendToClient(fd, data, size);
}

ssize_t SocketServer::SendTo(int fd, std::string data) {
  return SendToClient(fd, data.data(), data.size());
}

ssize_t SocketServer::SendTo(std::string path, std::string data) {
  return Socket::SendTo(std::move(path), std::move(data));
}

ssize_t SocketServer::Reply(const void* data, size_t size) {
  const CurrentEvent* const event = CurrentEvent::Of(this);
  if (event == nullptr) return -1;
  if (event->sender() == nullptr) return SendTo(*event->client(), data, size);
  event->NoteAnswer();
  return ReplyTo(*event->sender(), data, size);
}

ssize_t SocketServer::SendToClient(int fd, const void* data, size_t size) {
  if (protocol_ == kUdp) return fd == fd_ ? Socket::Send(data, size) : -1;
  if (protocol_ != kTcp) return -1;
  // The client of the event under way is known without the table, unless another one has come in
  // its place.
  const CurrentEvent* const event = CurrentEvent::Of(this);
  Client* const own = event != nullptr ? event->client() : nullptr;
  if (own != nullptr && own->fd == fd && !own->left) return SendTo(*own, data, size);
  const ClientPtr client = clients_->Find(fd);
  return client ? SendTo(*client, data, size) : -1;
}

ssize_t SocketServer::SendTo(Client& client, const void* data, size_t size) {
  if (client.left || client.closing) return -1;
  if (client.peer) return guard_->limits()->Send(client, data, size);
  return ssl_ != nullptr ? ssl_->Send(client.fd, data, size)
                         : Socket::SendTo(client.fd, data, size);
}

// ---- It goes ----

bool SocketServer::Close(int client) {
  const ClientPtr record = clients_->Find(client);
  if (!record) return false;
  if (record->closing.exchange(true)) return true;
  SetGracefulClose(client);
  if (record->peer) {
    guard_->limits()->Close(*record);
  } else {
    if (ssl_ != nullptr) {
      AwaitEvents(client, POLLOUT, Deadline(kCloseNotifyWaitMs));
      ImplOf(*ssl_).SendCloseNotify(client);
    }
    shutdown(client, SHUT_WR);
  }
  return true;
}

void SocketServer::DropClient(ClientPtr client) {
  const int fd = client->fd;
  const bool dropped = clients_->Drop(std::move(client));
  if (dropped && ssl_ != nullptr) ssl_->RemoveClient(fd);
}

void SocketServer::RemoveFd(int fd) { clients_->Remove(fd); }

/// The records keep the descriptors of dropped clients open until the daemon has heard of them.
/// What it does then may make others leave.
void SocketServer::TellOfDeparted() {
  for (auto departed = clients_->TakeDeparted(); !departed.empty();
       departed = clients_->TakeDeparted()) {
    for (const ClientPtr& client : departed) {
      server_option_.client_gone_cb(fd_, client->fd, client->path);
    }
  }
}

}  // namespace util
}  // namespace hvn
