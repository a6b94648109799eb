// What a selection leaves of a proxy's user name and password in a host's memory. The host is a
// separate program whose allocator does not change freed blocks. This test creates the secrets,
// lets the host run a whole selection through an authenticating proxy, and searches its writable
// memory for any part of them in any form.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestAuthority.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"

namespace tests {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char Answer[] = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
constexpr char Established[] = "HTTP/1.1 200 Established\r\n\r\n";

constexpr std::chrono::milliseconds PollInterval{2};

// ---- Secrets, and the forms that they take ------------------------------------------------------

std::string randomText(std::size_t length) {
  const std::string letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::random_device random;
  std::string text(length, '\0');
  std::ranges::generate(text, [&] { return letters[random() % letters.size()]; });
  return text;
}

std::string base64(const std::string& text) {
  std::vector<unsigned char> encoded((text.size() + 2) / 3 * 4 + 1);
  const int length =
      EVP_EncodeBlock(encoded.data(), reinterpret_cast<const unsigned char*>(text.data()),
                      static_cast<int>(text.size()));
  return {encoded.begin(), encoded.begin() + length};
}

/// Windows' encoding; plain ASCII only.
std::string utf16(const std::string& text) {
  std::string wide;
  for (const char c : text) {
    wide += c;
    wide += '\0';
  }
  return wide;
}

std::string upperCase(std::string text) {
  std::ranges::transform(text, text.begin(), [](unsigned char c) { return std::toupper(c); });
  return text;
}

/// NTLM's first hash of a password, which could replace the password.
std::string ntHash(const std::string& password) {
  static OSSL_PROVIDER* const legacy = OSSL_PROVIDER_load(nullptr, "legacy");
  static OSSL_PROVIDER* const standard = OSSL_PROVIDER_load(nullptr, "default");
  const std::string text = utf16(password);
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (legacy == nullptr || standard == nullptr ||
      EVP_Digest(text.data(), text.size(), digest.data(), &length, EVP_md4(), nullptr) != 1) {
    throw std::runtime_error("OpenSSL has no MD4");
  }
  return {digest.begin(), digest.begin() + length};
}

// ---- The search ---------------------------------------------------------------------------------

/// Looks for secrets in another process's memory and in texts: any eight bytes in a row count.
class SecretSearch {
 public:
  void Add(const std::string& name, const std::string& secret) {
    for (std::size_t at = 0; at + sizeof(Key) <= secret.size(); ++at) {
      m_parts.emplace(keyAt(secret.data() + at), name);
    }
  }

  /// Searches a process's writable memory. @return where it found a secret.
  std::vector<std::string> InProcess(pid_t process) const {
    const std::string directory = "/proc/" + std::to_string(process);
    std::ifstream memory(directory + "/mem", std::ios::binary);
    std::ifstream maps(directory + "/maps");
    std::vector<std::string> found;
    std::size_t areas = 0;
    for (std::string line; std::getline(maps, line);) {
      std::istringstream fields(line);
      std::uint64_t from = 0;
      std::uint64_t to = 0;
      char dash = 0;
      std::string access;
      fields >> std::hex >> from >> dash >> to >> access;
      if (access.starts_with("rw")) {
        std::string bytes(to - from, '\0');
        memory.seekg(static_cast<std::streamoff>(from));
        if (!memory.read(bytes.data(), static_cast<std::streamsize>(bytes.size()))) {
          throw std::runtime_error("cannot read " + line);
        }
        Scan(bytes, line, found);
        ++areas;
      }
    }
    EXPECT_GT(areas, 0U);
    return found;
  }

  std::vector<std::string> InText(const std::string& text) const {
    std::vector<std::string> found;
    Scan(text, "a text", found);
    return found;
  }

 private:
  using Key = std::uint64_t;

  static Key keyAt(const char* bytes) {
    Key key = 0;
    std::memcpy(&key, bytes, sizeof key);
    return key;
  }

  void Scan(const std::string& bytes, const std::string& place,
            std::vector<std::string>& found) const {
    constexpr std::size_t Enough = 1000;
    for (std::size_t at = 0; at + sizeof(Key) <= bytes.size() && found.size() < Enough; ++at) {
      const Key key = keyAt(bytes.data() + at);
      const auto part = key == 0 ? m_parts.end() : m_parts.find(key);
      if (part != m_parts.end()) {
        found.push_back(part->second + " at " + std::to_string(at) + " of " + place);
      }
    }
  }

  std::unordered_map<Key, std::string> m_parts;
};

// ---- Proxies ------------------------------------------------------------------------------------

/// Challenges of a proxy in the domain "OFFICE" ([MS-NLMP], section 2.2.1.2): they select NTLM's
/// kind of proof. The second has the flag for session security, the third the domain as target
/// information.
constexpr char Version1[] =
    "TlRMTVNTUAACAAAADAAMADAAAAABAgAAAQIDBAUGBwgAAAAAAAAAAAAAAAA8AAAATwBGAEYASQBDAEUA";
constexpr char Session[] =
    "TlRMTVNTUAACAAAADAAMADAAAAABAggAAQIDBAUGBwgAAAAAAAAAAAAAAAA8AAAATwBGAEYASQBDAEUA";
constexpr char Version2[] =
    "TlRMTVNTUAACAAAADAAMADAAAAABAoAAAQIDBAUGBwgAAAAAAAAAABQAFAA8AAAATwBGAEYASQBDAEUAAgAMAE8ARgBGAE"
    "kAQwBFAAAAAAA=";

std::string demand(const std::string& challenge) {
  return "HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: " + challenge +
         "\r\nContent-Length: 0\r\n\r\n";
}

/// The proxy's reaction to credentials.
enum class Then { Accept, Refuse, Close, StaySilent };

/// A proxy that asks for credentials and, once it has them, waits for its release.
class AskingProxy {
 public:
  /// @param scheme "Basic realm=x" or the like. @param challenge NTLM's.
  AskingProxy(std::string scheme, std::string lastMessage, Then then, unsigned short headend,
              const std::string& challenge = "")
      : m_scheme(std::move(scheme)),
        m_lastMessage(std::move(lastMessage)),
        m_then(then),
        m_headend(headend),
        m_challenge("NTLM " + challenge),
        m_server([this](Connection& connection) { Serve(connection); }) {}
  ~AskingProxy() { Release(); }

  unsigned short Port() const { return m_server.port(); }
  bool HasCredentials() const { return m_hasCredentials; }
  void Release() { m_released = true; }

 private:
  void Serve(Connection& connection) {
    for (std::string head = connection.readHead(); !head.empty(); head = connection.readHead()) {
      if (head.find("\r\nProxy-Authorization: " + m_lastMessage) != std::string::npos) {
        m_hasCredentials = true;
        while (!m_released) {
          connection.wait(PollInterval);
        }
        Finish(connection);
        return;
      }
      const bool first =
          head.find("\r\nProxy-Authorization: NTLM TlRMTVNTUAAB") != std::string::npos;
      connection.send(demand(first ? m_challenge : m_scheme));
    }
  }

  void Finish(Connection& connection) {
    if (m_then == Then::Accept) {
      connection.send(Established);
      connection.tunnelTo(m_headend);
    } else if (m_then == Then::Refuse) {
      connection.send(demand(m_scheme));
      connection.waitForPeer();
    } else if (m_then == Then::StaySilent) {
      connection.waitForPeer();
    }
  }

  const std::string m_scheme;
  const std::string m_lastMessage;
  const Then m_then;
  const unsigned short m_headend;
  const std::string m_challenge;
  std::atomic<bool> m_hasCredentials{false};
  std::atomic<bool> m_released{false};
  ScriptedServer m_server;  // last, because its threads use the others
};

// ---- The host -----------------------------------------------------------------------------------

class MemorySearch : public testing::Test {
 protected:
  MemorySearch() { MakeSecrets(20, 30); }

  /// Creates secrets of these lengths.
  void MakeSecrets(std::size_t userLength, std::size_t passwordLength) {
    m_user = randomText(userLength);
    m_password = randomText(passwordLength);
    m_search = SecretSearch();
    m_search.Add("the user name", m_user);
    m_search.Add("the password", m_password);
    m_search.Add("the password in upper case", upperCase(m_password));
    m_search.Add("both in base64", base64(m_user + ":" + m_password));
    for (const auto& [name, text] : {std::pair{"the user name", m_user},
                                     std::pair{"the user name in upper case", upperCase(m_user)},
                                     std::pair{"the password", m_password}}) {
      m_search.Add(name + std::string(", wide"), utf16(text));
    }
    m_search.Add("the password's hash", ntHash(m_password));
  }

  std::string Basic() const { return "Basic " + base64(m_user + ":" + m_password); }

  void StartHost(unsigned short proxyPort, const std::string& scheme,
                 const std::string& left = "nothing", const std::string& testPingTimeout = "20") {
    m_directory.Write("global.xml", preferencesText({{"ProxyHost", "127.0.0.1"},
                                                     {"ProxyPort", std::to_string(proxyPort)}}));
    m_directory.Write("user.xml", preferencesText({{"SelectionConnectTimeout", "60000"},
                                                   {"SelectionPingTimeout", "20000"},
                                                   {"SelectionTestPingTimeout", testPingTimeout},
                                                   {"SelectionPingsPerHeadend", "2"},
                                                   {"ProxySettings", "override"}}));
    m_host.reset();
    m_directory.Write("output", "");
    m_host = std::make_unique<ChildProcess>(
        std::vector<std::string>{
            AHS_MEMORY_SEARCH_HOST, m_directory.Write("secrets", m_user + "\n" + m_password + "\n"),
            m_directory.Path(), m_authority.file(), scheme, left, Headend(0), Headend(1)},
        m_directory.File("output"), m_directory.Path());
  }

  /// Waits for the selection's end. @return its outcome.
  std::string Outcome() {
    const std::string key = "ended, ";
    EXPECT_TRUE(eventually(
        [&] { return Output().find(key) != std::string::npos || !m_host->IsRunning(); }));
    const std::string output = Output();
    return output.substr(std::min(output.size(), output.find(key) + key.size()));
  }

  void ExpectSelected(const std::string& outcome) const {
    EXPECT_THAT(outcome,
                StartsWith("status " + std::to_string(HEADENDSELECTION_ERROR_ADDED_TO_CACHE)));
    EXPECT_THAT(outcome, HasSubstr(Headend(0)));
    EXPECT_THAT(outcome, HasSubstr(Headend(1)));
  }

  std::vector<std::string> FoundInMemory() const { return m_search.InProcess(m_host->Pid()); }

  /// Secrets in the host's output, and in what others can read of it while it runs.
  std::vector<std::string> FoundInPublic() const {
    const std::string process = "/proc/" + std::to_string(m_host->Pid());
    return m_search.InText(Output() + readFile(m_directory.File("host.log")) +
                           readFile(process + "/cmdline") + readFile(process + "/environ"));
  }

  bool WaitForCredentials(const AskingProxy& proxy) const {
    return eventually([&] { return proxy.HasCredentials() || !m_host->IsRunning(); }) &&
           m_host->IsRunning();
  }

  unsigned short HeadendPort() const { return m_headends[0].port(); }

 private:
  std::string Output() const { return readFile(m_directory.File("output")); }
  std::string Headend(std::size_t index) const {
    return "127.0.0.1:" + std::to_string(m_headends.at(index).port());
  }

  TemporaryDirectory m_directory;
  TestAuthority m_authority;
  TlsServerContext m_tls{m_authority.issue()};
  std::array<ScriptedServer, 2> m_headends{ScriptedServer(answeringOverTls(m_tls, Answer)),
                                           ScriptedServer(answeringOverTls(m_tls, Answer))};
  std::string m_user;
  std::string m_password;
  SecretSearch m_search;
  std::unique_ptr<ChildProcess> m_host;
};

TEST_F(MemorySearch, FindsAPasswordThatTheHostLeavesBehind) {
  for (const char* place : {"freed", "stack"}) {
    SCOPED_TRACE(place);
    AskingProxy proxy("Basic realm=\"x\"", Basic(), Then::Accept, HeadendPort());
    proxy.Release();
    StartHost(proxy.Port(), "basic", place);
    ExpectSelected(Outcome());
    EXPECT_THAT(FoundInMemory(), Contains(StartsWith("the password at")));
    EXPECT_THAT(FoundInPublic(), IsEmpty());
  }
}

/// A selection through a proxy that asks for credentials.
struct Asked {
  const char* name;
  Then then;
  std::size_t userLength = 20;
  std::size_t passwordLength = 30;
  std::string ntlm = "";    ///< the challenge; Basic without one
  bool negotiates = false;  ///< before Basic

  friend void PrintTo(const Asked& asked, std::ostream* out) { *out << asked.name; }
};

class MemorySearchAfter : public MemorySearch, public testing::WithParamInterface<Asked> {};

TEST_P(MemorySearchAfter, FindsNothing) {
  const Asked& asked = GetParam();
  MakeSecrets(asked.userLength, asked.passwordLength);
  // NTLM's answer begins the same for every user.
  const bool isNtlm = !asked.ntlm.empty();
  const std::string before = asked.negotiates ? "Negotiate\r\nProxy-Authenticate: " : "";
  AskingProxy proxy(isNtlm ? "NTLM" : before + "Basic realm=\"x\"",
                    isNtlm ? "NTLM TlRMTVNTUAAD" : Basic(), asked.then, HeadendPort(), asked.ntlm);
  StartHost(proxy.Port(),
            isNtlm             ? "ntlm"
            : asked.negotiates ? "kerberos"
                               : "basic",
            "nothing", asked.then == Then::StaySilent ? "8" : "20");
  ASSERT_TRUE(WaitForCredentials(proxy));
  EXPECT_THAT(FoundInMemory(), Contains(StartsWith("the password at")));
  proxy.Release();
  const std::string outcome = Outcome();
  EXPECT_THAT(FoundInMemory(), IsEmpty());
  EXPECT_THAT(FoundInPublic(), IsEmpty());
  if (asked.then == Then::Accept) {
    ExpectSelected(outcome);
  } else if (asked.then == Then::Refuse) {
    EXPECT_EQ(outcome,
              "status " + std::to_string(HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED) + "\n");
  } else {
    EXPECT_THAT(outcome, StartsWith("status "));
  }
}

// Short secrets fit inside a string object; long ones need a block of memory.
INSTANTIATE_TEST_SUITE_P(
    Memory, MemorySearchAfter,
    testing::Values(Asked{"Basic", Then::Accept}, Asked{"ShortSecrets", Then::Accept, 8, 15},
                    Asked{"LongSecrets", Then::Accept, 100, 250},
                    Asked{"WrongCredentials", Then::Refuse}, Asked{"AProxyThatCloses", Then::Close},
                    Asked{"NegotiateWithoutATicketFallsBackToBasic", Then::Accept, 20, 30, "",
                          true},
                    Asked{"AProxyThatStaysSilent", Then::StaySilent},
                    Asked{"WrongCredentialsForNtlm", Then::Refuse, 20, 30, Version1},
                    Asked{"NtlmVersion1", Then::Accept, 20, 30, Version1},
                    Asked{"NtlmSession", Then::Accept, 20, 30, Session},
                    Asked{"NtlmVersion2", Then::Accept, 20, 30, Version2},
                    Asked{"NtlmVersion1OfAShortPassword", Then::Accept, 8, 14, Version1},
                    Asked{"NtlmSessionOfAShortPassword", Then::Accept, 8, 14, Session},
                    Asked{"NtlmVersion2OfAShortPassword", Then::Accept, 8, 14, Version2}),
    [](const auto& param) { return param.param.name; });

}  // namespace
}  // namespace tests
