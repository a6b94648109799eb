// Probes of hosts that have names. This program defines getaddrinfo(3) itself, so a test decides
// what a name server says, and no test needs one.

#include <curl/curl.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/LoopbackSockets.h"
#include "tests/support/ScriptedServer.h"
#include "tests/unit/common/http_probe_fixture.h"
#include "vpn/Common/IP/HttpProbe.h"

namespace {

/// What the name server of this program does. Never freed: resolver threads may outlive the tests.
struct NAMES {
  std::mutex mutex;
  std::condition_variable changed;
  /// Names and services, as "name:service".
  std::vector<std::string> asked;
  unsigned int hanging = 0;
  bool release = false;
};

NAMES& names() {
  static NAMES& instance = *new NAMES;
  return instance;
}

using RealFunction = int (*)(const char*, const char*, const addrinfo*, addrinfo**);

int resolveForReal(const char* node, const char* service, const addrinfo* hints,
                   addrinfo** result) {
  static const auto real = reinterpret_cast<RealFunction>(dlsym(RTLD_NEXT, "getaddrinfo"));
  return real(node, service, hints, result);
}

/// Several addresses of one name, in this order.
int several(const std::vector<std::string>& addresses, const char* service, const addrinfo* hints,
            addrinfo** result) {
  for (const std::string& address : addresses) {
    if (const int status = resolveForReal(address.c_str(), service, hints, result); status != 0) {
      return status;
    }
    while (*result != nullptr) {
      result = &(*result)->ai_next;
    }
  }
  return 0;
}

int hang() {
  std::unique_lock<std::mutex> guard(names().mutex);
  ++names().hanging;
  names().changed.notify_all();
  names().changed.wait(guard, [] { return names().release; });
  --names().hanging;
  names().changed.notify_all();
  return EAI_AGAIN;
}

}  // namespace

extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                           addrinfo** result) {
  const std::string name = node == nullptr ? "" : node;
  {
    const std::lock_guard<std::mutex> guard(names().mutex);
    names().asked.push_back(name + ":" + (service == nullptr ? "" : service));
  }
  if (name == "hangs.test") {
    return hang();
  }
  if (name == "unknown.test") {
    return EAI_NONAME;
  }
  if (name == "serverfailure.test") {
    return EAI_AGAIN;
  }
  if (name == "broken.test") {
    return EAI_FAIL;
  }
  if (name == "both.test") {
    return several({"::1", "127.0.0.1"}, service, hints, result);  // as RFC 6724 orders them
  }
  if (name == "many.test") {
    std::vector<std::string> addresses;
    for (int last = 30; last > 0; --last) {
      addresses.push_back("127.0.0." + std::to_string(last));
    }
    return several(addresses, service, hints, result);
  }
  if (name == "one.test" || name.starts_with("xn--")) {
    return resolveForReal("127.0.0.1", service, hints, result);
  }
  return resolveForReal(node, service, hints, result);
}

namespace {

using testing::Contains;
using testing::HasSubstr;
using tests::answering;
using tests::RequestLog;
using tests::ScriptedServer;
using tests::SilentPort;

constexpr char kOk[] = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";

TEST_F(HttpProbeTest, ANameIsLookedUpAndSentAsTheHost) {
  RequestLog log;
  const ScriptedServer server(answering(kOk, &log));
  EXPECT_EQ(probe(server.port(), kPatience, "one.test"), HTTP_SESSION_SUCCESS);
  ASSERT_EQ(log.all().size(), 1U);
  EXPECT_THAT(log.all()[0], HasSubstr("\r\nHost: one.test:"));
}

TEST_F(HttpProbeTest, ANameThatDoesNotResolveIsADnsError) {
  for (const char* host : {"unknown.test", "serverfailure.test", "broken.test"}) {
    EXPECT_EQ(probe(80, kPatience, host), HTTP_SESSION_ERROR_DNS_RESOLUTION) << host;
    EXPECT_EQ(results.uiLastError, CURLE_COULDNT_RESOLVE_HOST);
    EXPECT_EQ(results.uiRtt, 0U);
    EXPECT_EQ(report().connectUs, -1);
  }
  EXPECT_EQ(probeSecurely(443, kPatience, "unknown.test"), HTTP_SESSION_ERROR_DNS_RESOLUTION);
}

// Nobody listens at all but the last. The refusals come at once; a wait after the first alone would
// use up half of the time.
TEST_F(HttpProbeTest, AnAddressThatRefusesLeadsToTheNextAtOnce) {
  const ScriptedServer server(answering(kOk));
  EXPECT_EQ(probe(server.port(), kPatience, "many.test"), HTTP_SESSION_SUCCESS);
  EXPECT_LT(report().connectUs, kPatience * 1'000'000LL / 2);
  EXPECT_EQ(report().address, "127.0.0.1");
  EXPECT_GE(report().networkRttUs, 0);
}

TEST_F(HttpProbeTest, TheRoundTripIsThatOfTheAddressThatAnsweredOnAKeptConnectionToo) {
  const ScriptedServer server(answering(kOk));
  const HttpProbe::KeptConnection kept;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(probe(server.port(), kPatience, "many.test"), HTTP_SESSION_SUCCESS);
    EXPECT_EQ(report().reused, i > 0);
    EXPECT_GE(report().networkRttUs, 0);
  }
}

TEST_F(HttpProbeTest, AProxysNameThatDoesNotResolveIsAConnectError) {
  proxy.proxyServer = "http=http://unknown.test:3128";
  EXPECT_EQ(probe(80, kPatience, "one.test"), HTTP_SESSION_ERROR_CONNECT);
  EXPECT_EQ(results.uiLastError, CURLE_COULDNT_RESOLVE_PROXY);
  EXPECT_EQ(probeSecurely(443, kPatience, "one.test"), HTTP_SESSION_ERROR_CONNECT);
}

TEST_F(HttpProbeTest, AProxyWithoutAPortIsAskedAtPort80) {
  proxy.proxyServer = "http=http://unknown.test";
  EXPECT_EQ(probe(8080, kPatience, "one.test"), HTTP_SESSION_ERROR_CONNECT);
  const std::lock_guard<std::mutex> guard(names().mutex);
  EXPECT_EQ(names().asked.back(), "unknown.test:80");
}

// The resolver's thread is still waiting when the probe returns: the test lets it go only then.
TEST_F(HttpProbeTest, ASilentNameServerDoesNotHoldUpTheTimeOut) {
  EXPECT_EQ(probe(80, 1, "hangs.test"), HTTP_SESSION_ERROR_TIMEOUT);
  EXPECT_EQ(results.uiLastError, CURLE_OPERATION_TIMEDOUT);
  std::unique_lock<std::mutex> guard(names().mutex);
  names().changed.wait(guard, [] { return names().hanging == 1; });
  names().release = true;
  names().changed.notify_all();
  names().changed.wait(guard, [] { return names().hanging == 0; });
  names().release = false;
}

TEST_F(HttpProbeTest, AnInternationalNameIsLookedUpInItsAsciiForm) {
  const ScriptedServer server(answering(kOk));
  EXPECT_EQ(probe(server.port(), kPatience, "bücher.test"), HTTP_SESSION_SUCCESS);
  const std::lock_guard<std::mutex> guard(names().mutex);
  EXPECT_THAT(names().asked, Contains("xn--bcher-kva.test:" + std::to_string(server.port())));
}

TEST_F(HttpProbeTest, ANameWithADeadIpv6AddressIsReachedByIpv4) {
  if (!tests::hasAddress("::1")) {
    GTEST_SKIP() << "this machine has no IPv6";
  }
  const ScriptedServer server(answering(kOk), "127.0.0.1");
  const SilentPort dead("::1", server.port());
  EXPECT_EQ(probe(server.port(), kPatience, "both.test"), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(report().address, "127.0.0.1");
  EXPECT_GE(report().networkRttUs, 0);
  // The time that the dead address costs is no part of the round trip.
  EXPECT_LT(report().networkRttUs, report().connectUs);
}

TEST_F(HttpProbeTest, AKeptConnectionToANameWithADeadIpv6AddressIsTheIpv4One) {
  if (!tests::hasAddress("::1")) {
    GTEST_SKIP() << "this machine has no IPv6";
  }
  const ScriptedServer server(
      [](tests::Connection& connection) {
        while (!connection.readHead().empty() && connection.send(kOk)) {
        }
      },
      "127.0.0.1");
  const SilentPort dead("::1", server.port());
  const HttpProbe::KeptConnection kept;
  for (const bool reused : {false, true, true}) {
    EXPECT_EQ(probe(server.port(), kPatience, "both.test"), HTTP_SESSION_SUCCESS);
    EXPECT_EQ(report().reused, reused);
    EXPECT_EQ(report().address, "127.0.0.1");
    EXPECT_GE(report().networkRttUs, 0);
  }
}

TEST_F(HttpProbeTest, AThreadThatKeepsItsConnectionLooksANameUpOnceEvenIfTheServerCloses) {
  const ScriptedServer server(
      answering("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 0\r\n\r\n"));
  const HttpProbe::KeptConnection kept;
  std::size_t before = 0;
  {
    const std::lock_guard<std::mutex> guard(names().mutex);
    before = names().asked.size();
  }
  EXPECT_EQ(probe(server.port(), kPatience, "one.test"), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(probe(server.port(), kPatience, "one.test"), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(server.accepted(), 2U);
  const std::lock_guard<std::mutex> guard(names().mutex);
  EXPECT_EQ(names().asked.size(), before + 1);
}

TEST_F(HttpProbeTest, ANameWhoseIpv6AddressRefusesIsReachedByIpv4) {
  if (!tests::hasAddress("::1")) {
    GTEST_SKIP() << "this machine has no IPv6";
  }
  const ScriptedServer server(answering(kOk), "127.0.0.1");
  EXPECT_EQ(probe(server.port(), kPatience, "both.test"), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(report().address, "127.0.0.1");
  EXPECT_GE(report().networkRttUs, 0);
}

TEST_F(HttpProbeTest, ANameWhoseAddressesAllRefuseCannotBeConnectedTo) {
  const tests::RefusingPort closed("127.0.0.1");
  EXPECT_EQ(probe(closed.Where().port, kPatience, "both.test"), HTTP_SESSION_ERROR_CANNOT_CONNECT);
}

TEST_F(HttpProbeTest, ANameWithOneDeadAndOneRefusingAddressIsNoAnswer) {
  if (!tests::hasAddress("::1")) {
    GTEST_SKIP() << "this machine has no IPv6";
  }
  const tests::RefusingPort closed("127.0.0.1");
  const SilentPort dead("::1", closed.Where().port);
  const STATUSCODE status = probe(closed.Where().port, 1, "both.test");
  EXPECT_THAT(status,
              testing::AnyOf(HTTP_SESSION_ERROR_TIMEOUT, HTTP_SESSION_ERROR_CANNOT_CONNECT));
  EXPECT_EQ(results.uiRtt, 0U);
}

}  // namespace
