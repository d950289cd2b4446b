// bench_client KIND PORT PID SECONDS [CLIENTS SIZE [IDLE]]
// The driver, the same for every server: a process of its own. PID is the server's, whose processor
// time is read.
//   tcp, tls: CLIENTS each have one message of SIZE bytes under way; IDLE more are connected and
//   silent accept: connects, and closes when the server has closed; four at a time unix, udp:
//   datagrams, eight under way, each answered; unix-in, udp-in: only every eighth is
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <deque>
#include <string>
#include <vector>

#include "Bench.h"
#include "servers/Server.h"

namespace {

constexpr double kWarmUpPart = 0.2;
constexpr int kAcceptsUnderWay = 4;
constexpr int kDatagramsUnderWay = 8;
constexpr size_t kDatagramSize = 64;
constexpr timeval kPatience = {5, 0};

pid_t server_pid;
double seconds;

void BePatient(int fd) {
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof(kPatience));
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof(kPatience));
}

int ConnectTcp() {
  sockaddr_in6 address = {};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(kPort);
  address.sin6_addr = in6addr_loopback;
  const int fd = socket(AF_INET6, SOCK_STREAM, 0);
  BePatient(fd);
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) Fail("connect");
  return fd;
}

/// Runs `step`, which returns how many messages it has seen off, for the time that was asked for.
template <typename Step>
void Measure(Step step) {
  const double begin = Now() + seconds * kWarmUpPart;
  while (Now() < begin) step();
  const double start = Now();
  const double cpu = CpuOf(server_pid);
  double messages = 0;
  double end = start;
  for (; end < start + seconds; end = Now()) messages += step();
  Report("per_s", messages / (end - start));
  Report("cpu_us", (CpuOf(server_pid) - cpu) / messages * 1e6);
}

// ---- Streams ----

struct Client {
  int fd = -1;
  SSL* tls = nullptr;
  size_t received = 0;
};

class Streams {
 public:
  Streams(bool use_tls, int clients, size_t size, int idle)
      : loop_(epoll_create1(0)),
        clients_(static_cast<size_t>(clients + idle)),
        message_(size, 'm') {
    if (use_tls) context_ = SSL_CTX_new(TLS_client_method());
    for (Client& client : clients_) {
      Open(client);
      Send(client);
      while (!Receive(client)) {
      }
    }
    for (int i = 0; i < clients; ++i) Start(clients_[static_cast<size_t>(i)]);
  }

  int Step() {
    epoll_event events[64];
    const int count = epoll_wait(loop_, events, 64, 5000);
    if (count < 1) Fail("no answer");
    int done = 0;
    for (int i = 0; i < count; ++i) {
      auto& client = *static_cast<Client*>(events[i].data.ptr);
      if (!Receive(client)) continue;
      ++done;
      Send(client);
    }
    return done;
  }

 private:
  void Open(Client& client) {
    client.fd = ConnectTcp();
    if (context_ == nullptr) return;
    client.tls = SSL_new(context_);
    SSL_set_fd(client.tls, client.fd);
    if (SSL_connect(client.tls) != 1) Fail("SSL_connect");
  }

  void Start(Client& client) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.ptr = &client;
    epoll_ctl(loop_, EPOLL_CTL_ADD, client.fd, &event);
    Send(client);
  }

  void Send(const Client& client) {
    const auto size = static_cast<ssize_t>(message_.size());
    const ssize_t n = client.tls != nullptr
                          ? SSL_write(client.tls, message_.data(), static_cast<int>(size))
                          : send(client.fd, message_.data(), message_.size(), MSG_NOSIGNAL);
    if (n != size) Fail("send");
  }

  /// True when all of a message is back.
  bool Receive(Client& client) {
    char buffer[16384];
    do {
      const ssize_t n = client.tls != nullptr ? SSL_read(client.tls, buffer, sizeof(buffer))
                                              : recv(client.fd, buffer, sizeof(buffer), 0);
      if (n < 1) Fail("recv");
      client.received += static_cast<size_t>(n);
    } while (client.tls != nullptr && SSL_pending(client.tls) > 0);
    if (client.received < message_.size()) return false;
    client.received = 0;
    return true;
  }

  int loop_;
  SSL_CTX* context_ = nullptr;
  std::vector<Client> clients_;
  std::string message_;
};

void MeasureAccepts() {
  std::deque<int> under_way;
  Measure([&under_way] {
    while (under_way.size() < kAcceptsUnderWay) {
      under_way.push_back(ConnectTcp());
      shutdown(under_way.back(), SHUT_WR);
    }
    char byte;
    if (recv(under_way.front(), &byte, 1, 0) != 0) Fail("the server does not close");
    close(under_way.front());
    under_way.pop_front();
    return 1;
  });
}

// ---- Datagrams ----

int ConnectDatagrams(bool is_unix, uint16_t port) {
  const int fd = socket(is_unix ? AF_UNIX : AF_INET, SOCK_DGRAM, 0);
  BePatient(fd);
  sockaddr_in udp = {};
  udp.sin_family = AF_INET;
  udp.sin_port = htons(port);
  udp.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sockaddr_un own = {AF_UNIX, "/run/bench-client.sock"};
  sockaddr_un server = {AF_UNIX, {}};
  strcpy(server.sun_path, kUnixPath);
  const sockaddr* address = reinterpret_cast<sockaddr*>(&udp);
  socklen_t length = sizeof(udp);
  if (is_unix) {
    unlink(own.sun_path);
    if (bind(fd, reinterpret_cast<sockaddr*>(&own), sizeof(own)) != 0) Fail("bind");
    address = reinterpret_cast<sockaddr*>(&server);
    length = sizeof(server);
  }
  if (connect(fd, address, length) != 0) Fail("connect");
  return fd;
}

void MeasureDatagrams(int fd, bool all_answered) {
  char answered[kDatagramSize] = {kAnswerMe};
  char silent[kDatagramSize] = {'-'};
  const auto put = [fd](const char* datagram) {
    if (send(fd, datagram, kDatagramSize, 0) != kDatagramSize) Fail("send");
  };
  const auto get = [fd] {
    char buffer[kDatagramSize];
    if (recv(fd, buffer, sizeof(buffer), 0) != kDatagramSize) Fail("no answer");
  };
  if (all_answered) {
    for (int i = 0; i < kDatagramsUnderWay; ++i) put(answered);
    Measure([&] {
      get();
      put(answered);
      return 1;
    });
    return;
  }
  Measure([&] {
    for (int i = 1; i < kDatagramsUnderWay; ++i) put(silent);
    put(answered);
    get();
    return kDatagramsUnderWay;
  });
}

void AllowManyFiles() {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) return 2;
  const std::string kind = argv[1];
  server_pid = atoi(argv[3]);
  seconds = atof(argv[4]);
  alarm(120);
  AllowManyFiles();
  if (kind == "accept") {
    MeasureAccepts();
  } else if (kind == "tcp" || kind == "tls") {
    Streams streams(kind == "tls", argc > 5 ? atoi(argv[5]) : 1,
                    argc > 6 ? static_cast<size_t>(atoi(argv[6])) : 64,
                    argc > 7 ? atoi(argv[7]) : 0);
    Measure([&streams] { return streams.Step(); });
  } else {
    const bool is_unix = kind.rfind("unix", 0) == 0;
    const auto port = static_cast<uint16_t>(atoi(argv[2]));
    MeasureDatagrams(ConnectDatagrams(is_unix, port), kind.find("-in") == std::string::npos);
  }
}
