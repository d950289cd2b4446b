#ifndef HUTIL_BENCH_SERVERS_SERVER_H_
#define HUTIL_BENCH_SERVERS_SERVER_H_

#include <cstddef>
#include <cstdint>
#include <string>

/// What every stack's echo server is asked for. Streams come back as they are; so do those
/// datagrams that begin with kAnswerMe, the others are only received.
struct Plan {
  enum Kind { kTcp, kTls, kUnix, kUdp };
  Kind kind;
  std::string cert, key;  ///< PEM files, for kTls.
  bool limited = false;   ///< With the library's limits for peers; the others have none.
};

constexpr uint16_t kPort = 7007;  ///< Of "::" for streams, of the IPv4 loopback for datagrams.
constexpr char kUnixPath[] = "/run/bench.sock";
constexpr char kCiphers[] = "ECDHE-RSA-AES128-GCM-SHA256";  ///< The one that all speak.
constexpr size_t kReceiveSize = 8192;
constexpr int kBacklog = 5;  ///< The library's, so everybody's.
constexpr char kAnswerMe = 'a';

/// Tells the driver that the server serves, and where.
void Ready(uint16_t port);

/// A bound (and, for streams, listening) descriptor, for stacks that take one.
int OpenServer(Plan::Kind kind);

/// What both floors do with a readable client: one read, sent back whole. False when it is gone.
bool EchoOnce(int fd);

/// One stack's server; does not return. Exits with 3 where the stack has none of that kind.
[[noreturn]] void Serve(const Plan& plan);

#endif  // HUTIL_BENCH_SERVERS_SERVER_H_
