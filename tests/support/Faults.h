// Faults for the libc calls that the library makes. They meet whoever makes the call next, OpenSSL
// and libcurl included; restrict them to a descriptor where that matters.
#pragma once

#include <vector>

namespace hutil_test {

// clang-format off
enum class Call {
  kSend, kSendTo, kRecv, kRecvFrom, kSelect, kSocket, kBind, kListen, kAccept4, kConnect,
  kSetSockOpt, kGetSockOpt, kIoctl, kFcntl, kEventFd, kUsleep, kGetIfAddrs, kInetNtop,
  kOpen, kRead, kWrite, kLseek, kOpenAt, kFlock, kFsync, kRenameAt, kEpollCreate, kEpollCtl,
  kTimerFd, kCount
};
// clang-format on

constexpr int kAlways = -1;  // as `times`
constexpr int kAnyFd = -1;

// After `skip` calls, the next `times` give this result and errno (null where a pointer is
// returned) and do nothing. A positive result of a call that moves bytes is a short count: the call
// is made, with no more than that many bytes. Faults of one call queue up. `fd` restricts them to
// a descriptor; of open to exactly these flags, of select to so many sets.
void FailWithResult(Call call, long result, int error, int times = 1, int skip = 0,
                    int fd = kAnyFd);
inline void FailNext(Call call, int error, int times = 1, int skip = 0, int fd = kAnyFd) {
  FailWithResult(call, -1, error, times, skip, fd);
}

void ResetFaults(Call call);  // its count and faults
void ResetFaults();           // everybody's
int CallCount(Call call);
std::vector<unsigned> Sleeps();  // what usleep was asked for

}  // namespace hutil_test
