#include "util/Socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "util/internal/Datagram.h"
#include "util/internal/Log.h"
#include "util/internal/NetlinkGroups.h"
#include "util/internal/Select.h"
#include "util/internal/SocketAddress.h"
#include "util/internal/SocketConnect.h"
#include "util/internal/SocketOptions.h"
#include "util/internal/SocketPath.h"
#include "util/internal/SocketSend.h"
#include "util/internal/TcpStatistics.h"
#include "util/internal/UniqueFd.h"

namespace hvn {
namespace util {

namespace {

[[maybe_unused]] const std::string kTag = "util::Socket";  // for a debugger

constexpr char kInit[] = "hvn::Result hvn::util::Socket::Init()";
constexpr int kPeekFlag = 1;

int FamilyOf(Socket::Domain domain) {
  switch (domain) {
    case Socket::kUnix:
      return AF_UNIX;
    case Socket::kIpv4:
      return AF_INET;
    case Socket::kIpv6:
      return AF_INET6;
    case Socket::kNetlink:
      return AF_NETLINK;
  }
  return -1;
}

}  // namespace

std::atomic<int> Socket::nl_pid_index{0};

Socket::Socket(int fd, Protocol protocol, Domain domain)
    : domain_(domain), fd_(fd), protocol_(protocol), owns_fd_(false) {
  pthread_mutex_init(&socket_mutex_, nullptr);
}

Socket::Socket(std::string path, Protocol protocol, Domain domain, SocketOption option)
    : path_(std::move(path)),
      domain_(domain),
      option_(option),
      fd_(-1),
      protocol_(protocol),
      owns_fd_(true) {
  pthread_mutex_init(&socket_mutex_, nullptr);
  Init();
}

Socket::~Socket() {
  if (!path_.empty() && domain_ == kUnix) unlink(path_.c_str());
  if (owns_fd_) CloseDescriptor();
  pthread_mutex_destroy(&socket_mutex_);
}

void Socket::CloseDescriptor() {
  if (fd_ < 0) return;
  if (protocol_ == kTcp && shutdown(fd_, SHUT_RDWR) != 0) {
    HUTIL_LOG(LOG_WARNING, "shutdown fd [%d] errno [%d]\n", fd_, errno);
  }
  if (close(fd_) == 0) {
    HUTIL_LOG(LOG_INFO, "success to close socket [%s] fd %d\n", PrintablePath(path_), fd_);
  } else {
    HUTIL_LOG(LOG_ERR, "Cannot close socket errno [%d]", errno);
  }
}

// ---- Set-up ----

hvn::Result Socket::Init() {
  if (OpenDescriptor() != hvn::kSuccess) return hvn::kFailure;
  if (domain_ != kNetlink && path_.empty()) {
    HUTIL_LOG(LOG_DEBUG, "%s %d: no path specified\n", kInit, __LINE__);
    return hvn::kSuccess;
  }
  if (BindToPath() != hvn::kSuccess) {
    close(fd_);
    fd_ = -1;
    return hvn::kFailure;
  }
  HUTIL_LOG(LOG_INFO, "%s %d: success to make socket fd [%d] path [%s]\n", kInit, __LINE__, fd_,
            PrintablePath(path_));
  return hvn::kSuccess;
}

hvn::Result Socket::OpenDescriptor() {
  const int family = FamilyOf(domain_);
  if (family < 0) {
    HUTIL_LOG(LOG_ERR, "%s %d : unknown mSocketDomain [%d]\n", "Init", __LINE__, domain_);
    return hvn::kFailure;
  }
  if (protocol_ < kTcp || protocol_ > kRaw) {
    HUTIL_LOG(LOG_ERR, "%s %d : unknown mSocketType [%d]\n", "Init", __LINE__, protocol_);
    return hvn::kFailure;
  }
  const int fd = socket(family, protocol_, 0);
  if (fd < 0) {
    HUTIL_LOG(LOG_ERR, "%s %d : socket failed, errno[%d]\n", "Init", __LINE__, errno);
    return hvn::kFailure;
  }
  TuneSocket(CloseOnExec(fd), option_, protocol_ == kTcp);
  fd_ = fd;
  return hvn::kSuccess;
}

hvn::Result Socket::BindToPath() {
  SocketAddress address;
  if (!BuildLocalAddress(address)) return hvn::kFailure;
  SetReuseAddress();
  if (!address.is_set()) return BindToDevice(path_) ? hvn::kSuccess : hvn::kFailure;
  return bind(fd_, address.get(), address.length()) == 0 ? hvn::kSuccess : BindFailure();
}

hvn::Result Socket::BindFailure() {
  HUTIL_LOG(LOG_ERR, "%s %d: bind errno [%d] path [%s]\n", kInit, __LINE__, errno, path_.c_str());
  return hvn::kFailure;
}

/// Leaves `address` unset for a path that names an interface.
bool Socket::BuildLocalAddress(SocketAddress& address) {
  switch (domain_) {
    case kUnix:
      if (!address.Set(kUnix, path_, 0)) {
        BindFailure();
        return false;
      }
      if (!IsAbstract(path_)) unlink(path_.c_str());
      return true;
    case kIpv4:
    case kIpv6:
      return BuildLocalIpAddress(address);
    case kNetlink:
      address.SetNetlink(static_cast<uint32_t>(getpid()) + kNetlinkPortBase +
                             static_cast<uint32_t>(nl_pid_index++),
                         kNetlinkGroups);
      return true;
  }
  HUTIL_LOG(LOG_ERR, "%s %d: \n", kInit, __LINE__);
  return false;
}

bool Socket::BuildLocalIpAddress(SocketAddress& address) {
  HUTIL_LOG(LOG_DEBUG, "%s %d: path_ %s\n", kInit, __LINE__, path_.c_str());
  std::string ip;
  int port = 0;
  if (GetIpAndPortByPath(path_, ip, port) != hvn::kSuccess) return StartsWithLetter(path_);
  if (domain_ == kIpv4) {
    address.Set(kIpv4, ip.empty() ? "0.0.0.0" : ip, 0);  // the port of an IPv4 path is never bound
    // No group is joined here, so its field stays empty.
    HUTIL_LOG(LOG_DEBUG, "%s %d: multicast_ip [%s] ip [%s] port [%d] s_addr 0x%x\n", kInit,
              __LINE__, "", ip.c_str(), port, address.ipv4_word());
    return true;
  }
  HUTIL_LOG(LOG_DEBUG, "%s %d: ip %s port %d\n", kInit, __LINE__, ip.c_str(), port);
  if (address.Set(kIpv6, ip.empty() ? "::" : ip, port)) return true;
  HUTIL_LOG(LOG_ERR, "%s %d: inet_pton error %s\n", kInit, __LINE__, ip.c_str());
  return false;
}

hvn::Result Socket::GetIpAndPortByPath(std::string path, std::string& ip, int& port) {
  return ParseSocketPath(domain_, path, ip, port);
}

hvn::Result Socket::Bind(std::string /*ip*/, unsigned short /*port*/) { return hvn::kSuccess; }

bool Socket::IsMulticast(std::string ip) {
  const long first = std::strtol(ip.c_str(), nullptr, 10);
  return first >= 224 && first <= 239;
}

hvn::Result Socket::Listen(int backlog) {
  if (fd_ < 0) return hvn::kFailure;
  if (protocol_ != kTcp || listen(fd_, backlog) == 0) return hvn::kSuccess;
  HUTIL_LOG(LOG_DEBUG, "%s %d: close socket fd [%d] errno [%d]\n",
            "hvn::Result hvn::util::Socket::Listen(int)", __LINE__, fd_, errno);
  close(fd_);
  fd_ = -1;
  return hvn::kFailure;
}

hvn::Result Socket::SetNonBlock(bool on) {
  return fd_ < 0 ? hvn::kFailure : SetNonBlockOf(fd_, on);
}

hvn::Result Socket::SetTCPNoDelay(bool on) {
  return fd_ < 0 || protocol_ != kTcp ? hvn::kFailure : SetNoDelayOf(fd_, on);
}

hvn::Result Socket::SetReuseAddress() { return fd_ < 0 ? hvn::kFailure : SetReuseAddressOf(fd_); }

bool Socket::BindToDevice(std::string ifname) { return BindSocketToDevice(fd_, ifname); }

// ---- Data path ----

hvn::Result Socket::Connect(std::string dest, int timeout_us) {
  if (fd_ < 0) return hvn::kFailure;
  std::string host = dest;
  int port = 0;
  if (IsIp(domain_)) {
    if (GetIpAndPortByPath(dest, host, port) != hvn::kSuccess) return hvn::kFailure;
    if (IsMulticast(host)) {
      JoinMulticast(fd_, host);
      return hvn::kSuccess;
    }
  }
  SocketAddress address;
  if (!address.Set(domain_, host, port) && domain_ == kIpv6) {
    HUTIL_LOG(LOG_ERR, "%s %d: inet_pton error %s\n", kConnect, __LINE__, host.c_str());
    return hvn::kInvalidArgument;
  }
  HUTIL_LOG(LOG_DEBUG, "%s %d: dest [%s]\n", kConnect, __LINE__, dest.c_str());
  return domain_ == kNetlink ? hvn::kFailure : ConnectWithin(address, dest, timeout_us);
}

hvn::Result Socket::ConnectWithin(const SocketAddress& address, const std::string& dest,
                                  int timeout_us) {
  if (timeout_us > 0 && !FitsSelect(fd_)) {
    HUTIL_LOG(LOG_ERR, "%s %d: select cannot wait for fd [%d]\n", kConnect, __LINE__, fd_);
    return hvn::kFailure;
  }
  SetNonBlock(timeout_us > 0);
  int ret = ConnectTo(fd_, address);
  if (ret < 0 && errno != EINPROGRESS) {
    HUTIL_LOG(LOG_DEBUG, "%s %d: con_ret %d errno %d\n", kConnect, __LINE__, ret, errno);
    return hvn::kFailure;
  }
  if (timeout_us > 0) {
    ret = AwaitConnection(fd_, timeout_us, ret);
    SetNonBlock(false);
  }
  // The 0 stands where a count of select's would: the wait has logged more than that.
  HUTIL_LOG(LOG_DEBUG, "%s %d: con_ret %d sel_ret %d\n", kConnect, __LINE__, ret, 0);
  if (ret < 0) return hvn::kFailure;
  HUTIL_LOG(LOG_DEBUG, "%s %d: [%s] success to connect [%s] fd %d\n", kConnect, __LINE__,
            path_.c_str(), dest.c_str(), fd_);
  is_connected_ = true;
  return hvn::kSuccess;
}

hvn::Result Socket::SetSendLimit(int timeout_ms) {
  if (fd_ < 0 || timeout_ms < 0) return hvn::kFailure;
  send_limit_ms_ = timeout_ms;
  return hvn::kSuccess;
}

ssize_t Socket::SendTo(int fd, const void* data, size_t size) {
  const int limit_ms = send_limit_ms_.load(std::memory_order_relaxed);
  return limit_ms > 0 ? SendWithin(fd, data, size, limit_ms) : SendAll(fd, data, size);
}

ssize_t Socket::SendTo(std::string path, const void* data, size_t size) {
  if (fd_ < 0 || size == 0 || data == nullptr) return -1;
  SocketAddress address;
  if (!BuildDestination(path, address)) return -1;
  return SendDatagram(fd_, {address, path.c_str()}, data, size,
                      send_limit_ms_.load(std::memory_order_relaxed));
}

ssize_t Socket::ReplyTo(const Sender& sender, const void* data, size_t size) {
  if (fd_ < 0 || size == 0 || data == nullptr) return -1;
  return SendDatagram(fd_, {sender.address, sender.path.c_str()}, data, size,
                      send_limit_ms_.load(std::memory_order_relaxed));
}

bool Socket::BuildDestination(const std::string& path, SocketAddress& address) {
  std::string host = path;
  int port = 0;
  if (IsIp(domain_) && GetIpAndPortByPath(path, host, port) != hvn::kSuccess) return false;
  if (domain_ == kIpv6) host = "::";  // the path's address is not used
  if (address.Set(domain_, host, port)) return true;
  HUTIL_LOG(LOG_ERR, "%s %d: errno [%d] cannot send data to [%s]\n",
            "ssize_t hvn::util::Socket::SendTo(std::string, const void*, size_t)", __LINE__, errno,
            path.c_str());
  return false;
}

ssize_t Socket::SendTo(int fd, void* data, size_t size) {
  return SendTo(fd, static_cast<const void*>(data), size);
}

ssize_t Socket::SendTo(int fd, std::string data) { return SendTo(fd, data.data(), data.size()); }

ssize_t Socket::SendTo(std::string path, void* data, size_t size) {
  return SendTo(std::move(path), static_cast<const void*>(data), size);
}

ssize_t Socket::SendTo(std::string path, std::string data) {
  return SendTo(std::move(path), data.data(), data.size());
}

ssize_t Socket::Send(const void* data, size_t size) { return SendTo(fd_, data, size); }

ssize_t Socket::Send(void* data, size_t size) { return Send(static_cast<const void*>(data), size); }

ssize_t Socket::Send(std::string data) { return Send(data.data(), data.size()); }

ssize_t Socket::Recv(void* buf, size_t size, int flags) {
  static constexpr char kFunction[] = "ssize_t hvn::util::Socket::Recv(void*, size_t, int)";
  if (fd_ < 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: Invalid fd_ %d\n", kFunction, __LINE__, fd_);
    return -1;
  }
  if (buf == nullptr) {
    HUTIL_LOG(LOG_ERR, "%s %d: Receive buffer is null\n", kFunction, __LINE__);
    return -1;
  }
  const ssize_t n = recv(fd_, buf, size, (flags & kPeekFlag) != 0 ? MSG_PEEK : 0);
  if (n <= 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: errno %d rs [%zd]\n", kFunction, __LINE__, errno, n);
  }
  return n;
}

ssize_t Socket::RecvTimedWait(void* buf, size_t size, uint64_t timeout_us, int flags) {
  static constexpr char kFunction[] =
      "ssize_t hvn::util::Socket::RecvTimedWait(void*, size_t, uint64_t, int)";
  if (fd_ < 0) return -1;
  if (!FitsSelect(fd_)) {
    HUTIL_LOG(LOG_ERR, "%s %d: select cannot wait for fd [%d]\n", kFunction, __LINE__, fd_);
    return -1;
  }
  fd_set read_set;
  FD_ZERO(&read_set);
  FD_SET(fd_, &read_set);
  timeval span = ToTimeval(timeout_us);
  const int n = select(fd_ + 1, &read_set, nullptr, nullptr, &span);
  if (n <= 0) {
    const int error = errno;
    HUTIL_LOG(LOG_ERR, "%s %d: res [%d] errno [%d]\n", kFunction, __LINE__, n, error);
    return n == 0 ? -ETIME : -error;
  }
  return FD_ISSET(fd_, &read_set) ? Recv(buf, size, flags) : -1;
}

int Socket::Accept(std::string& path) {
  path.clear();
  if (!IsIp(domain_) && domain_ != kUnix) {
    HUTIL_LOG(LOG_ERR, "%s %d: unknown socket domain [%d]\n",
              "int hvn::util::Socket::Accept(std::string&)", __LINE__, domain_);
    return 0;
  }
  SocketAddress peer;
  peer.Expect(domain_);
  const int client = accept4(fd_, peer.data(), peer.mutable_length(), SOCK_CLOEXEC);
  if (client < 1) return client;
  path = peer.Text(domain_);
  if (path.empty() && domain_ == kIpv6) {
    HUTIL_LOG(LOG_ERR, "%s() : inet_ntop() failed, check errno[%d]\n", "Accept", errno);
  }
  return client;
}

bool Socket::GetTcpInfo(TcpInfo& /*info*/) {
  static constexpr char kFunction[] =
      "bool hvn::util::Socket::GetTcpInfo(hvn::util::Socket::TcpInfo&)";
  if (fd_ < 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: Socket is not inialized", kFunction, __LINE__);
    return false;
  }
  return LogTcpStatistics(fd_, kFunction);
}

}  // namespace util
}  // namespace hvn
