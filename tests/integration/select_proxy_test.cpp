// `ahs select` behind proxies that ask for a login: the dialogue at a terminal with a real squid,
// the options that take its place, and the choice of the proxy. Wherever a password is at work, it
// is looked for in all that the program shows, logs and stores, and in what the system tells of it.

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
using testing::StartsWith;

constexpr const char* NoGateway = "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n";

constexpr const char* NameQuestion = "User name (empty to give up): ";
constexpr const char* PasswordQuestion = "Password: ";
constexpr const char* WrongPassword = "Wr0ng-word-of-tOday";
const std::string User = SquidProxy::User;
const std::string Password = SquidProxy::Password;

/// Everything that can be known of a process without looking into its memory.
std::string toldBySystem(pid_t pid) {
  const std::string directory = "/proc/" + std::to_string(pid) + "/";
  return readFile(directory + "cmdline") + readFile(directory + "environ");
}

std::string allFilesBelow(const std::string& directory) {
  std::string text;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    text += entry.path().string() + "\n";
    text += entry.is_regular_file() ? readFile(entry.path().string()) : "";
  }
  return text;
}

std::string withoutCarriageReturns(std::string text) {
  std::erase(text, '\r');
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
        behindProxy(answering(NoGateway, &tunnels)) {
    environment[1] = "TERM=dumb";
  }

  void startSquid() {
    SquidProxy::Settings settings;
    settings.realm = "Head office";
    settings.parent = behindProxy.port();
    squid = std::make_unique<SquidProxy>(settings);
    setProxy(squid->Where());
  }

  /// Makes the machine's preferences name a proxy.
  void setProxy(const Endpoint& where) {
    preferences = outside.Write(
        "global.xml",
        "<preferences version=\"1\">\n<preference name=\"ProxySettings\" value=\"override\"/>\n"
        "<preference name=\"ProxyHost\" value=\"" +
            where.address + "\"/>\n<preference name=\"ProxyPort\" value=\"" +
            std::to_string(where.port) + "\"/>\n</preferences>\n");
  }

  std::string gatewayAddress() const { return "127.0.0.1:" + std::to_string(gateway.port()); }

  /// The arguments of a selection that leaves its log in the home directory.
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

  Outcome runSelect(const std::vector<std::string>& more) const { return run(select(more)); }

  /// The requests for tunnels that squid has let through; it tries by itself whether there is
  /// anybody to hand them to.
  std::vector<std::string> tunnelsOpened() const {
    std::vector<std::string> requests = tunnels.all();
    std::erase(requests, "");
    return requests;
  }

  std::string log() const { return readFile(home + "/log"); }

  std::string passwordFile(const std::string& password) const {
    const std::string path = outside.Write("password", password + "\n");
    EXPECT_EQ(chmod(path.c_str(), 0600), 0);
    return path;
  }

  void expectNowhere(const std::string& secret, const Outcome& outcome) const {
    EXPECT_THAT(outcome.out, Not(HasSubstr(secret)));
    EXPECT_THAT(outcome.err, Not(HasSubstr(secret)));
    EXPECT_THAT(allFilesBelow(home), Not(HasSubstr(secret)));
  }

  const TemporaryDirectory outside;
  const TestAuthority authority;
  RequestLog tunnels;
  ScriptedServer gateway;
  ScriptedServer behindProxy;
  std::unique_ptr<SquidProxy> squid;
  std::string preferences;
};

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
  EXPECT_THAT(toldBySystem(program.pid()), Not(HasSubstr(WrongPassword)));
  program.type(Password + "\n");
  const Outcome outcome = program.finish();

  EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
  const std::string recorded = withoutCarriageReturns(outcome.err);
  RecordProperty("dialogue", recorded);
  const std::string dialogue = replaced(recorded.substr(0, recorded.find("\n\n")), squid->Address(),
                                        "proxy.example.com:3128");
  EXPECT_THAT(recorded, HasSubstr("QIB performed for proxy authentication attempt."));
  EXPECT_THAT(recorded, HasSubstr("Selected '" + gatewayAddress() + "' as the optimal server."));
  EXPECT_THAT(readFile(AHS_SOURCE_DIR "/docs/cli.md"),
              HasSubstr(replaced("    " + replaced(dialogue, gatewayAddress(), "gw-a.example.com"),
                                 "\n", "\n    ")));

  const std::vector<std::string> requests = tunnelsOpened();
  ASSERT_EQ(requests.size(), 1U) << "squid let one of the three runs through";
  EXPECT_THAT(requests[0], StartsWith("CONNECT 127.0.0.1:443 "));
  expectNowhere(Password, outcome);
  expectNowhere(WrongPassword, outcome);
  EXPECT_THAT(log(), HasSubstr("Starting QIB processing during connection attempt"));
  EXPECT_THAT(log(), HasSubstr("Starting QIB processing during proxy authentication"));
}

TEST_F(SelectProxyTest, TheResultOfAProgramIsCleanWhileAPersonIsAskedAtTheTerminal) {
  startSquid();
  Program program(select({"--json"}), environment, Program::Terminal::Errors);
  ASSERT_TRUE(program.waitForNext(NameQuestion));
  program.type(User + "\n");
  ASSERT_TRUE(program.waitForNext(PasswordQuestion));
  program.type(Password + "\n");
  const Outcome outcome = program.finish();
  EXPECT_EQ(outcome.exitStatus, 0);
  const json object = json::parse(outcome.out);
  EXPECT_EQ(object.at("reason"), 3);
  EXPECT_EQ(object.at("headends"), json({gatewayAddress()}));
  expectNowhere(Password, outcome);
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

TEST_F(SelectProxyTest, WithoutATerminalItSaysWhichOptionsLogIn) {
  startSquid();
  for (const std::vector<std::string>& more :
       {std::vector<std::string>{}, std::vector<std::string>{"--proxy-user", User}}) {
    const Outcome outcome = runSelect(more);
    EXPECT_EQ(outcome.exitStatus, 3);
    for (const char* text : {"for the realm 'Head office'", "--proxy-user NAME",
                             "--proxy-password-file FILE", "--proxy-password-fd N"}) {
      EXPECT_THAT(outcome.err, HasSubstr(text));
    }
    EXPECT_THAT(outcome.err, Not(HasSubstr(PasswordQuestion)));
  }
}

TEST_F(SelectProxyTest, APasswordFileLogsInWithTheFirstRun) {
  startSquid();
  const Outcome outcome =
      runSelect({"--json", "--proxy-user", User, "--proxy-password-file", passwordFile(Password)});
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
  EXPECT_EQ(json::parse(outcome.out).at("reason"), 0);
  ASSERT_EQ(tunnelsOpened().size(), 1U);
  expectNowhere(Password, outcome);
}

// ---- Which proxy ------------------------------------------------------------------------------

TEST_F(SelectProxyTest, TheCommandLineGoesBeforeThePreferencesAndThoseBeforeTheSystem) {
  const ScriptedServer ofSystem(answering(Challenge));
  const ScriptedServer ofPreferences(answering(Challenge));
  const ScriptedServer ofCommandLine(answering(Challenge));
  const std::vector<const ScriptedServer*> proxies = {&ofSystem, &ofPreferences, &ofCommandLine};
  environment.push_back("http_proxy=http://127.0.0.1:" + std::to_string(ofSystem.port()));
  const auto expect = [&](const std::vector<std::string>& options, const ScriptedServer* asked) {
    std::vector<unsigned int> before;
    for (const ScriptedServer* proxy : proxies) {
      before.push_back(proxy->accepted());
    }
    EXPECT_EQ(runSelect(options).exitStatus, asked == nullptr ? 0 : 3);
    for (std::size_t i = 0; i < proxies.size(); ++i) {
      EXPECT_EQ(proxies[i]->accepted() - before[i], proxies[i] == asked ? 1U : 0U) << i;
    }
  };
  const std::string other = "127.0.0.1:" + std::to_string(ofCommandLine.port());
  expect({"--no-cache"}, &ofSystem);
  expect({"--no-cache", "--no-proxy"}, nullptr);
  setProxy({"127.0.0.1", ofPreferences.port()});
  expect({"--no-cache"}, &ofPreferences);
  expect({"--no-cache", "--no-proxy"}, nullptr);
  expect({"--no-cache", "--proxy", other}, &ofCommandLine);
}

}  // namespace
}  // namespace tests
