#include "support/Faults.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <deque>
#include <mutex>
#include <type_traits>

namespace hutil_test {
namespace {

struct Plan {
  long result;
  int error, times, skip, fd;
};

// Calls count without the lock, which would order the threads under test and hide their races.
struct Slot {
  std::atomic<int> calls;
  std::atomic<bool> armed;
  std::deque<Plan> plans;
};

std::mutex s_mutex;
// Never destroyed: threads may call while the process exits.
auto* const s_slots = new Slot[int(Call::kCount)]();
auto& s_sleeps = *new std::vector<unsigned>;

Slot& SlotOf(Call call) { return s_slots[int(call)]; }

// Whether the call gives `result` instead of being made; a short count only cuts `length`.
bool Faked(Call call, int fd, std::size_t* length, long& result) {
  if (s_slots == nullptr) return false;  // a constructor of another library, before ours
  Slot& slot = SlotOf(call);
  slot.calls.fetch_add(1, std::memory_order_relaxed);
  const bool sleeps = call == Call::kUsleep;  // and gives its span for the descriptor
  if (!sleeps && !slot.armed.load(std::memory_order_relaxed)) return false;
  const std::lock_guard<std::mutex> guard(s_mutex);
  if (sleeps) s_sleeps.push_back(unsigned(fd));
  if (slot.plans.empty()) return false;
  Plan& plan = slot.plans.front();
  if ((plan.fd != kAnyFd && plan.fd != fd) || plan.skip-- > 0) return false;
  const bool shortened = length != nullptr && plan.result > 0;
  if (shortened) *length = std::min(*length, static_cast<std::size_t>(plan.result));
  result = plan.result;
  if (!shortened) errno = plan.error;
  if (plan.times != kAlways && --plan.times == 0) slot.plans.pop_front();
  slot.armed = !slot.plans.empty();
  return !shortened;
}

}  // namespace

void FailWithResult(Call call, long result, int error, int times, int skip, int fd) {
  const std::lock_guard<std::mutex> guard(s_mutex);
  SlotOf(call).plans.push_back({result, error, times, skip, fd});
  SlotOf(call).armed = true;
}

void ResetFaults(Call call) {
  const std::lock_guard<std::mutex> guard(s_mutex);
  SlotOf(call).plans.clear();
  SlotOf(call).armed = false;
  SlotOf(call).calls = 0;
  if (call == Call::kUsleep) s_sleeps.clear();
}

void ResetFaults() {
  for (int call = 0; call < int(Call::kCount); ++call) ResetFaults(Call(call));
}

int CallCount(Call call) { return SlotOf(call).calls; }

std::vector<unsigned> Sleeps() {
  const std::lock_guard<std::mutex> guard(s_mutex);
  return s_sleeps;
}

}  // namespace hutil_test

using namespace hutil_test;

// Where off_t or time_t is wider than long, glibc's headers rename the calls with such types. The
// definitions get the new name from there (not in a namespace); the look-ups have to spell it.
#define FILE64(name) (sizeof(off_t) > sizeof(long) ? #name "64" : #name)
#define TIME64(name, wide) (sizeof(time_t) > sizeof(long) ? wide : name)

#define BODY(call, symbol, Type, name, fd, length, arguments)                             \
  static const auto real = reinterpret_cast<decltype(&(name))>(dlsym(RTLD_NEXT, symbol)); \
  long result = 0;                                                                        \
  if (!Faked(Call::call, fd, length, result)) return real arguments;                      \
  return (Type)(std::is_pointer_v<Type> ? 0 : result);
#define INTERPOSE(call, symbol, Type, name, parameters, fd, length, arguments) \
  extern "C" Type name parameters { BODY(call, symbol, Type, name, fd, length, arguments) }
// The last argument of these is optional; passing on what stands in its place does no harm.
#define INTERPOSE_VARIADIC(call, symbol, name, parameters, last, fd, arguments) \
  extern "C" int name parameters {                                              \
    va_list list;                                                               \
    va_start(list, last);                                                       \
    void* const rest = va_arg(list, void*);                                     \
    va_end(list);                                                               \
    BODY(call, symbol, int, name, fd, nullptr, arguments)                       \
  }

// clang-format off
INTERPOSE(kSend, "send", ssize_t, send, (int fd, const void* data, size_t size, int flags), fd, &size, (fd, data, size, flags))
INTERPOSE(kSendTo, "sendto", ssize_t, sendto, (int fd, const void* data, size_t size, int flags, const sockaddr* to, socklen_t to_size), fd, &size, (fd, data, size, flags, to, to_size))
INTERPOSE(kRecv, "recv", ssize_t, recv, (int fd, void* data, size_t size, int flags), fd, &size, (fd, data, size, flags))
INTERPOSE(kRecvFrom, "recvfrom", ssize_t, recvfrom, (int fd, void* data, size_t size, int flags, sockaddr* from, socklen_t* from_size), fd, &size, (fd, data, size, flags, from, from_size))
INTERPOSE(kSelect, TIME64("select", "__select64"), int, select, (int count, fd_set* in, fd_set* out, fd_set* except, timeval* span), (in != nullptr) + (out != nullptr) + (except != nullptr), nullptr, (count, in, out, except, span))
INTERPOSE(kSocket, "socket", int, socket, (int domain, int type, int protocol), kAnyFd, nullptr, (domain, type, protocol))
INTERPOSE(kBind, "bind", int, bind, (int fd, const sockaddr* to, socklen_t size), fd, nullptr, (fd, to, size))
INTERPOSE(kListen, "listen", int, listen, (int fd, int backlog), fd, nullptr, (fd, backlog))
INTERPOSE(kAccept4, "accept4", int, accept4, (int fd, sockaddr* from, socklen_t* size, int flags), fd, nullptr, (fd, from, size, flags))
INTERPOSE(kConnect, "connect", int, connect, (int fd, const sockaddr* to, socklen_t size), fd, nullptr, (fd, to, size))
INTERPOSE(kSetSockOpt, TIME64("setsockopt", "__setsockopt64"), int, setsockopt, (int fd, int level, int name, const void* value, socklen_t size), fd, nullptr, (fd, level, name, value, size))
INTERPOSE(kGetSockOpt, TIME64("getsockopt", "__getsockopt64"), int, getsockopt, (int fd, int level, int name, void* value, socklen_t* size), fd, nullptr, (fd, level, name, value, size))
INTERPOSE_VARIADIC(kIoctl, TIME64("ioctl", "__ioctl_time64"), ioctl, (int fd, unsigned long request, ...), request, fd, (fd, request, rest))
INTERPOSE_VARIADIC(kFcntl, TIME64(FILE64(fcntl), "__fcntl_time64"), fcntl, (int fd, int command, ...), command, fd, (fd, command, rest))
INTERPOSE(kEventFd, "eventfd", int, eventfd, (unsigned value, int flags), kAnyFd, nullptr, (value, flags))
INTERPOSE(kUsleep, "usleep", int, usleep, (useconds_t span), int(span), nullptr, (span))
INTERPOSE(kGetIfAddrs, "getifaddrs", int, getifaddrs, (ifaddrs** list), kAnyFd, nullptr, (list))
INTERPOSE(kInetNtop, "inet_ntop", const char*, inet_ntop, (int family, const void* address, char* text, socklen_t size), kAnyFd, nullptr, (family, address, text, size))
INTERPOSE_VARIADIC(kOpen, FILE64(open), open, (const char* path, int flags, ...), flags, flags, (path, flags, rest))
INTERPOSE(kRead, "read", ssize_t, read, (int fd, void* data, size_t size), fd, &size, (fd, data, size))
INTERPOSE(kWrite, "write", ssize_t, write, (int fd, const void* data, size_t size), fd, &size, (fd, data, size))
INTERPOSE(kLseek, FILE64(lseek), off_t, lseek, (int fd, off_t offset, int whence), fd, nullptr, (fd, offset, whence))
INTERPOSE_VARIADIC(kOpenAt, FILE64(openat), openat, (int folder, const char* path, int flags, ...), flags, flags, (folder, path, flags, rest))
INTERPOSE(kFlock, "flock", int, flock, (int fd, int operation), fd, nullptr, (fd, operation))
INTERPOSE(kFsync, "fsync", int, fsync, (int fd), fd, nullptr, (fd))
INTERPOSE(kRenameAt, "renameat", int, renameat, (int from, const char* old_path, int to, const char* path), kAnyFd, nullptr, (from, old_path, to, path))
INTERPOSE(kEpollCreate, "epoll_create1", int, epoll_create1, (int flags), kAnyFd, nullptr, (flags))
INTERPOSE(kEpollCtl, "epoll_ctl", int, epoll_ctl, (int epoll, int operation, int fd, epoll_event* event), fd, nullptr, (epoll, operation, fd, event))
INTERPOSE(kTimerFd, "timerfd_create", int, timerfd_create, (int clock, int flags), kAnyFd, nullptr, (clock, flags))
// clang-format on
