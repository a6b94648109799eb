// Signals during a selection. Only the host's threads handle them, they interrupt nothing of the
// selection, and no peer's action raises one.

#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include "tests/host/HostScene.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"

namespace tests {
namespace {

/// Numbers of handled signals, and of those handled on other threads than the host's.
std::atomic<int> g_handled{0};
std::atomic<int> g_handledElsewhere{0};
std::atomic<pid_t> g_runThread{0};

void remember(int /*signal*/) {
  ++g_handled;
  g_handledElsewhere += gettid() != getpid() && gettid() != g_runThread ? 1 : 0;
}

/// Installs a handler without SA_RESTART for the length of a scope.
class Handler {
 public:
  explicit Handler(int signal) : m_signal(signal) {
    g_handled = 0;
    g_handledElsewhere = 0;
    struct sigaction action {};
    action.sa_handler = remember;
    sigaction(m_signal, &action, &m_before);
  }
  ~Handler() { sigaction(m_signal, &m_before, nullptr); }
  Handler(const Handler&) = delete;
  Handler& operator=(const Handler&) = delete;

 private:
  const int m_signal;
  struct sigaction m_before {};
};

class SignalledHost : public testing::TestWithParam<int> {
 protected:
  SignalledHost() { m_host.BringUp(m_gateways.Addresses()); }

  // Gateways in another process: this one has only threads of the test and the library.
  const GatewayProcess m_gateways{{"", "delay=30", "delay=60"}};
  Host m_host;
  Client m_client;
};

TEST_P(SignalledHost, HandlesSignalsThatComeDuringARunOnItsOwnThreads) {
  const Handler handler(GetParam());
  g_runThread = 0;
  std::atomic<bool> ended{false};
  std::thread run([&] {
    g_runThread = gettid();
    g_runThread.notify_one();
    makeRun(m_client, AtConnection, "", new SecureProvider)->run();
    ended = true;
  });
  g_runThread.wait(0);
  while (!ended) {
    kill(getpid(), GetParam());
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  run.join();

  EXPECT_EQ(m_client.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
  EXPECT_EQ(m_client.Calls().at(0).headends.size(), m_gateways.Addresses().size());
  EXPECT_GT(g_handled, 0);
  EXPECT_EQ(g_handledElsewhere, 0);
}

INSTANTIATE_TEST_SUITE_P(Host, SignalledHost, testing::Values(SIGALRM, SIGINT, SIGPIPE),
                         [](const auto& instance) {
                           return std::string(sigabbrev_np(instance.param));
                         });

using StormyHost = SignalledHost;

TEST_F(StormyHost, ARunOnTheThreadThatIsInterruptedAllTheTimeEndsAsAnyOther) {
  const Handler handler(SIGALRM);
  constexpr timeval Interval{0, 300};
  const itimerval storm{Interval, Interval};
  setitimer(ITIMER_REAL, &storm, nullptr);
  Client again;
  makeRun(m_client, AtConnection, "", new SecureProvider)->run();
  makeRun(again)->run();
  const itimerval none{};
  setitimer(ITIMER_REAL, &none, nullptr);
  EXPECT_EQ(again.Status(), 0) << "the selection was not stored";
  EXPECT_GT(g_handled, 50) << "there was no storm";
  EXPECT_EQ(m_client.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
  EXPECT_EQ(m_client.Calls().at(0).headends.size(), m_gateways.Addresses().size());
}

/// What a gateway does to a client in the middle of something, so that its next write would raise
/// SIGPIPE.
void hangUp(Connection& connection) { connection.resetAtEnd(); }
void hangUpAfterTheFirstBytes(Connection& connection) {
  connection.readSome();
  connection.resetAtEnd();
}

TEST(AGatewayThatHangsUp, RaisesNoSignalInTheHost) {
  const Handler handler(SIGPIPE);
  constexpr int Rounds = 10;
  for (const auto& script : {hangUp, hangUpAfterTheFirstBytes}) {
    const ScriptedServer gateway(script);
    Host host;
    host.BringUp({"127.0.0.1:" + std::to_string(gateway.port())});
    for (int i = 0; i < Rounds; ++i) {
      host.ForgetSelections();
      Client client;
      ProxyIfc* const proxy = i % 2 == 0 ? nullptr : new SecureProvider;
      makeRun(client, AtConnection, "", proxy)->run();
      EXPECT_NE(client.Status(), -1);
    }
  }
  EXPECT_EQ(g_handled, 0);
}

}  // namespace
}  // namespace tests
