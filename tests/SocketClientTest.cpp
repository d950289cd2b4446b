#include "support/Peers.h"
#include "util/SocketClient.h"

namespace hutil_test {

using hvn::util::SocketClient;

TEST(SocketClient, SpeaksTlsThroughItsWrapperButNotInTime) {
  ServerTls tls;
  SslWrapper client_tls(false, SslWrapper::kTlsV1_2);
  Echo echo(&tls);
  SocketClient client("", kTcp, kIpv4, DestOf(echo.server.fd()), {&client_tls, 0, {}});
  char answer[8] = {};
  EXPECT_EQ(5, client.Send(std::string("hello")));
  EXPECT_EQ(-1, client.RecvTimedWait(answer, sizeof(answer), 2000000, 0));
  EXPECT_EQ(5, client.Recv(answer, sizeof(answer)));
}

}  // namespace hutil_test
