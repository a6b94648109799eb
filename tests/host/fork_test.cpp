// A host that forks during a selection. A program that the child executes gets none of the
// component's descriptors, and even a child that stays does not disturb the parent's run.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <random>

#include "tests/host/HostScene.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"

namespace tests {
namespace {

/// Whether it is one of a pair of sockets, the other of which may be closed already.
bool isOfPair(int descriptor) {
  sockaddr_un address{};
  socklen_t length = sizeof address;
  return getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
         address.sun_family == AF_UNIX && length == offsetof(sockaddr_un, sun_path);
}

/// Number of descriptors that a program would get, if a child of `fork` executed it now. Ignores
/// socket pairs: libcurl makes one for each transfer, without close-on-exec; it leads nowhere. The
/// child makes only calls that are allowed between fork and exec.
int descriptorsForAnExecdProgram() {
  constexpr int Most = 250;
  const pid_t child = fork();
  if (child == 0) {
    int count = 0;
    for (int descriptor = 0; descriptor < Most; ++descriptor) {
      const int flags = fcntl(descriptor, F_GETFD);
      count += flags >= 0 && (flags & FD_CLOEXEC) == 0 && !isOfPair(descriptor) ? 1 : 0;
    }
    _exit(fcntl(Most, F_GETFD) < 0 ? count : -1);
  }
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class ForkingHost : public testing::Test {
 protected:
  ForkingHost() { m_host.BringUp(m_gateways.Addresses()); }

  /// Starts a run over TLS on a separate thread; it lasts until `EndRun`.
  void StartRun() {
    m_client = std::make_unique<Client>();
    m_ended = false;
    m_run = std::thread([this] {
      makeRun(*m_client, AtReconnection, "", new SecureProvider)->run();
      m_ended = true;
    });
  }
  void EndRun() {
    m_run.join();
    EXPECT_EQ(m_client->Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
    EXPECT_EQ(m_client->Calls().at(0).headends.size(), m_gateways.Addresses().size());
    m_host.ForgetSelections();
  }

  const GatewayProcess m_gateways{{"", "delay=4", "delay=8"}};
  Host m_host;
  std::unique_ptr<Client> m_client;
  std::atomic<bool> m_ended{false};
  std::thread m_run;
};

TEST_F(ForkingHost, InTheMiddleOfRunsHandsNoDescriptorToTheProgramThatTheChildExecs) {
  constexpr int Forks = 100;
  const int before = descriptorsForAnExecdProgram();  // the test's own, from whoever ran it
  std::minstd_rand random(1);
  std::uniform_int_distribution<int> pause(0, 3000);
  int forks = 0;
  while (forks < Forks) {
    StartRun();
    while (!m_ended) {
      std::this_thread::sleep_for(std::chrono::microseconds(pause(random)));
      EXPECT_EQ(descriptorsForAnExecdProgram(), before);
      ++forks;
    }
    EndRun();
  }
  m_host.TakeDown();
  EXPECT_TRUE(nothingIsLeft());
}

/// A child that does nothing until it is killed.
class IdleChild {
 public:
  IdleChild() : m_child(fork()) {
    while (m_child == 0) {
      pause();
    }
  }
  ~IdleChild() {
    kill(m_child, SIGKILL);
    waitpid(m_child, nullptr, 0);
  }
  IdleChild(const IdleChild&) = delete;
  IdleChild& operator=(const IdleChild&) = delete;

 private:
  const pid_t m_child;
};

TEST_F(ForkingHost, WithAChildThatStaysLetsItsRunsEndAndItsConnectionsBeAnswered) {
  StartRun();
  const IdleChild child;
  EndRun();
  StartRun();
  EndRun();
  m_host.TakeDown();
  EXPECT_TRUE(nothingIsLeft());
}

}  // namespace
}  // namespace tests
