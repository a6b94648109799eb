// OpenSSL has not come up, as after its first start without memory: this program says so in its
// place. To use it all the same would end the process.

#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include "tests/unit/common/http_probe_fixture.h"

extern "C" OSSL_LIB_CTX* OSSL_LIB_CTX_get0_global_default() { return nullptr; }

namespace {

using tests::answering;
using tests::ScriptedServer;

constexpr const char* kOk = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";

TEST_F(HttpProbeTest, WithoutTlsASecureProbeCannotConnectAndDoesNotTry) {
  const ScriptedServer server(answering(kOk));
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_CANNOT_CONNECT);
  EXPECT_EQ(server.accepted(), 0U);
}

TEST_F(HttpProbeTest, WithoutTlsAPlainProbeIsAnswered) {
  const ScriptedServer server(answering(kOk));
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
}

}  // namespace
