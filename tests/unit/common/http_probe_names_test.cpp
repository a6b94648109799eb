// Probes of hosts with names. This program defines getaddrinfo(3), so a test decides a name
// server's answers and needs none.

#include <curl/curl.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/LoopbackSockets.h"
#include "tests/support/ScriptedServer.h"
#include "tests/unit/common/http_probe_fixture.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/IP/NameLookup.h"

namespace {

/// The scripted name server. Never freed: resolver threads may outlive the tests.
struct NAMES {
  std::mutex mutex;
  std::condition_variable changed;
  /// Looked-up names and services, as "name:service".
  std::vector<std::string> asked;
  unsigned int hanging = 0;
  bool release = false;
  unsigned int late = 0;
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

/// Several addresses for one name, in this order.
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

/// Answers the first one that asks as soon as another one does, and the others not.
int answerLate(const char* service, const addrinfo* hints, addrinfo** result) {
  {
    std::unique_lock<std::mutex> guard(names().mutex);
    const bool isFirst = ++names().late == 1;
    names().changed.notify_all();
    names().changed.wait(guard, [isFirst] { return !isFirst || names().late > 1; });
    if (isFirst) {
      guard.unlock();
      return resolveForReal("127.0.0.1", service, hints, result);
    }
  }
  return hang();
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
  if (name == "late.test") {
    return answerLate(service, hints, result);
  }
  static const std::map<std::string, int> failures = {
      {"unknown.test", EAI_NONAME}, {"serverfailure.test", EAI_AGAIN}, {"broken.test", EAI_FAIL}};
  if (const auto failure = failures.find(name); failure != failures.end()) {
    return failure->second;
  }
  if (name == "both.test") {
    return several({"::1", "127.0.0.1"}, service, hints, result);  // in the order of RFC 6724
  }
  if (name == "many.test" || name == "too-many.test") {
    std::vector<std::string> addresses;
    for (int last = name == "many.test" ? 16 : 17; last > 0; --last) {
      addresses.push_back("127.0.0." + std::to_string(last));
    }
    return several(addresses, service, hints, result);
  }
  if (name == "one.test" || name.starts_with("xn--")) {
    return resolveForReal("127.0.0.1", service, hints, result);
  }
  return resolveForReal(node, service, hints, result);
}

namespace tests {
namespace {

using testing::Contains;
using testing::HasSubstr;

std::vector<std::string> asked() {
  const std::lock_guard<std::mutex> guard(names().mutex);
  return names().asked;
}

/// Ends the one look-up that hangs.
void releaseOne() {
  std::unique_lock<std::mutex> guard(names().mutex);
  names().changed.wait(guard, [] { return names().hanging == 1; });
  names().release = true;
  names().changed.notify_all();
  names().changed.wait(guard, [] { return names().hanging == 0; });
  names().release = false;
}

TEST_F(HttpProbeTest, ANameIsLookedUpInItsAsciiFormAndSentAsTheHost) {
  const ScriptedServer server(answering(kOk, &log));
  const std::string port = std::to_string(server.port());
  for (const auto& [name, ascii] :
       {std::pair("one.test", "one.test"), std::pair("bücher.test", "xn--bcher-kva.test")}) {
    EXPECT_EQ(probe(server.port(), kPatience, name), HTTP_SESSION_SUCCESS);
    EXPECT_THAT(asked(), Contains(ascii + (":" + port)));
    EXPECT_THAT(log.all().back(), HasSubstr("\r\nHost: " + (ascii + (":" + port))));
  }
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

// Only the last address has a listener. Refusals come at once; waiting after just the first would
// take half of the time.
TEST_F(HttpProbeTest, AnAddressThatRefusesLeadsToTheNextAtOnceWhoseRoundTripIsTold) {
  const ScriptedServer server(answering(kOk));
  const HttpProbe::KeptConnection kept;
  for (const bool reused : {false, true}) {
    EXPECT_EQ(probe(server.port(), kPatience, "many.test"), HTTP_SESSION_SUCCESS);
    EXPECT_LT(report().connectUs, kPatience * 1'000'000LL / 2);
    EXPECT_EQ(report().address, "127.0.0.1");
    EXPECT_EQ(report().reused, reused);
    EXPECT_GE(report().networkRttUs, 0);
  }
}

TEST_F(HttpProbeTest, OfANameSixteenAddressesAreTried) {
  const ScriptedServer server(answering(kOk));
  EXPECT_EQ(probe(server.port(), kPatience, "too-many.test"), HTTP_SESSION_ERROR_CANNOT_CONNECT);
  EXPECT_EQ(server.accepted(), 0U);
}

// The threads are those of look-ups that nobody waits for any more.
TEST_F(HttpProbeTest, WhereTooManyLookUpsWereLeftBehindNoNameIsLookedUpUntilTheyHaveEnded) {
  const ScriptedServer server(answering(kOk));
  std::mutex held;
  std::vector<std::thread> left;
  {
    const std::lock_guard<std::mutex> hold(held);
    for (int i = 0; i < NameLookup::MostLeft; ++i) {
      NameLookup lookup;
      ASSERT_TRUE(lookup.begin());
      left.emplace_back([&held] { const std::lock_guard<std::mutex> wait(held); });
      lookup.noteStart();
    }
    EXPECT_EQ(probe(server.port(), kPatience, "one.test"), HTTP_SESSION_ERROR_DNS_RESOLUTION);
    EXPECT_EQ(report().shortage, Shortage::Threads) << "the name is not to blame";
    EXPECT_EQ(probe(server.port(), kPatience, "127.0.0.1"), HTTP_SESSION_SUCCESS);
  }
  for (std::thread& thread : left) {
    thread.join();
  }
  EXPECT_TRUE(eventually(
      [&] { return probe(server.port(), kPatience, "one.test") == HTTP_SESSION_SUCCESS; }));
}

TEST_F(HttpProbeTest, AProxysNameThatDoesNotResolveIsAConnectErrorAndAskedForAtPort80ByDefault) {
  proxy.proxyServer = "http=http://unknown.test";
  EXPECT_EQ(probe(8080, kPatience, "one.test"), HTTP_SESSION_ERROR_CONNECT);
  EXPECT_EQ(results.uiLastError, CURLE_COULDNT_RESOLVE_PROXY);
  EXPECT_EQ(asked().back(), "unknown.test:80");
  proxy.proxyServer += ":3128";
  EXPECT_EQ(probeSecurely(443, kPatience, "one.test"), HTTP_SESSION_ERROR_CONNECT);
  EXPECT_EQ(asked().back(), "unknown.test:3128");
}

// The resolver's thread still waits when the probe returns; the test releases it afterwards.
TEST_F(HttpProbeTest, ASilentNameServerDoesNotHoldUpTheTimeOut) {
  EXPECT_EQ(probe(80, 1, "hangs.test"), HTTP_SESSION_ERROR_TIMEOUT);
  EXPECT_EQ(results.uiLastError, CURLE_OPERATION_TIMEDOUT);
  EXPECT_TRUE(report().unresolved);
  releaseOne();
}

TEST_F(HttpProbeTest, AnAnswerOfTheNameServerThatComesAfterTheTimeOutServesTheNextProbe) {
  const ScriptedServer server(answering(kOk));
  const HttpProbe::KeptConnection kept;
  EXPECT_EQ(probe(server.port(), 1, "late.test"), HTTP_SESSION_ERROR_TIMEOUT);
  EXPECT_EQ(probe(server.port(), kPatience, "late.test"), HTTP_SESSION_SUCCESS);
  releaseOne();
}

TEST_F(HttpProbeTest, AThreadThatKeepsItsConnectionLooksANameUpOnceEvenIfTheServerCloses) {
  const ScriptedServer server(
      answering("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 0\r\n\r\n"));
  const HttpProbe::KeptConnection kept;
  const std::size_t before = asked().size();
  EXPECT_EQ(probe(server.port(), kPatience, "one.test"), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(probe(server.port(), kPatience, "one.test"), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(server.accepted(), 2U);
  EXPECT_EQ(asked().size(), before + 1);
}

TEST_F(HttpProbeTest, ANameWhoseAddressesAllRefuseCannotBeConnectedTo) {
  const RefusingPort closed("127.0.0.1");
  EXPECT_EQ(probe(closed.Where().port, kPatience, "both.test"), HTTP_SESSION_ERROR_CANNOT_CONNECT);
}

/// Probes of a name with two addresses; the first is IPv6 and useless.
class HttpProbeOfTwoAddresses : public HttpProbeTest {
 protected:
  void SetUp() override {
    if (!hasAddress("::1")) {
      GTEST_SKIP() << "this machine has no IPv6";
    }
  }
  void expectIpv4(unsigned short port, bool reused) {
    EXPECT_EQ(probe(port, kPatience, "both.test"), HTTP_SESSION_SUCCESS);
    EXPECT_EQ(report().reused, reused);
    EXPECT_EQ(report().address, "127.0.0.1");
    EXPECT_GE(report().networkRttUs, 0);
  }
};

TEST_F(HttpProbeOfTwoAddresses, ADeadOneIsPassedOverAndTheOtherOneKept) {
  const ScriptedServer server(answering(kOk));
  const SilentPort dead("::1", server.port());
  const HttpProbe::KeptConnection kept;
  expectIpv4(server.port(), false);
  EXPECT_LT(report().networkRttUs, report().connectUs)
      << "what the dead one costs is no part of it";
  expectIpv4(server.port(), true);
}

TEST_F(HttpProbeOfTwoAddresses, ARefusingOneIsPassedOver) {
  const ScriptedServer server(answering(kOk));
  expectIpv4(server.port(), false);
}

TEST_F(HttpProbeOfTwoAddresses, ADeadAndARefusingOneAreNoAnswer) {
  const RefusingPort closed("127.0.0.1");
  const SilentPort dead("::1", closed.Where().port);
  EXPECT_THAT(probe(closed.Where().port, 1, "both.test"),
              testing::AnyOf(HTTP_SESSION_ERROR_TIMEOUT, HTTP_SESSION_ERROR_CANNOT_CONNECT));
  EXPECT_EQ(results.uiRtt, 0U);
}

}  // namespace
}  // namespace tests
