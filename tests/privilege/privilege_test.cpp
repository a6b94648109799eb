// What the environment can do to a host with rights that its caller lacks: nothing. A host with the
// set-user-id bit, one with capabilities of its file, and one that asks for it are started by an
// ordinary user, who sets every variable that could decide what is loaded, read, written or
// trusted.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestAuthority.h"

namespace tests {
namespace {

using testing::AnyOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

/// A variable that libraries may ask for though the environment is shut.
struct Harmless {
  /// It is asked for by getenv(3), which answers in a process with rights of its file too.
  bool isPlain;
  const char* why;
};

const std::map<std::string, Harmless>& harmless() {
  constexpr const char* Ticket = "GSS-API's, by secure_getenv(3); the host's duty";
  constexpr const char* OfGnuTls = "as GnuTLS is loaded, which no probe uses";
  constexpr const char* Messages = "messages on standard error or the terminal";
  static const auto& all = *new std::map<std::string, Harmless>{
      {"SSLKEYLOGFILE", {true, "taken out under AT_SECURE; else the host's duty; never written"}},
      {"OPENSSL_ia32cap", {true, "instructions of the processor; the host's duty"}},
      {"COMERR_DEBUG", {true, Messages}},
      {"NETTLE_FAT_VERBOSE", {true, Messages}},
      {"P11_KIT_DEBUG", {true, Messages}},
      {"NETTLE_FAT_OVERRIDE", {false, OfGnuTls}},
      {"P11_KIT_STRICT", {true, OfGnuTls}},
      {"GNUTLS_CPUID_OVERRIDE", {false, OfGnuTls}},
      {"GNUTLS_DEBUG_LEVEL", {false, OfGnuTls}},
      {"GNUTLS_NO_EXPLICIT_INIT", {false, OfGnuTls}},
      {"GNUTLS_NO_IMPLICIT_INIT", {false, OfGnuTls}},
      {"GNUTLS_SYSTEM_PRIORITY_FAIL_ON_INVALID", {false, OfGnuTls}},
      {"GNUTLS_SYSTEM_PRIORITY_FILE", {false, OfGnuTls}},
      {"GSS_MECH_CONFIG", {false, Ticket}},
      {"KRB5CCNAME", {false, Ticket}},
      {"KRB5_CLIENT_KTNAME", {false, Ticket}},
      {"KRB5_CONFIG", {false, Ticket}},
      {"KRB5_TRACE", {false, Ticket}}};
  return all;
}

enum class Rights { OfSetUserId, OfCapabilities, Asked, None };

class PrivilegedHost : public testing::TestWithParam<Rights> {
 protected:
  PrivilegedHost() {
    // Everybody may look, and leave notes among the modules.
    for (const std::string& path :
         {m_directory.Path(), m_directory.MakeDirectory("lib/" AHS_HELPER_DIRECTORY),
          m_directory.MakeDirectory("modules"), m_directory.MakeDirectory("notes")}) {
      chmod(path.c_str(), 0777);
    }
    chmod(m_directory.File("lib").c_str(), 0755);
    place(AHS_HOST, "host");
    place(AHS_LIBRARY, "lib/libahs.so.1");
    place(AHS_HELPER, "lib/" AHS_HELPER_DIRECTORY "/ahs-proxy");
    place(AHS_PLANTED_MODULE, "modules/config_planted.so");
  }

  void place(const char* from, const std::string& name) const {
    const std::string to = m_directory.File(name);
    std::filesystem::copy_file(from, to);
    chmod(to.c_str(), 0755);
  }

  /// Gives the program its rights. @return why that is impossible; empty if it is done.
  std::string grantRights() const {
    const std::string host = m_directory.File("host");
    if (GetParam() == Rights::OfSetUserId) {
      return geteuid() == 0 && chmod(host.c_str(), 04755) == 0 ? "" : "takes root";
    }
    if (GetParam() == Rights::OfCapabilities) {
      vfs_cap_data data{};
      data.magic_etc = VFS_CAP_REVISION_2 | VFS_CAP_FLAGS_EFFECTIVE;
      data.data[0].permitted = 1U << CAP_NET_BIND_SERVICE;
      const int done = setxattr(host.c_str(), "security.capability", &data, XATTR_CAPS_SZ_2, 0);
      return geteuid() == 0 && done == 0 ? "" : "takes root and a file system with capabilities";
    }
    return "";
  }

  /// Runs the host as an ordinary user. @param isProxySet the environment names a proxy.
  std::string run(bool isProxySet) const {
    const std::string trap = "http://127.0.0.1:" + std::to_string(m_trap.port());
    const std::string file = m_directory.File("notes/written");
    std::vector<std::string> command = {"/usr/bin/env", "-i"};
    if (isProxySet) {
      for (const char* name :
           {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
        command.push_back(std::string(name).append("=").append(trap));
      }
    } else {
      command.emplace_back("no_proxy=*");  // so that libproxy is asked
    }
    for (const char* name : {"SSLKEYLOGFILE", "OPENSSL_CONF", "SSL_CERT_FILE", "SSL_CERT_DIR",
                             "HOSTALIASES", "KRB5_TRACE", "KRB5_CONFIG"}) {
      command.push_back(std::string(name).append("=").append(file));
    }
    const std::string modules = m_directory.File("modules");
    for (const char* name : {"PX_MODULE_PATH", "HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME"}) {
      command.push_back(std::string(name).append("=").append(modules));
    }
    command.insert(command.end(), {"RES_OPTIONS=ndots:15", "LOCALDOMAIN=invalid"});
    if (geteuid() == 0) {
      command.insert(command.end(),
                     {"/usr/bin/setpriv", "--reuid=1234", "--regid=1234", "--clear-groups"});
    }
    command.insert(command.end(), {m_directory.File("host"), m_directory.File("lib/libahs.so.1"),
                                   GetParam() == Rights::Asked ? "1" : "0",
                                   "127.0.0.1:" + std::to_string(m_proxy.port()),
                                   "localhost:" + std::to_string(m_headend.port())});
    const std::string output = m_directory.File("output");
    ChildProcess host(command, output, "/");
    EXPECT_TRUE(host.WaitForEnd(Limit));
    EXPECT_EQ(host.ExitStatus(), 0) << readFile(output);
    return readFile(output);
  }

  std::string note() const { return readFile(m_directory.File("modules/config_planted.so.note")); }
  std::string keyLog() const { return m_directory.File("notes/written"); }
  unsigned int trapped() const { return m_trap.accepted(); }
  unsigned int asked() const { return m_proxy.accepted(); }

 private:
  const TemporaryDirectory m_directory;
  const TestAuthority m_authority;
  ScriptedServer m_trap{answering("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")};
  ScriptedServer m_headend{answeringOverTls(TlsServerContext(m_authority.issue()),
                                            "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")};
  // Has the client look for a ticket, takes a password, and opens a tunnel to the headend.
  ScriptedServer m_proxy{[this](Connection& connection) {
    while (connection.readHead().find("Proxy-Authorization: Basic") == std::string::npos) {
      if (!connection.send(
              "HTTP/1.1 407 No\r\nProxy-Authenticate: Negotiate\r\n"
              "Proxy-Authenticate: Basic realm=\"office\"\r\nContent-Length: 0\r\n\r\n") ||
          connection.isPeerGone()) {
        return;
      }
    }
    connection.send("HTTP/1.1 200 Established\r\n\r\n");
    connection.tunnelTo(m_headend.port());
  }};
};

TEST_P(PrivilegedHost, ObeysNoVariable) {
  if (const std::string why = grantRights(); !why.empty()) {
    GTEST_SKIP() << why;
  }
  const bool isShut = GetParam() != Rights::None;
  const std::string measured = "result fe530010\nresult fe530010\n";
  const std::string output = run(false) + (isShut ? run(true) : "");
  EXPECT_THAT(output, HasSubstr(measured));
  if (!isShut) {
    // A module that the user chose is loaded by the helper alone, without the host's rights;
    // libproxy 0.5 loads none.
    EXPECT_THAT(note(), AnyOf(std::to_string(geteuid() == 0 ? 1234 : geteuid()), ""));
    EXPECT_EQ(readFile(keyLog()), "") << "nobody's keys are written";
    return;
  }
  const bool isSecure = GetParam() != Rights::Asked;
  if (isSecure && output.find("AT_SECURE 1") == std::string::npos) {
    GTEST_SKIP() << "the file system gives programs no rights";
  }
  EXPECT_EQ(trapped(), 0U) << "the proxy of the environment was asked";
  EXPECT_GT(asked(), 0U) << "the host's own was not";
  EXPECT_EQ(note(), "") << "a planted module was loaded";
  EXPECT_EQ(readFile(keyLog()), "") << "keys were written";
  if (isSecure) {
    EXPECT_FALSE(std::filesystem::exists(keyLog()));
    EXPECT_THAT(output, Not(HasSubstr("set "))) << "the loader leaves the resolver's variables";
  }
  std::set<std::string> unknown;
  std::istringstream lines(output);
  for (std::string how, name; lines >> how >> name;) {
    const auto known = harmless().find(name);
    if ((how == "getenv" && (known == harmless().end() || !known->second.isPlain)) ||
        (how == "secure_getenv" && !isSecure && known == harmless().end())) {
      unknown.insert(name);
    }
  }
  EXPECT_THAT(unknown, IsEmpty()) << "give each a reason, or see to it that nobody asks";
}

std::string nameOf(const testing::TestParamInfo<Rights>& rights) {
  constexpr const char* Names[] = {"OfSetUserId", "OfCapabilities", "AskedFor", "None"};
  return Names[static_cast<int>(rights.param)];
}

INSTANTIATE_TEST_SUITE_P(Rights, PrivilegedHost,
                         testing::Values(Rights::OfSetUserId, Rights::OfCapabilities, Rights::Asked,
                                         Rights::None),
                         nameOf);

}  // namespace
}  // namespace tests
