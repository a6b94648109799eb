// Whole selections among real servers and behind real proxies: the whole client library, real
// sockets. The client's results must agree with what the servers did. The machine decides which
// server is nearest, so no test depends on it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/LoopbackSockets.h"
#include "tests/support/ProviderWithoutProxy.h"
#include "tests/support/RealServers.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestCertificates.h"
#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/ClientLibrary.h"
#include "vpn/Api/ProxyProviders.h"
#include "vpn/Common/IP/ProbeTask.h"
#include "vpn/Common/Logging/AppLog.h"
#include "vpn/include/HttpSession.h"

namespace tests {
namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;
using testing::UnorderedElementsAreArray;

constexpr unsigned int FirstConnection = 0;
constexpr unsigned int Reconnection = 1;
constexpr unsigned int ProxyAuthentication = 3;

/// Number of probes to each headend by default.
constexpr std::size_t Pings = 3;

/// An invalid name, which needs no name server: a label has at most 63 letters (RFC 1035, section
/// 2.3.4).
const std::string UnknownName = std::string(64, 'l') + ".invalid";

/// Environment variables that choose proxies.
const std::vector<std::string> ProxyVariables = {"http_proxy",  "HTTP_PROXY", "https_proxy",
                                                 "HTTPS_PROXY", "all_proxy",  "ALL_PROXY",
                                                 "no_proxy",    "NO_PROXY"};

/// All that an observer can see of one selection run. Shared with the callbacks, so it outlives the
/// run's last thread.
class Selection : public ClientIfcBase, public ProbeTask {
 public:
  void AHSSelectedHost(unsigned int aReason, const std::vector<std::string>& someHeadends,
                       long aStatus, const std::string& someInfo) override {
    ++calls;
    reason = aReason;
    headends = someHeadends;
    status = aStatus;
    extraInfo = someInfo;
  }
  void probeEnded(const HttpProbe::Report& report) override {
    const std::lock_guard<std::mutex> lock(m_mutex);
    probes.push_back(report);
  }
  void Hear(const std::string& message) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    log += message;
  }

  /// The probes of a port that its worker sent.
  std::vector<HttpProbe::Report> ProbesOf(unsigned short port) const {
    std::vector<HttpProbe::Report> found;
    for (const HttpProbe::Report& probe : probes) {
      // Only the test probe asks for the headers.
      if (probe.port == port && (probe.options & HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS) == 0) {
        found.push_back(probe);
      }
    }
    return found;
  }

  unsigned int calls = 0;
  unsigned int reason = 0;
  std::vector<std::string> headends;
  long status = -1;
  std::string extraInfo;
  std::vector<HttpProbe::Report> probes;  ///< in the order in which they ended
  std::string log;

 private:
  std::mutex m_mutex;
};

class RealPeers : public testing::Test {
 protected:
  using Values = std::map<std::string, std::string>;

  RealPeers() {
    ForgetProxies();
    // No modules: this machine's desktop settings must not matter.
    ::setenv("PX_MODULE_PATH", m_directory.Path().c_str(), 1);
    // The resolver reads this when a thread first resolves a name.
    ::setenv("RES_OPTIONS", "timeout:1 attempts:1", 0);
  }
  ~RealPeers() override {
    ForgetProxies();
    HttpProbe::setTrustFile("");
  }

  /// Runs a selection; the first headend was used last. Waits until only permanent threads are
  /// left: those that wait for the system's proxy settings.
  std::shared_ptr<const Selection> Select(const std::vector<std::string>& headends,
                                          unsigned int reason, ProxyIfc* proxy = nullptr,
                                          unsigned int threadsThatStay = 0) {
    CClientLibrary::Options options;
    options.log.off = true;  // the selection listens
    options.sources.headends.assign(headends.begin(), headends.end());
    options.sources.userPreferencesFile = m_directory.Write("user.xml", preferencesText(user));
    options.sources.globalPreferencesFile =
        m_directory.Write("global.xml", preferencesText(global));
    STATUSCODE up = -1;
    const CClientLibrary library(options, up);
    const unsigned int threadsAfter = CThread::RunningCount() + threadsThatStay;
    const auto seen = std::make_shared<Selection>();
    CAppLog::setListener([seen](const CAppLog::Record& record) { seen->Hear(record.message); });
    long made = -1;
    auto* const run = new CHeadendSelection(seen.get(), headends[0], reason, made);
    run->SetProxy(proxy);
    EXPECT_EQ(0, up);
    EXPECT_EQ(0, made);
    std::thread([run, seen] {
      const CTask::Scope scope(seen);
      run->run();
    }).join();
    EXPECT_TRUE(eventually([&] { return CThread::RunningCount() <= threadsAfter; }));
    CAppLog::setListener({});
    EXPECT_EQ(1U, seen->calls);
    return seen;
  }

  const TestCertificates m_certificates;
  /// Even a busy machine stays far below these limits if a server answers.
  Values user = {{"SelectionConnectTimeout", "60000"},
                 {"SelectionReconnectTimeout", "60000"},
                 {"SelectionPingTimeout", "4000"},
                 {"SelectionTestPingTimeout", "20"}};
  Values global = {{"ProxySettings", "none"}};

 private:
  static void ForgetProxies() {
    for (const std::string& name : ProxyVariables) {
      ::unsetenv(name.c_str());
    }
  }

  const TemporaryDirectory m_directory;
};

// ---- Servers ------------------------------------------------------------------------------------

/// Expects a fresh, successful selection that lists `headends` in any order.
void expectFreshSelection(const Selection& selection, const std::vector<std::string>& headends) {
  EXPECT_EQ(HEADENDSELECTION_ERROR_ADDED_TO_CACHE, selection.status);
  EXPECT_EQ("", selection.extraInfo);
  EXPECT_THAT(selection.headends, UnorderedElementsAreArray(headends));
}

auto probes(STATUSCODE status, unsigned int httpStatus) {
  return AllOf(SizeIs(Pings), Each(AllOf(Field(&HttpProbe::Report::status, status),
                                         Field(&HttpProbe::Report::httpStatus, httpStatus))));
}

TEST_F(RealPeers, TlsServersAskedInPlainHttpAreMeasuredAndDeadHeadendsLeftOut) {
  const RefusingPort closed("127.0.0.1");
  const HaproxyServer haproxy(m_certificates);
  const NginxServer nginx(m_certificates);
  const OpensslServer openssl(m_certificates);
  SilentListener silent("127.0.0.1");

  const auto selection = Select({nginx.Address(), closed.Where().Text(), haproxy.Address(),
                                 openssl.Address(), silent.Where().Text(), UnknownName},
                                FirstConnection);

  expectFreshSelection(*selection, {haproxy.Address(), nginx.Address(), openssl.Address()});
  EXPECT_EQ(FirstConnection, selection->reason);
  // One server answers that this is a TLS port, the others hang up.
  EXPECT_THAT(selection->ProbesOf(nginx.Where().port), probes(HTTP_SESSION_SUCCESS, 400));
  for (const unsigned short port : {haproxy.Where().port, openssl.Where().port}) {
    EXPECT_THAT(selection->ProbesOf(port), probes(HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE, 0));
  }
  EXPECT_THAT(selection->ProbesOf(closed.Where().port), SizeIs(2)) << "a worker gives up";
  EXPECT_EQ(2U, silent.ConnectionCount());
}

TEST_F(RealPeers, AServerWithAnUntrustedCertificateIsMeasuredAndIsSentNothing) {
  NginxServer nginx(m_certificates);
  const auto selection = Select({nginx.Address()}, Reconnection, new ProviderWithoutProxy);
  nginx.Stop();

  expectFreshSelection(*selection, {nginx.Address()});
  EXPECT_EQ(Pings, selection->probes.size()) << "a reconnection sends no test ping";
  EXPECT_THAT(selection->ProbesOf(nginx.Where().port),
              probes(HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE, 0));
  EXPECT_THAT(nginx.Requests(), IsEmpty());
}

TEST_F(RealPeers, ServersWithATrustedCertificateAnswer) {
  NginxServer nginx(m_certificates, hasAddress("::1") ? "::1" : "127.0.0.1");
  const HaproxyServer haproxy(m_certificates);
  HttpProbe::setTrustFile(m_certificates.Authority());
  const auto selection =
      Select({nginx.Address(), haproxy.Address()}, Reconnection, new ProviderWithoutProxy);
  nginx.Stop();

  expectFreshSelection(*selection, {nginx.Address(), haproxy.Address()});
  for (const unsigned short port : {nginx.Where().port, haproxy.Where().port}) {
    EXPECT_THAT(selection->ProbesOf(port), probes(HTTP_SESSION_SUCCESS, 200));
  }
  EXPECT_THAT(nginx.Requests(), SizeIs(Pings));
}

// ---- Proxies ------------------------------------------------------------------------------------

constexpr long Measured = HEADENDSELECTION_ERROR_ADDED_TO_CACHE;
constexpr long Asked = HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED;

/// What is in front of the gateway.
enum class Before {
  Nothing,
  Squid,
  Squid6,
  SquidNtlm,
  SquidElsewhere,
  Closed,
  Unknown,
  Silent,
  Text
};

/// Where the client learns of the proxy.
enum class By { Preferences, HttpProxy, HttpsProxy, Pac };

struct Case {
  const char* name;
  long status;
  const char* told;  ///< the realm that the client is given
  Before before;
  std::string text = "";  ///< realm of squid, or what another proxy answers
  const char* password = nullptr;
  By by = By::Preferences;
  const char* limitMs = "60000";

  friend void PrintTo(const Case& one, std::ostream* stream) { *stream << one.name; }
};

std::string asking(const std::string& challenges) {
  return "HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: " + challenges +
         "\r\nContent-Length: 0\r\n\r\n";
}

const char* const Right = SquidProxy::Password;

const Case Cases[] = {
    {"None", Measured, "", Before::Nothing},
    {"OpenToAll", Measured, "", Before::Squid},
    {"NoLogIn", Asked, "Lab (2nd floor)", Before::Squid, "Lab (2nd floor)"},
    {"RightPassword", Measured, "", Before::Squid, "Office", Right},
    {"WrongPassword", Asked, "Office", Before::Squid, "Office", "wrong"},
    {"RealmWithQuotesThatSquidDoesNotEscape", Asked, "", Before::Squid, "the \"Office\""},
    {"NoTunnelToThePortOfTheProbe", Measured, "", Before::SquidElsewhere, "Office", Right},
    {"AtAnIPv6AddressNoLogIn", Asked, "Office", Before::Squid6, "Office"},
    {"AtAnIPv6AddressRightPassword", Measured, "", Before::Squid6, "Office", Right},
    {"OfTheSystemNoLogIn", Asked, "Office", Before::Squid, "Office", nullptr, By::HttpProxy},
    {"OfTheSystemRightPassword", Measured, "", Before::Squid, "Office", Right, By::HttpsProxy},
    {"NoneOfTheSystem", Measured, "", Before::Nothing, "", nullptr, By::HttpProxy},
    {"PacFileThatNeverComes", Measured, "", Before::Silent, "", nullptr, By::Pac},
    {"RefusesTheConnection", Measured, "", Before::Closed},
    {"NameDoesNotResolve", Measured, "", Before::Unknown},
    {"Silent", Measured, "", Before::Silent},
    {"SilentInAShortSelection", Measured, "", Before::Silent, "", nullptr, By::Preferences, "200"},
    {"AnswersGarbage", Measured, "", Before::Text, "SSH-2.0-proxy\r\n\r\n"},
    {"RealmOf64KiB", Asked, "", Before::Text,
     asking("Basic realm=\"" + std::string(65536, 'x') + "\"")},
    {"BasicAmongOtherWays", Asked, "Gr\xc3\xbcn\"haus\"", Before::Text,
     asking("Negotiate, NTLM\r\nProxy-Authenticate: Digest realm=\"no\", nonce=\"n\", Basic "
            "realm=\"Gr\xc3\xbcn\\\"haus\\\"\"")},
    {"NtlmNoLogIn", Asked, "", Before::Text, asking("NTLM")},
    {"NtlmRightPassword", Measured, "", Before::SquidNtlm, "", Right},
    {"AWayToLogInThatIsNotKnown", Asked, "", Before::Text,
     asking("Digest realm=\"Office\", nonce=\"n\""), Right},
};

class Proxies : public RealPeers, public testing::WithParamInterface<Case> {
 protected:
  /// The gateway cannot have port 443, so Squid redirects tunnels to it.
  Endpoint StartSquid(Before kind, const std::string& realm) {
    m_squid = std::make_unique<SquidProxy>(SquidProxy::Settings{
        .address = kind == Before::Squid6 && hasAddress("::1") ? "::1" : "127.0.0.1",
        .realm = realm,
        .ntlm = kind == Before::SquidNtlm,
        .tunnelPort = static_cast<unsigned short>(kind == Before::SquidElsewhere ? 563 : 443),
        .parent = m_outside.port()});
    return m_squid->Where();
  }

  /// Starts the proxy. @return its address and port.
  Endpoint Start() {
    const std::string& text = GetParam().text;
    switch (GetParam().before) {
      case Before::Nothing:
        return {};
      case Before::Unknown:
        return {"no-such-proxy.invalid", 3128};
      case Before::Closed:
        return m_closed.Where();
      case Before::Silent:
        m_scripted = std::make_unique<ScriptedServer>(
            [](Connection& connection) { connection.waitForPeer(); });
        return {"127.0.0.1", m_scripted->port()};
      case Before::Text:
        m_scripted = std::make_unique<ScriptedServer>(answering(text));
        return {"127.0.0.1", m_scripted->port()};
      default:
        return StartSquid(GetParam().before, text);
    }
  }

  /// Tells the client of the proxy. @return the provider, which the run owns; may be null.
  ProxyIfc* Tell(const Endpoint& where) {
    const Case& given = GetParam();
    const bool isOfSystem = given.by != By::Preferences;
    if (isOfSystem) {
      const std::string scheme = given.by == By::Pac ? "pac+http://" : "http://";
      ::setenv(given.by == By::HttpsProxy ? "https_proxy" : "http_proxy",
               where.port == 0 ? "" : (scheme + where.Text() + "/").c_str(), 1);
    } else if (where.port != 0) {
      const bool isIPv6 = where.address.find(':') != std::string::npos;
      global = {{"ProxySettings", "override"},
                {"ProxyHost", isIPv6 ? "[" + where.address + "]" : where.address},
                {"ProxyPort", std::to_string(where.port)}};
    }
    const std::string host = isOfSystem ? "from.the.system" : "";
    if (given.password != nullptr) {
      return new CProxyProvider(given.before == Before::SquidNtlm ? NTLMProxy : BasicProxy,
                                SquidProxy::User, given.password, host);
    }
    return isOfSystem ? new CProxyProvider(NoProxy, {}, {}, host) : nullptr;
  }

  RequestLog m_tunnels;  // requests that squid passed on
  const RefusingPort m_closed{"127.0.0.1"};
  NginxServer m_gateway{m_certificates};
  ScriptedServer m_outside{[this](Connection& connection) {
    const std::string request = connection.readHead();
    if (!request.empty()) {
      m_tunnels.add(request);
      connection.send("HTTP/1.1 200 Connection established\r\n\r\n");
      connection.tunnelTo(m_gateway.Where().port);
    }
  }};
  std::unique_ptr<SquidProxy> m_squid;
  std::unique_ptr<ScriptedServer> m_scripted;
};

TEST_P(Proxies, DeliverWhatTheTableSays) {
  const Case& expected = GetParam();
  user["SelectionConnectTimeout"] = expected.limitMs;
  user["SelectionTestPingTimeout"] = expected.before == Before::Silent ? "2" : "20";
  ProxyIfc* const provider = Tell(Start());
  const std::string gateway = m_gateway.Address();
  const auto selection =
      Select({gateway}, ProxyAuthentication, provider, expected.by == By::Pac ? 1 : 0);

  EXPECT_EQ(expected.status, selection->status);
  EXPECT_EQ(expected.told, selection->extraInfo);
  EXPECT_EQ(selection->headends, expected.status == Asked ? std::vector<std::string>{}
                                                          : std::vector<std::string>{gateway});
  EXPECT_THAT(selection->ProbesOf(m_gateway.Where().port),
              SizeIs(expected.status == Measured ? Pings : 0));
  EXPECT_THAT(selection->log, Not(HasSubstr(SquidProxy::Password)));
  if (m_squid != nullptr && expected.password == Right &&
      expected.before != Before::SquidElsewhere) {
    EXPECT_THAT(m_tunnels.all(), ElementsAre(AllOf(StartsWith("CONNECT 127.0.0.1:443 HTTP/1.1\r\n"),
                                                   Not(HasSubstr("Authorization")))));
  }
}

INSTANTIATE_TEST_SUITE_P(Table, Proxies, testing::ValuesIn(Cases),
                         [](const auto& one) { return std::string(one.param.name); });

}  // namespace
}  // namespace tests
