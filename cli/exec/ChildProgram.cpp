// Runs another program with the inherited descriptors and signals of the command. The command's own
// descriptors must not leak: some libraries open theirs without close-on-exec.

#include "cli/exec/ChildProgram.h"

#include <errno.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>
#include <thread>

#include "cli/ExitStatus.h"
#include "cli/Surroundings.h"

namespace {

using std::chrono::steady_clock;

// How often a limited wait checks whether the program has ended.
constexpr std::chrono::milliseconds LookInterval{20};

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
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

/// Passes on the inherited descriptors and no others.
void passDescriptors(ChildProgram::Output output, posix_spawn_file_actions_t& actions) {
  if (output == ChildProgram::Output::Errors) {
    posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
  }
  int next = STDERR_FILENO + 1;
  for (const int inherited : Surroundings::descriptors()) {
    for (; next < inherited; ++next) {
      posix_spawn_file_actions_addclose(&actions, next);
    }
    ++next;
  }
  posix_spawn_file_actions_addclosefrom_np(&actions, next);
}

/// Passes on the inherited signal settings.
void passSignals(posix_spawnattr_t& attributes) {
  sigset_t changed;
  sigemptyset(&changed);
  for (const int signal : {SIGPIPE, SIGXFSZ}) {
    if (!Surroundings::wasIgnored(signal)) {
      sigaddset(&changed, signal);
    }
  }
  posix_spawnattr_setsigmask(&attributes, &Surroundings::blockedSignals());
  posix_spawnattr_setsigdefault(&attributes, &changed);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
}

}  // namespace

ChildProgram::ChildProgram(const std::vector<std::string>& command, const Variables& variables,
                           Output output)
    : m_problemStatus(0), m_pid(-1), m_isOurs(false) {
  // The parent may have made us ignore SIGCHLD; then no child's status could be waited for.
  ::signal(SIGCHLD, SIG_DFL);
  std::vector<std::string> arguments = command;
  std::vector<std::string> environment = environmentWith(variables);
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attributes);
  passDescriptors(output, actions);
  passSignals(attributes);
  Surroundings::restoreDescriptorLimit();
  const int error = posix_spawnp(&m_pid, arguments.front().c_str(), &actions, &attributes,
                                 pointersTo(arguments).data(), pointersTo(environment).data());
  Surroundings::raiseDescriptorLimit();
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    m_problem = std::system_category().message(error);
    m_problemStatus = error == ENOENT ? ExitNoProgram : ExitCannotRun;
    return;
  }
  const CAutoLockT<CManualLock> guard(m_lock);
  m_isOurs = true;
}

bool ChildProgram::hasEnded(bool waits) const {
  siginfo_t ended{};
  const int options = WEXITED | WNOWAIT | (waits ? 0 : WNOHANG);
  while (waitid(P_PID, static_cast<id_t>(m_pid), &ended, options) != 0 && errno == EINTR) {
  }
  return ended.si_pid == m_pid;
}

std::optional<ChildProgram::End> ChildProgram::waitForEnd(std::chrono::milliseconds longest) {
  const auto limit = steady_clock::now() + longest;
  while (!hasEnded(false)) {
    if (steady_clock::now() >= limit) {
      return std::nullopt;
    }
    std::this_thread::sleep_for(LookInterval);
  }
  return takeEnd();
}

ChildProgram::End ChildProgram::waitForEnd() {
  static_cast<void>(hasEnded(true));
  return takeEnd();
}

/// Takes the status of an ended program; its process number becomes free.
ChildProgram::End ChildProgram::takeEnd() {
  const CAutoLockT<CManualLock> guard(m_lock);
  int status = 0;
  waitpid(m_pid, &status, 0);
  m_isOurs = false;
  if (WIFSIGNALED(status)) {
    return {ExitSignalBase + WTERMSIG(status), true};
  }
  return {WEXITSTATUS(status), false};
}

bool ChildProgram::signal(int number, bool fromTerminal) {
  const CAutoLockT<CManualLock> guard(m_lock);
  if (m_isOurs && !(fromTerminal && getpgid(m_pid) == getpgrp())) {
    static_cast<void>(kill(m_pid, number));
  }
  return m_isOurs;
}
