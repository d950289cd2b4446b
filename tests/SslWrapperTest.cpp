#include <dlfcn.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <atomic>
#include <memory>
#include <thread>

#include "support/Peers.h"
#include "util/SslWrapper.h"

// The connection made last, for what only OpenSSL tells of it.
std::atomic<SSL*> s_newest{nullptr};
extern "C" SSL* SSL_new(SSL_CTX* context) {
  const auto real = reinterpret_cast<decltype(&SSL_new)>(dlsym(RTLD_NEXT, "SSL_new"));
  return s_newest = real(context);
}

namespace hutil_test {

using hvn::kFailure, hvn::kSuccess;
constexpr auto kNone = SslWrapper::kUnknown;

// A server and a client. What fails in them leaves no error in OpenSSL's queue.
class Tls : public testing::Test {
 protected:
  ~Tls() override { EXPECT_EQ(0U, ERR_peek_error()); }
  bool Handshake(const Pair& pair) {
    std::future<bool> accepted =
        std::async(std::launch::async, [&] { return server_->Accept(pair.near()); });
    const bool connected = client_->Connect(pair.far());
    if (!connected) shutdown(pair.far(), SHUT_RDWR);
    return accepted.get() && connected;
  }
  bool Handshake() { return Handshake(pair_); }
  bool HandshakeAgain() { return Handshake(second_); }
  ssize_t Recv() { return server_->Recv(pair_.near(), data_, 1); }

  Pair pair_;
  const Pair second_;
  std::unique_ptr<SslWrapper> server_ = std::make_unique<ServerTls>();
  std::unique_ptr<SslWrapper> client_ = std::make_unique<SslWrapper>(false, SslWrapper::kTlsV1_2);
  char data_[8] = {};
};

TEST_F(Tls, FailedTransferLeavesNoErrorBehind) {
  ASSERT_TRUE(Handshake());
  EXPECT_EQ(-1, client_->Send(pair_.far(), data_, size_t{1} << 31));
  EXPECT_EQ(-1, client_->Recv(pair_.far(), data_, size_t{1} << 31));
  EXPECT_EQ(12, send(pair_.far(), "not a record", 12, 0));
  EXPECT_LT(Recv(), 0);
  EXPECT_EQ(0U, ERR_peek_error());
  EXPECT_EQ(-1, server_->Send(pair_.near(), data_, 1));
}

TEST_F(Tls, EndOfAWrapperIsToldToItsPeers) {
  ASSERT_TRUE(Handshake());
  client_.reset();
  EXPECT_EQ(0, Recv());
}

TEST_F(Tls, EndOfAWrapperRaisesNoSignalForAPeerThatHasGone) {
  signal(SIGPIPE, SIG_DFL);
  ASSERT_TRUE(Handshake());
  pair_.CloseFar();
  server_.reset();
}

TEST_F(Tls, OnlyTheVersionAskedForIsSpokenWhateverThePeerHas) {
  ASSERT_TRUE(client_->UseModernTls());
  ASSERT_TRUE(Handshake());
  EXPECT_STREQ("TLSv1.2", SSL_get_version(s_newest));
}

TEST_F(Tls, ModernTlsIsTheNewestVersionAndSendsAtOnce) {
  ASSERT_TRUE(server_->UseModernTls());
  ASSERT_TRUE(client_->UseModernTls());
  Echo echo(server_.get());
  const RawClient client(echo.port());
  ASSERT_TRUE(client_->Connect(client.fd()));
  EXPECT_STREQ("TLSv1.3", SSL_get_version(s_newest));
  EXPECT_EQ(1, OptionOf(client.fd(), IPPROTO_TCP, TCP_NODELAY));
}

// A client that knows the authority.
class TlsVerification : public Tls {
 protected:
  TlsVerification() { EXPECT_EQ(kSuccess, client_->SetRootCaFile(CertPath("ca.pem"), kPem)); }
  bool Trusts(const std::string& host) {
    const Pair pair;
    EXPECT_TRUE(client_->VerifyPeer(host));
    const bool trusts = Handshake(pair);
    client_->RemoveClient(pair.far());
    server_->RemoveClient(pair.near());
    return trusts;
  }
};

TEST_F(TlsVerification, TrustsTheServersOwnNamesAndAddressesOnly) {
  EXPECT_TRUE(Trusts(""));
  EXPECT_TRUE(Trusts("localhost"));
  EXPECT_TRUE(Trusts("::1"));
  EXPECT_TRUE(Trusts("127.0.0.1"));
  EXPECT_FALSE(Trusts("127.0.0.2"));
  EXPECT_FALSE(Trusts("other.example"));
}

TEST_F(TlsVerification, TellsTheServerTheName) {
  ASSERT_TRUE(client_->VerifyPeer("localhost"));
  ASSERT_TRUE(Handshake());
  EXPECT_STREQ("localhost", SSL_get_servername(s_newest, TLSEXT_NAMETYPE_host_name));
}

TEST_F(Tls, AuthorityMattersOnlyWhereThePeerIsVerified) {
  EXPECT_EQ(kSuccess, client_->SetRootCaFile(CertPath("other-ca.pem"), kPem));
  EXPECT_TRUE(Handshake());
  ASSERT_TRUE(client_->VerifyPeer(""));
  EXPECT_FALSE(HandshakeAgain());
}

TEST_F(Tls, ServerThatVerifiesWantsACertificate) {
  EXPECT_EQ(kSuccess, server_->SetRootCaFile(CertPath("ca.der"), kDer));
  ASSERT_TRUE(server_->VerifyPeer(""));
  EXPECT_FALSE(Handshake());
  EXPECT_EQ(kSuccess,
            client_->SetCertAndKeyFile(CertPath("ec.der"), CertPath("ec-key.der"), kDer, kDer));
  EXPECT_TRUE(HandshakeAgain());
}

TEST_F(TlsVerification, FollowsAChainToTheRoot) {
  server_ = std::make_unique<SslWrapper>(true, SslWrapper::kTlsV1_2);
  EXPECT_EQ(kSuccess, server_->SetCertAndKeyFile(CertPath("chained.pem"),
                                                 CertPath("chained-key.pem"), kPem, kPem));
  ASSERT_TRUE(client_->VerifyPeer("localhost"));
  EXPECT_FALSE(Handshake());
  EXPECT_EQ(kSuccess, server_->SetCertChainFile(CertPath("chain.pem")));
  EXPECT_TRUE(HandshakeAgain());
}

TEST_F(Tls, FilesThatCannotBeReadOrDoNotBelongTogetherAreRefused) {
  const std::string cert = CertPath("server.pem"), key = CertPath("server-key-encrypted.pem");
  EXPECT_EQ(kFailure, client_->SetRootCaFile("/nowhere", kPem));
  EXPECT_EQ(kFailure, client_->SetRootCaFile(cert, kDer));
  EXPECT_EQ(kFailure, client_->SetRootCaFile(cert, kNone));
  EXPECT_EQ(kFailure, server_->SetCertAndKeyFile(cert, key, kPem, kPem));
  EXPECT_EQ(kFailure, server_->SetCertChainFile(CertPath("chain.pem")));  // of another key
}

// How a file is encoded as a certificate and as a key.
using Encodings = std::pair<SslWrapper::FileType, SslWrapper::FileType>;
Encodings EncodingsOf(const std::string& name) {
  std::string bytes = ReadFile(CertPath(name));
  hvn::util::Buffer data;
  data.Copy(reinterpret_cast<unsigned char*>(&bytes[0]), static_cast<unsigned>(bytes.size()));
  return {SslWrapper::GetCertType(data), SslWrapper::GetKeyType(data)};
}

TEST_F(Tls, EncodingsAreFoundByParsing) {
  EXPECT_EQ(Encodings(kPem, kNone), EncodingsOf("server.pem"));
  EXPECT_EQ(Encodings(kDer, kNone), EncodingsOf("server.der"));
  EXPECT_EQ(Encodings(kNone, kPem), EncodingsOf("server-key.pem"));
  EXPECT_EQ(Encodings(kNone, kDer), EncodingsOf("server-key-pkcs8.der"));
  EXPECT_EQ(Encodings(kNone, kDer), EncodingsOf("ec-key.der"));
  EXPECT_EQ(Encodings(kNone, kNone), EncodingsOf("ed25519-key.der"));
}

TEST_F(Tls, TimeLimitIsForAWholeHandshakeHoweverThePeerDrips) {
  server_->SetTimeLimit(100);
  const int64_t start = NowMs();
  send(pair_.far(), "\x16\x03\x01\x20\x00\x01", 6, 0);  // a long hello's beginning
  std::thread dripping([&] {
    while (send(pair_.far(), "-", 1, MSG_NOSIGNAL) > 0) usleep(10000);
  });
  EXPECT_FALSE(server_->Accept(pair_.near()));
  EXPECT_EQ(ETIMEDOUT, errno);
  EXPECT_GE(NowMs() - start, 99);
  shutdown(pair_.near(), SHUT_RD);
  dripping.join();
}

TEST_F(Tls, TimeLimitEndsATransferButLetsAPeerTakeALongMessageInParts) {
  client_->SetTimeLimit(10000);
  ASSERT_TRUE(Handshake());
  ASSERT_TRUE(HandshakeAgain());
  client_->SetTimeLimit(100);
  const std::string all(1 << 20, 'x');
  EXPECT_EQ(-1, client_->Send(pair_.far(), all.data(), all.size()));
  EXPECT_EQ(ETIMEDOUT, errno);
  client_->SetTimeLimit(10000);
  auto sent = std::async(std::launch::async,
                         [&] { return client_->Send(second_.far(), all.data(), all.size()); });
  EXPECT_EQ(all, RecvAll(*server_, second_.near(), all.size()));
  EXPECT_EQ(ssize_t(all.size()), sent.get());
}

}  // namespace hutil_test
