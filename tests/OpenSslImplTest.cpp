#include "support/Kit.h"
#include "util/OpenSslImpl.h"

namespace hutil_test {

using hvn::util::OpenSslImpl, hvn::util::SslWrapper;

TEST(OpenSslImpl, RefusedMethodLeavesNoContext) {
  OpenSslImpl impl(false, static_cast<SslWrapper::Method>(2));
  EXPECT_EQ(hvn::kNotInitialized, impl.SetRootCaFile(CertPath("ca.pem"), SslWrapper::kPem));
  EXPECT_EQ(hvn::kNotInitialized, impl.SetCertChainFile(CertPath("chain.pem")));
  EXPECT_FALSE(impl.SetCipherLists({}));
  EXPECT_FALSE(impl.VerifyPeer(""));
  EXPECT_FALSE(impl.UseModernTls());
  EXPECT_FALSE(impl.Connect(0));
}

}  // namespace hutil_test
