// A host that forks in the middle of a selection. The child execs or ends at once; the exec'd
// program is given none of the component's descriptors, and the parent's run is not disturbed, nor
// by a child that stays.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <random>
#include <sstream>

#include "tests/host/HostScene.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"

namespace tests {
namespace {

/// What a child process wrote, and how it ended.
struct Ended {
  std::string output;
  int status = -1;
};

/// Forks; the child does nothing but what is allowed between fork and exec.
/// @param program null: the child ends at once.
Ended forkAndRun(const char* program) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  const pid_t child = fork();
  if (child == 0) {
    if (program != nullptr && dup2(ends[1], STDOUT_FILENO) >= 0) {
      execl(program, program, nullptr);
    }
    _exit(program == nullptr ? 0 : 1);
  }
  close(ends[1]);
  Ended ended;
  std::array<char, 4096> buffer{};
  for (ssize_t count = 1; (count = read(ends[0], buffer.data(), buffer.size())) > 0;) {
    ended.output.append(buffer.data(), static_cast<std::size_t>(count));
  }
  close(ends[0]);
  int status = 0;
  if (child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status)) {
    ended.status = WEXITSTATUS(status);
  }
  return ended;
}

/// What an exec'd program is given, the ends of socket pairs left out: libcurl makes one pair for
/// each transfer and offers no way to have it closed on exec. It leads nowhere.
std::string descriptorsOfAnExecdProgram() {
  const Ended ended = forkAndRun(AHS_OPEN_DESCRIPTORS);
  EXPECT_EQ(ended.status, 0);
  std::istringstream lines(ended.output);
  std::string others;
  std::string line;
  while (std::getline(lines, line)) {
    others += line == "pair" ? "" : line + "\n";
  }
  return others;
}

class ForkingHost : public testing::Test {
 protected:
  ForkingHost() { m_host.BringUp(m_gateways.Addresses()); }

  /// A run over TLS on a thread of its own, in the background until `EndRun`.
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
  const std::string before = descriptorsOfAnExecdProgram();  // the test's own, from whoever ran it
  std::minstd_rand random(1);
  std::uniform_int_distribution<int> pause(0, 3000);
  int forks = 0;
  while (forks < Forks) {
    StartRun();
    while (!m_ended) {
      std::this_thread::sleep_for(std::chrono::microseconds(pause(random)));
      EXPECT_EQ(descriptorsOfAnExecdProgram(), before);
      EXPECT_EQ(forkAndRun(nullptr).status, 0);
      ++forks;
    }
    EndRun();
  }
  m_host.TakeDown();
  EXPECT_TRUE(nothingIsLeft());
}

/// A child that is there until it is killed, and calls nothing meanwhile.
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
