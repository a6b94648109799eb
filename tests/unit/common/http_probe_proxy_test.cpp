// Probes through proxies: plain requests, tunnels, authentication, and broken proxies.

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <stdexcept>
#include <thread>

#include "tests/support/Eventually.h"
#include "tests/support/LoopbackSockets.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TestAuthority.h"
#include "tests/unit/common/http_probe_fixture.h"
#include "tests/unit/common/proxy_settings_double.h"
#include "vpn/Common/IP/HttpHeaderResponse.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/Trust/Environment.h"

namespace tests {
namespace {

using testing::AnyOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;
using namespace std::chrono_literals;

constexpr char kBasic[] = "Proxy-Authenticate: Basic realm=\"Office\"\r\n";
constexpr char kNegotiate[] = "Proxy-Authenticate: Negotiate\r\n";

// Never contacted: the proxy answers in its place.
constexpr char kElsewhere[] = "192.0.2.1";

std::string urlOf(unsigned short port) { return "http://127.0.0.1:" + std::to_string(port); }
std::string proxyAt(unsigned short port) { return "http=" + urlOf(port); }

/// A proxy that accepts "user:secret" and challenges all others.
ScriptedServer::Script asking(const std::string& challenges, RequestLog* log) {
  return [=](Connection& connection) {
    for (std::string request = connection.readHead(); !request.empty();
         request = connection.readHead()) {
      log->add(request);
      const bool known =
          request.find("Proxy-Authorization: Basic dXNlcjpzZWNyZXQ=\r\n") != std::string::npos;
      connection.send(known ? kOk
                            : "HTTP/1.1 407 No\r\n" + challenges + "Content-Length: 0\r\n\r\n");
    }
  };
}

TEST_F(HttpProbeTest, APlainRequestGoesToTheProxyWholeAndItsResponseIsMeasured) {
  const ScriptedServer server([this](Connection& connection) {
    log.add(connection.readHead());
    connection.wait(300ms);
    connection.send(kOk);
  });
  proxy.proxyServer = proxyAt(server.port());
  EXPECT_EQ(probe(8080, kPatience, kElsewhere), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.uiHttpStatusCode, 200U);
  EXPECT_GE(results.uiRtt, 300U);
  EXPECT_THAT(log.all(), ElementsAre(StartsWith("GET http://192.0.2.1:8080/ HTTP/1.1\r\n")));
  EXPECT_THAT(log.all(), Each(Not(HasSubstr("Authorization"))));
}

TEST_F(HttpProbeTest, AProxyIsTakenInEverySpellingOfItsAddressWhateverTheEnvironmentExempts) {
  const Variable exemptions("no_proxy", "*");
  const ScriptedServer server(answering(kOk));
  const std::string port = std::to_string(server.port());
  for (const std::string& text :
       {"http=http://127.0.0.1:" + port, "http://127.0.0.1:" + port, "127.0.0.1:" + port,
        "http=127.0.0.1:" + port, "http://127.0.0.1:" + port + "/", "http=HTTP://127.0.0.1:" + port,
        "http=http://127.0.0.1:" + port + " \t"}) {
    proxy.proxyServer = text;
    EXPECT_EQ(probe(80, kPatience, kElsewhere), HTTP_SESSION_SUCCESS) << text;
  }
  EXPECT_EQ(server.accepted(), 7U);
}

class HttpProbeThroughNoProxy : public HttpProbeTest,
                                public testing::WithParamInterface<std::string> {};

TEST_P(HttpProbeThroughNoProxy, IsAConnectErrorAndSendsNothing) {
  const ScriptedServer server(answering(kOk));
  proxy.proxyServer = GetParam();
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_ERROR_CONNECT);
  EXPECT_EQ(results.uiLastError, CURLE_COULDNT_RESOLVE_PROXY);
  EXPECT_EQ(server.accepted(), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    Proxy, HttpProbeThroughNoProxy,
    testing::Values("http=", "http=http://", "http=http://:3128", "socks5://127.0.0.1",
                    "http=http://a b", "http=http://u:p@127.0.0.1:1", "http=http://127.0.0.1:0",
                    "http=http://127.0.0.1:x", "http=http://127.0.0.1/x",
                    "http=http://127.0.0.1\r\nX: y", "http=http://[::1", "http=https://127.0.0.1:1",
                    " ", "HTTP=http://127.0.0.1:1", "https=http://127.0.0.1:1",
                    "http=http=http://127.0.0.1:1", "http=http://::1:3128", "http=http://[::1]3128",
                    "http=http://127.0.0.1:99999", "http=http://a:1;https=http://b:1",
                    "http= http://a b", std::string(1 << 20, 'a')),
    [](const auto& param) { return std::to_string(param.index); });

TEST_F(HttpProbeTest, AProxyThatRefusesTheConnectionIsAConnectError) {
  const RefusingPort closed("127.0.0.1");
  proxy.proxyServer = proxyAt(closed.Where().port);
  EXPECT_EQ(probe(80, kPatience, kElsewhere), HTTP_SESSION_ERROR_CONNECT);
  EXPECT_EQ(probeSecurely(443, kPatience, kElsewhere), HTTP_SESSION_ERROR_CONNECT);
  EXPECT_EQ(results.uiRtt, 0U);
}

TEST_F(HttpProbeTest, ASilentProxyIsATimeOut) {
  const SilentPort dead;
  const ScriptedServer silent(staySilent);
  for (const unsigned short port : {dead.port(), silent.port()}) {
    proxy.proxyServer = proxyAt(port);
    EXPECT_EQ(probe(80, 1, kElsewhere), HTTP_SESSION_ERROR_TIMEOUT);
  }
  EXPECT_EQ(probeSecurely(443, 1, kElsewhere), HTTP_SESSION_ERROR_TIMEOUT);
}

/// A proxy that blocks a probe, and the probe's outcome.
struct REFUSAL {
  const char* name;
  ScriptedServer::Script script;
  bool secure;
  unsigned int httpStatus;
};

const REFUSAL kRefusals[] = {
    {"Garbage", answering("SSH-2.0-x\r\n\r\n"), false, 0},
    {"ClosedTunnel", closeAfterRequest, true, 0},
    {"RefusedTunnel", answering("HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n"), true, 403},
    {"ConsentOfEndlessHeaders",
     [](Connection& connection) {
       connection.readHead();
       connection.send("HTTP/1.1 200 Established\r\n");
       while (connection.send("X-Header: some value or other\r\n")) {
       }
     },
     true, 0},
};

class HttpProbeThroughABrokenProxy : public HttpProbeTest,
                                     public testing::WithParamInterface<REFUSAL> {};

TEST_P(HttpProbeThroughABrokenProxy, IsAnInvalidResponseWithTheProxysStatus) {
  const ScriptedServer server(GetParam().script);
  proxy.proxyServer = proxyAt(server.port());
  EXPECT_EQ(GetParam().secure ? probeSecurely(443, kPatience, kElsewhere)
                              : probe(80, kPatience, kElsewhere),
            HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  EXPECT_EQ(results.uiHttpStatusCode, GetParam().httpStatus);
  EXPECT_GE(report().responseRttUs, 0);
  EXPECT_LE(results.tstrResponseHeaders.size(), 64UL * 1024);
}

INSTANTIATE_TEST_SUITE_P(Proxy, HttpProbeThroughABrokenProxy, testing::ValuesIn(kRefusals),
                         [](const auto& param) { return param.param.name; });

/// Probes of a user through a proxy that demands a login.
struct LOGIN {
  const char* name;
  std::string challenges;
  const char* password;  ///< empty: nobody is named
  unsigned int httpStatus;
  std::size_t mostRequests;
};

const LOGIN kLogins[] = {
    {"WithoutCredentialsEndsIn407", kBasic, "", 407, 1},
    {"WithCredentialsSucceeds", kBasic, "secret", 200, 2},
    {"WithWrongCredentialsEndsIn407", kBasic, "wrong", 407, 2},
    {"WithoutATicketTriesThePasswordToo", std::string(kNegotiate) + kBasic, "secret", 200, 4},
    {"WithoutATicketAndWithAWrongPasswordEndsIn407", std::string(kNegotiate) + kBasic, "wrong", 407,
     4},
    {"WithoutATicketAndAPasswordEndsIn407", std::string(kNegotiate) + kBasic, "", 407, 2},
    {"WithoutTheTicketThatIsWantedEndsIn407", kNegotiate, "secret", 407, 2},
};

class HttpProbeThroughAnAskingProxy : public HttpProbeTest,
                                      public testing::WithParamInterface<LOGIN> {
 protected:
  const Variable tickets{"KRB5CCNAME", "FILE:/nonexistent"};
};

TEST_P(HttpProbeThroughAnAskingProxy, IsAnswered) {
  const ScriptedServer server(asking(GetParam().challenges, &log));
  proxy.proxyServer = proxyAt(server.port());
  proxy.proxyUser = GetParam().mostRequests > 1 ? "user" : "";
  proxy.proxyPswd = GetParam().password;
  EXPECT_EQ(probe(80, kPatience, kElsewhere), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.uiHttpStatusCode, GetParam().httpStatus);
  EXPECT_LE(log.all().size(), GetParam().mostRequests);
  CHttpHeaderResponse response;
  response.set(results.tstrResponseHeaders);
  const bool isBasic = GetParam().challenges != kNegotiate;
  EXPECT_EQ(response.getProxyAuthRealm("Basic"),
            isBasic && GetParam().httpStatus == 407 ? "Office" : "");
  if (*GetParam().password == '\0' || !isBasic) {
    EXPECT_THAT(log.all(), Each(Not(HasSubstr("Authorization"))));
  }
}

INSTANTIATE_TEST_SUITE_P(Proxy, HttpProbeThroughAnAskingProxy, testing::ValuesIn(kLogins),
                         [](const auto& param) { return param.param.name; });

/// What a proxy answers to each request but the first with an NTLM or Negotiate message.
struct ODD_TOKEN {
  const char* name;
  const char* scheme;
  std::string token;
};

/// NTLM's second message ([MS-NLMP], section 2.2.1.2) that places its target information so, cut or
/// filled up to a size.
std::string ntlmMessage(unsigned short length, unsigned int offset, std::size_t size) {
  std::string message(
      "NTLMSSP\0\2\0\0\0\14\0\14\0\60\0\0\0\1\2\x81\0\1\2\3\4\5\6\7\b\0\0\0\0\0\0\0\0", 40);
  for (const unsigned int number : {length | (static_cast<unsigned int>(length) << 16), offset}) {
    for (unsigned int shift = 0; shift < 32; shift += 8) {
      message += static_cast<char>(number >> shift);
    }
  }
  message.resize(size, 'O');
  std::string text(4 * (size / 3 + 1) + 1, '\0');
  text.resize(static_cast<std::size_t>(EVP_EncodeBlock(
      reinterpret_cast<unsigned char*>(text.data()),
      reinterpret_cast<const unsigned char*>(message.data()), static_cast<int>(size))));
  return text;
}

const ODD_TOKEN kOddTokens[] = {
    {"NtlmThatIsNoBase64", "NTLM", "=*%"},
    {"NtlmWithoutAMessage", "NTLM", ""},
    {"NtlmOfAnotherKind", "NTLM", "TlRMTVNTUAABAAAA"},
    {"NtlmCutInItsSignature", "NTLM", ntlmMessage(0, 0, 7)},
    {"NtlmCutInItsChallenge", "NTLM", ntlmMessage(0, 0, 27)},
    {"NtlmCutInItsPlaces", "NTLM", ntlmMessage(20, 48, 46)},
    {"NtlmPlacesBeyondTheEnd", "NTLM", ntlmMessage(20, 60, 60)},
    {"NtlmPlacesAtItsOwnHead", "NTLM", ntlmMessage(20, 0, 60)},
    {"NtlmPlacesThatOverflow", "NTLM", ntlmMessage(0xFFFF, 0xFFFFFFF0, 60)},
    {"NtlmPlacesInTheNegative", "NTLM", ntlmMessage(1, 0x80000000, 60)},
    {"NtlmThatFillsTheHead", "NTLM", ntlmMessage(0xB000, 48, 0xB000 + 48)},
    {"NtlmBeyondTheHead", "NTLM", ntlmMessage(0xFFFF, 48, 0xFFFF + 48)},
    {"NegotiateWithoutEnd", "Negotiate", "YIIABAo="},
    {"NegotiateThatIsNoBase64", "Negotiate", "=*%"},
};

class HttpProbeThroughAProxyOfOddTokens : public HttpProbeTest,
                                          public testing::WithParamInterface<ODD_TOKEN> {
 protected:
  const Variable tickets{"KRB5CCNAME", "FILE:/nonexistent"};
};

TEST_P(HttpProbeThroughAProxyOfOddTokens, EndsAfterFewRequestsPlainAndInATunnel) {
  const std::string scheme = GetParam().scheme;
  const ScriptedServer server([&](Connection& connection) {
    for (std::string head = connection.readHead(); !head.empty(); head = connection.readHead()) {
      log.add(head);
      const bool isAnswer = head.find("Authorization: " + scheme) != std::string::npos;
      connection.send("HTTP/1.1 407 No\r\nProxy-Authenticate: " + scheme +
                      (isAnswer || scheme == "Negotiate" ? " " + GetParam().token : "") +
                      "\r\nContent-Length: 0\r\n\r\n");
    }
  });
  proxy.proxyServer = proxyAt(server.port());
  proxy.proxyUser = "user";
  proxy.proxyPswd = "secret";
  for (const bool secure : {false, true}) {
    const std::size_t before = log.all().size();
    const STATUSCODE status =
        secure ? probeSecurely(443, kPatience, kElsewhere) : probe(80, kPatience, kElsewhere);
    EXPECT_THAT(status, AnyOf(HTTP_SESSION_SUCCESS, HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE));
    EXPECT_LE(log.all().size() - before, 4U);
  }
}

INSTANTIATE_TEST_SUITE_P(Proxy, HttpProbeThroughAProxyOfOddTokens, testing::ValuesIn(kOddTokens),
                         [](const auto& param) { return param.param.name; });

TEST_F(HttpProbeTest, ATunnelThatNeedsAuthenticationIsAnInvalidResponseWith407) {
  const ScriptedServer server(asking(kBasic, &log));
  proxy.proxyServer = proxyAt(server.port());
  EXPECT_EQ(probeSecurely(443, kPatience, kElsewhere), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  EXPECT_EQ(results.uiHttpStatusCode, 407U);
  EXPECT_THAT(results.tstrResponseHeaders, HasSubstr("realm=\"Office\""));
  EXPECT_THAT(log.all(), ElementsAre(StartsWith("CONNECT 192.0.2.1:443 HTTP/1.1\r\n")));
  EXPECT_GE(report().responseRttUs, 0);
}

TEST_F(HttpProbeTest, CredentialsAreGivenToNoServer) {
  proxy.proxyUser = "user";
  proxy.proxyPswd = "secret";
  EXPECT_EQ(probeOf(asking(kBasic, &log)), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  EXPECT_THAT(log.all(), ElementsAre(Not(HasSubstr("Authorization"))));
}

/// Answers with a challenge, as if it were a proxy.
void challenge(Connection& connection) {
  connection.readHead();
  connection.send("HTTP/1.1 407 No\r\n" + std::string(kBasic) + "Content-Length: 0\r\n\r\n");
}

TEST_F(HttpProbeTest, AHeadendsChallengeIsAnAnswerWithoutAStatus) {
  const TestAuthority authority;
  HttpProbe::setTrustFile(authority.file());
  const auto expectNoStatus = [&](STATUSCODE status, const char* way) {
    EXPECT_EQ(status, HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE) << way;
    EXPECT_EQ(results.uiHttpStatusCode, 0U) << way;
    EXPECT_GE(report().responseRttUs, 0) << way;
  };
  const ScriptedServer server(challenge);
  expectNoStatus(probe(server.port()), "direct");

  proxy.determineProxy = true;
  {
    const Variable named("http_proxy", "http://127.0.0.1:1");
    const Variable exceptions("no_proxy", "127.0.0.1");
    expectNoStatus(probe(server.port()), "exempt from the proxy");
  }
  const ScriptedServer socks([](Connection& connection) {
    connection.readSome();
    connection.send(std::string("\5\0", 2));  // RFC 1928: no login
    connection.readSome();
    connection.send(std::string("\5\0\0\1\0\0\0\0\0\0", 10));
    challenge(connection);
  });
  const Variable named("all_proxy", "socks5://127.0.0.1:" + std::to_string(socks.port()));
  expectNoStatus(probe(80, kPatience, kElsewhere), "through SOCKS");

  const ScriptedServer secure(
      [context = TlsServerContext(authority.issue())](Connection& connection) {
        connection.startTls(context);
        challenge(connection);
        connection.waitForPeer();
      });
  const ScriptedServer tunnel([&](Connection& connection) {
    connection.readHead();
    connection.send("HTTP/1.1 200 Established\r\n\r\n");
    connection.tunnelTo(secure.port());
  });
  proxy = PROXY_DATA();
  proxy.proxyServer = proxyAt(tunnel.port());
  expectNoStatus(probeSecurely(secure.port()), "through a tunnel");
}

TEST_F(HttpProbeTest, ASecureProbeGoesThroughATunnel) {
  const TestAuthority authority;
  HttpProbe::setTrustFile(authority.file());
  RequestLog proxyLog;
  const ScriptedServer server(
      [this, context = TlsServerContext(authority.issue())](Connection& connection) {
        connection.startTls(context);
        log.add(connection.readHead());
        connection.wait(300ms);
        connection.send(kOk);
        connection.waitForPeer();
      });
  const ScriptedServer tunnel([&](Connection& connection) {
    proxyLog.add(connection.readHead());
    connection.send("HTTP/1.1 200 Established\r\nX: proxy\r\n\r\n");
    connection.tunnelTo(server.port());
  });
  proxy.proxyServer = proxyAt(tunnel.port());
  proxy.proxyUser = "user";
  proxy.proxyPswd = "secret";
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.uiHttpStatusCode, 200U);
  EXPECT_EQ(results.tstrResponseHeaders, kOk);
  EXPECT_GE(results.uiRtt, 300U) << "the server's response is measured";
  EXPECT_THAT(log.all(), ElementsAre(Not(HasSubstr("Proxy-Authorization"))));
  EXPECT_THAT(proxyLog.all(), SizeIs(1));

  HttpProbe::setTrustFile("");
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE);
  EXPECT_EQ(results.uiHttpStatusCode, 0U);
  EXPECT_GE(report().responseRttUs, 0);
}

TEST_F(HttpProbeTest, TheEnvironmentsProxyIsIgnoredUnlessTheSystemsIsAskedFor) {
  const RefusingPort closed("127.0.0.1");
  const ScriptedServer server(answering(kOk));
  for (const char* name : {"http_proxy", "all_proxy"}) {
    const Variable other(name, "http://" + closed.Where().Text());
    proxy.determineProxy = false;
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
    proxy.determineProxy = true;
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_ERROR_CONNECT);
  }
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS) << "none is named";
  EXPECT_EQ(probe(closed.Where().port), HTTP_SESSION_ERROR_CANNOT_CONNECT);
}

/// A server that answers plain requests and hangs up on tunnels and TLS; probes take their proxy
/// from the system's settings.
class HttpProbeBySystemSettings : public HttpProbeTest {
 protected:
  using Entries = std::vector<std::string>;

  HttpProbeBySystemSettings() { proxy.determineProxy = true; }

  /// Settings that return these entries to every question.
  static ProxySettingsDouble::Script naming(const Entries& entries) {
    return [entries](const std::string&) { return entries; };
  }
  STATUSCODE probeElsewhere() { return probe(80, kPatience, kElsewhere); }

  const ScriptedServer server{[this](Connection& connection) {
    const std::string request = connection.readSome();
    log.add(request);
    if (request.starts_with("GET ")) {
      connection.send(kOk);
      connection.waitForPeer();
    }
  }};
  const std::string serverAsProxy = urlOf(server.port());
};

TEST_F(HttpProbeBySystemSettings, TheProxyIsTheSystemsWhereTheEnvironmentNamesNone) {
  const ProxySettingsDouble settings(naming({serverAsProxy}));
  EXPECT_EQ(probe(8080, kPatience, kElsewhere), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(probeSecurely(443, kPatience, "2001:db8::1"),
            HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  EXPECT_THAT(log.all(), ElementsAre(StartsWith("GET http://192.0.2.1:8080/ HTTP/1.1\r\n"),
                                     StartsWith("CONNECT [2001:db8::1]:443 HTTP/1.1\r\n")));
  EXPECT_THAT(ProxySettingsDouble::Asked(),
              ElementsAre("http://192.0.2.1:8080/", "https://[2001:db8::1]:443/"));
}

TEST_F(HttpProbeBySystemSettings, TheFirstEntryThatCanBeUsedIsTaken) {
  {
    const ProxySettingsDouble settings(
        naming({"socks5://127.0.0.1:1", "socks://127.0.0.1:1", "https://127.0.0.1:1",
                "http://a b:1", "http://127.0.0.1:1/x", "", serverAsProxy, "direct://"}));
    EXPECT_EQ(probeElsewhere(), HTTP_SESSION_SUCCESS);
  }
  const ProxySettingsDouble settings(naming({"direct://", "http://127.0.0.1:1"}));
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_THAT(log.all(), ElementsAre(StartsWith("GET http://192.0.2.1/"), StartsWith("GET / ")));
}

TEST_F(HttpProbeBySystemSettings, WithoutAUsableEntryItIsAConnectErrorAndNothingIsSent) {
  const std::vector<ProxySettingsDouble::Script> scripts = {
      naming({}), naming({"socks5://127.0.0.1:1"}), naming({"http://", "DIRECT", "http:///"}),
      [](const std::string&) -> Entries { throw std::runtime_error("no module"); }};
  for (const ProxySettingsDouble::Script& script : scripts) {
    const ProxySettingsDouble settings(script);
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_ERROR_CONNECT);
    EXPECT_EQ(results.uiLastError, CURLE_COULDNT_RESOLVE_PROXY);
  }
  EXPECT_EQ(server.accepted(), 0U);
}

TEST_F(HttpProbeBySystemSettings, SettingsThatDoNotAnswerAreATimeOut) {
  const ProxySettingsDouble settings(
      [](const std::string&) -> Entries { throw ProxySettingsDouble::Late(); });
  EXPECT_EQ(probe(server.port(), 1), HTTP_SESSION_ERROR_TIMEOUT);
  EXPECT_EQ(results.uiLastError, CURLE_OPERATION_TIMEDOUT);
  EXPECT_EQ(server.accepted(), 0U);
  EXPECT_GE(report().totalUs, 1000000);
}

TEST_F(HttpProbeBySystemSettings, TheTimeThatTheyTakeIsTakenFromTheProbes) {
  const ScriptedServer silent(staySilent);
  const ProxySettingsDouble settings([&](const std::string&) {
    std::this_thread::sleep_for(2s);
    return Entries{urlOf(silent.port())};
  });
  EXPECT_EQ(probe(80, 5, kElsewhere), HTTP_SESSION_ERROR_TIMEOUT);
  EXPECT_TRUE(eventually([&] { return silent.accepted() == 1; }));
  EXPECT_GE(report().connectUs, 2'000'000);
  // The transfer gets three seconds, not the whole five.
  EXPECT_LT(report().totalUs - report().connectUs, 4'900'000);
}

TEST_F(HttpProbeBySystemSettings, TheEnvironmentAndItsExceptionsGoBeforeThem) {
  const ProxySettingsDouble settings(naming({"http://127.0.0.1:1"}));
  for (const char* name : {"http_proxy", "all_proxy", "ALL_PROXY"}) {
    const Variable proxyVariable(name, serverAsProxy);
    EXPECT_EQ(probeElsewhere(), HTTP_SESSION_SUCCESS) << name;
  }
  for (const char* name : {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
    const Variable proxyVariable(name, serverAsProxy);
    probeSecurely(443, kPatience, kElsewhere);
  }
  EXPECT_THAT(log.all(), SizeIs(7));
  EXPECT_THAT(ProxySettingsDouble::Asked(), IsEmpty());
  const Variable exceptions("no_proxy", "127.0.0.1");
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_THAT(log.all().back(), StartsWith("GET / HTTP/1.1\r\n"));
}

TEST_F(HttpProbeBySystemSettings, AnEnvironmentThatNamesTheOtherSchemesProxyAloneMeansNone) {
  const ProxySettingsDouble settings(naming({"http://127.0.0.1:1"}));
  for (const char* name : {"https_proxy", "HTTPS_PROXY", "HTTP_PROXY"}) {
    const Variable proxyVariable(name, "http://127.0.0.1:1");
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS) << name;
  }
  for (const char* name : {"http_proxy", "HTTP_PROXY"}) {
    const Variable proxyVariable(name, "http://127.0.0.1:1");
    EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE) << name;
  }
  EXPECT_EQ(server.accepted(), 5U);
  EXPECT_THAT(ProxySettingsDouble::Asked(), IsEmpty());
}

TEST_F(HttpProbeBySystemSettings, AVariableThatNamesAWayToAskHasThemAsked) {
  const ProxySettingsDouble settings(naming({serverAsProxy}));
  for (const char* value : {"pac+http://127.0.0.1:1/proxy.pac", "pac+file:///x", "wpad:"}) {
    const Variable plain("http_proxy", value);
    EXPECT_EQ(probeElsewhere(), HTTP_SESSION_SUCCESS);
    const Variable secure("HTTPS_PROXY", value);
    probeSecurely(443, kPatience, kElsewhere);
  }
  EXPECT_THAT(ProxySettingsDouble::Asked(), SizeIs(6));
  EXPECT_THAT(log.all(), SizeIs(6));
}

TEST_F(HttpProbeBySystemSettings, InAShutEnvironmentNoVariableNamesAProxyOrAnException) {
  Environment::prepare(true);
  const ProxySettingsDouble settings(naming({serverAsProxy}));
  for (const char* name : {"http_proxy", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"}) {
    const Variable variable(name, name[0] == 'n' || name[0] == 'N' ? "*" : "http://127.0.0.1:1");
    EXPECT_EQ(probeElsewhere(), HTTP_SESSION_SUCCESS) << name;
    proxy.determineProxy = false;
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS) << name;
    proxy.determineProxy = true;
  }
}

}  // namespace
}  // namespace tests
