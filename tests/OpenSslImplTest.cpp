#include <openssl/err.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <future>
#include <stdexcept>

#include "support/Kit.h"
#include "util/OpenSslImpl.h"

namespace {

using hutil_test::CertPath;
using hutil_test::CountLogged;
using hvn::util::Buffer;
using hvn::util::OpenSslImpl;
using hvn::util::SslWrapper;

Buffer Load(const std::string& path) {
  std::string bytes = hutil_test::ReadFile(path);
  Buffer buffer;
  buffer.Copy(reinterpret_cast<unsigned char*>(bytes.data()),
              static_cast<unsigned int>(bytes.size()));
  return buffer;
}

struct Pair {  // a connection's two ends
  Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0); }
  ~Pair() {
    CloseServer();
    close(fds[1]);
  }
  void CloseServer() {
    if (fds[0] >= 0) close(fds[0]);
    fds[0] = -1;
  }
  int fds[2];
};

template <typename Server, typename Client>
bool Handshake(Server& server, Client& client, const Pair& pair) {
  auto accepted = std::async(std::launch::async, [&] { return server.Accept(pair.fds[0]); });
  const bool connected = client.Connect(pair.fds[1]);
  return accepted.get() && connected;
}

void LoadCertificate(OpenSslImpl& server) {
  ASSERT_EQ(server.SetCertAndKeyFile(CertPath("server.pem"), CertPath("server-key.pem"),
                                     SslWrapper::kPem, SslWrapper::kPem),
            hvn::kSuccess);
}

TEST(OpenSslImpl, RefusedMethodLeavesNoContext) {
  const char function[] =
      "hvn::util::OpenSslImpl::OpenSslImpl(bool, hvn::util::SslWrapper::Method)";
  const int32_t before = OpenSslImpl::ref_cnt;
  OpenSslImpl impl(false, static_cast<SslWrapper::Method>(2));
  { OpenSslImpl other(true, SslWrapper::kTlsV1_2Alt); }
  EXPECT_EQ(OpenSslImpl::ref_cnt, before + 2);
  EXPECT_SAID(LOG_ERR, function, "No suitable wolf method for %d\n", 2);
  EXPECT_EQ(impl.SetRootCaFile(CertPath("ca.pem"), SslWrapper::kPem), hvn::kNotInitialized);
  EXPECT_EQ(impl.SetCertAndKeyFile("", "", SslWrapper::kPem, SslWrapper::kPem),
            hvn::kNotInitialized);
  EXPECT_FALSE(impl.SetCipherLists({}) || impl.Connect(0) || impl.Accept(0));
  EXPECT_EQ(impl.SetRootCaBuffer(nullptr, 0), hvn::kFailure);
  EXPECT_EQ(impl.ConvertFileType(SslWrapper::kUnknown), -1);
  EXPECT_EQ(OpenSslImpl::ClientHelloCb(nullptr, nullptr, nullptr), 0);
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

  for (const char* file : {"ca.pem", "ca-bundle.pem"}) {
    EXPECT_EQ(impl.SetRootCaFile(CertPath(file), SslWrapper::kPem), hvn::kSuccess);
    EXPECT_SAID(LOG_DEBUG, roots, "SUCCESS to load root_ca %s\n", CertPath(file).c_str());
  }
  EXPECT_EQ(impl.SetRootCaFile("/nowhere", SslWrapper::kPem), hvn::kFailure);
  EXPECT_SAID(LOG_ERR, roots, "ERROR: failed to load %s, please check the file.\n", "/nowhere");
  EXPECT_EQ(impl.SetRootCaFile(CertPath("ca.pem"), SslWrapper::kUnknown), hvn::kFailure);
  EXPECT_SAID(LOG_ERR, roots, "Unsupported file type");
  hutil_test::ClearLogs();
  EXPECT_EQ(impl.SetRootCaFile(CertPath("ca.der"), SslWrapper::kDer), hvn::kSuccess);
  EXPECT_EQ(impl.SetRootCaFile(CertPath("ca.pem"), SslWrapper::kDer), hvn::kFailure);
  EXPECT_EQ(impl.SetRootCaFile("/nowhere", SslWrapper::kDer), hvn::kFailure);
  EXPECT_TRUE(hutil_test::Logs().empty());

  EXPECT_EQ(impl.SetCertAndKeyFile(CertPath("server.der"), CertPath("server-key.der"),
                                   SslWrapper::kDer, SslWrapper::kDer),
            hvn::kSuccess);
  EXPECT_EQ(impl.SetCertAndKeyFile("/cert", "/key", SslWrapper::kUnknown, SslWrapper::kPem),
            hvn::kFailure);
  EXPECT_EQ(
      impl.SetCertAndKeyFile(CertPath("server.pem"), "/key", SslWrapper::kPem, SslWrapper::kPem),
      hvn::kFailure);
  for (const char* file : {"/cert", "/key"}) {
    EXPECT_SAID(LOG_ERR, certs, "ERROR: failed to load %s, please check the file.\n", file);
  }
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(OpenSslImpl, EncodingsAreFoundByParsing) {
  const char cert[] =
      "static hvn::util::SslWrapper::FileType "
      "hvn::util::OpenSslImpl::GetCertType(hvn::util::Buffer&)";
  const char key[] =
      "static hvn::util::SslWrapper::FileType "
      "hvn::util::OpenSslImpl::GetKeyType(hvn::util::Buffer&)";
  const struct {
    const char* file;
    SslWrapper::FileType cert_type, key_type;
    const char* said;
  } cases[] = {
      {"server.pem", SslWrapper::kPem, SslWrapper::kUnknown, "PEM type cert\n"},
      {"server.der", SslWrapper::kDer, SslWrapper::kUnknown, "DER type cert\n"},
      {"server-key.pem", SslWrapper::kUnknown, SslWrapper::kPem, "PEM type key\n"},
      {"server-key-encrypted.pem", SslWrapper::kUnknown, SslWrapper::kUnknown, nullptr},
      {"server-key.der", SslWrapper::kUnknown, SslWrapper::kDer, "DER type key with RSA\n"},
      {"server-key-pkcs8.der", SslWrapper::kUnknown, SslWrapper::kDer, "DER type key with RSA\n"},
      {"ec-key.der", SslWrapper::kUnknown, SslWrapper::kDer, "DER type key with EC\n"},
      {"ec-key-pkcs8.der", SslWrapper::kUnknown, SslWrapper::kDer, "DER type key with EC\n"},
      {"ed25519-key.der", SslWrapper::kUnknown, SslWrapper::kUnknown, nullptr},
      {"complete", SslWrapper::kUnknown, SslWrapper::kUnknown, nullptr},  // an empty file
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    Buffer data = Load(CertPath(c.file));
    hutil_test::ClearLogs();
    EXPECT_EQ(SslWrapper::GetCertType(data), c.cert_type);
    EXPECT_EQ(SslWrapper::GetKeyType(data), c.key_type);
    ASSERT_EQ(hutil_test::Logs().size(), c.said == nullptr ? 0U : 1U);
    if (c.said != nullptr) {
      const auto line = hutil_test::Logs()[0];
      EXPECT_EQ(line.priority, LOG_DEBUG);
      EXPECT_EQ(line.format, std::string("%s %d: ") + c.said);
      EXPECT_EQ(line.text, (c.cert_type != SslWrapper::kUnknown ? cert : key) +
                               (" #: " + std::string(c.said)));
    }
    EXPECT_EQ(ERR_peek_error(), 0U);
  }
}

TEST(OpenSslImpl, MessagesCrossAndAClosedPeerReadsAsZero) {
  const char connect[] = "bool hvn::util::OpenSslImpl::Connect(int)";
  OpenSslImpl server(true, SslWrapper::kTlsV1_2);
  LoadCertificate(server);
  Pair pair;
  const int server_fd = pair.fds[0];
  char buffer[64] = {};
  {
    OpenSslImpl client(false, SslWrapper::kTlsV1_2);
    ASSERT_TRUE(Handshake(server, client, pair));
    EXPECT_EQ(CountLogged("%s %d: priotify [%d] cipher list [%s]\n"), 10);
    EXPECT_FALSE(client.Connect(pair.fds[1]) || server.Accept(server_fd));
    EXPECT_SAID(LOG_ERR, connect, "\n");
    EXPECT_FALSE(client.Accept(pair.fds[1]) || server.Connect(server_fd));

    EXPECT_EQ(client.Send(pair.fds[1], "hello", 5), 5);
    EXPECT_EQ(server.Recv(server_fd, buffer, 2), 2);
    EXPECT_EQ(server.Pending(server_fd), 3U);
    EXPECT_EQ(server.Recv(server_fd, buffer + 2, sizeof(buffer) - 2), 3);
    EXPECT_STREQ(buffer, "hello");
    EXPECT_EQ(server.Pending(server_fd) + server.Pending(-1), 0U);

    const size_t too_much = size_t{INT_MAX} + 1;
    EXPECT_EQ(client.Send(pair.fds[1], buffer, too_much), -1);
    EXPECT_EQ(client.Recv(pair.fds[1], buffer, too_much), -1);
    EXPECT_SAID(LOG_ERR, "ssize_t hvn::util::OpenSslImpl::Recv(int, void*, size_t)",
                "size %zd rs %zd\n", static_cast<ssize_t>(too_much), ssize_t{-1});
  }
  EXPECT_EQ(server.Recv(server_fd, buffer, sizeof(buffer)), 0);  // its close-notify
  EXPECT_TRUE(server.RemoveClient(server_fd));
  EXPECT_FALSE(server.RemoveClient(server_fd));
  EXPECT_EQ(server.Recv(server_fd, buffer, 1), -1);
  EXPECT_EQ(server.Send(server_fd, buffer, 1), -1);
  for (const char* function : {"ssize_t hvn::util::OpenSslImpl::Recv(int, void*, size_t)",
                               "ssize_t hvn::util::OpenSslImpl::Send(int, const void*, size_t)"}) {
    EXPECT_SAID(LOG_ERR, function, "NO ssl instanace for fd [%d]\n", server_fd);
  }
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(OpenSslImpl, FailedHandshakesLeaveNothingBehind) {
  OpenSslImpl server(true, SslWrapper::kTlsV1_2);  // has no certificate
  OpenSslImpl client(false, SslWrapper::kTlsV1_2);
  const Pair pair;
  EXPECT_FALSE(Handshake(server, client, pair));
  EXPECT_SAID(LOG_ERR, "bool hvn::util::OpenSslImpl::Connect(int)", "Cannot connect to SSL\n");
  EXPECT_FALSE(server.RemoveClient(pair.fds[0]) || client.RemoveClient(pair.fds[1]));
  EXPECT_FALSE(client.Connect(-1) || server.Accept(-1));
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(OpenSslImpl, Tls11WorksWhenTheCallerLowersTheSecurityLevel) {
  OpenSslImpl server(true, SslWrapper::kTlsV1_1);
  OpenSslImpl client(false, SslWrapper::kTlsV1_1);
  LoadCertificate(server);
  for (OpenSslImpl* impl : {&server, &client}) {
    ASSERT_TRUE(impl->SetCipherLists({"DEFAULT:@SECLEVEL=0"}));
  }
  const Pair pair;
  EXPECT_TRUE(Handshake(server, client, pair));
}

// A peer that stops reading must not hold up the wrapper's destructor.
TEST(OpenSslImpl, DestructionDoesNotWaitForAPeerThatHasStoppedReading) {
  const Pair pair;
  OpenSslImpl client(false, SslWrapper::kTlsV1_2);
  {
    OpenSslImpl server(true, SslWrapper::kTlsV1_2);
    LoadCertificate(server);
    ASSERT_TRUE(Handshake(server, client, pair));
    const std::string chunk(4096, 'x');
    while (send(pair.fds[0], chunk.data(), chunk.size(), MSG_DONTWAIT) > 0) {
    }
  }
  EXPECT_TRUE(client.RemoveClient(pair.fds[1]));
}

TEST(SslWrapper, ForwardsAndTracesItsConfiguration) {
  const char constructor[] =
      "hvn::util::SslWrapper::SslWrapper(bool, hvn::util::SslWrapper::Method)";
  SslWrapper server(true, SslWrapper::kTlsV1_2Alt);
  SslWrapper client(false, SslWrapper::kTlsV1_2);
  EXPECT_SAID(LOG_DEBUG, constructor, "Ssl method selected as [%d]\n", 5);
  EXPECT_TRUE(client.SetCipherLists({"AES128-SHA", "AES256-SHA"}));
  EXPECT_SAID(LOG_DEBUG,
              "bool hvn::util::SslWrapper::SetCipherLists(std::vector<std::basic_string<char> >)",
              "cipher lists [%s]\n", "AES128-SHA:AES256-SHA:");
  ASSERT_EQ(server.SetCertAndKeyFile(CertPath("server.pem"), CertPath("server-key.pem"),
                                     SslWrapper::kPem, SslWrapper::kPem),
            hvn::kSuccess);
  EXPECT_EQ(client.SetRootCaFile(CertPath("ca.pem"), SslWrapper::kPem), hvn::kSuccess);
  const Pair pair;
  ASSERT_TRUE(Handshake(server, client, pair));
  char text[] = "ping";
  EXPECT_EQ(client.Send(pair.fds[1], text, 4), 4);
  EXPECT_EQ(server.Recv(pair.fds[0], text, 1), 1);
  EXPECT_EQ(server.Pending(pair.fds[0]), 3U);
  EXPECT_TRUE(server.RemoveClient(pair.fds[0]));
}

}  // namespace
