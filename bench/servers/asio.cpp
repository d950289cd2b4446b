#include <asio.hpp>
#include <asio/ssl.hpp>
#include <cstdlib>
#include <memory>
#include <utility>

#include "servers/Server.h"

using asio::ip::tcp;
using asio::ip::udp;
using asio::local::datagram_protocol;

namespace {

/// One client of a stream server, in clear or through TLS.
template <typename Stream>
class Session : public std::enable_shared_from_this<Session<Stream>> {
 public:
  explicit Session(Stream stream) : stream_(std::move(stream)) {}

  void Handshake() {
    stream_.async_handshake(asio::ssl::stream_base::server,
                            [self = this->shared_from_this()](asio::error_code error) {
                              if (!error) self->Read();
                            });
  }

  void Read() {
    stream_.async_read_some(asio::buffer(data_),
                            [self = this->shared_from_this()](asio::error_code error, size_t n) {
                              if (!error) self->Write(n);
                            });
  }

 private:
  void Write(size_t size) {
    asio::async_write(stream_, asio::buffer(data_, size),
                      [self = this->shared_from_this()](asio::error_code error, size_t) {
                        if (!error) self->Read();
                      });
  }

  Stream stream_;
  char data_[kReceiveSize];
};

class StreamServer {
 public:
  StreamServer(asio::io_context& loop, asio::ssl::context* tls)
      : acceptor_(loop, tcp::v6(), OpenServer(Plan::kTcp)), tls_(tls) {
    Accept();
  }

 private:
  void Accept() {
    acceptor_.async_accept([this](asio::error_code error, tcp::socket client) {
      if (!error) Start(std::move(client));
      Accept();
    });
  }

  void Start(tcp::socket client) {
    using TlsStream = asio::ssl::stream<tcp::socket>;
    if (tls_ == nullptr) return std::make_shared<Session<tcp::socket>>(std::move(client))->Read();
    std::make_shared<Session<TlsStream>>(TlsStream(std::move(client), *tls_))->Handshake();
  }

  tcp::acceptor acceptor_;
  asio::ssl::context* tls_;
};

template <typename Protocol>
class DatagramServer {
 public:
  DatagramServer(asio::io_context& loop, const Protocol& protocol, Plan::Kind kind)
      : socket_(loop, protocol, OpenServer(kind)) {
    Receive();
  }

 private:
  void Receive() {
    socket_.async_receive_from(asio::buffer(data_), sender_,
                               [this](asio::error_code error, size_t n) {
                                 if (!error && n > 0 && data_[0] == kAnswerMe) {
                                   socket_.send_to(asio::buffer(data_, n), sender_, 0, error);
                                 }
                                 Receive();
                               });
  }

  typename Protocol::socket socket_;
  typename Protocol::endpoint sender_;
  char data_[kReceiveSize];
};

asio::ssl::context MakeTls(const Plan& plan) {
  asio::ssl::context tls(asio::ssl::context::tlsv12_server);
  tls.use_certificate_file(plan.cert, asio::ssl::context::pem);
  tls.use_private_key_file(plan.key, asio::ssl::context::pem);
  SSL_CTX_set_cipher_list(tls.native_handle(), kCiphers);
  return tls;
}

void Run(asio::io_context& loop) {
  Ready(kPort);
  loop.run();
  exit(1);
}

}  // namespace

void Serve(const Plan& plan) {
  asio::io_context loop(1);  // one thread
  if (plan.kind == Plan::kUnix) {
    const DatagramServer<datagram_protocol> server(loop, datagram_protocol(), plan.kind);
    Run(loop);
  } else if (plan.kind == Plan::kUdp) {
    const DatagramServer<udp> server(loop, udp::v4(), plan.kind);
    Run(loop);
  } else if (plan.kind == Plan::kTls) {
    asio::ssl::context tls = MakeTls(plan);
    const StreamServer server(loop, &tls);
    Run(loop);
  } else {
    const StreamServer server(loop, nullptr);
    Run(loop);
  }
  exit(1);
}
