#include "gatewayd/LineService.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>

#include <iterator>
#include <mutex>
#include <utility>

using hvn::util::Mutex;
using hvn::util::Socket;
using hvn::util::SslWrapper;

namespace {

constexpr timeval kReceiveLimit = {5, 0};
constexpr unsigned int kSendLimitMs = 5000;

ino_t InodeOf(int fd) {
  struct stat status;
  return fstat(fd, &status) == 0 ? status.st_ino : 0;
}

/// One loop serves everybody, so nobody may hold it up by stopping halfway, in a handshake, in a
/// record or before an answer. Accepted sockets inherit these limits. They stop short of a limit on
/// send itself, after which the library would try again from a byte earlier.
void LimitPatience(int fd) {
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &kReceiveLimit, sizeof(kReceiveLimit));
  setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &kSendLimitMs, sizeof(kSendLimitMs));
}

}  // namespace

LineService::LineService(std::string name, std::string path, Socket::Domain domain, SslWrapper* ssl,
                         Gateway& gateway, SlowLane& lane)
    : name_(std::move(name)),
      gateway_(gateway),
      lane_(lane),
      server_(
          std::move(path), Socket::kTcp, domain,
          [this](int, int fd, const std::string& peer, void* data, size_t size) {
            Receive(fd, peer, static_cast<const char*>(data), size);
            return true;
          },
          ssl) {
  if (domain != Socket::kUnix) LimitPatience(server_.fd());
  server_.SetNewClientCb([this](int, int fd, const std::string& peer) { Greet(fd, peer); });
}

std::vector<std::string> LineService::Clients() {
  std::lock_guard<Mutex> lock(mutex_);
  ForgetTheGone();
  std::vector<std::string> lines;
  for (const auto& entry : sessions_) {
    const std::string& path = entry.second.path;
    lines.push_back(name_ + " " + (path.empty() ? "(no path)" : path));
  }
  return lines;
}

void LineService::Sweep() {
  std::lock_guard<Mutex> lock(mutex_);
  ForgetTheGone();
  for (auto& entry : sessions_) {
    if (entry.second.swept) shutdown(entry.first, SHUT_RDWR);
    entry.second.swept = entry.second.leaving;
  }
}

void LineService::Greet(int fd, const std::string& path) {
  std::lock_guard<Mutex> lock(mutex_);
  ForgetTheGone();
  Enter(fd, path);
  syslog(LOG_INFO, "%s: %s has come", name_.c_str(), path.c_str());
}

void LineService::Receive(int fd, const std::string& path, const char* data, size_t size) {
  ino_t inode = 0;
  {
    std::lock_guard<Mutex> lock(mutex_);
    Session& session = Enter(fd, path);
    if (session.leaving) return;
    inode = session.inode;
    session.input.Add(data, size);
    if (session.input.full()) {  // it sends and sends, and waits for no answer
      session.leaving = true;
      shutdown(fd, SHUT_RDWR);
    }
  }
  Pump(fd, inode);
}

/// Works off the client's complete lines, up to one that goes into the slow lane: that one goes on
/// from there.
void LineService::Pump(int fd, ino_t inode) {
  std::string line;
  while (Next(fd, inode, line)) {
    if (!Gateway::IsSlow(line)) {
      Answer(fd, inode, gateway_.Run(line));
      continue;
    }
    const auto job = [this, fd, inode, line] {
      Answer(fd, inode, gateway_.Run(line));
      Pump(fd, inode);
    };
    if (lane_.Run(job)) return;
    Answer(fd, inode, Reply::Error("busy, try again later"));
  }
}

/// Takes the client's next line, if it has one and no other one is being worked on.
bool LineService::Next(int fd, ino_t inode, std::string& line) {
  std::lock_guard<Mutex> lock(mutex_);
  Session* session = Find(fd, inode);
  if (session == nullptr || session->busy) return false;
  while (!session->leaving) {
    const LineBuffer::State state = session->input.Take(line);
    session->busy = state == LineBuffer::State::kLine;
    if (state != LineBuffer::State::kTooLong) return session->busy;
    SendLocked(fd, *session, Reply::Error("line too long"));
  }
  return false;
}

void LineService::Answer(int fd, ino_t inode, const Reply& reply) {
  std::lock_guard<Mutex> lock(mutex_);
  Session* session = Find(fd, inode);
  if (session == nullptr) return;
  session->busy = false;
  SendLocked(fd, *session, reply);
}

/// The client's session; a new one where another client had the number before.
LineService::Session& LineService::Enter(int fd, const std::string& path) {
  const ino_t inode = InodeOf(fd);
  if (Session* known = Find(fd, inode)) return *known;
  sessions_.erase(fd);
  Session session;
  session.inode = inode;
  session.path = path;
  return sessions_.emplace(fd, std::move(session)).first->second;
}

/// A client may still go between this look and the send that follows; its number is another's only
/// after a whole accept and handshake on the loop, which takes far longer.
LineService::Session* LineService::Find(int fd, ino_t inode) {
  const auto found = sessions_.find(fd);
  const bool same = found != sessions_.end() && found->second.inode == inode;
  return same && InodeOf(fd) == inode ? &found->second : nullptr;
}

/// After the last answer only the sending side ends: closing, on these sockets, takes back what is
/// still on its way. The client closes when it has read it.
void LineService::SendLocked(int fd, Session& session, const Reply& reply) {
  const std::string text = reply.Text();
  const bool sent = server_.SendTo(fd, text) == static_cast<ssize_t>(text.size());
  if (sent && !reply.close) return;
  session.leaving = true;
  shutdown(fd, sent ? SHUT_WR : SHUT_RDWR);
}

/// The server tells of clients that come, not of those that go.
void LineService::ForgetTheGone() {
  for (auto entry = sessions_.begin(); entry != sessions_.end();) {
    const bool gone = InodeOf(entry->first) != entry->second.inode;
    entry = gone ? sessions_.erase(entry) : std::next(entry);
  }
}
