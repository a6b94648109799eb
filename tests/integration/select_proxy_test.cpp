// `ahs select` behind proxies that ask for a login: the dialogue at a terminal with a real squid,
// the options that take its place, and the choice of the proxy. Wherever a password is at work, it
// is looked for in all that the program shows, logs and stores, and in what the system tells of it.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/integration/running_program.h"
#include "tests/support/LoopbackSockets.h"
#include "tests/support/RealServers.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestAuthority.h"

namespace tests {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* Welcome = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
constexpr const char* NoGateway = "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n";
constexpr const char* Challenge =
    "HTTP/1.1 407 Proxy Authentication Required\r\n"
    "Proxy-Authenticate: Basic realm=\"Scripted\"\r\nContent-Length: 0\r\nConnection: "
    "close\r\n\r\n";

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

/// A user with a home directory, a gateway with TLS, and preferences that name a proxy for all.
class SelectProxyTest : public testing::Test {
 protected:
  SelectProxyTest()
      : gateway(answeringOverTls(TlsServerContext(authority.issue()), Welcome)),
        behindProxy(answering(NoGateway, &tunnels)) {}

  void SetUp() override {
    home.MakeDirectory("home");
    environment = {"HOME=" + home.File("home"), "TERM=dumb", "PATH=/usr/bin:/bin"};
  }

  void startSquid(const std::string& realm = "Head office") {
    SquidProxy::Settings settings;
    settings.realm = realm;
    settings.parent = behindProxy.port();
    squid = std::make_unique<SquidProxy>(settings);
    setProxy(squid->Where());
  }

  /// Makes the machine's preferences name a proxy.
  void setProxy(const Endpoint& where) {
    preferences = home.Write(
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
                                          home.File("home/log")};
    if (!preferences.empty()) {
      arguments.insert(arguments.end(), {"--global-preferences", preferences});
    }
    arguments.insert(arguments.end(), more.begin(), more.end());
    arguments.push_back(gatewayAddress());
    return arguments;
  }

  Outcome run(const std::vector<std::string>& more) const {
    return Program(select(more), environment).finish();
  }

  /// The requests for tunnels that squid has let through; it tries by itself whether there is
  /// anybody to hand them to.
  std::vector<std::string> tunnelsOpened() const {
    std::vector<std::string> requests = tunnels.all();
    std::erase(requests, "");
    return requests;
  }

  std::string log() const { return readFile(home.File("home/log")); }

  std::string passwordFile(const std::string& password, mode_t mode = 0600) const {
    const std::string path = home.Write("password", password + "\n");
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return path;
  }

  void expectNowhere(const std::string& secret, const Outcome& outcome) const {
    EXPECT_THAT(outcome.out, Not(HasSubstr(secret)));
    EXPECT_THAT(outcome.err, Not(HasSubstr(secret)));
    EXPECT_THAT(allFilesBelow(home.File("home")), Not(HasSubstr(secret)));
  }

  const TemporaryDirectory home;
  const TestAuthority authority;
  RequestLog tunnels;
  ScriptedServer gateway;
  ScriptedServer behindProxy;
  std::unique_ptr<SquidProxy> squid;
  std::string preferences;
  std::vector<std::string> environment;
};

}  // namespace

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

TEST_F(SelectProxyTest, AfterThreeWrongPasswordsItGivesUp) {
  startSquid();
  Program program(select(), environment, Program::Terminal::All);
  for (int attempt = 0; attempt < 3; ++attempt) {
    ASSERT_TRUE(program.waitForNext(NameQuestion));
    program.type(User + "\n");
    ASSERT_TRUE(program.waitForNext(PasswordQuestion));
    program.type(std::string(WrongPassword) + "\n");
    ASSERT_TRUE(program.waitForNext("The proxy does not accept this user name and password."));
  }
  const Outcome outcome = program.finish();
  EXPECT_EQ(outcome.exitStatus, 3);
  EXPECT_THAT(outcome.err,
              HasSubstr("ahs: the proxy does not accept the user name and password for the realm "
                        "'Head office', so no headend was measured."));
  EXPECT_EQ(tunnelsOpened().size(), 0U);
  EXPECT_EQ(gateway.accepted(), 0U);
}

TEST_F(SelectProxyTest, AnEmptyUserNameGivesUp) {
  startSquid();
  Program program(select(), environment, Program::Terminal::Errors);
  ASSERT_TRUE(program.waitForNext(NameQuestion));
  program.type("\n");
  const Outcome outcome = program.finish();
  EXPECT_EQ(outcome.exitStatus, 3);
  EXPECT_THAT(outcome.err, HasSubstr("ahs: a proxy asks for authentication for the realm 'Head"));
  EXPECT_THAT(outcome.out, HasSubstr("\nStatus: Nothing was measured: a proxy asks"));
}

TEST_F(SelectProxyTest, ANamedUserIsAskedForThePasswordAlone) {
  startSquid();
  Program program(select({"--proxy-user", User}), environment, Program::Terminal::All);
  ASSERT_TRUE(program.waitForNext(PasswordQuestion));
  program.type(Password + "\n");
  const Outcome outcome = program.finish();
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_THAT(outcome.err, Not(HasSubstr("User name")));
}

TEST_F(SelectProxyTest, ARealmCannotTakeOverTheTerminal) {
  const ScriptedServer proxy(
      answering("HTTP/1.1 407 No\r\nProxy-Authenticate: Basic realm=\"Office \xe2\x80\xae\x9b"
                "2J\"\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"));
  setProxy({"127.0.0.1", proxy.port()});
  Program program(select(), environment, Program::Terminal::All);
  ASSERT_TRUE(program.waitForNext("'Office \\xe2\\x80\\xae\\x9b2J'")) << program.soFar().err;
  program.type("\n\n");
  EXPECT_EQ(program.finish().exitStatus, 3);
}

// ---- Signals during the dialogue --------------------------------------------------------------

TEST_F(SelectProxyTest, CtrlCAtThePasswordRestoresTheTerminal) {
  startSquid();
  Program program(select({"--proxy-user", User}), environment, Program::Terminal::All);
  ASSERT_TRUE(program.waitForNext(PasswordQuestion));
  ASSERT_FALSE(program.showsWhatIsTyped());
  program.type("half a \x03");
  const Outcome outcome = program.finish();
  EXPECT_EQ(outcome.exitStatus, 130);
  EXPECT_THAT(outcome.err, testing::EndsWith("Password: \r\n"));
}

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

TEST_F(SelectProxyTest, AStopThatCannotBeForeseenHidesThePasswordAgainAfterwards) {
  startSquid();
  Program program(select({"--proxy-user", User}), environment, Program::Terminal::Job);
  ASSERT_TRUE(program.waitForNext(PasswordQuestion));
  ASSERT_EQ(kill(program.pid(), SIGSTOP), 0);
  ASSERT_TRUE(program.waitForStop());
  program.bringBack();
  ASSERT_TRUE(program.waitForNext(PasswordQuestion));
  EXPECT_FALSE(program.showsWhatIsTyped());
  program.type(Password + "\n");
  EXPECT_EQ(program.finish().exitStatus, 0);
}

// ---- Without a terminal -----------------------------------------------------------------------

TEST_F(SelectProxyTest, WithoutATerminalItSaysWhichOptionsLogIn) {
  startSquid();
  for (const std::vector<std::string>& more :
       {std::vector<std::string>{}, std::vector<std::string>{"--proxy-user", User}}) {
    const Outcome outcome = run(more);
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
      run({"--json", "--proxy-user", User, "--proxy-password-file", passwordFile(Password)});
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
  EXPECT_EQ(json::parse(outcome.out).at("reason"), 0);
  ASSERT_EQ(tunnelsOpened().size(), 1U);
  expectNowhere(Password, outcome);
}

TEST_F(SelectProxyTest, APasswordDescriptorLogsInWithTheFirstRun) {
  startSquid();
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(fcntl(ends[1], F_SETFD, FD_CLOEXEC), 0);
  Program program(select({"--proxy-user", User, "--proxy-password-fd", std::to_string(ends[0])}),
                  environment);
  close(ends[0]);
  ASSERT_EQ(write(ends[1], Password.data(), Password.size()),
            static_cast<ssize_t>(Password.size()));
  close(ends[1]);
  const Outcome outcome = program.finish();
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
  EXPECT_EQ(tunnelsOpened().size(), 1U);
  expectNowhere(Password, outcome);
}

TEST_F(SelectProxyTest, NeitherArgumentsNorEnvironmentHaveThePassword) {
  // A proxy that keeps the program waiting while it is looked at.
  const SilentListener proxy("127.0.0.1");
  setProxy(proxy.Where());
  Program program(
      {"select", "--log-level", "info", "--global-preferences", preferences, "--proxy-user", User,
       "--proxy-password-file", passwordFile(Password), gatewayAddress()},
      environment);
  ASSERT_TRUE(program.waitForError("Sending test ping"));
  const std::string told = toldBySystem(program.pid());
  EXPECT_THAT(told, HasSubstr(User));
  EXPECT_THAT(told, Not(HasSubstr(Password)));
  EXPECT_THAT(program.soFar().err, Not(HasSubstr(Password)));
}

TEST_F(SelectProxyTest, AWrongPasswordOfAFileIsNotAskedForAgain) {
  startSquid();
  Program program(
      select({"--proxy-user", User, "--proxy-password-file", passwordFile(WrongPassword)}),
      environment, Program::Terminal::All);
  const Outcome outcome = program.finish();
  EXPECT_EQ(outcome.exitStatus, 3);
  EXPECT_THAT(outcome.err, HasSubstr("ahs: the proxy does not accept the user name and password"));
  EXPECT_THAT(outcome.err, Not(HasSubstr(PasswordQuestion)));
  expectNowhere(WrongPassword, outcome);
}

TEST_F(SelectProxyTest, APasswordFileThatOthersMayReadIsRefusedBeforeAnythingIsSent) {
  startSquid();
  const Outcome outcome =
      run({"--proxy-user", User, "--proxy-password-file", passwordFile(Password, 0640)});
  EXPECT_EQ(outcome.exitStatus, 2);
  EXPECT_THAT(outcome.err,
              HasSubstr("others may read or write it. Keep it to yourself: chmod 600"));
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(gateway.accepted(), 0U);
  expectNowhere(Password, outcome);
}

TEST_F(SelectProxyTest, APasswordAmongTheArgumentsIsRefusedWithoutRepeatingIt) {
  for (const std::vector<std::string>& more :
       {std::vector<std::string>{"--proxy-password", Password},
        std::vector<std::string>{"--proxy-password=" + Password},
        std::vector<std::string>{"--proxy-user", User + ":" + Password},
        std::vector<std::string>{"--proxy", User + ":" + Password + "@127.0.0.1:3128"},
        std::vector<std::string>{"--proxy-user", User, "--proxy-password-fd", Password}}) {
    const Outcome outcome = run(more);
    EXPECT_EQ(outcome.exitStatus, 2);
    EXPECT_THAT(outcome.err, HasSubstr("--proxy-password-"));
    expectNowhere(Password, outcome);
  }
}

// ---- Which proxy ------------------------------------------------------------------------------

TEST_F(SelectProxyTest, AProxyOfTheCommandLineGoesBeforeThePreferences) {
  const ScriptedServer ofPreferences(answering(Challenge));
  const ScriptedServer ofCommandLine(answering(Challenge));
  setProxy({"127.0.0.1", ofPreferences.port()});
  EXPECT_EQ(run({"--proxy", "127.0.0.1:" + std::to_string(ofCommandLine.port())}).exitStatus, 3);
  EXPECT_EQ(ofPreferences.accepted(), 0U);
  EXPECT_EQ(ofCommandLine.accepted(), 1U);
}

TEST_F(SelectProxyTest, AProxyOfTheCommandLineMayHaveAnIpv6Address) {
  if (!hasAddress("::1")) {
    GTEST_SKIP() << "this machine has no ::1";
  }
  const ScriptedServer proxy(answering(Challenge), "::1");
  EXPECT_EQ(run({"--proxy", "[::1]:" + std::to_string(proxy.port())}).exitStatus, 3);
  EXPECT_EQ(proxy.accepted(), 1U);
}

TEST_F(SelectProxyTest, NoProxyGoesBeforeThePreferences) {
  const ScriptedServer ofPreferences(answering(Challenge));
  setProxy({"127.0.0.1", ofPreferences.port()});
  EXPECT_EQ(run({"--no-proxy"}).exitStatus, 0);
  EXPECT_EQ(ofPreferences.accepted(), 0U);
}

TEST_F(SelectProxyTest, NoProxyGoesBeforeTheSystemsSettings) {
  const ScriptedServer ofSystem(answering(Challenge));
  environment.push_back("http_proxy=http://127.0.0.1:" + std::to_string(ofSystem.port()));
  EXPECT_EQ(run({"--no-proxy"}).exitStatus, 0);
  EXPECT_EQ(ofSystem.accepted(), 0U);
}

TEST_F(SelectProxyTest, WithoutAChoiceTheSystemsProxyIsUsed) {
  startSquid();
  preferences.clear();
  environment.push_back("http_proxy=http://" + squid->Address());
  environment.push_back("https_proxy=http://" + squid->Address());
  Program program(select(), environment, Program::Terminal::All);
  ASSERT_TRUE(program.waitForNext("A proxy asks for a login for 'Head office'."));
  ASSERT_TRUE(program.waitForNext(NameQuestion));
  program.type(User + "\n");
  ASSERT_TRUE(program.waitForNext(PasswordQuestion));
  program.type(Password + "\n");
  EXPECT_EQ(program.finish().exitStatus, 0);
  EXPECT_EQ(tunnelsOpened().size(), 1U);
}

}  // namespace tests
