// A gateway's daemon: says over TLS, over a Unix socket and in datagrams what the device knows.
//
// A request is a line that ends in "\n" or "\r\n"; `help` lists them. The answer is
//   ok N            followed by N lines, or
//   error: REASON   after which the connection goes on as before.
// `quit` ends a connection with "ok 1", "bye".
//
// THE TLS PORT IS BOUND THROUGH AN IPv6 PATH ("::;8443"), which serves IPv4 clients as well. An
// IPv4 path would not do: the library binds those to an ephemeral port, whatever port they name.
// The Unix sockets are for root alone. Clients see by the certificate whom they talk to, but are
// not authenticated themselves: keep the port off the uplink.

#include <getopt.h>
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "gatewayd/DatagramService.h"
#include "gatewayd/Gateway.h"
#include "gatewayd/LineService.h"
#include "gatewayd/SlowLane.h"
#include "util/Misc.h"
#include "util/SslWrapper.h"
#include "util/Timer.h"

using hvn::util::Misc;
using hvn::util::Socket;
using hvn::util::SslWrapper;
using hvn::util::Timer;

namespace {

constexpr int kUsageError = 2;
constexpr long long kUsPerSecond = 1000000;
constexpr char kUsage[] =
    "gatewayd --cert FILE --key FILE [--port N] [--status PATH] [--control PATH] "
    "[--heartbeat SECONDS] [--patience SECONDS] [--cipher LIST]... [--stderr]";

struct Options {
  std::string cert;
  std::string key;
  uint16_t port = 8443;
  std::string status_path = "/run/gatewayd.status";
  std::string control_path = "/run/gatewayd.control";
  int heartbeat_s = 30;
  int patience_s = 5;  ///< How long a peer, or a web server, may keep us waiting.
  std::vector<std::string> ciphers;
  bool log_to_stderr = false;
};

[[noreturn]] void Refuse(const std::string& reason) {
  std::fprintf(stderr, "gatewayd: %s\n", reason.c_str());
  std::exit(kUsageError);
}

int NumberOf(const std::string& option, const std::string& text, int lowest, int highest) {
  bool failed = text.find_first_not_of("0123456789") != std::string::npos;
  const int number = failed ? 0 : Misc::StoiWithException(text, failed);
  if (failed || number < lowest || number > highest) {
    Refuse("--" + option + " takes a number from " + std::to_string(lowest) + " to " +
           std::to_string(highest) + ", not '" + text + "'");
  }
  return number;
}

void Apply(const std::string& option, const char* argument, Options& options) {
  const std::string value = argument == nullptr ? "" : argument;
  if (option == "cert") options.cert = value;
  if (option == "key") options.key = value;
  if (option == "port") {
    options.port = static_cast<uint16_t>(NumberOf(option, value, 1, UINT16_MAX));
  }
  if (option == "status") options.status_path = value;
  if (option == "control") options.control_path = value;
  if (option == "heartbeat") options.heartbeat_s = NumberOf(option, value, 1, 86400);
  if (option == "patience") options.patience_s = NumberOf(option, value, 1, 3600);
  if (option == "cipher") options.ciphers.push_back(value);
  if (option == "stderr") options.log_to_stderr = true;
  if (option == "help") {
    std::printf("usage: %s\n", kUsage);
    std::exit(EXIT_SUCCESS);
  }
}

Options Parse(int argc, char** argv) {
  static const option kOptions[] = {{"cert", required_argument, nullptr, 0},
                                    {"key", required_argument, nullptr, 0},
                                    {"port", required_argument, nullptr, 0},
                                    {"status", required_argument, nullptr, 0},
                                    {"control", required_argument, nullptr, 0},
                                    {"heartbeat", required_argument, nullptr, 0},
                                    {"cipher", required_argument, nullptr, 0},
                                    {"patience", required_argument, nullptr, 0},
                                    {"stderr", no_argument, nullptr, 0},
                                    {"help", no_argument, nullptr, 0},
                                    {nullptr, 0, nullptr, 0}};
  Options options;
  int index = 0;
  opterr = 0;
  for (int found = 0; (found = getopt_long(argc, argv, "", kOptions, &index)) != -1;) {
    if (found != 0) Refuse("cannot read '" + std::string(argv[optind - 1]) + "', try --help");
    Apply(kOptions[index].name, optarg, options);
  }
  if (optind < argc) Refuse("cannot read '" + std::string(argv[optind]) + "', try --help");
  if (options.cert.empty() || options.key.empty()) Refuse("--cert and --key are needed");
  for (const std::string& path : {options.cert, options.key}) {
    if (access(path.c_str(), R_OK) != 0) Refuse("cannot read the file " + path);
  }
  return options;
}

/// Signals end the daemon in Run, on the main thread; every other thread inherits the mask.
sigset_t PrepareSignals() {
  signal(SIGPIPE, SIG_IGN);
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  return ending;
}

/// The file of the certificate holds those that lead from it to a root as well.
void LoadTls(const Options& options, SslWrapper& ssl) {
  if (ssl.SetCertAndKeyFile(options.cert, options.key, SslWrapper::kPem, SslWrapper::kPem) !=
          hvn::kSuccess ||
      ssl.SetCertChainFile(options.cert) != hvn::kSuccess) {
    Refuse("no certificate and key in " + options.cert + " and " + options.key);
  }
  if (!ssl.UseModernTls()) Refuse("no modern TLS in this OpenSSL");
  if (!options.ciphers.empty() && !ssl.SetCipherLists(options.ciphers)) {
    Refuse("no cipher of the list is known");
  }
}

int CannotListen() {
  std::fprintf(stderr, "gatewayd: cannot listen, the log says why\n");
  return EXIT_FAILURE;
}

int Run(const Options& options, const sigset_t& ending) {
  const int patience_ms = 1000 * options.patience_s;
  SslWrapper ssl(true, SslWrapper::kTlsV1_2);
  LoadTls(options, ssl);
  Gateway gateway(patience_ms);
  SlowLane lane;
  LineService tls("tls", "::;" + std::to_string(options.port), Socket::kIpv6, &ssl, patience_ms,
                  gateway, lane);
  if (!tls.listening())
    return CannotListen();  // before the sockets of another gatewayd are replaced
  LineService local("unix", options.status_path, Socket::kUnix, nullptr, patience_ms, gateway,
                    lane);
  DatagramService datagrams(options.control_path, options.port, gateway, lane);
  if (!local.listening() || !datagrams.listening()) return CannotListen();
  gateway.SetClientLister([&] {
    std::vector<std::string> lines = tls.Clients();
    for (std::string& line : local.Clients()) lines.push_back(std::move(line));
    return lines;
  });
  const Timer heart(
      "heart", [&] { gateway.Beat(); }, options.heartbeat_s * kUsPerSecond, true);
  syslog(LOG_NOTICE, "serving on port %d", options.port);

  int caught = 0;
  sigwait(&ending, &caught);
  syslog(LOG_NOTICE, "ending on signal %d", caught);
  if (!lane.Close()) {
    syslog(LOG_WARNING, "ending in the middle of a job that nothing can call off");
    _exit(EXIT_SUCCESS);
  }
  gateway.SetClientLister(nullptr);
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = Parse(argc, argv);
  openlog("gatewayd", LOG_PID | (options.log_to_stderr ? LOG_PERROR : 0), LOG_DAEMON);
  setlogmask(LOG_UPTO(LOG_INFO));  // the library's traces, one or more for each request, stay out
  umask(S_IRWXG | S_IRWXO);
  return Run(options, PrepareSignals());
}
