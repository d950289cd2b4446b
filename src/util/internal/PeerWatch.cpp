#include "util/internal/PeerWatch.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdint>
#include <mutex>

#include "util/internal/IgnoreResult.h"
#include "util/internal/Select.h"

namespace hvn {
namespace util {

namespace {

constexpr int kEventsAtOnce = 64;

static_assert(POLLIN == EPOLLIN && POLLOUT == EPOLLOUT, "the kernel has one set of numbers");

}  // namespace

PeerWatch::PeerWatch()
    : epoll_(epoll_create1(EPOLL_CLOEXEC)),
      timer_(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {
  if (fd() < 0) return;  // with the errno that says why
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

void PeerWatch::RingAt(int64_t time_ms) {
  std::lock_guard<Mutex> lock(mutex_);
  if (time_ms >= rings_at_) return;
  rings_at_ = time_ms;
  itimerspec time = {};  // a time that is over rings too, but none at all does not
  time.it_value.tv_sec = static_cast<decltype(time.it_value.tv_sec)>(time_ms / 1000);
  time.it_value.tv_nsec = static_cast<long>(time_ms % 1000) * 1000000 + 1;
  timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &time, nullptr);
}

void PeerWatch::Serve(const std::function<void(int)>& on_ready,
                      const std::function<int64_t()>& on_ring) {
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
  {
    std::lock_guard<Mutex> lock(mutex_);
    uint64_t times = 0;
    IgnoreResult(read(timer_.get(), &times, sizeof(times)));
    rings_at_ = INT64_MAX;
  }
  RingAt(on_ring());
}

}  // namespace util
}  // namespace hvn
