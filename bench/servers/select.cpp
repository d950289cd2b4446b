// The floor: no more than the system calls that a server in a select loop needs.
#include <openssl/ssl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "servers/Server.h"

namespace {

char buffer[kReceiveSize];

struct Clear {
  bool Open(int) { return true; }
  bool Echo(int fd) { return EchoOnce(fd); }
  void Close(int) {}
};

struct Tls {
  explicit Tls(const Plan& plan) : context(SSL_CTX_new(TLS_server_method())) {
    SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_use_certificate_file(context, plan.cert.c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_use_PrivateKey_file(context, plan.key.c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_set_cipher_list(context, kCiphers);
  }
  bool Open(int fd) {
    sessions[fd] = SSL_new(context);
    SSL_set_fd(sessions[fd], fd);
    return SSL_accept(sessions[fd]) == 1;
  }
  bool Echo(int fd) {
    SSL* const session = sessions[fd];
    do {
      const int n = SSL_read(session, buffer, sizeof(buffer));
      if (n < 1 || SSL_write(session, buffer, n) != n) return false;
    } while (SSL_pending(session) > 0);
    return true;
  }
  void Close(int fd) { SSL_free(sessions[fd]); }

  SSL_CTX* context;
  SSL* sessions[FD_SETSIZE];
};

template <typename Transport>
class Server {
 public:
  Server(int listener, Transport& transport) : listener_(listener), transport_(transport) {
    FD_ZERO(&all_);
    FD_SET(listener, &all_);
    last_ = listener;
  }

  void Run() {
    for (;;) {
      fd_set ready = all_;
      int count = select(last_ + 1, &ready, nullptr, nullptr, nullptr);
      for (int fd = 0; count > 0; ++fd) {
        if (!FD_ISSET(fd, &ready)) continue;
        --count;
        if (fd == listener_) {
          Accept();
        } else if (!transport_.Echo(fd)) {
          Drop(fd);
        }
      }
    }
  }

 private:
  void Accept() {
    const int fd = accept(listener_, nullptr, nullptr);
    if (fd < 0 || fd >= FD_SETSIZE) return;
    FD_SET(fd, &all_);
    last_ = std::max(last_, fd);
    if (!transport_.Open(fd)) Drop(fd);
  }

  void Drop(int fd) {
    transport_.Close(fd);
    close(fd);
    FD_CLR(fd, &all_);
  }

  const int listener_;
  Transport& transport_;
  fd_set all_;
  int last_;
};

void ServeDatagrams(int fd) {
  for (;;) {
    sockaddr_un sender;
    socklen_t length = sizeof(sender);
    auto* const address = reinterpret_cast<sockaddr*>(&sender);
    const ssize_t n = recvfrom(fd, buffer, sizeof(buffer), 0, address, &length);
    if (n > 0 && buffer[0] == kAnswerMe) {
      sendto(fd, buffer, static_cast<size_t>(n), 0, address, length);
    }
  }
}

}  // namespace

void Serve(const Plan& plan) {
  const int fd = OpenServer(plan.kind);
  Ready(kPort);
  if (plan.kind == Plan::kTcp) {
    Clear clear;
    Server<Clear>(fd, clear).Run();
  } else if (plan.kind == Plan::kTls) {
    Tls tls(plan);
    Server<Tls>(fd, tls).Run();
  } else {
    ServeDatagrams(fd);
  }
  exit(1);
}
