// Signals in the middle of a selection. They are handled on the host's threads alone, interrupt
// nothing that the selection does, and none is raised by what a peer does.

#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "tests/host/HostScene.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"

namespace tests {
namespace {

constexpr std::size_t MostThreads = 64;

/// Threads on which a handler has run. Written by handlers, hence no lock.
std::array<std::atomic<pid_t>, MostThreads> g_handledOn;
std::atomic<int> g_handled{0};

void remember(int /*signal*/) {
  ++g_handled;
  const pid_t self = gettid();
  for (std::atomic<pid_t>& thread : g_handledOn) {
    pid_t free = 0;
    if (thread.compare_exchange_strong(free, self) || free == self) {
      return;
    }
  }
}

/// Installs a handler without SA_RESTART for the length of a scope.
class Handler {
 public:
  Handler(int signal, void (*handler)(int)) : m_signal(signal) {
    g_handled = 0;
    for (std::atomic<pid_t>& thread : g_handledOn) {
      thread = 0;
    }
    struct sigaction action {};
    action.sa_handler = handler;
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

  // Gateways in a process of their own: this one has the test's threads and the library's alone.
  const GatewayProcess m_gateways{{"", "delay=30", "delay=60"}};
  Host m_host;
  Client m_client;
};

TEST_P(SignalledHost, HandlesSignalsThatComeDuringARunOnItsOwnThreads) {
  const Handler handler(GetParam(), remember);
  std::atomic<pid_t> runThread{0};
  std::atomic<bool> ended{false};
  std::thread run([&] {
    runThread = gettid();
    makeRun(m_client, AtConnection, "", new SecureProvider)->run();
    ended = true;
  });
  while (!ended) {
    kill(getpid(), GetParam());
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  run.join();

  EXPECT_EQ(m_client.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
  EXPECT_EQ(m_client.Calls().at(0).headends.size(), m_gateways.Addresses().size());
  EXPECT_GT(g_handled, 0);
  for (const std::atomic<pid_t>& thread : g_handledOn) {
    EXPECT_TRUE(thread == 0 || thread == getpid() || thread == runThread)
        << "handled on thread " << thread << ", which is not the host's";
  }
}

INSTANTIATE_TEST_SUITE_P(Host, SignalledHost, testing::Values(SIGALRM, SIGINT, SIGPIPE),
                         [](const auto& instance) {
                           return std::string(sigabbrev_np(instance.param));
                         });

/// Interrupts the process every so often.
class Storm {
 public:
  explicit Storm(std::chrono::microseconds interval) {
    const timeval pause{0, interval.count()};
    const itimerval timer{pause, pause};
    setitimer(ITIMER_REAL, &timer, nullptr);
  }
  ~Storm() {
    const itimerval none{};
    setitimer(ITIMER_REAL, &none, nullptr);
  }
  Storm(const Storm&) = delete;
  Storm& operator=(const Storm&) = delete;
};

using StormyHost = SignalledHost;

TEST_F(StormyHost, ARunOnTheThreadThatIsInterruptedAllTheTimeEndsAsAnyOther) {
  const Handler handler(SIGALRM, remember);
  {
    const Storm storm(std::chrono::microseconds(300));
    makeRun(m_client, AtConnection, "", new SecureProvider)->run();
    Client again;
    makeRun(again)->run();
    EXPECT_EQ(again.Status(), 0) << "the selection was not stored";
  }
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
  const Handler handler(SIGPIPE, remember);
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
