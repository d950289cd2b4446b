#include <sys/socket.h>
#include <sys/un.h>
#include <uv.h>

#include <cstdlib>
#include <cstring>

#include "servers/Server.h"

namespace {

char receive_buffer[65536];  // libuv hands it back within the callback

void Allocate(uv_handle_t*, size_t, uv_buf_t* buffer) {
  *buffer = uv_buf_init(receive_buffer, sizeof(receive_buffer));
}

void Free(uv_handle_t* handle) { delete reinterpret_cast<uv_tcp_t*>(handle); }

struct Write {
  uv_write_t request;
  char* data;
};

void Written(uv_write_t* request, int) {
  auto* const write = reinterpret_cast<Write*>(request);
  free(write->data);
  delete write;
}

/// What the kernel does not take at once goes by way of the loop.
void Send(uv_stream_t* client, const char* data, size_t size) {
  uv_buf_t buffer = uv_buf_init(const_cast<char*>(data), static_cast<unsigned int>(size));
  const int sent = uv_try_write(client, &buffer, 1);
  const size_t done = sent > 0 ? static_cast<size_t>(sent) : 0;
  if (done == size) return;
  auto* const write = new Write;
  write->data = static_cast<char*>(malloc(size - done));
  memcpy(write->data, data + done, size - done);
  buffer = uv_buf_init(write->data, static_cast<unsigned int>(size - done));
  uv_write(&write->request, client, &buffer, 1, Written);
}

void Read(uv_stream_t* client, ssize_t n, const uv_buf_t* buffer) {
  if (n > 0) Send(client, buffer->base, static_cast<size_t>(n));
  if (n < 0) uv_close(reinterpret_cast<uv_handle_t*>(client), Free);
}

void Accept(uv_stream_t* server, int status) {
  if (status < 0) return;
  auto* const client = new uv_tcp_t;
  uv_tcp_init(server->loop, client);
  uv_accept(server, reinterpret_cast<uv_stream_t*>(client));
  uv_read_start(reinterpret_cast<uv_stream_t*>(client), Allocate, Read);
}

void ServeTcp(uv_loop_t* loop) {
  static uv_tcp_t server;
  uv_tcp_init(loop, &server);
  uv_tcp_open(&server, OpenServer(Plan::kTcp));
  uv_listen(reinterpret_cast<uv_stream_t*>(&server), kBacklog, Accept);
  Ready(kPort);
  uv_run(loop, UV_RUN_DEFAULT);
}

void ReceiveUdp(uv_udp_t* server, ssize_t n, const uv_buf_t* buffer, const sockaddr* sender,
                unsigned int) {
  if (n < 1 || sender == nullptr || buffer->base[0] != kAnswerMe) return;
  uv_buf_t answer = uv_buf_init(buffer->base, static_cast<unsigned int>(n));
  uv_udp_try_send(server, &answer, 1, sender);
}

void ServeUdp(uv_loop_t* loop) {
  static uv_udp_t server;
  uv_udp_init(loop, &server);
  uv_udp_open(&server, OpenServer(Plan::kUdp));
  uv_udp_recv_start(&server, Allocate, ReceiveUdp);
  Ready(kPort);
  uv_run(loop, UV_RUN_DEFAULT);
}

int unix_fd;

/// libuv knows no Unix datagrams: it watches the descriptor.
void ReceiveUnix(uv_poll_t*, int, int) {
  sockaddr_un sender;
  socklen_t length = sizeof(sender);
  auto* const address = reinterpret_cast<sockaddr*>(&sender);
  const ssize_t n = recvfrom(unix_fd, receive_buffer, sizeof(receive_buffer), 0, address, &length);
  if (n < 1 || receive_buffer[0] != kAnswerMe) return;
  sendto(unix_fd, receive_buffer, static_cast<size_t>(n), 0, address, length);
}

void ServeUnix(uv_loop_t* loop) {
  static uv_poll_t server;
  unix_fd = OpenServer(Plan::kUnix);
  uv_poll_init(loop, &server, unix_fd);
  uv_poll_start(&server, UV_READABLE, ReceiveUnix);
  Ready(0);
  uv_run(loop, UV_RUN_DEFAULT);
}

}  // namespace

void Serve(const Plan& plan) {
  uv_loop_t* const loop = uv_default_loop();
  if (plan.kind == Plan::kTcp) ServeTcp(loop);
  if (plan.kind == Plan::kUdp) ServeUdp(loop);
  if (plan.kind == Plan::kUnix) ServeUnix(loop);
  exit(3);
}
