// target serve PORT [--tls] [TLS...] [--limit=MS] [--linger] [--backlog=N] [--answer=BYTES]
//                   [--http] [--close] [--signals]
// target client HOST PORT [--tls] [TLS...] [--size=BYTES] [--expect=TEXT] [--connections=N]
//                         [--signals]
// target fetch URL [--limits=CONNECT_MS,TOTAL_MS,BYTES] [--verify] [--ca=F]
// target save PREFIX COUNT [--length=N]
// TLS: --cert=F --key=F --ca=F --verify=HOST --modern --tls-limit=MS
// The library in each of its roles, for other programs to try. The server is an echo, or answers
// the same to whatever arrives; it says "ready" and ends with its standard input. The others print
// what came of it in one line. The client says hello, or so many bytes, and expects the same back
// or TEXT. The saver goes round five keys, for ever where COUNT is 0.
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "util/HttpRequest.h"
#include "util/PersistentConfig.h"
#include "util/SocketClient.h"
#include "util/SocketServer.h"

using hvn::util::Buffer;
using hvn::util::HttpRequest;
using hvn::util::PersistentConfig;
using hvn::util::Socket;
using hvn::util::SocketClient;
using hvn::util::SocketServer;
using hvn::util::SslWrapper;

namespace {

/// What a role is asked for in words of the form --name=value.
class Wishes {
 public:
  Wishes(int argc, char** argv, int first) {
    for (int i = first; i < argc; ++i) {
      const std::string word = std::string(argv[i]).substr(2);
      const size_t equals = word.find('=');
      values_[word.substr(0, equals)] = equals == std::string::npos ? "" : word.substr(equals + 1);
    }
  }

  bool Has(const std::string& name) const { return values_.count(name) > 0; }
  /// Empty where it is not wished for.
  std::string Text(const std::string& name) const {
    const auto found = values_.find(name);
    return found == values_.end() ? "" : found->second;
  }
  int Number(const std::string& name, int otherwise = 0) const {
    return Has(name) ? std::atoi(Text(name).c_str()) : otherwise;
  }

 private:
  std::map<std::string, std::string> values_;
};

/// False where the library refuses one of the wishes.
bool SetUpTls(SslWrapper& ssl, const Wishes& wishes) {
  constexpr auto kPem = SslWrapper::kPem;
  const std::string cert = wishes.Text("cert");
  const bool is_modern = wishes.Has("modern");
  bool fine = !is_modern || ssl.UseModernTls();
  if (!cert.empty()) {
    fine = ssl.SetCertAndKeyFile(cert, wishes.Text("key"), kPem, kPem) == hvn::kSuccess && fine;
    if (is_modern) fine = ssl.SetCertChainFile(cert) == hvn::kSuccess && fine;
  }
  if (wishes.Has("ca")) fine = ssl.SetRootCaFile(wishes.Text("ca"), kPem) == hvn::kSuccess && fine;
  if (wishes.Has("verify")) fine = ssl.VerifyPeer(wishes.Text("verify")) && fine;
  ssl.SetTimeLimit(wishes.Number("tls-limit"));
  return fine;
}

/// From now on a signal every 100 microseconds, whose handler does nothing and restarts nothing,
/// for the threads that do not block it.
void RainSignals() {
  struct sigaction nothing = {};
  nothing.sa_handler = [](int) {};
  sigaction(SIGALRM, &nothing, nullptr);
  const itimerval often = {{0, 100}, {0, 100}};
  setitimer(ITIMER_REAL, &often, nullptr);
}

// ---- serve ----

/// What is said to everybody; empty for an echo.
std::string Answer(const Wishes& wishes) {
  const std::string body(static_cast<size_t>(wishes.Number("answer")), 'x');
  if (!wishes.Has("http")) return body;
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

SocketServer::SocketServerOption Options(const Wishes& wishes) {
  SocketServer::SocketServerOption option;
  option.backlog = wishes.Number("backlog", option.backlog);
  option.peer_timeout_ms = wishes.Number("limit");
  option.linger = wishes.Has("linger");
  return option;
}

void BlockAlarms() {
  sigset_t alarms;
  sigemptyset(&alarms);
  sigaddset(&alarms, SIGALRM);
  pthread_sigmask(SIG_BLOCK, &alarms, nullptr);
}

int Serve(const Wishes& wishes, const std::string& port) {
  SslWrapper ssl(true, SslWrapper::kTlsV1_2);
  if (!SetUpTls(ssl, wishes)) return 2;
  const std::string answer = Answer(wishes);
  const bool closes = wishes.Has("close");
  SocketServer server(
      "::;" + port, Socket::kTcp, Socket::kIpv6,
      [&](int, int client, std::string, void* data, size_t size) {
        const bool echoes = answer.empty();
        void* const text = echoes ? data : const_cast<char*>(answer.data());
        const ssize_t sent = server.SendTo(client, text, echoes ? size : answer.size());
        if (closes) server.Close(client);
        return sent >= 0;
      },
      wishes.Has("tls") ? &ssl : nullptr, Options(wishes));
  if (server.fd() < 0) return 1;
  // From here on only the loop's thread is rained on.
  BlockAlarms();
  if (wishes.Has("signals")) RainSignals();
  std::puts("ready");
  std::fflush(stdout);
  char byte;
  while (read(STDIN_FILENO, &byte, 1) > 0) continue;
  return 0;
}

// ---- client ----

/// Whether `peer` says `wanted` next.
bool Hears(SocketClient& peer, const std::string& wanted) {
  std::string heard;
  char chunk[8192];
  while (heard.size() < wanted.size()) {
    const ssize_t n = peer.Recv(chunk, sizeof(chunk));
    if (n <= 0) return false;
    heard.append(chunk, static_cast<size_t>(n));
  }
  return heard == wanted;
}

bool Exchange(const std::string& dest, SslWrapper* ssl, const std::string& text,
              const std::string& wanted) {
  constexpr int kPatienceUs = 5000000;
  SocketClient::SocketClientOption option(ssl, kPatienceUs);
  SocketClient peer("", Socket::kTcp, Socket::kIpv4, dest, option);
  const bool heard = peer.is_connected() && peer.Send(text) == static_cast<ssize_t>(text.size()) &&
                     Hears(peer, wanted);
  if (ssl != nullptr) ssl->RemoveClient(peer.fd());
  return heard;
}

int Client(const Wishes& wishes, const std::string& dest) {
  SslWrapper ssl(false, SslWrapper::kTlsV1_2);
  if (!SetUpTls(ssl, wishes)) return 2;
  const std::string text =
      wishes.Has("size") ? std::string(static_cast<size_t>(wishes.Number("size")), 'x') : "hello\n";
  const std::string wanted = wishes.Has("expect") ? wishes.Text("expect") + "\n" : text;
  const int connections = wishes.Number("connections", 1);
  if (wishes.Has("signals")) RainSignals();
  int heard = 0;
  for (int i = 0; i < connections; ++i) {
    if (Exchange(dest, wishes.Has("tls") ? &ssl : nullptr, text, wanted)) ++heard;
  }
  std::printf("%d of %d\n", heard, connections);
  return heard == connections ? 0 : 1;
}

// ---- fetch ----

int Fetch(const Wishes& wishes, const std::string& url) {
  HttpRequest request;
  request.url_ = url;
  long connect_ms = 0;
  long total_ms = 0;
  size_t max_body = 0;
  if (std::sscanf(wishes.Text("limits").c_str(), "%ld,%ld,%zu", &connect_ms, &total_ms,
                  &max_body) == 3) {
    request.SetLimits(connect_ms, total_ms, max_body);
  }
  if (wishes.Has("verify")) request.VerifyPeer(wishes.Text("ca"));
  Buffer body;
  const hvn::Result result = request.Start(body);
  std::printf("result %d status %d bytes %u\n", result, request.status_code(), body.length());
  return request.status_code() == 200 ? 0 : 1;
}

// ---- save ----

/// Counts what was stored, what was refused, and what then is not as the results have said.
int Save(const Wishes& wishes, const std::string& prefix, int count) {
  constexpr int kKeys = 5;
  const int length = wishes.Number("length", 64);
  std::puts("ready");
  std::fflush(stdout);
  std::map<std::string, std::string> stored;
  int refused = 0;
  int wrong = 0;
  for (int i = 0; count == 0 || i < count; ++i) {
    const std::string key = prefix + std::to_string(i % kKeys);
    const std::string value =
        std::to_string(i) +
        std::string(static_cast<size_t>(int64_t{i} * 37 % length), static_cast<char>('a' + i % 26));
    if (PersistentConfig::SaveDataAtomically(key, value) == hvn::kSuccess) {
      stored[key] = value;
    } else {
      ++refused;
    }
    for (const auto& setting : stored) {
      if (PersistentConfig::LoadData(setting.first) != setting.second) ++wrong;
    }
  }
  std::printf("%d saved, %d refused, %d wrong\n", count - refused, refused, wrong);
  return wrong == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  openlog("target", LOG_PID | LOG_NDELAY, LOG_DAEMON);
  setlogmask(LOG_UPTO(LOG_INFO));
  std::signal(SIGPIPE, SIG_IGN);
  const std::string role = argc > 2 ? argv[1] : "";
  if (role == "serve") return Serve(Wishes(argc, argv, 3), argv[2]);
  if (role == "fetch") return Fetch(Wishes(argc, argv, 3), argv[2]);
  if (role == "client" && argc > 3) {
    return Client(Wishes(argc, argv, 4), std::string(argv[2]) + ";" + argv[3]);
  }
  if (role == "save" && argc > 3) {
    return Save(Wishes(argc, argv, 4), argv[2], std::atoi(argv[3]));
  }
  std::fputs("usage: target serve|client|fetch|save ..., see its source\n", stderr);
  return 2;
}
