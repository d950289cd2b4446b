#include "gatewayd/LineService.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <iterator>
#include <mutex>
#include <utility>

using hvn::util::Mutex;
using hvn::util::Socket;
using hvn::util::SslWrapper;

namespace {

constexpr timeval kReceiveLimit = {5, 0};
constexpr unsigned int kSendLimitMs = 5000;

/// Where the limit allows, above the numbers that servers can wait for.
int Duplicate(int fd) {
  const int high = fcntl(fd, F_DUPFD_CLOEXEC, FD_SETSIZE);
  return high >= 0 ? high : fcntl(fd, F_DUPFD_CLOEXEC, 0);
}

/// One loop serves everybody, so nobody may hold it up by stopping halfway, in a handshake, in a
/// record or before an answer. Accepted sockets inherit these limits. They stop short of a limit on
/// send itself, after which the library would try again from a byte earlier.
void LimitPatience(int fd) {
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &kReceiveLimit, sizeof(kReceiveLimit));
  setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &kSendLimitMs, sizeof(kSendLimitMs));
}

}  // namespace

LineService::Line::Line(int fd) : fd_(Duplicate(fd)) {}

LineService::Line::~Line() {
  if (fd_ >= 0) close(fd_);
}

/// Whether both directions have ended, as they have when the server has dropped the client.
bool LineService::Line::IsDown() const {
  pollfd line = {fd_, 0, 0};
  return fd_ < 0 || (poll(&line, 1, 0) == 1 && (line.revents & POLLHUP) != 0);
}

void LineService::Line::Shut(int how) const { shutdown(fd_, how); }

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
    if (entry.second.swept) entry.second.line.Shut(SHUT_RDWR);
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
  uint64_t id = 0;
  {
    std::lock_guard<Mutex> lock(mutex_);
    Session& session = Enter(fd, path);
    if (session.leaving) return;
    id = session.id;
    session.input.Add(data, size);
    if (session.input.full()) {  // it sends and sends, and waits for no answer
      session.leaving = true;
      session.line.Shut(SHUT_RDWR);
    }
  }
  Pump(fd, id);
}

/// Works off the client's complete lines, up to one that goes into the slow lane: that one goes on
/// from there.
void LineService::Pump(int fd, uint64_t id) {
  std::string line;
  while (Next(fd, id, line)) {
    if (!Gateway::IsSlow(line)) {
      Answer(fd, id, gateway_.Run(line));
      continue;
    }
    const auto job = [this, fd, id, line] {
      Answer(fd, id, gateway_.Run(line));
      Pump(fd, id);
    };
    if (lane_.Run(job)) return;
    Answer(fd, id, Reply::Error("busy, try again later"));
  }
}

/// Takes the client's next line, if it has one and no other one is being worked on.
bool LineService::Next(int fd, uint64_t id, std::string& line) {
  std::lock_guard<Mutex> lock(mutex_);
  Session* session = Find(fd, id);
  if (session == nullptr || session->busy) return false;
  while (!session->leaving) {
    const LineBuffer::State state = session->input.Take(line);
    session->busy = state == LineBuffer::State::kLine;
    if (state != LineBuffer::State::kTooLong) return session->busy;
    SendLocked(fd, *session, Reply::Error("line too long"));
  }
  return false;
}

void LineService::Answer(int fd, uint64_t id, const Reply& reply) {
  std::lock_guard<Mutex> lock(mutex_);
  Session* session = Find(fd, id);
  if (session == nullptr) return;
  session->busy = false;
  SendLocked(fd, *session, reply);
}

/// The client's session; a new one where another client had the number before. Loop thread, where
/// the client that the number stands for cannot change meanwhile.
LineService::Session& LineService::Enter(int fd, const std::string& path) {
  const auto known = sessions_.find(fd);
  if (known != sessions_.end()) {
    if (!known->second.line.IsDown()) return known->second;
    sessions_.erase(known);
  }
  return sessions_.try_emplace(fd, fd, ++last_id_, path).first->second;
}

/// A client may still go between this look and the send that follows; its number is another's only
/// after a whole accept and handshake on the loop, which takes far longer.
LineService::Session* LineService::Find(int fd, uint64_t id) {
  const auto found = sessions_.find(fd);
  const bool same = found != sessions_.end() && found->second.id == id;
  return same && !found->second.line.IsDown() ? &found->second : nullptr;
}

/// After the last answer only the sending side ends: closing, on these sockets, takes back what is
/// still on its way. The client closes when it has read it.
void LineService::SendLocked(int fd, Session& session, const Reply& reply) {
  const std::string text = reply.Text();
  const bool sent = server_.SendTo(fd, text) == static_cast<ssize_t>(text.size());
  if (sent && !reply.close) return;
  session.leaving = true;
  session.line.Shut(sent ? SHUT_WR : SHUT_RDWR);
}

/// The server tells of clients that come, not of those that go.
void LineService::ForgetTheGone() {
  for (auto entry = sessions_.begin(); entry != sessions_.end();) {
    entry = entry->second.line.IsDown() ? sessions_.erase(entry) : std::next(entry);
  }
}
