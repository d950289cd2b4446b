// Whoever is at the other end of a connection, and servers that note what they hear.
#pragma once

#include <netinet/tcp.h>
#include <sys/socket.h>

#include <chrono>
#include <mutex>
#include <vector>

#include "support/Kit.h"
#include "util/SocketServer.h"

namespace hutil_test {

using hvn::util::Socket, hvn::util::SocketServer, hvn::util::SslWrapper;
inline constexpr auto kTcp = Socket::kTcp, kUdp = Socket::kUdp;
inline constexpr auto kUnix = Socket::kUnix, kIpv4 = Socket::kIpv4, kIpv6 = Socket::kIpv6;
inline constexpr auto kPem = SslWrapper::kPem, kDer = SslWrapper::kDer;
inline constexpr char kHere[] = "127.0.0.1";
inline constexpr char kRemoved[] = "%s %d: remove fd [%d] path [%s]\n";

// Where a socket of 127.0.0.1 is to be reached, and how a server names the one that has reached it.
inline std::string DestOf(int fd) { return "127.0.0.1;" + std::to_string(LocalPort(fd)); }
inline std::string NameOf(int fd) { return "127.0.0.1:" + std::to_string(LocalPort(fd)); }

inline bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }
inline int OptionOf(int fd, int level, int name) {  // of SO_LINGER whether, not how long
  int value[2] = {-1, -1};
  socklen_t size = sizeof(value);
  EXPECT_EQ(0, getsockopt(fd, level, name, value, &size));
  return value[0];
}
inline int64_t CountSockets() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return std::count_if(begin(all), end(all), [](const auto& entry) {
    std::error_code gone;
    return std::filesystem::read_symlink(entry, gone).string().rfind("socket:", 0) == 0;
  });
}
inline bool Serves(RawClient& client) { return client.Send("x") && client.Recv(1) == "x"; }

inline int64_t NowMs() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

// Up to `size` bytes; fewer when the peer closes.
inline std::string RecvAll(SslWrapper& tls, int fd, size_t size) {
  std::string data;
  char chunk[4096];
  while (data.size() < size) {
    const ssize_t got = tls.Recv(fd, chunk, std::min(sizeof(chunk), size - data.size()));
    if (got <= 0) break;
    data.append(chunk, size_t(got));
  }
  return data;
}

// Two ends of a connection; closes what is still open.
class Pair {
 public:
  Pair() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends_)); }
  ~Pair() {
    close(near());
    if (far() >= 0) close(far());
  }
  Pair(const Pair&) = delete;
  int near() const { return ends_[0]; }
  int far() const { return ends_[1]; }
  void CloseFar() { close(std::exchange(ends_[1], -1)); }
  void Fill() const {  // until the near end has no room any more
    const char chunk[1024] = {};
    while (send(near(), chunk, sizeof(chunk), MSG_DONTWAIT) > 0) continue;
  }
  std::string ReadFar() const {  // some of what is there
    char data[4096];
    return {data, size_t(std::max<ssize_t>(recv(far(), data, sizeof(data), MSG_DONTWAIT), 0))};
  }

 private:
  int ends_[2];
};

struct Message {
  int server, client;
  std::string path, data;
};

// What a data callback has been called with, in order.
class Inbox {
 public:
  // Notes each message, then acts.
  SocketServer::DataCallback Callback(std::function<void(const Message&)> act = nullptr) {
    return [this, act](int server, int client, std::string path, void* data, size_t size) {
      const Message message = {server, client, path, std::string(static_cast<char*>(data), size)};
      {
        const std::lock_guard<std::mutex> lock(mutex_);
        messages_.push_back(message);
      }
      if (act) act(message);
      return false;  // which changes nothing
    };
  }
  std::string text() {  // all that has come
    std::string all;
    for (const Message& message : messages()) all += message.data;
    return all;
  }
  bool Await(const std::string& wanted) {
    return WaitFor([&] { return text() == wanted; }, 5000);
  }
  std::vector<Message> messages() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
  }
  Message last() { return messages().back(); }

 private:
  std::mutex mutex_;
  std::vector<Message> messages_;
};

// Awaits word of a client that has gone, and of whether its number was still taken then.
class Departure {
 public:
  std::function<void(int, int, std::string)> Callback() {
    return [this](int server, int client, std::string path) {
      told_.set_value(std::to_string(server) + (IsOpen(client) ? " open " : " closed ") + path);
    };
  }
  std::string Await() { return told_.get_future().get(); }

 private:
  std::promise<std::string> told_;
};

// A server on 127.0.0.1 that answers each message with itself, or does what it is told to. It goes
// when its clients have gone, so that none of their descriptors is left.
struct Echo {
  using Option = SocketServer::SocketServerOption;
  using ServerAct = std::function<void(SocketServer&, const Message&)>;
  static void Answer(SocketServer& server, const Message& message) {
    server.Reply(message.data.data(), message.data.size());
  }
  explicit Echo(SslWrapper* ssl = nullptr, Option option = {}, ServerAct act = Answer)
      : server(kHere, kTcp, kIpv4, inbox.Callback([=](const Message& m) { act(server, m); }), ssl,
               option) {}
  ~Echo() {
    EXPECT_TRUE(goes_first || WaitFor([this] { return CountSockets() <= sockets; }, 3000));
  }
  uint16_t port() const { return LocalPort(server.fd()); }

  Inbox inbox;
  SocketServer server;
  const int64_t sockets = CountSockets();
  bool goes_first = false;  // before its clients
};

// A wrapper for servers that has server.pem and its key.
struct ServerTls : SslWrapper {
  explicit ServerTls(Method method = kTlsV1_2) : SslWrapper(true, method) {
    EXPECT_EQ(hvn::kSuccess,
              SetCertAndKeyFile(CertPath("server.pem"), CertPath("server-key.pem"), kPem, kPem));
  }
};

}  // namespace hutil_test
