#include "util/internal/PeerWatch.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdint>

#include "util/internal/IgnoreResult.h"
#include "util/internal/Select.h"

namespace hvn {
namespace util {

namespace {

constexpr int kEventsAtOnce = 64;
constexpr int64_t kNsPerSecond = 1000000000;

static_assert(POLLIN == EPOLLIN && POLLOUT == EPOLLOUT, "the kernel has one set of numbers");

}  // namespace

PeerWatch::PeerWatch()
    : epoll_(epoll_create1(EPOLL_CLOEXEC)),
      timer_(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.fd = timer_.get();
  epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, timer_.get(), &event);
}

int PeerWatch::fd() const {
  return timer_.get() >= 0 && FitsSelect(epoll_.get()) ? epoll_.get() : -1;
}

void PeerWatch::Watch(int fd, short events) {
  epoll_event event = {};
  event.events = static_cast<uint32_t>(events) | EPOLLONESHOT;
  event.data.fd = fd;
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event) == 0) return;
  epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event);
}

void PeerWatch::RingWithin(int span_ms) {
  if (!armed_.exchange(true)) SetTimer(int64_t{span_ms} * 1000000);
}

void PeerWatch::Ring() {
  rung_ = true;
  SetTimer(0);
}

/// 0 would take the time away: the next nanosecond is as soon as can be.
void PeerWatch::SetTimer(int64_t span_ns) {
  if (span_ns < 1) span_ns = 1;
  itimerspec time = {};
  time.it_value.tv_sec = static_cast<decltype(time.it_value.tv_sec)>(span_ns / kNsPerSecond);
  time.it_value.tv_nsec = static_cast<long>(span_ns % kNsPerSecond);
  timerfd_settime(timer_.get(), 0, &time, nullptr);
}

void PeerWatch::Serve(const std::function<void(int)>& on_ready,
                      const std::function<int()>& on_ring) {
  epoll_event events[kEventsAtOnce];
  const int count = epoll_wait(epoll_.get(), events, kEventsAtOnce, 0);
  bool rings = false;
  for (int i = 0; i < count; ++i) {
    if (events[i].data.fd == timer_.get()) {
      rings = true;
    } else {
      on_ready(events[i].data.fd);
    }
  }
  if (!rings) return;
  uint64_t times = 0;
  IgnoreResult(read(timer_.get(), &times, sizeof(times)));
  // Before the look at everything, which may miss what other threads do meanwhile.
  armed_ = false;
  rung_ = false;
  const int next_ms = on_ring();
  if (next_ms < 0) return;
  armed_ = true;
  SetTimer(int64_t{next_ms} * 1000000);
  if (rung_) SetTimer(0);  // which that has undone
}

}  // namespace util
}  // namespace hvn
