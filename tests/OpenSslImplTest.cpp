#include <dlfcn.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <future>

#include "support/Kit.h"
#include "util/OpenSslImpl.h"

using namespace hutil_test;
using namespace hvn::util;
constexpr auto kUnknown = SslWrapper::kUnknown, kPem = SslWrapper::kPem, kDer = SslWrapper::kDer;

bool s_exhausted = false;  // OpenSSL makes nothing new
extern "C" SSL_CTX* SSL_CTX_new(const SSL_METHOD* method) {
  static const auto real = reinterpret_cast<decltype(&SSL_CTX_new)>(dlsym(RTLD_NEXT, __func__));
  return s_exhausted ? nullptr : real(method);
}
extern "C" SSL* SSL_new(SSL_CTX* context) {
  static const auto real = reinterpret_cast<decltype(&SSL_new)>(dlsym(RTLD_NEXT, __func__));
  return s_exhausted ? nullptr : real(context);
}

template <typename Ssl>
struct Link {
  explicit Link(SslWrapper::Method method)
      : server(std::make_unique<Ssl>(true, method)), client(std::make_unique<Ssl>(false, method)) {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  }
  ~Link() {
    for (const int fd : fds) close(fd);
  }
  bool Handshake(const std::string& cert = "server.pem") {
    const std::string key = CertPath("server-key.pem");
    static_cast<void>(server->SetCertAndKeyFile(CertPath(cert), key, kPem, kPem));
    auto accepted = std::async(std::launch::async, [&] { return server->Accept(fds[0]); });
    const bool connected = client->Connect(fds[1]);
    return accepted.get() && connected;
  }
  std::unique_ptr<Ssl> server, client;
  int fds[2];  // the server's, the client's
};

TEST(OpenSslImpl, RefusedMethodLeavesNoContext) {
  const int32_t before = OpenSslImpl::ref_cnt;
  OpenSslImpl impl(false, static_cast<SslWrapper::Method>(2));
  { OpenSslImpl other(true, SslWrapper::kTlsV1_2Alt); }
  EXPECT_EQ(OpenSslImpl::ref_cnt, before + 2);
  EXPECT_SAID(LOG_ERR, "hvn::util::OpenSslImpl::OpenSslImpl(bool, hvn::util::SslWrapper::Method)",
              "No suitable wolf method for %d\n", 2);
  EXPECT_EQ(impl.SetRootCaFile(CertPath("ca.pem"), kPem), hvn::kNotInitialized);
  EXPECT_EQ(impl.SetCertAndKeyFile("", "", kPem, kPem), hvn::kNotInitialized);
  EXPECT_FALSE(impl.SetCipherLists({}) || impl.Connect(0) || impl.Accept(0));
  EXPECT_EQ(impl.SetRootCaBuffer(nullptr, 0), hvn::kFailure);
  EXPECT_EQ(OpenSslImpl::ClientHelloCb(nullptr, nullptr, nullptr), 0);
}

TEST(OpenSslImpl, ExhaustedOpenSslIsReported) {
  OpenSslImpl server(true, SslWrapper::kTlsV1_2), client(false, SslWrapper::kTlsV1_2);
  s_exhausted = true;
  EXPECT_FALSE(server.Accept(0) || client.Connect(0));
  EXPECT_SAID(LOG_ERR, "bool hvn::util::OpenSslImpl::Connect(int)",
              "ERROR: failed to create SSL object\n");
  OpenSslImpl none(false, SslWrapper::kTlsV1_2);
  s_exhausted = false;
  EXPECT_SAID(LOG_ERR, "hvn::util::OpenSslImpl::OpenSslImpl(bool, hvn::util::SslWrapper::Method)",
              "ERROR: failed to create SSL_CTX\n");
  EXPECT_FALSE(none.Connect(0));
}

TEST(OpenSslImpl, SetUpReportsWhatOpenSslRefuses) {
  const char ciphers[] =
      "bool hvn::util::OpenSslImpl::SetCipherLists(std::vector<std::basic_string<char> >)";
  const char roots[] =
      "hvn::Result hvn::util::OpenSslImpl::SetRootCaFile(std::string, "
      "hvn::util::SslWrapper::FileType)";
  const char certs[] =
      "hvn::Result hvn::util::OpenSslImpl::SetCertAndKeyFile(std::string, std::string, "
      "hvn::util::SslWrapper::FileType, hvn::util::SslWrapper::FileType)";
  OpenSslImpl impl(true, SslWrapper::kTlsV1_2);
  EXPECT_TRUE(impl.SetCipherLists({"AES128-SHA", "AES256-SHA"}));
  EXPECT_SAID(LOG_DEBUG, ciphers, "Success to set cipher lists [%s]\n", "AES128-SHA:AES256-SHA");
  EXPECT_FALSE(impl.SetCipherLists({"nonsense"}));
  EXPECT_SAID(LOG_ERR, ciphers, "ERROR: failed to set cipher lists [%s]\n", "nonsense");
  EXPECT_THROW(impl.SetCipherLists({}), std::length_error);
  const std::string bundle = CertPath("ca-bundle.pem"), server = CertPath("server.pem");
  EXPECT_EQ(impl.SetRootCaFile(bundle, kPem), hvn::kSuccess);
  EXPECT_SAID(LOG_DEBUG, roots, "SUCCESS to load root_ca %s\n", bundle.c_str());
  EXPECT_EQ(impl.SetRootCaFile("/nowhere", kPem), hvn::kFailure);
  EXPECT_SAID(LOG_ERR, roots, "ERROR: failed to load %s, please check the file.\n", "/nowhere");
  EXPECT_EQ(impl.SetRootCaFile(bundle, kUnknown), hvn::kFailure);
  EXPECT_SAID(LOG_ERR, roots, "Unsupported file type");
  EXPECT_EQ(impl.SetCertAndKeyFile("/cert", "/key", kUnknown, kPem), hvn::kFailure);
  EXPECT_EQ(impl.SetCertAndKeyFile(server, "/key", kPem, kPem), hvn::kFailure);
  for (const char* file : {"/cert", "/key"}) {
    EXPECT_SAID(LOG_ERR, certs, "ERROR: failed to load %s, please check the file.\n", file);
  }
  ClearLogs();
  EXPECT_EQ(impl.SetRootCaFile(CertPath("ca.der"), kDer), hvn::kSuccess);
  EXPECT_EQ(impl.SetRootCaFile(bundle, kDer), hvn::kFailure);
  EXPECT_EQ(impl.SetRootCaFile("/nowhere", kDer), hvn::kFailure);
  EXPECT_EQ(impl.SetCertAndKeyFile(CertPath("server.der"), CertPath("server-key.der"), kDer, kDer),
            hvn::kSuccess);
  EXPECT_TRUE(Logs().empty());
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(OpenSslImpl, EncodingsAreFoundByParsing) {
  const struct {
    const char* file;
    SslWrapper::FileType cert_type, key_type;
    std::string said;
  } cases[] = {
      {"server.pem", kPem, kUnknown, "PEM type cert\n"},
      {"server.der", kDer, kUnknown, "DER type cert\n"},
      {"server-key.pem", kUnknown, kPem, "PEM type key\n"},
      {"server-key-encrypted.pem", kUnknown, kUnknown, ""},
      {"server-key.der", kUnknown, kDer, "DER type key with RSA\n"},
      {"server-key-pkcs8.der", kUnknown, kDer, "DER type key with RSA\n"},
      {"ec-key.der", kUnknown, kDer, "DER type key with EC\n"},
      {"ec-key-pkcs8.der", kUnknown, kDer, "DER type key with EC\n"},
      {"ed25519-key.der", kUnknown, kUnknown, ""},
      {"complete", kUnknown, kUnknown, ""},  // an empty file
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    std::string bytes = ReadFile(CertPath(c.file));
    Buffer data;
    data.Copy(reinterpret_cast<unsigned char*>(&bytes[0]), unsigned(bytes.size()));
    ClearLogs();
    EXPECT_EQ(SslWrapper::GetCertType(data), c.cert_type);
    EXPECT_EQ(SslWrapper::GetKeyType(data), c.key_type);
    EXPECT_EQ(Logs().size(), c.said.empty() ? 0U : 1U);
    const std::string function =
        "static hvn::util::SslWrapper::FileType hvn::util::OpenSslImpl::Get" +
        std::string(c.cert_type == kUnknown ? "Key" : "Cert") + "Type(hvn::util::Buffer&)";
    EXPECT_TRUE(c.said.empty() ||
                Logged(LOG_DEBUG, "%s %d: " + c.said, function + " #: " + c.said));
    EXPECT_EQ(ERR_peek_error(), 0U);
  }
}

TEST(OpenSslImpl, MessagesCrossAndAClosedPeerReadsAsZero) {
  const char recv[] = "ssize_t hvn::util::OpenSslImpl::Recv(int, void*, size_t)";
  const char send[] = "ssize_t hvn::util::OpenSslImpl::Send(int, const void*, size_t)";
  Link<OpenSslImpl> link(SslWrapper::kTlsV1_2);
  ASSERT_TRUE(link.Handshake());
  auto& [server, client, fds] = link;
  EXPECT_EQ(CountLogged("%s %d: priotify [%d] cipher list [%s]\n"), 10);
  EXPECT_FALSE(client->Connect(fds[1]) || server->Accept(fds[0]));
  EXPECT_SAID(LOG_ERR, "bool hvn::util::OpenSslImpl::Connect(int)", "\n");
  EXPECT_FALSE(client->Accept(fds[1]) || server->Connect(fds[0]));
  char buffer[8] = {};
  EXPECT_EQ(client->Send(fds[1], "hello", 5), 5);
  EXPECT_EQ(server->Recv(fds[0], buffer, 2), 2);
  EXPECT_EQ(server->Pending(fds[0]), 3U);
  EXPECT_EQ(server->Recv(fds[0], buffer + 2, 6), 3);
  EXPECT_STREQ(buffer, "hello");
  EXPECT_EQ(server->Pending(fds[0]) + server->Pending(-1), 0U);
  const size_t too_much = size_t{1} << 31;
  EXPECT_EQ(client->Send(fds[1], buffer, too_much), -1);
  EXPECT_EQ(client->Send(fds[1], nullptr, 5), -1);
  EXPECT_EQ(client->Recv(fds[1], buffer, too_much), -1);
  EXPECT_SAID(LOG_ERR, recv, "size %zd rs %zd\n", ssize_t(too_much), ssize_t{-1});
  client.reset();
  EXPECT_EQ(server->Recv(fds[0], buffer, 1), 0);  // its close-notify
  EXPECT_TRUE(server->RemoveClient(fds[0]));
  EXPECT_FALSE(server->RemoveClient(fds[0]));
  EXPECT_EQ(server->Recv(fds[0], buffer, 1), -1);
  EXPECT_EQ(server->Send(fds[0], buffer, 1), -1);
  EXPECT_SAID(LOG_ERR, recv, "NO ssl instanace for fd [%d]\n", fds[0]);
  EXPECT_SAID(LOG_ERR, send, "NO ssl instanace for fd [%d]\n", fds[0]);
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(OpenSslImpl, FailedHandshakeLeavesNothingBehindForTheNext) {
  Link<OpenSslImpl> link(SslWrapper::kTlsV1_1);
  ASSERT_TRUE(link.server->SetCipherLists({"DEFAULT:@SECLEVEL=0"}));  // or TLS 1.1 is refused
  ASSERT_TRUE(link.client->SetCipherLists({"DEFAULT:@SECLEVEL=0"}));
  EXPECT_FALSE(link.Handshake("no such file"));
  EXPECT_SAID(LOG_ERR, "bool hvn::util::OpenSslImpl::Connect(int)", "Cannot connect to SSL\n");
  EXPECT_FALSE(link.client->Connect(-1) || link.server->Accept(-1));
  EXPECT_EQ(ERR_peek_error(), 0U);
  EXPECT_TRUE(link.Handshake());
}

TEST(SslWrapper, TracesItsConfigurationAndGoesDespiteAPeerThatHasStoppedReading) {
  Link<SslWrapper> link(SslWrapper::kTlsV1_2Alt);
  EXPECT_SAID(LOG_DEBUG, "hvn::util::SslWrapper::SslWrapper(bool, hvn::util::SslWrapper::Method)",
              "Ssl method selected as [%d]\n", 5);
  EXPECT_TRUE(link.client->SetCipherLists({"AES128-SHA", "AES256-SHA"}));
  EXPECT_SAID(LOG_DEBUG,
              "bool hvn::util::SslWrapper::SetCipherLists(std::vector<std::basic_string<char> >)",
              "cipher lists [%s]\n", "AES128-SHA:AES256-SHA:");
  EXPECT_EQ(link.client->SetRootCaFile(CertPath("ca.pem"), kPem), hvn::kSuccess);
  ASSERT_TRUE(link.Handshake());
  const std::string chunk(4096, 'x');
  while (send(link.fds[0], chunk.data(), chunk.size(), MSG_DONTWAIT) > 0) continue;
  link.server.reset();
  EXPECT_TRUE(link.client->RemoveClient(link.fds[1]));
}
