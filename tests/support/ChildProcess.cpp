// Programs that a test runs. A process id is kept only from fork to wait, so no signal can reach a
// process that the test did not start.

#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "tests/support/TemporaryDirectory.h"

namespace tests {

namespace {

/// Debian's directories of servers, which an ordinary user's PATH lacks.
constexpr const char* ServerDirectories = "/usr/local/sbin:/usr/sbin:/sbin";

/// A server's time to end by itself. It has nothing to finish.
constexpr std::chrono::milliseconds TerminationLimit{3000};

/// Time limit of a program with a single task, on a machine busy with other tests.
constexpr std::chrono::milliseconds RunLimit{30000};

constexpr std::chrono::milliseconds PollInterval{5};

/// The child between fork and exec: only async-signal-safe calls are allowed. Returns if exec
/// failed.
void becomeProgram(char* const* arguments, const char* outputFile, const char* directory,
                   pid_t parent) {
  // The test may have died before it could be watched.
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent) {
    return;
  }
  sigset_t none;
  ::sigemptyset(&none);
  ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
  const int input = ::open("/dev/null", O_RDONLY);
  const int output = ::open(outputFile, O_WRONLY | O_CREAT | O_APPEND, 0600);
  if (input < 0 || output < 0 || ::dup2(input, STDIN_FILENO) < 0 ||
      ::dup2(output, STDOUT_FILENO) < 0 || ::dup2(output, STDERR_FILENO) < 0 ||
      ::chdir(directory) != 0) {
    return;
  }
  ::close(input);
  ::close(output);
  ::execv(arguments[0], arguments);
}

}  // namespace

std::string findProgram(const std::string& name, const std::string& debianPackage) {
  const char* const path = std::getenv("PATH");
  std::istringstream directories(std::string(path != nullptr ? path : "") + ":" +
                                 ServerDirectories);
  std::string directory;
  while (std::getline(directories, directory, ':')) {
    std::string candidate = directory;
    candidate.append("/").append(name);
    if (!directory.empty() && ::access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  throw std::runtime_error(name +
                           " is not installed, and this test needs it: install the package " +
                           debianPackage + " (`make test` does)");
}

ChildProcess::ChildProcess(const std::vector<std::string>& command, const std::string& outputFile,
                           const std::string& workingDirectory)
    : m_pid(-1), m_exitStatus(-1) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& argument : command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));  // execv(3) changes none of them
  }
  arguments.push_back(nullptr);

  const pid_t parent = ::getpid();
  m_pid = ::fork();
  if (m_pid == 0) {
    becomeProgram(arguments.data(), outputFile.c_str(), workingDirectory.c_str(), parent);
    ::_exit(127);
  }
  if (m_pid < 0) {
    throw std::runtime_error(std::string("no process: ") + std::strerror(errno));
  }
}

ChildProcess::~ChildProcess() { End(); }

bool ChildProcess::IsRunning() {
  if (m_exitStatus >= 0) {
    return false;
  }
  int status = 0;
  if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
    m_exitStatus = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }
  return m_exitStatus < 0;
}

bool ChildProcess::WaitForEnd(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (IsRunning()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(PollInterval);
  }
  return true;
}

void ChildProcess::End() {
  if (!IsRunning()) {
    return;
  }
  ::kill(m_pid, SIGTERM);
  if (WaitForEnd(TerminationLimit)) {
    return;
  }
  ::kill(m_pid, SIGKILL);
  int status = 0;
  ::waitpid(m_pid, &status, 0);
  m_exitStatus = 128 + SIGKILL;
}

void runToEnd(const std::vector<std::string>& command, const std::string& workingDirectory) {
  const TemporaryDirectory directory;
  const std::string output = directory.File("output");
  ChildProcess program(command, output, workingDirectory);
  if (!program.WaitForEnd(RunLimit)) {
    throw std::runtime_error(command.front() +
                             " does not come to an end; it wrote: " + readFile(output));
  }
  if (program.ExitStatus() != 0) {
    throw std::runtime_error(command.front() + " failed with " +
                             std::to_string(program.ExitStatus()) + ": " + readFile(output));
  }
}

}  // namespace tests
