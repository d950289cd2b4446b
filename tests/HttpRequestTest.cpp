#include <dlfcn.h>

#include "support/Kit.h"
#include "util/HttpRequest.h"
#include "util/SocketServer.h"

using namespace hutil_test;
using namespace hvn::util;
using testing::AllOf, testing::HasSubstr, testing::Not, testing::StartsWith;
constexpr char kStart[] = "hvn::Result hvn::util::HttpRequest::Start(hvn::util::Buffer&)";

struct Site {  // answers a request that ends as it should with an error page, in two pieces
  bool Serve(int client, void* data, size_t size) {
    received.append(static_cast<char*>(data), size);
    if (received.rfind(end) + end.size() != received.size()) return true;
    server.SendTo(client, std::string("HTTP/1.1 404 Gone\r\nContent-Length: 7\r\n\r\none"));
    return usleep(50000) == 0 && server.SendTo(client, std::string(" two")) > 0;
  }
  std::string Fetch(HttpRequest& request, HttpRequest::Method method, const std::string& body) {
    AllowLeftovers(2, 0);  // a server does not close its clients
    setenv("no_proxy", "*", 1);
    received.clear();
    end = "\r\n\r\n" + (method == HttpRequest::kPost ? body : "");
    request.SetMethod(method, body);
    request.url_ = scheme + "://127.0.0.1:" + std::to_string(LocalPort(server.fd())) + "/path";
    Buffer out(1);
    EXPECT_FALSE(request.Start(out) ||
                 std::string(out.data(), &out.data()[out.size()]) != "one two");
    return received;
  }
  SslWrapper* const ssl;
  std::string scheme = ssl == nullptr ? "http" : "https", received{}, end{};
  SocketServer server{
      "0.0.0.0", Socket::kTcp, Socket::kIpv4,
      [this](auto, int client, auto, auto... data) { return Serve(client, data...); }, ssl};
};

TEST(HttpRequest, SendsWhatIsSetTrustsAnyRootAndCollectsTheAnswer) {
  Site site{nullptr};
  HttpRequest request;
  request.user_agent_ = "probe/1";
  request.headers_ = {"X-One: 1", "X-Two: 2"};
  EXPECT_THAT(site.Fetch(request, HttpRequest::kGet, ""),
              AllOf(StartsWith("GET /path "), HasSubstr("\r\nUser-Agent: probe/1\r\n"),
                    HasSubstr("\r\nX-One: 1\r\nX-Two: 2\r\n")));
  EXPECT_TRUE(Said(LOG_DEBUG, kStart, "HttpRequest start \n"));
  EXPECT_TRUE(Said(LOG_DEBUG, kStart, "method_ != POST \n"));
  EXPECT_TRUE(Said(LOG_DEBUG, kStart, "header [%s]\n", "X-Two: 2"));
  request.user_agent_.clear();
  request.headers_.clear();
  for (const std::string& body : {std::string("a=1"), std::string(), std::string(9000, 'x')}) {
    EXPECT_THAT(site.Fetch(request, HttpRequest::kPost, body),
                AllOf(StartsWith("POST "), Not(HasSubstr("X-")), Not(HasSubstr("User-Agent")),
                      HasSubstr("\r\nContent-Length: " + std::to_string(body.size()) + "\r\n")));
  }
  site.Fetch(request, HttpRequest::Method(7), "no body");
  SslWrapper ssl(true, SslWrapper::kTlsV1_2);
  EXPECT_EQ(hvn::kSuccess, ssl.SetCertAndKeyFile(CertPath("server.pem"), CertPath("server-key.pem"),
                                                 SslWrapper::kPem, SslWrapper::kPem));
  Site safe{&ssl};
  safe.Fetch(request, HttpRequest::kGet, "");
  unsigned char old = 'x';
  request.url_ = "http://192.0.2.1/";  // unreachable
  for (const auto method : {HttpRequest::kGet, HttpRequest::kNone, HttpRequest::kPost}) {
    Buffer out;
    request.SetMethod(method, "");
    EXPECT_EQ(method != HttpRequest::kGet, out.Copy(&old, 1) && request.Start(out));
    EXPECT_EQ(0u, out.size());
    if (method == HttpRequest::kNone) request.url_.clear();
  }
  const auto reason = reinterpret_cast<char* (*)(int)>(dlsym(RTLD_DEFAULT, "curl_easy_strerror"));
  EXPECT_TRUE(Said(LOG_ERR, kStart, "curl_easy_perform() failed: %s\n", reason(7)));
}
