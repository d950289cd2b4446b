// The clients. They speak through the system's sockets and OpenSSL, not through the library: what
// one end of it gets wrong, the other must not make up for.
#include "Storm.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

const char* const kDeedNames[kDeedCount] = {"exchange", "half-close", "reset", "hang up", "babble"};

Tally& Tally::operator+=(const Tally& other) {
  connections += other.connections;
  messages += other.messages;
  bytes += other.bytes;
  lost += other.lost;
  corrupted += other.corrupted;
  refused += other.refused;
  return *this;
}

namespace {

using Clock = std::chrono::steady_clock;
using Random = std::mt19937;

constexpr int kClearClients = 8;
constexpr int kTlsClients = 8;
constexpr time_t kPatienceSeconds = 20;
constexpr size_t kLongestMessage = 20000;
// What is not read until all is sent has to fit the buffers on the way.
constexpr size_t kLongestMonologue = 30000;

int Below(Random& random, int limit) {
  return std::uniform_int_distribution<>(0, limit - 1)(random);
}

size_t Length(Random& random, size_t longest) {
  // As many short messages as long ones.
  const size_t longest_now = Below(random, 2) > 0 ? longest : 200;
  return 1 + static_cast<size_t>(Below(random, static_cast<int>(longest_now)));
}

std::string Text(Random& random, size_t size) {
  std::string text(size, '\0');
  for (char& byte : text) byte = static_cast<char>(random());
  return text;
}

struct ContextFree {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using Context = std::unique_ptr<SSL_CTX, ContextFree>;

struct SessionFree {
  void operator()(SSL* session) const { SSL_free(session); }
};

/// One connection.
class Client {
 public:
  explicit Client(uint16_t port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const timeval patience = {kPatienceSeconds, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  }
  ~Client() { close(fd_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool connected() const { return connected_; }

  bool Handshake(SSL_CTX* context) {
    session_.reset(SSL_new(context));
    SSL_set_fd(session_.get(), fd_);
    return SSL_connect(session_.get()) == 1;
  }

  bool Send(const std::string& data) {
    if (session_) return SSL_write(session_.get(), data.data(), static_cast<int>(data.size())) > 0;
    for (size_t sent = 0; sent < data.size();) {
      const ssize_t n = send(fd_, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) return false;
      sent += static_cast<size_t>(n);
    }
    return true;
  }

  /// As many bytes, or fewer where the server closes or keeps silent.
  std::string Receive(size_t size) {
    std::string data(size, '\0');
    size_t received = 0;
    while (received < size) {
      const size_t room = size - received;
      const ssize_t n = session_ ? SSL_read(session_.get(), &data[received], static_cast<int>(room))
                                 : recv(fd_, &data[received], room, 0);
      if (n <= 0) break;
      received += static_cast<size_t>(n);
    }
    data.resize(received);
    return data;
  }

  void EndSending() {
    if (session_) SSL_shutdown(session_.get());
    shutdown(fd_, SHUT_WR);
  }

  void ResetWhenClosed() {
    const linger abort = {1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
  }

 private:
  int fd_;
  bool connected_ = false;
  std::unique_ptr<SSL, SessionFree> session_;
};

void Compare(const std::string& sent, const std::string& received, Tally& tally) {
  tally.messages += 1;
  tally.bytes += sent.size();
  tally.lost += sent.size() - std::min(sent.size(), received.size());
  for (size_t i = 0; i < received.size(); ++i) tally.corrupted += sent[i] != received[i] ? 1 : 0;
}

void Exchange(Client& client, Random& random, Tally& tally) {
  for (int i = 1 + Below(random, 20); i > 0; --i) {
    const std::string message = Text(random, Length(random, kLongestMessage));
    client.Send(message);
    Compare(message, client.Receive(message.size()), tally);
  }
}

void HalfClose(Client& client, Random& random, Tally& tally) {
  const std::string monologue = Text(random, Length(random, kLongestMonologue));
  client.Send(monologue);
  client.EndSending();
  Compare(monologue, client.Receive(monologue.size()), tally);
}

void Reset(Client& client, Random& random) {
  client.ResetWhenClosed();
  client.Send(Text(random, Length(random, kLongestMessage)));
}

Deed AnyDeed(Random& random) {
  const int deed = Below(random, 2 * kDeedCount);
  return deed < kDeedCount ? static_cast<Deed>(deed) : kExchange;
}

/// Whether a deed begins with a handshake, where there is TLS.
bool ShakesHands(Deed deed, Random& random) {
  return deed != kBabble && (deed != kHangUp || Below(random, 2) > 0);
}

void OneConnection(uint16_t port, SSL_CTX* context, Random& random,
                   std::array<Tally, kDeedCount>& tallies) {
  const Deed deed = AnyDeed(random);
  Tally& tally = tallies[deed];
  Client client(port);
  if (!client.connected() ||
      (context != nullptr && ShakesHands(deed, random) && !client.Handshake(context))) {
    ++tally.refused;
    return;
  }
  ++tally.connections;
  if (deed == kExchange) Exchange(client, random, tally);
  if (deed == kHalfClose) HalfClose(client, random, tally);
  if (deed == kReset) Reset(client, random);
  if (deed == kBabble) client.Send(Text(random, 1 + static_cast<size_t>(Below(random, 2000))));
}

/// Every other one does without session tickets, so that servers have to remember what they keep.
Context MakeContext(unsigned number) {
  Context context(SSL_CTX_new(SSLv23_client_method()));
  if (number % 2 > 0) SSL_CTX_set_options(context.get(), SSL_OP_NO_TICKET);
  return context;
}

}  // namespace

Tallies Storm(uint16_t clear_port, uint16_t tls_port, int seconds) {
  const auto end = Clock::now() + std::chrono::seconds(seconds);
  std::vector<std::array<Tally, kDeedCount>> tallies(kClearClients + kTlsClients);
  std::vector<std::thread> clients;
  for (unsigned i = 0; i < kClearClients + kTlsClients; ++i) {
    clients.emplace_back([=, &tallies] {
      const bool tls = i >= kClearClients;
      const Context context = tls ? MakeContext(i) : nullptr;
      Random random(i);
      while (Clock::now() < end) {
        OneConnection(tls ? tls_port : clear_port, context.get(), random, tallies[i]);
      }
    });
  }
  for (std::thread& client : clients) client.join();
  Tallies sums;
  for (size_t i = 0; i < tallies.size(); ++i) {
    std::array<Tally, kDeedCount>& sum = sums[i < kClearClients ? 0 : 1];
    for (size_t deed = 0; deed < kDeedCount; ++deed) sum[deed] += tallies[i][deed];
  }
  return sums;
}
