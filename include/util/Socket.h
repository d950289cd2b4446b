#ifndef HUTIL_UTIL_SOCKET_H_
#define HUTIL_UTIL_SOCKET_H_

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "util/Export.h"
#include "util/Result.h"

namespace hvn {
namespace util {

class SocketAddress;
struct Sender;

/// A descriptor and the text, its path, that says where it lives.
///
///     Socket probe("", Socket::kUdp, Socket::kIpv4, Socket::SocketOption());
///     probe.SendTo("192.168.1.10;5000", std::string("who is there"));
///
/// Paths: kIpv4 and kIpv6 take "IP", "PORT" or "IP;PORT" ("192.168.1.1", "8080", "::;53"); the name
/// of an interface binds to that device. kUnix takes a file name, or an abstract name behind a NUL.
/// kNetlink takes none. The port of a kIpv4 path is for Connect and SendTo only: binding an IPv4
/// path always takes an ephemeral port.
/// Sends and receives of several threads may overlap. Failures log at priority 3 unless said
/// otherwise; without a descriptor all but Recv, BindToDevice and GetTcpInfo fail silently. Nothing
/// calls back. Ignore SIGPIPE in the process: sends without a limit raise it. Descriptors that the
/// library makes are close-on-exec.
class HUTIL_EXPORT Socket {
 public:
  enum Protocol : unsigned char { kTcp = 1, kUdp = 2, kRaw = 3 };
  enum Domain : unsigned char { kUnix = 0, kIpv4 = 1, kIpv6 = 2, kNetlink = 3 };

  /// Buffer sizes in bytes; 0 or less keeps the kernel's default. See SO_SNDBUF in socket(7).
  struct SocketOption {
    SocketOption(int32_t send_size = 0, int32_t recv_size = 0)  // NOLINT: {1, 2} in C++11 too
        : send_buffer_size(send_size), recv_buffer_size(recv_size) {}
    int32_t send_buffer_size;
    int32_t recv_buffer_size;
  };

  /// The kernel's figures for a TCP connection. See tcp(7).
  struct TcpInfo {
    uint8_t state, ca_state, retransmits, probes, backoff, options, snd_wscale, rcv_wscale;
    uint32_t rto, ato, snd_mss, rcv_mss, unacked, sacked, lost, retrans, fackets;
    uint32_t last_data_sent, last_ack_sent, last_data_recv, last_ack_recv;
    uint32_t pmtu, rcv_ssthresh, rtt, rttvar, snd_ssthresh, snd_cwnd, advmss, reordering;
    uint32_t rcv_rtt, rcv_space, total_retrans;
  };

  /// Works on `fd`, which stays the caller's: it is neither shut down nor closed here. Owner.
  Socket(int fd, Protocol protocol, Domain domain);
  /// Creates, tunes and binds a descriptor as Init says; fd() is -1 where that failed. An empty
  /// `path` binds nothing. Owner.
  Socket(std::string path, Protocol protocol, Domain domain, SocketOption option);
  /// Removes the socket file of a kUnix path; shuts down (TCP; a failure logs at 4) and closes an
  /// owned descriptor (logs at 6, a failure at 3). Closing a TCP connection resets it. Owner.
  ~Socket();
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  /// What the path constructor runs: socket(2), buffer sizes, SO_LINGER 0 for TCP, SO_REUSEADDR,
  /// bind(2) or BindToDevice. A stale socket file is removed first; a Unix path above 108 bytes is
  /// ENAMETOOLONG. kFailure leaves no descriptor. A second call makes a second descriptor and
  /// leaves the first one to whoever has noted its number. Logs success at 6, its steps at 7. Not
  /// for adopted descriptors. Owner.
  hvn::Result Init();
  /// Splits `path` by the grammar above; port 0 where it names none. Logs success at 7. kFailure,
  /// logged only for a port that is not all digits, leaves what was read so far in both; for an
  /// empty path and a domain without the grammar it leaves them alone. Any thread.
  hvn::Result GetIpAndPortByPath(std::string path, std::string& ip, int& port);
  /// Does nothing and returns kSuccess: binding is the constructor's. Any thread.
  hvn::Result Bind(std::string ip, unsigned short port);
  /// Whether the IPv4 text `ip` starts with 224 to 239. Never logs. Any thread.
  bool IsMulticast(std::string ip);
  /// Lets a TCP socket accept; kSuccess for other protocols. A failure closes the descriptor and
  /// logs at 7. Owner. See listen(2).
  hvn::Result Listen(int backlog);
  /// Sets or clears O_NONBLOCK. kFailure; logged, at 4, only where fcntl(2) refuses the flags.
  /// Owner.
  hvn::Result SetNonBlock(bool on);
  /// Sets TCP_NODELAY; kFailure, silently, for other protocols. Owner. See tcp(7).
  hvn::Result SetTCPNoDelay(bool on);
  /// Sets SO_REUSEADDR. Owner. See socket(7).
  hvn::Result SetReuseAddress();
  /// Binds to the interface `ifname`; false where there is none of that name. Logs success at 7.
  /// Owner. See SO_BINDTODEVICE in socket(7).
  bool BindToDevice(std::string ifname);

  /// Connects to `dest` within `timeout_us` microseconds (0 or less: no limit). A multicast `dest`
  /// is joined instead, with kSuccess also where that fails (logged), and is_connected() unchanged.
  /// kInvalidArgument where a kIpv6 `dest` is no IPv6 literal (logged); kFailure where the connect
  /// fails (logged at 7), select(2) cannot hold the descriptor (logged) or GetIpAndPortByPath
  /// fails, and always for kNetlink. Steps and success log at 7, a join at 6. With a limit the
  /// socket is blocking again after the wait, and stays non-blocking after an immediate refusal.
  /// Owner. See connect(2).
  hvn::Result Connect(std::string dest, int timeout_us);

  /// Sends all of `size` bytes on `fd`. While the kernel has no room (on a non-blocking
  /// descriptor), or the peer is gone (EPIPE, which raises SIGPIPE), tries again every 100 ms, ten
  /// times at most. Each retry (logged at 7) moves the position back by one byte: a byte goes out
  /// again and, where the very first send is retried, so do up to ten bytes in front of `data`,
  /// which must be the caller's to send. Returns the count of bytes sent less that of retries or,
  /// where that is not above 0, -errno; -1, silently, for bad arguments. See SetSendLimit for sends
  /// that do none of this. Any thread. See send(2).
  ssize_t SendTo(int fd, const void* data, size_t size);
  ssize_t SendTo(int fd, void* data, size_t size);
  ssize_t SendTo(int fd, std::string data);
  /// Sends to the address `path` and returns the bytes sent; tries again without a pause or a limit
  /// while the kernel has no room (logged each time). Any other failure is logged and ends it with
  /// the count so far, 0 included. -1 for a bad argument and for a path without an address, which
  /// is logged where a port is not all digits or a file's name too long. A kIpv6 socket sends to
  /// the path's port of "::" whatever address the path names. Any thread. See sendto(2).
  ssize_t SendTo(std::string path, const void* data, size_t size);
  ssize_t SendTo(std::string path, void* data, size_t size);
  ssize_t SendTo(std::string path, std::string data);
  /// SendTo on this socket's descriptor. Any thread.
  ssize_t Send(const void* data, size_t size);
  ssize_t Send(void* data, size_t size);
  ssize_t Send(std::string data);

  /// Reads up to `size` bytes; bit 0 of `flags` peeks, the others are ignored. recv's result; 0 and
  /// errors are logged. -1 without a descriptor or buffer. Any thread. See recv(2).
  ssize_t Recv(void* buf, size_t size, int flags);
  /// Recv after waiting at most `timeout_us` microseconds: -ETIME when they ran out, -errno where
  /// the wait failed, -1 where select(2) cannot hold the descriptor; all three are logged. Any
  /// thread.
  ssize_t RecvTimedWait(void* buf, size_t size, uint64_t timeout_us, int flags);
  /// Accepts a connection, close-on-exec, and describes the peer in `path`: "IP:PORT" for IPv4,
  /// "IP;PORT" for IPv6, the peer's socket file for kUnix. The descriptor, now the caller's, or
  /// accept4's failure, which is not logged; 0 for a netlink socket. Owner. See accept4(2).
  int Accept(std::string& path);
  /// Logs the connection's figures at 7; `info` is not written. False where there are none. Any
  /// thread.
  bool GetTcpInfo(TcpInfo& info);

  /// This socket's descriptor, still its own, or -1; what it was made from; whether a Connect has
  /// succeeded. Owner.
  int fd() const { return fd_; }
  const std::string& path() const { return path_; }
  Protocol protocol() const { return protocol_; }
  Domain domain() const { return domain_; }
  bool is_connected() const { return is_connected_; }

  /// Ends each later Send and SendTo after `timeout_ms` milliseconds at the most, however slowly
  /// the peer goes on: as a failure of errno ETIMEDOUT, logged at 3. Such a send repeats no byte,
  /// raises no SIGPIPE and gives a peer that has gone up at once. 0, as at the start, takes the
  /// limit away. kFailure, silently, without a descriptor and below 0. Any thread.
  hvn::Result SetSendLimit(int timeout_ms);

 protected:
  friend class SocketServerRunner;  // which answers through the daemon's sockets

  /// Sends a datagram to whom one has come from, as SendTo does.
  ssize_t ReplyTo(const Sender& sender, const void* data, size_t size);

  bool is_connected_ = false;
  std::string path_;
  Domain domain_;
  SocketOption option_;
  int fd_;
  Protocol protocol_;
  bool owns_fd_;
  pthread_mutex_t socket_mutex_;  ///< Reserved; no operation takes it.

 private:
  hvn::Result OpenDescriptor();
  hvn::Result BindToPath();
  hvn::Result BindFailure();
  bool BuildLocalAddress(SocketAddress& address);
  bool BuildLocalIpAddress(SocketAddress& address);
  hvn::Result ConnectWithin(const SocketAddress& address, const std::string& dest, int timeout_us);
  bool BuildDestination(const std::string& path, SocketAddress& address);
  void CloseDescriptor();

  static std::atomic<int> nl_pid_index;

  std::atomic<int> send_limit_ms_{0};
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_SOCKET_H_
