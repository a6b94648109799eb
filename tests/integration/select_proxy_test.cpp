// `ahs select` behind proxies that ask for a login: the dialogue at a terminal with a real squid,
// the options that replace it, and the choice of the proxy. Searches for passwords in all that the
// program prints, logs and stores, and in what the system shows of it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/integration/command_test.h"
#include "tests/support/RealServers.h"
#include "tests/support/TestAuthority.h"

namespace tests {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

constexpr const char* NoGateway = "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n";

constexpr const char* NameQuestion = "User name (empty to give up): ";
constexpr const char* PasswordQuestion = "Password: ";
constexpr const char* WrongPassword = "Wr0ng-word-of-tOday";
const std::string User = SquidProxy::User;
const std::string Password = SquidProxy::Password;

std::string allFilesBelow(const std::string& directory) {
  std::string text;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    text += entry.path().string() + "\n";
    text += entry.is_regular_file() ? readFile(entry.path().string()) : "";
  }
  return text;
}

std::string replaced(std::string text, const std::string& what, const std::string& with) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size()) {
    text.replace(at, what.size(), with);
  }
  return text;
}

/// A user behind a proxy, a gateway with TLS, and preferences that name a proxy for all.
class SelectProxyTest : public CommandTest {
 protected:
  SelectProxyTest()
      : gateway(answeringOverTls(TlsServerContext(authority.issue()), Welcome)),
        behindProxy(answering(NoGateway)) {
    environment[1] = "TERM=dumb";
  }

  void startSquid() {
    squid = std::make_unique<SquidProxy>(
        SquidProxy::Settings{.realm = "Head office", .parent = behindProxy.port()});
    setProxy(squid->Where());
  }

  /// Writes a proxy into the machine's preferences.
  void setProxy(const Endpoint& where) {
    preferences =
        outside.Write("global.xml", preferencesText({{"ProxySettings", "override"},
                                                     {"ProxyHost", where.address},
                                                     {"ProxyPort", std::to_string(where.port)}}));
  }

  std::string gatewayAddress() const { return "127.0.0.1:" + std::to_string(gateway.port()); }

  /// Arguments of a selection with its log in the home directory.
  std::vector<std::string> select(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> arguments = {"select", "--log-level", "info", "--log-file",
                                          home + "/log"};
    if (!preferences.empty()) {
      arguments.insert(arguments.end(), {"--global-preferences", preferences});
    }
    arguments.insert(arguments.end(), more.begin(), more.end());
    arguments.push_back(gatewayAddress());
    return arguments;
  }

  void expectNowhere(const std::string& secret, const Outcome& outcome) const {
    EXPECT_THAT(outcome.out, Not(HasSubstr(secret)));
    EXPECT_THAT(outcome.err, Not(HasSubstr(secret)));
    EXPECT_THAT(allFilesBelow(home), Not(HasSubstr(secret)));
  }

  const TemporaryDirectory outside;
  const TestAuthority authority;
  ScriptedServer gateway;
  ScriptedServer behindProxy;
  std::unique_ptr<SquidProxy> squid;
  std::string preferences;
};

// ---- Over TLS ----------------------------------------------------------------------------------

TEST_F(SelectProxyTest, OverTlsOnRequestACertificateCountsThatIsTrusted) {
  const auto outcomeWith = [this](std::vector<std::string> words) {
    words.insert(words.begin(), {"select", gatewayAddress(), "--no-cache"});
    const json result = resultOf(runJson(words, 0), gatewayAddress());
    return result.at("outcome").get<std::string>();
  };
  EXPECT_EQ(outcomeWith({"--secure"}), "untrusted certificate");
  EXPECT_EQ(outcomeWith({"--secure", "--cacert", authority.file()}), "answered");
  const std::string none = outside.Write("none.pem", "-----BEGIN");
  for (const std::string& file : {none, outside.File("missing")}) {
    const Outcome refused = run({"select", gatewayAddress(), "--cacert", file});
    EXPECT_EQ(refused.exitStatus, 2);
    EXPECT_THAT(refused.err, HasSubstr("certificates of '" + file + "', cannot be used: "));
  }
  environment.push_back("SSL_CERT_FILE=" + authority.file());
  EXPECT_EQ(outcomeWith({"--secure"}), "answered");
  EXPECT_THAT(run({"probe", gatewayAddress(), "--secure", "-c", "1"}).out,
              Not(HasSubstr("untrusted")));
}

// ---- The dialogue -----------------------------------------------------------------------------

TEST_F(SelectProxyTest, AtATerminalAPersonLogsInToSquidAtTheSecondAttempt) {
  startSquid();
  Program program(select(), environment, Program::Terminal::All);
  ASSERT_TRUE(program.waitForNext(NameQuestion)) << program.soFar().err;
  EXPECT_TRUE(program.showsWhatIsTyped());
  program.type(User + "\n");
  ASSERT_TRUE(program.waitForNext(PasswordQuestion));
  EXPECT_FALSE(program.showsWhatIsTyped());
  program.type(std::string(WrongPassword) + "\n");
  ASSERT_TRUE(program.waitForNext("does not accept"));
  ASSERT_TRUE(program.waitForNext(NameQuestion));
  EXPECT_TRUE(program.showsWhatIsTyped());
  program.type(User + "\n");
  ASSERT_TRUE(program.waitForNext(PasswordQuestion));
  program.type(Password + "\n");
  const Outcome outcome = program.finish();

  EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
  const std::string recorded = replaced(outcome.err, "\r", "");
  const std::string dialogue = replaced(recorded.substr(0, recorded.find("\n   1. ")),
                                        squid->Address(), "proxy.example.com:3128");
  EXPECT_THAT(recorded, HasSubstr("   1. " + gatewayAddress() + "  "));
  EXPECT_THAT(readFile(AHS_SOURCE_DIR "/docs/cli.md"),
              HasSubstr(replaced("    " + replaced(dialogue, gatewayAddress(), "gw-a.example.com"),
                                 "\n", "\n    ")));

  expectNowhere(Password, outcome);
  expectNowhere(WrongPassword, outcome);
}

// ---- Signals during the dialogue --------------------------------------------------------------

TEST_F(SelectProxyTest, SignalsThatEndItRestoreTheTerminal) {
  startSquid();
  for (const int signal : {SIGINT, SIGTERM, SIGQUIT, SIGHUP}) {
    Program program(select({"--proxy-user", User}), environment, Program::Terminal::Job);
    ASSERT_TRUE(program.waitForNext(PasswordQuestion));
    ASSERT_FALSE(program.showsWhatIsTyped());
    ASSERT_EQ(kill(program.pid(), signal), 0);
    ASSERT_TRUE(program.waitForNext("\r\n"));
    EXPECT_TRUE(program.showsWhatIsTyped()) << signal;
    EXPECT_EQ(program.finish().exitStatus, 128 + signal);
  }
}

TEST_F(SelectProxyTest, CtrlZAtThePasswordGivesTheTerminalBackUntilItIsBroughtBack) {
  startSquid();
  Program program(select({"--proxy-user", User}), environment, Program::Terminal::Job);
  ASSERT_TRUE(program.waitForNext(PasswordQuestion));
  program.type("half a \x1a");
  ASSERT_TRUE(program.waitForStop());
  EXPECT_TRUE(program.showsWhatIsTyped());
  program.bringBack();
  ASSERT_TRUE(program.waitForNext(PasswordQuestion));
  EXPECT_FALSE(program.showsWhatIsTyped());
  program.type(Password + "\n");
  const Outcome outcome = program.finish();
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
  expectNowhere(Password, outcome);
}

// ---- Without a terminal -----------------------------------------------------------------------

TEST_F(SelectProxyTest, APasswordFileLogsInWithTheFirstRun) {
  startSquid();
  const std::string path = outside.Write("password", Password + "\n");
  ASSERT_EQ(chmod(path.c_str(), 0600), 0);
  const Outcome outcome =
      run(select({"--json", "--proxy-user", User, "--proxy-password-file", path}));
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
  EXPECT_EQ(json::parse(outcome.out).at("reason"), 0);
  expectNowhere(Password, outcome);
}

// ---- Which proxy ------------------------------------------------------------------------------

TEST_F(SelectProxyTest, TheCommandLineGoesBeforeThePreferencesAndThoseBeforeTheSystem) {
  const ScriptedServer proxies[] = {ScriptedServer(answering(Challenge)),
                                    ScriptedServer(answering(Challenge)),
                                    ScriptedServer(answering(Challenge))};
  const auto expectAsked = [&](std::vector<std::string> options, int asked) {
    const unsigned int before[] = {proxies[0].accepted(), proxies[1].accepted(),
                                   proxies[2].accepted()};
    options.emplace_back("--no-cache");
    EXPECT_EQ(run(select(options)).exitStatus, asked < 0 ? 0 : 3);
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(proxies[i].accepted() - before[i], i == asked ? 1U : 0U) << i;
    }
  };
  environment.push_back("http_proxy=http://127.0.0.1:" + std::to_string(proxies[0].port()));
  expectAsked({}, 0);
  expectAsked({"--no-proxy"}, -1);
  setProxy({"127.0.0.1", proxies[1].port()});
  expectAsked({}, 1);
  expectAsked({"--no-proxy"}, -1);
  expectAsked({"--proxy", "127.0.0.1:" + std::to_string(proxies[2].port())}, 2);
}

TEST_F(SelectProxyTest, TheSystemsProxyIsNamedWhereItAsksForALogin) {
  const ScriptedServer proxy(answering(Challenge));
  const std::string place = "127.0.0.1:" + std::to_string(proxy.port());
  environment.push_back("http_proxy=http://localhost:" + std::to_string(proxy.port()));
  Program program(select(), environment, Program::Terminal::All);
  EXPECT_TRUE(program.waitForNext("The proxy " + place + " asks for a login"));
  ASSERT_TRUE(program.waitForNext(NameQuestion));
  program.type("\n");
  EXPECT_EQ(program.finish().exitStatus, 3);
}

TEST_F(SelectProxyTest, AHeadendThatAsksForALoginIsMeasuredAndNobodyIsAsked) {
  const Gateway asking(Near, Challenge);
  const Outcome outcome = run({"select", "--no-cache", asking.address()});
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.out;
  EXPECT_THAT(outcome.err, Not(HasSubstr("login")));
}

}  // namespace
}  // namespace tests
