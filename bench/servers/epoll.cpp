// The other floor: what select's limits and scans cost shows beside it.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

#include "servers/Server.h"

namespace {

void Watch(int loop, int fd) {
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.fd = fd;
  epoll_ctl(loop, EPOLL_CTL_ADD, fd, &event);
}

}  // namespace

void Serve(const Plan& plan) {
  if (plan.kind != Plan::kTcp) exit(3);
  const int listener = OpenServer(plan.kind);
  const int loop = epoll_create1(0);
  Watch(loop, listener);
  Ready(kPort);
  for (;;) {
    epoll_event events[64];
    const int count = epoll_wait(loop, events, 64, -1);
    for (int i = 0; i < count; ++i) {
      const int fd = events[i].data.fd;
      if (fd == listener) {
        Watch(loop, accept(listener, nullptr, nullptr));
      } else if (!EchoOnce(fd)) {
        close(fd);
      }
    }
  }
}
