// Probes over UDP of servers that other people wrote, in a network of their own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "tests/integration/command_test.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"

namespace tests {
namespace {

using nlohmann::json;

constexpr int NotPermitted = 77;
constexpr const char* Certificate =
    "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout key.pem -out "
    "cert.pem -days 9 -subj /CN=gateway 2>/dev/null\n";

struct Server {
  const char* kind;
  const char* port;
  const char* start;
};

class DatagramServers : public CommandTest {};

/// The client reaches each at a round trip of 40 ms.
TEST_F(DatagramServers, AnswerProbesOfTheirKind) {
  writeFile("scene", "path default rtt=40\n");
  writeFile(
      "caddy.json",
      R"({"admin":{"disabled":true},"apps":{"http":{"servers":{"s":{"listen":["10.77.0.1:8443"],)"
      R"("tls_connection_policies":[{}],"protocols":["h1","h2","h3"]}}},"tls":)"
      R"({"certificates":{"load_files":[{"certificate":"cert.pem","key":"key.pem"}]}}}})");
  for (const Server& server :
       {Server{"openvpn", "1194",
               "openvpn --local 10.77.0.1 --dev tun --server 10.9.0.0 255.255.255.0 --topology "
               "subnet --ca cert.pem "
               "--cert cert.pem --key key.pem --dh none"},
        Server{"ike", "500", "unshare -m sh -c 'mount -t tmpfs none /run; exec charon-systemd'"},
        Server{"ike", "4500", "unshare -m sh -c 'mount -t tmpfs none /run; exec charon-systemd'"},
        Server{"quic", "8443", "env HOME=. caddy run --config caddy.json"}}) {
    writeFile("servers", Certificate + std::string(server.start) + " >server.log 2>&1 &\n" +
                             "until ss -Hlun | grep -q ':" + server.port +
                             " ' || ! kill -0 $!; do sleep 0.1; done\necho ready\nwait\n");
    writeFile("command", std::string("exec " AHS_PROGRAM " probe 10.77.0.1 --json --probe ") +
                             server.kind + " --probe-port " + server.port + " >out 2>err\n");
    ChildProcess wan(
        {AHS_WAN, "--config", "scene", "--servers", "sh servers", "--", "/bin/sh", "command"},
        home + "/wan", home);
    ASSERT_TRUE(wan.WaitForEnd(Limit)) << readFile(home + "/server.log");
    if (wan.ExitStatus() == NotPermitted) {
      GTEST_SKIP() << readFile(home + "/wan");
    }
    EXPECT_EQ(wan.ExitStatus(), 0)
        << server.kind << readFile(home + "/err") << readFile(home + "/server.log");
    const json probed = json::parse(readFile(home + "/out"), nullptr, false);
    ASSERT_TRUE(probed.is_object()) << server.kind;
    EXPECT_EQ(probed.at("summary").at("samples"), 3) << server.kind;
    EXPECT_GE(probed.at("summary").at("metricMs"), 40) << server.kind;
  }
}

}  // namespace
}  // namespace tests
