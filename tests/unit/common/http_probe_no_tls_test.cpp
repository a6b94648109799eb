// OpenSSL has not come up, as after its first start without memory: this program says so in its
// place. To use it all the same would end the process.

#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include "tests/unit/common/http_probe_fixture.h"

extern "C" OSSL_LIB_CTX* OSSL_LIB_CTX_get0_global_default() { return nullptr; }

namespace tests {
namespace {

TEST_F(HttpProbeTest, WithoutTlsASecureProbeDoesNotTryToConnectAndAPlainOneIsAnswered) {
  const ScriptedServer server(answering(kOk));
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_CANNOT_CONNECT);
  EXPECT_EQ(server.accepted(), 0U);
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
}

}  // namespace
}  // namespace tests
