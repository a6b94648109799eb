// Starts programs and leaves none behind: each is killed by its number when this process ends, and
// orphaned descendants become children of this process.

#include "simulator/Processes.h"

#include <dirent.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <system_error>
#include <thread>

namespace simulator {
namespace {

/// The child's code between fork and exec; async-signal-safe calls only.
[[noreturn]] void become(const Launch& launch, char* const* arguments, pid_t parent) {
  sigset_t none;
  sigemptyset(&none);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const bool prepared =
      getppid() == parent &&
      (launch.networkNamespace < 0 || setns(launch.networkNamespace, CLONE_NEWNET) == 0) &&
      (launch.standardInput < 0 || dup2(launch.standardInput, STDIN_FILENO) >= 0) &&
      (launch.standardOutput < 0 || dup2(launch.standardOutput, STDOUT_FILENO) >= 0) &&
      (launch.standardError < 0 || dup2(launch.standardError, STDERR_FILENO) >= 0);
  if (!prepared) _exit(ExitOwnFailure);
  std::signal(SIGPIPE, SIG_DFL);
  // A script's background jobs ignore SIGINT; a terminal could not interrupt them.
  std::signal(SIGINT, SIG_DFL);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  execvp(arguments[0], arguments);
  const int error = errno;
  const char* const reason = strerrordesc_np(error);
  for (const char* text : {static_cast<const char*>(arguments[0]), ": ", reason, "\n"}) {
    if (write(STDERR_FILENO, text, std::strlen(text)) < 0) break;
  }
  _exit(error == ENOENT ? ExitNotFound : ExitCannotExecute);
}

/// The children of this process; not every kernel has /proc/PID/task/TID/children.
std::vector<pid_t> children() {
  std::vector<pid_t> children;
  const std::unique_ptr<DIR, int (*)(DIR*)> processes(opendir("/proc"), closedir);
  if (!processes) return children;
  while (const dirent* entry = readdir(processes.get())) {
    pid_t pid = 0;
    const char* const end = entry->d_name + std::strlen(entry->d_name);
    if (std::from_chars(entry->d_name, end, pid).ptr != end) continue;
    std::ifstream file("/proc/" + std::string(entry->d_name) + "/stat");
    std::ostringstream text;
    text << file.rdbuf();  // of a process that has just ended, reading fails; this does not throw
    const std::string stat = text.str();
    // The form is "pid (name) state parent ...", and a name may contain brackets.
    const std::size_t nameEnd = stat.rfind(") ");
    if (nameEnd == std::string::npos || nameEnd + 4 >= stat.size()) continue;
    pid_t parent = 0;
    std::from_chars(stat.data() + nameEnd + 4, stat.data() + stat.size(), parent);
    if (parent == getpid()) children.push_back(pid);
  }
  return children;
}

/// @return whether no child is left.
bool reap() {
  pid_t ended = 0;
  do {
    ended = waitpid(-1, nullptr, WNOHANG);
  } while (ended > 0);
  return ended < 0 && errno == ECHILD;
}

}  // namespace

bool endWithParent() {
  const pid_t parent = getppid();
  return prctl(PR_SET_PDEATHSIG, SIGTERM) == 0 && getppid() == parent;
}

pid_t start(const Launch& launch) {
  std::vector<char*> arguments;
  for (const std::string& argument : launch.arguments) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (child == 0) become(launch, arguments.data(), parent);
  return child;
}

int exitStatus(int waitStatus) {
  constexpr int Signalled = 128;
  return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : Signalled + WTERMSIG(waitStatus);
}

int run(const Launch& launch) {
  const pid_t child = start(launch);
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "waitpid");
  }
  return exitStatus(status);
}

void adoptOrphans() { prctl(PR_SET_CHILD_SUBREAPER, 1); }

void endAllChildren(std::chrono::milliseconds patience) {
  constexpr auto Step = std::chrono::milliseconds(10);
  const auto patienceEnds = std::chrono::steady_clock::now() + patience;
  std::vector<pid_t> asked;
  // Terminates: a killed child does not come back, and the next turn kills its children. Without
  // /proc no child is found; they then die with this process.
  while (!reap()) {
    const bool kill = std::chrono::steady_clock::now() >= patienceEnds;
    const std::vector<pid_t> left = children();
    if (left.empty() && kill) return;
    for (const pid_t child : left) {
      if (kill) {
        ::kill(child, SIGKILL);
      } else if (std::ranges::find(asked, child) == asked.end()) {
        ::kill(child, SIGTERM);
        asked.push_back(child);
      }
    }
    std::this_thread::sleep_for(Step);
  }
}

}  // namespace simulator
