#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <unistd.h>

#include <cstdlib>

#include "servers/Server.h"

namespace {

void Echo(bufferevent* client, void*) {
  evbuffer_add_buffer(bufferevent_get_output(client), bufferevent_get_input(client));
}

void End(bufferevent* client, short, void*) { bufferevent_free(client); }

void Accept(evconnlistener* listener, evutil_socket_t fd, sockaddr*, int, void*) {
  bufferevent* const client =
      bufferevent_socket_new(evconnlistener_get_base(listener), fd, BEV_OPT_CLOSE_ON_FREE);
  bufferevent_setcb(client, Echo, nullptr, End, nullptr);
  bufferevent_enable(client, EV_READ | EV_WRITE);
}

}  // namespace

void Serve(const Plan& plan) {
  if (plan.kind != Plan::kTcp) exit(3);
  event_base* const base = event_base_new();
  const int fd = OpenServer(plan.kind);
  evutil_make_socket_nonblocking(fd);
  evconnlistener_new(base, Accept, nullptr, LEV_OPT_CLOSE_ON_FREE, 0, fd);
  Ready(kPort);
  event_base_dispatch(base);
  exit(1);
}
