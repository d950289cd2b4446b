#include <memory>

#include "support/Kit.h"
#include "util/HttpRequest.h"
#include "util/SocketServer.h"

using namespace hutil_test;
using hvn::util::Buffer, hvn::util::Socket, hvn::util::SocketServer, hvn::util::SslWrapper;
using Request = hvn::util::HttpRequest;
using testing::AllOf, testing::HasSubstr, testing::Not, testing::StartsWith;

// A request and its site, which answers with an error page in two pieces.
struct HttpRequest : testing::Test {
  HttpRequest() {
    AllowLeftovers(2, 0);  // a server does not close its clients
    setenv("no_proxy", "*", 1);
    Open("http", nullptr);
  }
  void Open(const std::string& scheme, SslWrapper* ssl) {
    const auto serve = [this](int, int client, const std::string&, void* data, size_t size) {
      received.append(static_cast<char*>(data), size);
      if (!testing::Value(received, testing::EndsWith(end))) return true;
      server->SendTo(client, std::string("HTTP/1.1 404 Gone\r\nContent-Length: 7\r\n\r\none"));
      usleep(20000);
      return server->SendTo(client, std::string(" two")) > 0;
    };
    server = std::make_unique<SocketServer>("0.0.0.0", Socket::kTcp, Socket::kIpv4, serve, ssl);
    request.url_ = scheme + "://127.0.0.1:" + std::to_string(LocalPort(server->fd())) + "/path";
  }
  std::string Fetch(Request::Method method, const std::string& body = "") {
    received.clear();
    end = "\r\n\r\n" + (method == Request::kPost ? body : "");
    request.SetMethod(method, body);
    EXPECT_EQ(hvn::kSuccess, request.Start(out));
    return {reinterpret_cast<char*>(out.data()), out.size()};
  }
  std::string received, end;
  std::unique_ptr<SocketServer> server;
  Request request;
  Buffer out;
};

TEST_F(HttpRequest, CollectsAnAnswerOfPiecesWhateverItsStatus) {
  EXPECT_EQ("one two", Fetch(Request::kGet));
  EXPECT_EQ(404, request.status_code());
}

TEST_F(HttpRequest, SendsWhatItsPublicFieldsHold) {
  request.user_agent_ = "probe/1";
  request.headers_ = {"X-One: 1", "X-Two: 2"};
  Fetch(Request::kPost, "text");
  Fetch(Request::Method(7), "no body");
  EXPECT_THAT(received, AllOf(StartsWith("GET /path "), HasSubstr("\r\nUser-Agent: probe/1\r\n"),
                              HasSubstr("\r\nX-One: 1\r\nX-Two: 2\r\n")));
}

TEST_F(HttpRequest, PostsTheBodyThatIsSetAndNothingOfAnEarlierRequest) {
  request.user_agent_ = "probe/1";
  request.headers_ = {"X-One: 1"};
  Fetch(Request::kPost, std::string(9000, 'x'));
  request.user_agent_.clear();
  request.headers_.clear();
  Fetch(Request::kPost, "a=1");
  EXPECT_THAT(received, AllOf(StartsWith("POST "), HasSubstr("\r\nContent-Length: 3\r\n"),
                              Not(HasSubstr("X-")), Not(HasSubstr("-Agent"))));
  Fetch(Request::kPost, "");
  EXPECT_THAT(received, HasSubstr("\r\nContent-Length: 0\r\n"));
}

TEST_F(HttpRequest, RefusesWithoutAUrlAndEmptiesTheBuffer) {
  Fetch(Request::kGet);
  request.url_.clear();
  EXPECT_EQ(hvn::kFailure, request.Start(out));
  EXPECT_EQ(0u, out.size());
}

TEST_F(HttpRequest, TrustsAnyRootUnlessItIsToVerify) {
  SslWrapper ssl(true, SslWrapper::kTlsV1_2);
  EXPECT_EQ(hvn::kSuccess, ssl.SetCertAndKeyFile(CertPath("server.pem"), CertPath("server-key.pem"),
                                                 SslWrapper::kPem, SslWrapper::kPem));
  Open("https", &ssl);
  EXPECT_EQ("one two", Fetch(Request::kGet));
  request.VerifyPeer(CertPath("other-ca.pem"));
  EXPECT_EQ("", Fetch(Request::kGet));
  request.VerifyPeer(CertPath("ca.pem"));
  EXPECT_EQ("one two", Fetch(Request::kGet));
  request.VerifyPeer("");
  EXPECT_EQ("", Fetch(Request::kGet)) << "the system knows no such root";
  server.reset();
}

TEST_F(HttpRequest, WaitsNoLongerThanItsLimitForAnAnswer) {
  end = "more than comes";
  request.SetLimits(0, 50, 0);
  EXPECT_EQ(hvn::kSuccess, request.Start(out));
  EXPECT_EQ(0, request.status_code());
  EXPECT_THAT(Logs().back().text, testing::EndsWith("failed: Timeout was reached\n"));
}

TEST_F(HttpRequest, TakesNoLongerBodyThanItsLimitAndNoFiles) {
  request.SetLimits(0, 0, 7);
  EXPECT_EQ("one two", Fetch(Request::kGet));
  request.SetLimits(0, 0, 6);
  EXPECT_EQ("one", Fetch(Request::kGet));
  EXPECT_EQ(0, request.status_code());
  request.url_ = "file:///etc/passwd";
  EXPECT_EQ("", Fetch(Request::kGet));
}
