// Whole selections among real servers and behind real proxies: real profile files, the whole client
// library in the process, real sockets. What the client is told must agree with what the servers
// did. Which server is nearest is the machine's business, so no test depends on it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/LoopbackSockets.h"
#include "tests/support/ProviderWithoutProxy.h"
#include "tests/support/RealServers.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/SelectionRecorder.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestCertificates.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/ClientLibrary.h"
#include "vpn/Api/ProxyProviders.h"
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

/// Probes that are sent to each headend by default.
constexpr std::size_t Pings = 3;

/// A name that is none, so that no name server needs to be asked: a label has 63 letters at most
/// (RFC 1035, section 2.3.4).
const std::string UnknownName = std::string(64, 'l') + ".invalid";

/// Names in the environment that decide on proxies.
const std::vector<std::string> ProxyVariables = {"http_proxy",  "HTTP_PROXY", "https_proxy",
                                                 "HTTPS_PROXY", "all_proxy",  "ALL_PROXY",
                                                 "no_proxy",    "NO_PROXY"};

class RealPeers : public testing::Test {
 protected:
  using Values = std::map<std::string, std::string>;

  RealPeers() {
    ForgetProxies();
    // No modules: what this machine's desktop is set to must not matter.
    ::setenv("PX_MODULE_PATH", m_directory.Path().c_str(), 1);
    // The resolver reads it when a thread first resolves a name.
    ::setenv("RES_OPTIONS", "timeout:1 attempts:1", 0);
  }
  ~RealPeers() override {
    ForgetProxies();
    HttpProbe::setTrustFile("");
  }

  /// Runs a selection among hosts, by name and address.
  Selection Select(const Values& hosts, const std::string& last, unsigned int reason,
                   ProxyIfc* proxy = nullptr, unsigned int threadsThatStay = 0) {
    std::string profile =
        "<profile version=\"1\"><preferences><preference name=\"EnableAutomaticServerSelection\" "
        "value=\"true\"/></preferences><hosts>\n";
    for (const auto& [name, address] : hosts) {
      profile.append("<host name=\"" + name).append("\" address=\"" + address).append("\"/>\n");
    }
    CClientLibrary::Options options;
    options.log.off = true;  // the recorder listens
    options.sources.profileDirectory = m_directory.MakeDirectory("profiles");
    m_directory.Write("profiles/office.xml", profile + "</hosts></profile>\n");
    options.sources.userPreferencesFile = WritePreferences("user.xml", user);
    options.sources.globalPreferencesFile = WritePreferences("global.xml", global);
    STATUSCODE status = -1;
    const CClientLibrary library(options, status);
    EXPECT_EQ(0, status);
    return runSelection(last, reason, proxy, threadsThatStay);
  }

  const TestCertificates m_certificates;
  /// A busy machine does not come near these limits where a server answers.
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

  std::string WritePreferences(const std::string& file, const Values& values) const {
    std::string text = "<preferences version=\"1\">\n";
    for (const auto& [name, value] : values) {
      text.append("  <preference name=\"" + name).append("\" value=\"" + value).append("\"/>\n");
    }
    return m_directory.Write(file, text + "</preferences>\n");
  }

  const TemporaryDirectory m_directory;
};

// ---- Servers ------------------------------------------------------------------------------------

/// That a run was measured, went well and lists `headends`, best first, whichever that is.
void expectFreshSelection(const Selection& selection, const std::vector<std::string>& headends) {
  EXPECT_EQ(1U, selection.calls);
  EXPECT_EQ(HEADENDSELECTION_ERROR_ADDED_TO_CACHE, selection.status);
  EXPECT_EQ("", selection.extraInfo);
  EXPECT_THAT(selection.headends, UnorderedElementsAreArray(headends));
  const auto results = selection.Results();
  EXPECT_TRUE(std::ranges::is_sorted(results, {}, &std::pair<std::string, unsigned int>::second));
  EXPECT_TRUE(std::ranges::equal(selection.headends, results, {}, {},
                                 &std::pair<std::string, unsigned int>::first));
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

  const Selection selection = Select({{"a closed", closed.Where().Text()},
                                      {"b haproxy", haproxy.Address()},
                                      {"c nginx", nginx.Address()},
                                      {"d openssl", openssl.Address()},
                                      {"e silent", silent.Where().Text()},
                                      {"f unknown", UnknownName}},
                                     "C nginx", FirstConnection);

  expectFreshSelection(selection, {haproxy.Address(), nginx.Address(), openssl.Address()});
  EXPECT_EQ(FirstConnection, selection.reason);
  // One says that this is a TLS port, the others hang up.
  EXPECT_THAT(selection.ProbesOf(nginx.Where().port), probes(HTTP_SESSION_SUCCESS, 400));
  for (const unsigned short port : {haproxy.Where().port, openssl.Where().port}) {
    EXPECT_THAT(selection.ProbesOf(port), probes(HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE, 0));
  }
  EXPECT_THAT(selection.ProbesOf(closed.Where().port), SizeIs(2)) << "a worker gives up";
  EXPECT_EQ(2U, silent.ConnectionCount());
}

TEST_F(RealPeers, AServerWithAnUntrustedCertificateIsMeasuredAndIsSentNothing) {
  NginxServer nginx(m_certificates);
  const Selection selection =
      Select({{"a", nginx.Address()}}, "a", Reconnection, new ProviderWithoutProxy);
  nginx.Stop();

  expectFreshSelection(selection, {nginx.Address()});
  EXPECT_EQ(Pings, selection.probes.size()) << "a reconnection sends no test ping";
  EXPECT_THAT(selection.ProbesOf(nginx.Where().port),
              probes(HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE, 0));
  EXPECT_THAT(nginx.Requests(), IsEmpty());
}

TEST_F(RealPeers, ServersWithATrustedCertificateAnswerAskForOneOrTalkOtherwise) {
  NginxServer nginx(m_certificates, hasAddress("::1") ? "::1" : "127.0.0.1");
  const HaproxyServer haproxy(m_certificates);
  const OpensslServer reverses(m_certificates, OpensslServer::Mode::ReversedText);
  const NginxServer asking(m_certificates, "127.0.0.1", NginxServer::ClientCertificate::Demanded);
  const OpensslServer refusing(m_certificates, OpensslServer::Mode::ClientCertificate);
  HttpProbe::setTrustFile(m_certificates.Authority());

  const Selection selection = Select({{"a", nginx.Address()},
                                      {"b", haproxy.Address()},
                                      {"c", reverses.Address()},
                                      {"d", asking.Address()},
                                      {"e", refusing.Address()}},
                                     "", Reconnection, new ProviderWithoutProxy);
  nginx.Stop();

  expectFreshSelection(selection, {nginx.Address(), haproxy.Address(), reverses.Address(),
                                   asking.Address(), refusing.Address()});
  EXPECT_THAT(selection.ProbesOf(nginx.Where().port), probes(HTTP_SESSION_SUCCESS, 200));
  EXPECT_THAT(nginx.Requests(), SizeIs(Pings));
  EXPECT_THAT(selection.ProbesOf(haproxy.Where().port), probes(HTTP_SESSION_SUCCESS, 200));
  // nginx lets the handshake pass and says so in HTTP; OpenSSL's own server breaks the connection.
  EXPECT_THAT(selection.ProbesOf(asking.Where().port), probes(HTTP_SESSION_SUCCESS, 400));
  for (const auto& [port, status] :
       {std::pair{reverses.Where().port, HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE},
        std::pair{refusing.Where().port, HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED}}) {
    EXPECT_THAT(selection.ProbesOf(port),
                AllOf(SizeIs(Pings), Each(Field(&HttpProbe::Report::status, status))));
  }
}

// ---- Proxies ------------------------------------------------------------------------------------

constexpr long Measured = HEADENDSELECTION_ERROR_ADDED_TO_CACHE;
constexpr long Asked = HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED;
constexpr long Failed = HEADENDSELECTION_ERROR_SELECTION_FAILURE;

const std::string Right = SquidProxy::Password;

class Proxies;

/// What stands before one gateway, and what the client is told.
struct Case {
  const char* name;
  void (*arrange)(Proxies&);
  long status;
  const char* realm = "";
  bool isTunnelled = false;  ///< the test ping goes through squid as a tunnel

  friend void PrintTo(const Case& one, std::ostream* stream) { *stream << one.name; }
};

class Proxies : public RealPeers, public testing::WithParamInterface<Case> {
 public:
  /// Starts squid; its tunnels to port 443 end at the gateway, which cannot have that port.
  Endpoint Squid(const std::string& realm, const std::string& address = "127.0.0.1",
                 unsigned short tunnelPort = 443, bool ntlm = false) {
    SquidProxy::Settings settings;
    settings.realm = realm;
    settings.address = address;
    settings.tunnelPort = tunnelPort;
    settings.ntlm = ntlm;
    settings.parent = m_outside.port();
    m_squids.push_back(std::make_unique<SquidProxy>(settings));
    return m_squids.back()->Where();
  }
  Endpoint Squid6() { return Squid("Office", hasAddress("::1") ? "::1" : "127.0.0.1"); }
  Endpoint Scripted(ScriptedServer::Script script) {
    m_scripted.emplace_back(std::move(script));
    return {"127.0.0.1", m_scripted.back().port()};
  }
  Endpoint Silent() {
    return Scripted([](Connection& connection) { connection.waitForPeer(); });
  }
  Endpoint Asking(const std::string& challenges) {
    return Scripted(answering("HTTP/1.1 407 Proxy Authentication Required\r\n" + challenges +
                              "Content-Length: 0\r\n\r\n"));
  }

  void Override(const Endpoint& where) {
    const bool isIPv6 = where.address.find(':') != std::string::npos;
    global = {{"ProxySettings", "override"},
              {"ProxyHost", isIPv6 ? "[" + where.address + "]" : where.address},
              {"ProxyPort", std::to_string(where.port)}};
  }
  void Set(const std::string& preference, const std::string& value) { user[preference] = value; }
  void LogIn(const std::string& password, ProxyType type = BasicProxy) {
    m_provider = new CProxyProvider(type, SquidProxy::User, password);
  }
  /// The system's proxy is that of the environment, if any.
  void OfSystem(const std::string& variable, const std::string& url, bool logsIn = false) {
    ::setenv(variable.c_str(), url.c_str(), 1);
    m_provider = logsIn ? new CProxyProvider(BasicProxy, SquidProxy::User, Right, "from.the.system")
                        : new CProxyProvider(NoProxy, {}, {}, "from.the.system");
  }
  /// The system's settings never answer.
  void SettingsHang() { m_threadsThatStay = 1; }

 protected:
  ScriptedServer::Script TunnelToGateway() {
    return [this](Connection& connection) {
      const std::string request = connection.readHead();
      if (!request.empty()) {
        m_tunnels.add(request);
        connection.send("HTTP/1.1 200 Connection established\r\n\r\n");
        connection.tunnelTo(m_gateway.Where().port);
      }
    };
  }

  RequestLog m_tunnels;  // what squid has passed on
  NginxServer m_gateway{m_certificates};
  ScriptedServer m_outside{TunnelToGateway()};
  std::list<std::unique_ptr<RealServer>> m_squids;
  std::list<ScriptedServer> m_scripted;
  ProxyIfc* m_provider = nullptr;  // the run owns it
  unsigned int m_threadsThatStay = 0;
};

const Case Cases[] = {
    {"None", [](Proxies&) {}, Measured},
    {"OpenToAll", [](Proxies& p) { p.Override(p.Squid("")); }, Measured},
    {"NoLogIn", [](Proxies& p) { p.Override(p.Squid("Lab (2nd floor)")); }, Asked,
     "Lab (2nd floor)"},
    {"RightPassword", [](Proxies& p) { p.Override(p.Squid("Office")), p.LogIn(Right); }, Measured,
     "", true},
    {"WrongPassword", [](Proxies& p) { p.Override(p.Squid("Office")), p.LogIn("no"); }, Asked,
     "Office"},
    {"RealmWithQuotesThatSquidDoesNotEscape",
     [](Proxies& p) { p.Override(p.Squid("the \"Office\"")); }, Asked},
    {"NoTunnelToThePortOfTheProbe",
     [](Proxies& p) {
       p.Override(p.Squid("Office", "127.0.0.1", 563));
       p.LogIn(Right);
     },
     Measured},
    {"AtAnIPv6AddressNoLogIn", [](Proxies& p) { p.Override(p.Squid6()); }, Asked, "Office"},
    {"AtAnIPv6AddressRightPassword", [](Proxies& p) { p.Override(p.Squid6()), p.LogIn(Right); },
     Measured, "", true},
    {"OfTheEnvironmentNoLogIn",
     [](Proxies& p) { p.OfSystem("http_proxy", "http://" + p.Squid("Office").Text()); }, Asked,
     "Office"},
    {"OfTheEnvironmentRightPassword",
     [](Proxies& p) { p.OfSystem("https_proxy", "http://" + p.Squid("Office").Text(), true); },
     Measured, "", true},
    {"NoneInTheSystemsSettings", [](Proxies& p) { p.OfSystem("http_proxy", ""); }, Measured},
    {"SettingsThatWaitForAPacFileThatNeverComes",
     [](Proxies& p) {
       p.OfSystem("http_proxy", "pac+http://" + p.Silent().Text() + "/proxy.pac");
       p.Set("SelectionTestPingTimeout", "1");
       p.SettingsHang();
     },
     Measured},
    {"RefusesTheConnection",
     [](Proxies& p) {
       static const RefusingPort closed("127.0.0.1");
       p.Override(closed.Where());
     },
     Measured},
    {"NameDoesNotResolve",
     [](Proxies& p) {
       p.Override({"no-such-proxy.invalid", 3128});
     },
     Measured},
    {"Silent",
     [](Proxies& p) {
       p.Override(p.Silent());
       p.Set("SelectionTestPingTimeout", "1");
     },
     Measured},
    {"SilentForLongerThanTheSelectionMayTake",
     [](Proxies& p) {
       p.Override(p.Silent());
       p.Set("SelectionConnectTimeout", "200");
       p.Set("SelectionTestPingTimeout", "2");
     },
     Failed},
    {"AnswersGarbage",
     [](Proxies& p) { p.Override(p.Scripted(answering("SSH-2.0-proxy\r\n\r\n"))); }, Measured},
    {"RealmOf64KiB",
     [](Proxies& p) {
       p.Override(
           p.Asking("Proxy-Authenticate: Basic realm=\"" + std::string(65536, 'x') + "\"\r\n"));
     },
     Asked},
    {"BasicAmongOtherWaysInSeveralLines",
     [](Proxies& p) {
       p.Override(
           p.Asking("Proxy-Authenticate: Negotiate, NTLM\r\nProxy-Authenticate: Digest "
                    "realm=\"no\", nonce=\"n\", Basic realm=\"Gr\xc3\xbcn\\\"haus\\\"\"\r\n"));
     },
     Asked, "Gr\xc3\xbcn\"haus\""},
    {"NtlmNoLogIn", [](Proxies& p) { p.Override(p.Asking("Proxy-Authenticate: NTLM\r\n")); },
     Asked},
    {"NtlmRightPassword",
     [](Proxies& p) { p.Override(p.Squid("", "127.0.0.1", 443, true)), p.LogIn(Right, NTLMProxy); },
     Measured, "", true},
    {"AWayToLogInThatIsNotKnown",
     [](Proxies& p) {
       p.Override(p.Asking("Proxy-Authenticate: Digest realm=\"Office\", nonce=\"n\"\r\n"));
       p.LogIn(Right);
     },
     Asked},
};

TEST_P(Proxies, DeliverWhatTheTableSays) {
  const Case& expected = GetParam();
  expected.arrange(*this);
  const std::string gateway = m_gateway.Address();
  const Selection selection =
      Select({{"gate", gateway}}, "gate", ProxyAuthentication, m_provider, m_threadsThatStay);

  EXPECT_EQ(1U, selection.calls);
  EXPECT_EQ(expected.status, selection.status);
  EXPECT_EQ(expected.realm, selection.extraInfo);
  EXPECT_EQ(selection.headends, expected.status == Asked ? std::vector<std::string>{}
                                                         : std::vector<std::string>{gateway});
  EXPECT_THAT(selection.ProbesOf(m_gateway.Where().port),
              SizeIs(expected.status == Measured ? Pings : 0));
  for (const LogLine& line : selection.log) {
    EXPECT_THAT(line.text, Not(HasSubstr(SquidProxy::Password)));
  }
  if (expected.isTunnelled) {
    EXPECT_THAT(m_tunnels.all(), ElementsAre(AllOf(StartsWith("CONNECT 127.0.0.1:443 HTTP/1.1\r\n"),
                                                   Not(HasSubstr("Authorization")))));
  }
}

INSTANTIATE_TEST_SUITE_P(Table, Proxies, testing::ValuesIn(Cases),
                         [](const auto& one) { return std::string(one.param.name); });

}  // namespace
}  // namespace tests
