#ifndef HUTIL_UTIL_INTERNAL_SOCKETOPTIONS_H_
#define HUTIL_UTIL_INTERNAL_SOCKETOPTIONS_H_

#include <string>

#include "util/Result.h"
#include "util/Socket.h"

struct tcp_info;

namespace hvn {
namespace util {

/// Every option of a descriptor that the library sets or reads. What is logged is logged for the
/// operation of Socket that asks. See socket(7), ip(7) and tcp(7).

/// Sets the buffer sizes and, for TCP, has closing reset the connection; logs what the kernel made
/// of it.
void TuneSocket(int fd, const Socket::SocketOption& option, bool is_tcp);

hvn::Result SetReuseAddressOf(int fd);
hvn::Result SetNoDelayOf(int fd, bool on);
/// O_NONBLOCK, which is no socket option, but is set where those are.
hvn::Result SetNonBlockOf(int fd, bool on);

/// Binds `fd` to a network interface.
bool BindSocketToDevice(int fd, const std::string& ifname);

/// A failure shows in the log only.
void JoinMulticast(int fd, const std::string& ip);

/// The pending error of a connect, which this clears; 0 for none, -1 where it cannot be read.
int TakeConnectError(int fd);

/// Sends small messages at once; what is no TCP socket stays as it is.
void SendAtOnce(int fd);

/// Beyond the system's limit where the process may.
void EnlargeReceiveBuffer(int fd, int size);

/// Has closing send what is still to be sent, or reset the connection.
void SetGracefulClose(int fd);
void SetAbortiveClose(int fd);

bool IsListening(int fd);

/// The kernel's figures for a TCP connection; false where it has none.
bool ReadTcpInfo(int fd, tcp_info& info);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_SOCKETOPTIONS_H_
