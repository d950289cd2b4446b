#include "gatewayd/LineService.h"

#include <syslog.h>

#include <mutex>
#include <utility>

using hvn::util::Mutex;
using hvn::util::Socket;
using hvn::util::SocketServer;
using hvn::util::SslWrapper;

namespace {
constexpr int kBacklog = 128;  // a LAN that wakes up comes all at once
}  // namespace

LineService::LineService(std::string name, std::string path, Socket::Domain domain, SslWrapper* ssl,
                         int patience_ms, Gateway& gateway, SlowLane& lane)
    : name_(std::move(name)),
      gateway_(gateway),
      lane_(lane),
      server_(
          std::move(path), Socket::kTcp, domain,
          [this](int, int fd, const std::string& peer, void* data, size_t size) {
            Receive(fd, peer, static_cast<const char*>(data), size);
            return true;
          },
          ssl, Options(patience_ms)) {
  server_.SetNewClientCb([this](int, int fd, const std::string& peer) {
    std::lock_guard<Mutex> lock(mutex_);
    Enter(fd, peer);
  });
}

SocketServer::SocketServerOption LineService::Options(int patience_ms) {
  SocketServer::SocketServerOption option;
  option.backlog = kBacklog;
  option.peer_timeout_ms = patience_ms;
  option.linger = true;
  option.client_gone_cb = [this](int, int fd, const std::string& peer) { Forget(fd, peer); };
  return option;
}

std::vector<std::string> LineService::Clients() {
  std::lock_guard<Mutex> lock(mutex_);
  std::vector<std::string> lines;
  for (const auto& entry : sessions_) {
    const std::string& path = entry.second->path;
    lines.push_back(name_ + " " + (path.empty() ? "(no path)" : path));
  }
  return lines;
}

/// The client's session, with the lock held: a new one at its first sign of life, which for those
/// who come before SetNewClientCb is their first line.
LineService::SessionPtr LineService::Enter(int fd, const std::string& path) {
  SessionPtr& session = sessions_[fd];
  if (!session) {
    session = std::make_shared<Session>(Session{fd, path, {}});
    syslog(LOG_INFO, "%s: %s has come", name_.c_str(), path.c_str());
  }
  return session;
}

/// Before the number can be another client's.
void LineService::Forget(int fd, const std::string& path) {
  std::lock_guard<Mutex> lock(mutex_);
  const auto found = sessions_.find(fd);
  if (found == sessions_.end()) return;
  found->second->over = true;
  sessions_.erase(found);
  syslog(LOG_INFO, "%s: %s has gone", name_.c_str(), path.c_str());
}

void LineService::Receive(int fd, const std::string& path, const char* data, size_t size) {
  SessionPtr session;
  {
    std::lock_guard<Mutex> lock(mutex_);
    session = Enter(fd, path);
    session->input.Add(data, size);
    if (session->input.full()) {  // it sends and sends, and waits for no answer
      session->over = true;
      server_.Close(fd);
    }
  }
  Pump(session);
}

/// Works off the client's complete lines, up to one that goes into the slow lane: that one goes on
/// from there.
void LineService::Pump(const SessionPtr& session) {
  std::string line;
  while (Next(*session, line)) {
    if (!Gateway::IsSlow(line)) {
      Answer(*session, gateway_.Run(line));
      continue;
    }
    const auto job = [this, session, line] {
      Answer(*session, gateway_.Run(line));
      Pump(session);
    };
    if (lane_.Run(job)) return;
    Answer(*session, Reply::Error("busy, try again later"));
  }
}

/// Takes the client's next line, if it has one and no other one is being worked on.
bool LineService::Next(Session& session, std::string& line) {
  std::lock_guard<Mutex> lock(mutex_);
  while (!session.busy && !session.over) {
    const LineBuffer::State state = session.input.Take(line);
    session.busy = state == LineBuffer::State::kLine;
    if (state != LineBuffer::State::kTooLong) return session.busy;
    SendLocked(session, Reply::Error("line too long"));
  }
  return false;
}

void LineService::Answer(Session& session, const Reply& reply) {
  std::lock_guard<Mutex> lock(mutex_);
  session.busy = false;
  SendLocked(session, reply);
}

/// The lock is held over the send, which waits for nobody: a client that has not been forgotten
/// still has its number. One that cannot be sent to is the server's to take out.
void LineService::SendLocked(Session& session, const Reply& reply) {
  if (session.over) return;
  server_.SendTo(session.fd, reply.Text());
  if (!reply.close) return;
  session.over = true;
  server_.Close(session.fd);
}
