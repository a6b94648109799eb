// Running another program. The command blocks signals for a thread that waits for them and ignores
// SIGPIPE; the program gets neither.

#include "cli/select/ChildProgram.h"

#include <errno.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "cli/ExitStatus.h"

namespace {

// As shells have it (POSIX, 2.8.2 "Exit Status for Commands").
constexpr int NotFound = 127;
constexpr int NotExecutable = 126;

// How often a wait with a limit looks: fast enough for a person, slow enough to cost nothing.
constexpr std::chrono::milliseconds LookInterval{20};

int statusOf(int wait) {
  return WIFSIGNALED(wait) ? ExitSignalBase + WTERMSIG(wait) : WEXITSTATUS(wait);
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

std::vector<std::string> environmentWith(const ChildProgram::Variables& variables) {
  std::vector<std::string> environment;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const std::string name = text.substr(0, text.find('='));
    const bool isReplaced = std::ranges::any_of(
        variables, [&name](const auto& variable) { return variable.first == name; });
    if (!isReplaced) {
      environment.push_back(text);
    }
  }
  for (const auto& [name, value] : variables) {
    environment.push_back(name + "=" + value);
  }
  return environment;
}

}  // namespace

ChildProgram::ChildProgram(const std::vector<std::string>& command, const Variables& variables)
    : m_problemStatus(0), m_pid(-1), m_isOurs(false) {
  // Whoever starts the command may ignore its children's ends; then there would be none to wait
  // for.
  ::signal(SIGCHLD, SIG_DFL);
  std::vector<std::string> arguments = command;
  std::vector<std::string> environment = environmentWith(variables);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigset_t changed;
  sigemptyset(&none);
  sigemptyset(&changed);
  sigaddset(&changed, SIGPIPE);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &changed);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  const int error = posix_spawnp(&m_pid, arguments.front().c_str(), nullptr, &attributes,
                                 pointersTo(arguments).data(), pointersTo(environment).data());
  posix_spawnattr_destroy(&attributes);
  if (error != 0) {
    m_problem = strerrordesc_np(error);
    m_problemStatus = error == ENOENT ? NotFound : NotExecutable;
  }
  const CAutoLockT<CManualLock> guard(m_lock);
  m_isOurs = error == 0;
}

std::optional<int> ChildProgram::waitForEnd(std::chrono::milliseconds longest) {
  const auto end = std::chrono::steady_clock::now() + longest;
  while (true) {
    siginfo_t ended{};
    if (waitid(P_PID, static_cast<id_t>(m_pid), &ended, WEXITED | WNOWAIT | WNOHANG) == 0 &&
        ended.si_pid == m_pid) {
      return takeStatus();
    }
    if (std::chrono::steady_clock::now() >= end) {
      return std::nullopt;
    }
    std::this_thread::sleep_for(LookInterval);
  }
}

int ChildProgram::waitForEnd() {
  siginfo_t ended{};
  while (waitid(P_PID, static_cast<id_t>(m_pid), &ended, WEXITED | WNOWAIT) != 0 &&
         errno == EINTR) {
  }
  return takeStatus();
}

/// Takes the status of a program that has ended, which gives its number back.
int ChildProgram::takeStatus() {
  const CAutoLockT<CManualLock> guard(m_lock);
  int status = 0;
  waitpid(m_pid, &status, 0);
  m_isOurs = false;
  return statusOf(status);
}

void ChildProgram::signal(int number) {
  const CAutoLockT<CManualLock> guard(m_lock);
  if (m_isOurs) {
    static_cast<void>(kill(m_pid, number));
  }
}
