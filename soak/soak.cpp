// soak SECONDS CERTIFICATE KEY
// A daemon with a clear and a TLS echo server, timers and settings, under storms of clients in a
// process of their own. After the storm it must be as it was before: no descriptor, no thread and
// no memory more, no byte lost. Exits 0 only then.
#include <malloc.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>

#include "Storm.h"
#include "util/PersistentConfig.h"
#include "util/SocketServer.h"
#include "util/SslWrapper.h"
#include "util/Timer.h"
#include "util/TimerManager.h"

// Neither this machine's log nor its kernel's is to hear of the storm.
static std::atomic<uint64_t> s_errors_logged{0};
extern "C" void syslog(int priority, const char* /*format*/, ...) {
  if (priority <= LOG_ERR) ++s_errors_logged;
}
extern "C" int system(const char* /*command*/) { return 0; }

namespace {

using hvn::util::PersistentConfig;
using hvn::util::Socket;
using hvn::util::SocketServer;
using hvn::util::SslWrapper;
using hvn::util::Timer;
using hvn::util::TimerManager;

// OpenSSL and malloc have grown to what they need when a storm of this length is over.
constexpr int kWarmUpSeconds = 20;
// The same heap may be spread over some pages more or fewer than before. A leak of a few bytes per
// connection exceeds this within seconds.
constexpr long kMemoryTolerance = 256L * 1024;
constexpr std::chrono::seconds kRest{20};
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryIsOurs = false;  // the sanitizer keeps what is freed, and finds leaks itself
#else
constexpr bool kMemoryIsOurs = true;
#endif

/// The storm's process: it gets the ports and then how long to rage, gives its tallies, and so on.
class Clients {
 public:
  /// Before this process has any thread.
  Clients() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
    process_ = fork();
    fd_ = ends[process_ == 0 ? 0 : 1];
    close(ends[process_ == 0 ? 1 : 0]);
    if (process_ == 0) Serve();
  }
  /// Whether all ended well.
  bool End() {
    int status = 1;
    close(fd_);
    return waitpid(process_, &status, 0) == process_ && status == 0;
  }

  void Start(uint16_t clear_port, uint16_t tls_port, int seconds) {
    const Order order = {clear_port, tls_port, seconds};
    if (send(fd_, &order, sizeof(order), MSG_NOSIGNAL) < 0) std::perror("soak: send");
  }
  bool AreDone() {
    char byte;
    return recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0;
  }
  bool Read(Tallies& tallies) {
    return recv(fd_, &tallies, sizeof(tallies), MSG_WAITALL) == sizeof(tallies);
  }

 private:
  struct Order {
    uint16_t clear_port, tls_port;
    int seconds;
  };

  [[noreturn]] void Serve() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // OpenSSL before 1.1.0 has to be made ready for threads, which the library does.
    const SslWrapper makes_ready(false, SslWrapper::kTlsV1_2);
    Order order;
    while (recv(fd_, &order, sizeof(order), MSG_WAITALL) == sizeof(order)) {
      const Tallies tallies = Storm(order.clear_port, order.tls_port, order.seconds);
      if (send(fd_, &tallies, sizeof(tallies), MSG_NOSIGNAL) != sizeof(tallies)) break;
    }
    std::exit(0);
  }

  pid_t process_;
  int fd_;
};

/// Gives every client back what it sends.
class EchoServer {
 public:
  explicit EchoServer(SslWrapper* ssl)
      : server_(
            "127.0.0.1", Socket::kTcp, Socket::kIpv4,
            [this](int, int client, const std::string&, void* data, size_t size) {
              return Echo(client, data, size);
            },
            ssl) {
    server_.SetNewClientCb([this](int, int client, const std::string&) {
      Socket(client, Socket::kTcp, Socket::kIpv4).SetTCPNoDelay(true);
      gone_.erase(client);
      ++clients_;
    });
  }
  uint64_t clients() const { return clients_; }
  uint16_t port() const {
    sockaddr_in address = {};
    socklen_t size = sizeof(address);
    getsockname(server_.fd(), reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
  }

 private:
  /// One failed answer is the last: each further one to a peer that has reset is tried for a
  /// second.
  bool Echo(int client, void* data, size_t size) {
    if (gone_.count(client) > 0) return false;
    if (server_.SendTo(client, data, size) == static_cast<ssize_t>(size)) return true;
    gone_.insert(client);
    shutdown(client, SHUT_RDWR);
    return false;
  }

  std::set<int> gone_;
  std::atomic<uint64_t> clients_{0};
  SocketServer server_;  // last: its thread uses the others
};

/// What else a daemon does meanwhile: timers that come and go, settings that are saved and read.
class Chores {
 public:
  Chores() : heartbeat_("heartbeat", [this] { ++ticks_; }) {
    heartbeat_.Start(10000, true);
    for (int i = 1; i <= 20; ++i) AddTask(i * 1000LL);
  }
  ~Chores() {
    stopping_ = true;
    while (tasks_ > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

  void Do() {
    Timer once("once", [this] { ++ticks_; });
    once.Start(1000, false);
    const unsigned round = ++settings_;
    const std::string key = "key" + std::to_string(round % 20);
    const std::string value(round % 300, static_cast<char>('a' + round % 26));
    const bool saved = PersistentConfig::SaveData(key, value) == hvn::kSuccess;
    if (!saved || PersistentConfig::LoadData(key) != value) ++settings_lost_;
  }

  unsigned ticks() const { return ticks_; }
  unsigned settings() const { return settings_; }
  unsigned settings_lost() const { return settings_lost_; }

 private:
  /// A task that now and then gives way to another one.
  void AddTask(long long interval_us) {
    ++tasks_;
    const auto run = [this, interval_us](int, void*) {
      const bool ends = ++ticks_ % 50 == 0 || stopping_;
      if (ends && !stopping_) AddTask(interval_us);
      if (ends) --tasks_;
      return !ends;
    };
    if (timers_.AddTask(interval_us, run, nullptr) < 0) --tasks_;
  }

  std::atomic<bool> stopping_{false};
  std::atomic<int> tasks_{0};
  std::atomic<unsigned> ticks_{0};
  unsigned settings_ = 0;
  unsigned settings_lost_ = 0;
  TimerManager timers_;
  Timer heartbeat_;  // last: its thread uses the others
};

/// What this process holds on to.
struct State {
  long descriptors, threads, memory;
};

State Now() {
  const auto count = [](const char* folder) {
    return static_cast<long>(std::distance(std::filesystem::directory_iterator(folder), {}));
  };
  malloc_trim(0);
  long pages = 0;
  long resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return {count("/proc/self/fd"), count("/proc/self/task"), resident * sysconf(_SC_PAGESIZE)};
}

/// The state when the last connections are closed, or that of a moment when they should be.
State AtRest(const State& before) {
  const auto end = std::chrono::steady_clock::now() + kRest;
  State now = Now();
  while ((now.descriptors != before.descriptors || now.threads != before.threads) &&
         std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    now = Now();
  }
  return now;
}

void Print(const char* who, const char* deed, const Tally& t) {
  std::printf("%-5s %-10s %11" PRIu64 " %9" PRIu64 " %14" PRIu64 " %6" PRIu64 " %10" PRIu64
              " %7" PRIu64 "\n",
              who, deed, t.connections, t.messages, t.bytes, t.lost, t.corrupted, t.refused);
}

/// Whether every client did something and nobody lost anything.
bool Print(const Tallies& tallies) {
  std::printf("%16s %11s %9s %14s %6s %10s %7s\n", "", "connections", "messages", "bytes", "lost",
              "corrupted", "refused");
  Tally sum;
  bool fine = true;
  for (size_t tls = 0; tls < tallies.size(); ++tls) {
    for (size_t deed = 0; deed < kDeedCount; ++deed) {
      const Tally& tally = tallies[tls][deed];
      Print(tls > 0 ? "TLS" : "clear", kDeedNames[deed], tally);
      fine = fine && tally.connections > 0;
      sum += tally;
    }
  }
  Print("all", "", sum);
  return fine && sum.lost + sum.corrupted + sum.refused == 0;
}

bool Same(const char* what, long before, long after, long tolerance) {
  const bool same = after <= before + tolerance && (tolerance > 0 || after == before);
  std::printf("%-16s %10ld before, %10ld after%s\n", what, before, after, same ? "" : ": WRONG");
  return same;
}

/// A storm over everything, with the chores done beside it; whether nothing was lost.
bool Rage(Clients& clients, const EchoServer& clear, const EchoServer& tls, int seconds) {
  Chores chores;
  Tallies tallies;
  clients.Start(clear.port(), tls.port(), seconds);
  while (!clients.AreDone()) {
    chores.Do();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (!clients.Read(tallies)) return false;
  const bool fine = Print(tallies);
  std::printf("accepted: %" PRIu64 " clear, %" PRIu64
              " TLS; timers expired %u times; %u settings saved, %u lost\n",
              clear.clients(), tls.clients(), chores.ticks(), chores.settings(),
              chores.settings_lost());
  return fine && chores.ticks() > 0 && chores.settings_lost() == 0;
}

bool Soak(Clients& clients, int seconds, const char* certificate, const char* key) {
  SslWrapper ssl(true, SslWrapper::kTlsV1_2);
  if (ssl.SetCertAndKeyFile(certificate, key, SslWrapper::kPem, SslWrapper::kPem) !=
      hvn::kSuccess) {
    return false;
  }
  const TimerManager timers;  // makes the service, which stays
  const EchoServer clear(nullptr);
  const EchoServer tls(&ssl);
  const State idle = Now();
  std::printf("warming up for %d s\n", kWarmUpSeconds);
  bool fine = Rage(clients, clear, tls, kWarmUpSeconds);
  const State before = AtRest(idle);
  std::printf("soaking for %d s\n", seconds);
  fine = Rage(clients, clear, tls, seconds) && fine;
  const State after = AtRest(idle);
  fine = Same("descriptors", idle.descriptors, after.descriptors, 0) && fine;
  fine = Same("threads", idle.threads, after.threads, 0) && fine;
  if (!kMemoryIsOurs) return fine;
  return Same("resident bytes", before.memory, after.memory, kMemoryTolerance) && fine;
}

}  // namespace

int main(int argc, char** argv) {
  const long seconds = argc == 4 ? std::strtol(argv[1], nullptr, 10) : 0;
  if (seconds < 1 || seconds > 86400) {
    std::fputs("usage: soak SECONDS CERTIFICATE KEY\n", stderr);
    return 2;
  }
  alarm(static_cast<unsigned>(kWarmUpSeconds + seconds + 180));  // whatever happens
  std::signal(SIGPIPE, SIG_IGN);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  Clients clients;
  const bool fine = Soak(clients, static_cast<int>(seconds), argv[2], argv[3]);
  const bool all_fine = clients.End() && fine;
  std::printf("%" PRIu64 " errors logged\n%s\n", s_errors_logged.load(),
              all_fine ? "soaked" : "FAILED");
  return all_fine ? 0 : 1;
}
