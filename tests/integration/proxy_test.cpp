// Whole selections behind real and scripted proxies. proxy_cases.md has a row for each case. The
// test plays the case, writes what it observes as a row, and compares the two.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/LoopbackSockets.h"
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

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr unsigned int ProxyAuthentication = 3;

/// Probes that the test sends to the gateway.
constexpr std::size_t Pings = 3;

const std::string User = SquidProxy::User;
const std::string Password = SquidProxy::Password;

/// Names in the environment that decide on proxies and log-ins, ours and libproxy's.
constexpr std::array ProxyVariables = {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY",
                                       "all_proxy",  "ALL_PROXY",  "no_proxy",    "NO_PROXY"};

/// A row of the table, its cells without the blanks around them.
using Row = std::vector<std::string>;

Row cellsOf(const std::string& line) {
  Row cells;
  std::istringstream stream(line.substr(1));
  for (std::string cell; std::getline(stream, cell, '|');) {
    const std::size_t first = cell.find_first_not_of(' ');
    cells.push_back(first == std::string::npos
                        ? ""
                        : cell.substr(first, cell.find_last_not_of(' ') - first + 1));
  }
  return cells;
}

/// The rows of the table of cases, by their first cells.
std::map<std::string, Row> documentedRows() {
  std::istringstream text(readFile(AHS_SOURCE_DIR "/tests/integration/proxy_cases.md"));
  std::map<std::string, Row> rows;
  bool inTable = false;
  for (std::string line; std::getline(text, line);) {
    inTable = line.starts_with("| Proxy |") || (inTable && line.starts_with("|"));
    if (inTable && !line.starts_with("| Proxy |") && !line.starts_with("|---")) {
      const Row row = cellsOf(line);
      EXPECT_TRUE(rows.emplace(row.front(), row).second) << "twice in the table: " << row.front();
    }
  }
  return rows;
}

// ---- Scripted proxies --------------------------------------------------------------------------

std::string challenge(const std::string& lines) {
  return "HTTP/1.1 407 Proxy Authentication Required\r\n" + lines + "Content-Length: 0\r\n\r\n";
}

/// The value of a header line in a request; empty if it has none.
std::string headerOf(const std::string& request, const std::string& name) {
  const std::string start = "\r\n" + name + ": ";
  const std::size_t at = request.find(start);
  return at == std::string::npos
             ? ""
             : request.substr(at + start.size(),
                              request.find('\r', at + start.size()) - at - start.size());
}

/// A proxy that answers each request on a connection as `answer` says, and that becomes a tunnel to
/// `port` once the answer was 200.
ScriptedServer::Script proxyThat(std::function<std::string(const std::string& request)> answer,
                                 unsigned short port, RequestLog* log) {
  return [answer = std::move(answer), port, log](Connection& connection) {
    for (std::string request = connection.readHead(); !request.empty();
         request = connection.readHead()) {
      log->add(request);
      const std::string reply = answer(request);
      connection.send(reply);
      if (reply.starts_with("HTTP/1.1 200 ")) {
        return connection.tunnelTo(port);
      }
    }
  };
}

constexpr char Established[] = "HTTP/1.1 200 Connection established\r\n\r\n";

/// A message of NTLM's second type (MS-NLMP, section 2.2.1.2): Unicode, NTLM, extended session
/// security, and target information that says nothing.
std::string ntlmChallenge() {
  const std::string message(
      "NTLMSSP\0"
      "\x02\0\0\0"
      "\0\0\0\0\x30\0\0\0"
      "\x01\x82\x88\0"
      "\x01\x23\x45\x67\x89\xab\xcd\xef"
      "\0\0\0\0\0\0\0\0"
      "\x04\0\x04\0\x30\0\0\0"
      "\0\0\0\0",
      52);
  std::string text(4 * ((message.size() + 2) / 3) + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                     reinterpret_cast<const unsigned char*>(message.data()),
                                     static_cast<int>(message.size()));
  text.resize(static_cast<std::size_t>(length));
  return challenge("Proxy-Authenticate: NTLM " + text + "\r\n");
}

/// The bytes of an NTLM message in a request and its type; empty and 0 if it has none.
std::string ntlmMessage(const std::string& request, int& type) {
  constexpr char kScheme[] = "NTLM ";
  const std::string header = headerOf(request, "Proxy-Authorization");
  type = 0;
  if (!header.starts_with(kScheme)) {
    return {};
  }
  const std::string text = header.substr(sizeof kScheme - 1);
  std::string message(text.size(), '\0');
  EVP_DecodeBlock(reinterpret_cast<unsigned char*>(message.data()),
                  reinterpret_cast<const unsigned char*>(text.data()),
                  static_cast<int>(text.size()));
  type = message.starts_with("NTLMSSP") ? message[8] : 0;
  return message;
}

/// ASCII text as NTLM writes it.
std::string inUtf16(const std::string& text) {
  std::string wide;
  for (const char c : text) {
    wide.append(1, c).append(1, '\0');
  }
  return wide;
}

/// The server's side of NTLM up to what takes a domain: whether the response is right.
std::function<std::string(const std::string&)> ntlmProxy(bool accepts) {
  return [accepts](const std::string& request) {
    int type = 0;
    ntlmMessage(request, type);
    if (type == 1) {
      return ntlmChallenge();
    }
    return type == 3 && accepts ? std::string(Established)
                                : challenge("Proxy-Authenticate: NTLM\r\n");
  };
}

// ---- One case ----------------------------------------------------------------------------------

/// What stands around one selection: a gateway, proxies, and what the client is told of them.
class Scene {
 public:
  Scene() {
    for (const char* name : ProxyVariables) {
      ::unsetenv(name);
    }
    // No modules: what this machine's desktop is set to must not matter.
    ::setenv("PX_MODULE_PATH", m_directory.Path().c_str(), 1);
    // Nor who has logged in to it.
    ::setenv("KRB5CCNAME", ("FILE:" + m_directory.File("no-tickets")).c_str(), 1);
    ::setenv("KRB5_CONFIG", "/dev/null", 1);
    // The resolver reads it when a thread first resolves a name.
    ::setenv("RES_OPTIONS", "timeout:1 attempts:1", 0);
    HttpProbe::setTrustFile(m_certificates.Authority());
  }
  ~Scene() {
    for (const std::string& name : m_variables) {
      ::unsetenv(name.c_str());
    }
    HttpProbe::setTrustFile("");
  }
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;

  /// Whether the case cannot be played on this machine, and why.
  std::string skip;
  RequestLog log;      ///< what the scripted proxies have read
  RequestLog outside;  ///< what squid has passed on
  std::function<void()> checkAfterwards;

  unsigned short Gateway() const { return m_gateway.Where().port; }

  /// Starts squid; its tunnels to port 443 end at the gateway, which cannot have that port.
  const RealServer& Squid(SquidProxy::Settings settings) {
    settings.parent = m_outside.port();
    m_squids.push_back(std::make_unique<SquidProxy>(settings));
    return *m_squids.back();
  }

  unsigned short Scripted(std::function<std::string(const std::string&)> answer) {
    return Scripted(proxyThat(std::move(answer), Gateway(), &log));
  }
  unsigned short Scripted(ScriptedServer::Script script) {
    m_scripted.emplace_back(std::move(script));
    return m_scripted.back().port();
  }

  void Set(const std::string& preference, const std::string& value) { m_user[preference] = value; }

  void Override(const std::string& host, unsigned short port) {
    m_global = {{"ProxySettings", "override"},
                {"ProxyHost", host.find(':') == std::string::npos ? host : "[" + host + "]"},
                {"ProxyPort", std::to_string(port)}};
  }
  void Override(const Endpoint& where) { Override(where.address, where.port); }
  void Override(unsigned short port) { Override("127.0.0.1", port); }

  void Environment(const std::string& name, const std::string& value) {
    ::setenv(name.c_str(), value.c_str(), 1);
    m_variables.push_back(name);
  }

  /// The run owns it.
  void Provider(ProxyIfc* provider) { m_provider = provider; }
  /// The system's settings never answer.
  void SettingsHang() { m_threadsThatStay = 1; }

  const Selection& Run();
  Row Observed(const std::string& name) const;
  const Selection& Seen() const { return m_selection; }

 private:
  using Preferences = std::map<std::string, std::string>;

  void WritePreferences(const std::string& file, const Preferences& preferences) const;
  std::string Given() const;
  std::string Delivered() const;
  std::string Log() const;
  HttpProbe::Report TestPing() const;
  std::string Ping() const;
  std::string End() const;

  TemporaryDirectory m_directory;
  TestCertificates m_certificates;
  NginxServer m_gateway{m_certificates};
  ScriptedServer m_outside{proxyThat([](const std::string&) { return std::string(Established); },
                                     m_gateway.Where().port, &outside)};
  std::list<std::unique_ptr<RealServer>> m_squids;
  std::list<ScriptedServer> m_scripted;
  std::vector<std::string> m_variables;
  Preferences m_global = {{"ProxySettings", "none"}};
  /// Nothing waits for these limits to pass, and a busy machine does not come near them.
  Preferences m_user = {{"SelectionConnectTimeout", "60000"},
                        {"SelectionPingTimeout", "20000"},
                        {"SelectionTestPingTimeout", "20"}};
  ProxyIfc* m_provider = nullptr;
  unsigned int m_threadsThatStay = 0;
  std::string m_given;
  Selection m_selection;
};

void Scene::WritePreferences(const std::string& file, const Preferences& preferences) const {
  std::string text = "<preferences version=\"1\">\n";
  for (const auto& [name, value] : preferences) {
    text.append("  <preference name=\"" + name).append("\" value=\"" + value).append("\"/>\n");
  }
  m_directory.Write(file, text + "</preferences>\n");
}

/// Where the proxy comes from and what provider there is.
std::string Scene::Given() const {
  const std::map<ProxyType, std::string> names = {
      {BasicProxy, "Basic"}, {NTLMProxy, "NTLM"}, {KerberosProxy, "Kerberos"}, {NoProxy, "none"}};
  std::string given = "`" + m_global.at("ProxySettings") + "`";
  if (m_provider == nullptr) {
    return given;
  }
  if (!m_provider->getProxyHost().empty()) {
    given = "the system's";
  }
  return given + ", provider: " + names.at(m_provider->getProxyType());
}

const Selection& Scene::Run() {
  m_directory.MakeDirectory("profiles");
  m_directory.Write("profiles/office.xml",
                    "<profile version=\"1\">\n  <preferences>\n    <preference "
                    "name=\"EnableAutomaticServerSelection\" value=\"true\"/>\n  </preferences>\n"
                    "  <hosts>\n    <host name=\"gate\" address=\"" +
                        m_gateway.Address() + "\"/>\n  </hosts>\n</profile>\n");
  WritePreferences("preferences.xml", m_user);
  WritePreferences("global.xml", m_global);
  CClientLibrary::Options options;
  options.log.off = true;  // the test listens
  options.sources.profileDirectory = m_directory.File("profiles");
  options.sources.userPreferencesFile = m_directory.File("preferences.xml");
  options.sources.globalPreferencesFile = m_directory.File("global.xml");
  STATUSCODE status = -1;
  const CClientLibrary library(options, status);
  EXPECT_EQ(0, status);
  m_given = Given();
  m_selection = runSelection("gate", ProxyAuthentication, m_provider, m_threadsThatStay);
  return m_selection;
}

std::string Scene::Delivered() const {
  if (m_selection.headends.empty()) {
    return "nothing";
  }
  EXPECT_THAT(m_selection.headends, ElementsAre(m_gateway.Address()));
  const bool measured = !m_selection.Results().empty();
  EXPECT_EQ(measured ? Pings : 0, m_selection.ProbesOf(m_gateway.Where().port).size());
  return measured ? "what was measured" : "the last headend";
}

/// What the run logs between the sending of the test ping and the end of the run.
std::string Scene::Log() const {
  std::string text;
  bool sent = false;
  for (const std::string& line : m_selection.RunLog()) {
    const std::size_t colon = line.find(": ");
    const bool ends = line.find(" finishAHS: ") != std::string::npos;
    if (sent && !ends) {
      text.append(text.empty() ? "`" : "<br>`").append(line, 0, 2);
      text.append(line.substr(colon + 2)).append("`");
    }
    sent = (sent && !ends) || line.find("QIB Sending test ping") != std::string::npos;
  }
  return text;
}

HttpProbe::Report Scene::TestPing() const {
  const auto ping = std::find_if(
      m_selection.probes.begin(), m_selection.probes.end(), [](const HttpProbe::Report& probe) {
        return (probe.options & HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS) != 0;
      });
  EXPECT_NE(ping, m_selection.probes.end());
  return ping == m_selection.probes.end() ? HttpProbe::Report() : *ping;
}

/// What the test ping came to, and its status code in HTTP.
std::string Scene::Ping() const {
  const HttpProbe::Report ping = TestPing();
  std::ostringstream text;
  text << "`0x" << std::hex << std::uppercase << ping.status << "`";
  if (ping.httpStatus != 0) {
    text << ", " << std::dec << ping.httpStatus;
  }
  return text.str();
}

/// What ended the test ping, by the order of events alone.
std::string Scene::End() const {
  constexpr unsigned int kTimedOut = 28;  // CURLE_OPERATION_TIMEDOUT, libcurl-errors(3)
  if (!m_selection.TimerLog().empty()) {
    return "the selection's limit";
  }
  const HttpProbe::Report ping = TestPing();
  if (ping.transportError == kTimedOut) {
    return "its limit";
  }
  return ping.responseRttUs >= 0 ? "an answer" : "a failure";
}

Row Scene::Observed(const std::string& name) const {
  const std::string extra = m_selection.extraInfo.empty() ? "" : "`" + m_selection.extraInfo + "`";
  const std::string status = std::string("`") + statusCodeName(m_selection.status) + "`";
  return {name, m_given, Ping(), End(), Delivered(), status, extra, Log()};
}

// ---- The cases ---------------------------------------------------------------------------------

struct Case {
  const char* name;  ///< the row's first cell
  void (*arrange)(Scene&);
};

void PrintTo(const Case& played, std::ostream* stream) { *stream << played.name; }

SquidProxy::Settings squidWithRealm(const std::string& realm) {
  SquidProxy::Settings settings;
  settings.realm = realm;
  return settings;
}

/// Asks the user and the password of the one before.
void logInToSquid(Scene& scene, const std::string& realm, const std::string& password) {
  scene.Override(scene.Squid(squidWithRealm(realm)).Where());
  scene.Provider(new CProxyProvider(BasicProxy, User, password));
}

/// That a tunnel through squid carried the test ping, and nothing of the log-in went beyond squid.
void expectTunnel(Scene& scene) {
  scene.checkAfterwards = [&scene] {
    EXPECT_THAT(scene.outside.all(), ElementsAre(StartsWith("CONNECT 127.0.0.1:443 HTTP/1.1\r\n")));
    EXPECT_THAT(scene.outside.all(), Each(Not(HasSubstr("Authorization"))));
  };
}

void expectNtlmHandshake(Scene& scene) {
  scene.checkAfterwards = [&scene] {
    std::vector<int> types;
    std::string last;
    for (const std::string& request : scene.log.all()) {
      int type = 0;
      last = ntlmMessage(request, type);
      types.push_back(type);
      EXPECT_THAT(last, Not(HasSubstr(Password)));
      EXPECT_THAT(last, Not(HasSubstr(inUtf16(Password))));
    }
    EXPECT_THAT(types, ElementsAre(0, 1, 3)) << "a request, a negotiation, a response";
    EXPECT_THAT(last, HasSubstr(inUtf16(User)));
  };
}

void requireIPv6(Scene& scene) {
  if (!hasAddress("::1")) {
    scene.skip = "this machine has no IPv6 loopback address";
  }
}

const Case Cases[] = {
    {"none", [](Scene&) {}},
    {"squid, open to all",
     [](Scene& scene) { scene.Override(scene.Squid(squidWithRealm("")).Where()); }},
    {"squid, realm Office, no log-in",
     [](Scene& scene) { scene.Override(scene.Squid(squidWithRealm("Office")).Where()); }},
    {"squid, realm Office, right password",
     [](Scene& scene) {
       logInToSquid(scene, "Office", Password);
       expectTunnel(scene);
     }},
    {"squid, realm Office, wrong password",
     [](Scene& scene) { logInToSquid(scene, "Office", "wrong"); }},
    {"a second squid, realm Laboratory (2nd floor), no log-in",
     [](Scene& scene) {
       scene.Squid(squidWithRealm("Office"));
       scene.Override(scene.Squid(squidWithRealm("Laboratory (2nd floor)")).Where());
     }},
    {"a second squid, realm Laboratory (2nd floor), right password",
     [](Scene& scene) {
       scene.Squid(squidWithRealm("Office"));
       logInToSquid(scene, "Laboratory (2nd floor)", Password);
       expectTunnel(scene);
     }},
    {"squid whose realm has quotes, which it does not escape, no log-in",
     [](Scene& scene) { scene.Override(scene.Squid(squidWithRealm("the \"Office\"")).Where()); }},
    {"squid that lets tunnels to port 563 alone, right password",
     [](Scene& scene) {
       SquidProxy::Settings settings = squidWithRealm("Office");
       settings.tunnelPort = 563;
       scene.Override(scene.Squid(settings).Where());
       scene.Provider(new CProxyProvider(BasicProxy, User, Password));
     }},
    {"squid at an IPv6 address, no log-in",
     [](Scene& scene) {
       requireIPv6(scene);
       SquidProxy::Settings settings = squidWithRealm("Office");
       settings.address = "::1";
       if (scene.skip.empty()) {
         scene.Override(scene.Squid(settings).Where());
       }
     }},
    {"squid at an IPv6 address, right password",
     [](Scene& scene) {
       requireIPv6(scene);
       SquidProxy::Settings settings = squidWithRealm("Office");
       settings.address = "::1";
       if (scene.skip.empty()) {
         scene.Override(scene.Squid(settings).Where());
         scene.Provider(new CProxyProvider(BasicProxy, User, Password));
         expectTunnel(scene);
       }
     }},
    {"squid in the environment (https_proxy), right password",
     [](Scene& scene) {
       scene.Environment("https_proxy",
                         "http://" + scene.Squid(squidWithRealm("Office")).Address());
       scene.Provider(new CProxyProvider(BasicProxy, User, Password, "from.the.system"));
       expectTunnel(scene);
     }},
    {"squid in the environment (http_proxy), no log-in",
     [](Scene& scene) {
       scene.Environment("http_proxy", "http://" + scene.Squid(squidWithRealm("Office")).Address());
       scene.Provider(new CProxyProvider(NoProxy, {}, {}, "from.the.system"));
     }},
    {"none in the system's settings",
     [](Scene& scene) { scene.Provider(new CProxyProvider(NoProxy, {}, {}, "from.the.system")); }},
    {"the system's settings wait for a PAC file that never comes",
     [](Scene& scene) {
       const unsigned short silent =
           scene.Scripted([](Connection& connection) { connection.waitForPeer(); });
       scene.Environment("http_proxy",
                         "pac+http://127.0.0.1:" + std::to_string(silent) + "/proxy.pac");
       scene.Set("SelectionTestPingTimeout", "1");
       scene.SettingsHang();
       scene.Provider(new CProxyProvider(NoProxy, {}, {}, "from.the.system"));
     }},
    {"refuses the connection",
     [](Scene& scene) {
       static const RefusingPort closed("127.0.0.1");
       scene.Override(closed.Where());
     }},
    {"its name does not resolve",
     [](Scene& scene) { scene.Override("no-such-proxy.invalid", 3128); }},
    {"silent",
     [](Scene& scene) {
       scene.Override(scene.Scripted([](Connection& connection) { connection.waitForPeer(); }));
       scene.Set("SelectionTestPingTimeout", "1");
     }},
    {"silent, and the selection's time limit is the shorter one",
     [](Scene& scene) {
       scene.Override(scene.Scripted([](Connection& connection) { connection.waitForPeer(); }));
       scene.Set("SelectionConnectTimeout", "200");
       scene.Set("SelectionTestPingTimeout", "2");
     }},
    {"answers garbage",
     [](Scene& scene) { scene.Override(scene.Scripted(answering("SSH-2.0-proxy\r\n\r\n"))); }},
    {"answers garbage without an end",
     [](Scene& scene) {
       scene.Override(scene.Scripted([](Connection& connection) {
         connection.readHead();
         connection.send("HTTP/1.1 200 OK\r\n");
         while (connection.send("X-Header: some value or other\r\n")) {
         }
       }));
     }},
    {"hangs up",
     [](Scene& scene) {
       scene.Override(scene.Scripted([](Connection& connection) { connection.readHead(); }));
     }},
    {"asks with a realm of 64 KiB, no log-in",
     [](Scene& scene) {
       scene.Override(scene.Scripted([](const std::string&) {
         return challenge("Proxy-Authenticate: Basic realm=\"" + std::string(64UL * 1024, 'x') +
                          "\"\r\n");
       }));
     }},
    {"asks for Basic among other ways and in several lines, no log-in",
     [](Scene& scene) {
       scene.Override(scene.Scripted([](const std::string&) {
         return challenge(
             "Proxy-Authenticate: Negotiate, NTLM\r\nProxy-Authenticate: Digest realm=\"no\", "
             "nonce=\"n\", Basic realm=\"Gr\xc3\xbcn\\\"haus\\\"\"\r\n");
       }));
     }},
    {"asks for NTLM, no log-in",
     [](Scene& scene) { scene.Override(scene.Scripted(ntlmProxy(true))); }},
    {"asks for NTLM, right password",
     [](Scene& scene) {
       scene.Override(scene.Scripted(ntlmProxy(true)));
       scene.Provider(new CProxyProvider(NTLMProxy, User, Password));
       expectNtlmHandshake(scene);
     }},
    {"asks for NTLM, wrong password",
     [](Scene& scene) {
       scene.Override(scene.Scripted(ntlmProxy(false)));
       scene.Provider(new CProxyProvider(NTLMProxy, User, Password));
       expectNtlmHandshake(scene);
     }},
    {"squid that asks for NTLM, right password",
     [](Scene& scene) {
       SquidProxy::Settings settings;
       settings.ntlm = true;
       scene.Override(scene.Squid(settings).Where());
       scene.Provider(new CProxyProvider(NTLMProxy, User, Password));
       expectTunnel(scene);
     }},
    {"asks for Negotiate, no ticket",
     [](Scene& scene) {
       scene.Override(scene.Scripted(
           [](const std::string&) { return challenge("Proxy-Authenticate: Negotiate\r\n"); }));
       scene.Provider(new CProxyProvider(KerberosProxy, User));
       scene.checkAfterwards = [&scene] {
         EXPECT_EQ(2U, scene.log.all().size());
         EXPECT_THAT(scene.log.all(), Each(Not(HasSubstr("Authorization"))));
       };
     }},
    {"asks for Negotiate or Basic, no ticket, right password",
     [](Scene& scene) {
       scene.Override(scene.Scripted([](const std::string& request) {
         return headerOf(request, "Proxy-Authorization").starts_with("Basic ")
                    ? std::string(Established)
                    : challenge(
                          "Proxy-Authenticate: Negotiate\r\n"
                          "Proxy-Authenticate: Basic realm=\"Office\"\r\n");
       }));
       scene.Provider(new CProxyProvider(BasicProxy, User, Password));
     }},
    {"asks for a way to log in that is not known",
     [](Scene& scene) {
       scene.Override(scene.Scripted([](const std::string&) {
         return challenge("Proxy-Authenticate: Digest realm=\"Office\", nonce=\"n\"\r\n");
       }));
       scene.Provider(new CProxyProvider(BasicProxy, User, Password));
     }},
};

// ---- The tests ---------------------------------------------------------------------------------

class Proxies : public testing::TestWithParam<Case> {};

std::string asRow(const Row& row) {
  std::string text = "|";
  for (const std::string& cell : row) {
    text += " " + cell + (cell.empty() ? "|" : " |");
  }
  return text;
}

TEST_P(Proxies, DeliverWhatTheTableSays) {
  Scene scene;
  GetParam().arrange(scene);
  if (!scene.skip.empty()) {
    GTEST_SKIP() << scene.skip;
  }
  const Selection& selection = scene.Run();

  EXPECT_EQ(1U, selection.calls);
  const auto documented = documentedRows();
  const auto row = documented.find(GetParam().name);
  EXPECT_EQ(row == documented.end() ? "" : asRow(row->second),
            asRow(scene.Observed(GetParam().name)));
  for (const LogLine& line : selection.log) {
    EXPECT_THAT(line.text, Not(HasSubstr(Password)));
  }
  if (scene.checkAfterwards) {
    scene.checkAfterwards();
  }
}

std::string testName(const testing::TestParamInfo<Case>& info) {
  std::string name;
  for (const char c : std::string(info.param.name)) {
    name += isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
  }
  return name;
}

INSTANTIATE_TEST_SUITE_P(Table, Proxies, testing::ValuesIn(Cases), testName);

TEST(TableOfProxies, HasARowForEachCaseAndNoOther) {
  std::vector<std::string> documented;
  for (const auto& [name, row] : documentedRows()) {
    documented.push_back(name);
  }
  std::vector<std::string> played;
  for (const Case& one : Cases) {
    played.emplace_back(one.name);
  }
  EXPECT_THAT(documented, testing::UnorderedElementsAreArray(played));
}

}  // namespace
}  // namespace tests
