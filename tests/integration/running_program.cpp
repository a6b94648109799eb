// Runs `ahs` like a user. Everything that the child needs between fork and exec is made before the
// fork, because another thread may then hold the allocator's lock.

#include "tests/integration/running_program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

#include <stdexcept>

namespace tests {

namespace {

// Longer than any run; a hanging program fails its test, not the whole suite.
constexpr auto LongestRun = std::chrono::seconds(60);

struct Child {
  std::vector<char*> argv;
  std::vector<char*> envp;
  int out;     // -1: the terminal
  int err;     // the program's side of the terminal, if any
  int events;  // events of a shell's job; -1 without a shell
  int orders;
};

std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (const std::string& text : texts) {
    pointers.push_back(const_cast<char*>(text.c_str()));
  }
  pointers.push_back(nullptr);
  return pointers;
}

void makePipe(int (&ends)[2]) {
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
}

[[noreturn]] void becomeProgram(const Child& child) {
  if (child.out >= 0) {
    dup2(child.out, STDOUT_FILENO);
  }
  execve(AHS_PROGRAM, child.argv.data(), child.envp.data());
  _exit(127);
}

// Acts like a shell with job control for one foreground job.
[[noreturn]] void becomeShell(const Child& child) {
  signal(SIGTTOU, SIG_IGN);
  const pid_t job = fork();
  if (job == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setpgid(0, 0);
    tcsetpgrp(STDIN_FILENO, getpid());
    signal(SIGTTOU, SIG_DFL);
    becomeProgram(child);
  }
  setpgid(job, job);
  tcsetpgrp(STDIN_FILENO, job);
  bool isToldOf = write(child.events, &job, sizeof job) == sizeof job;
  int status = 0;
  while (isToldOf && waitpid(job, &status, WUNTRACED) == job && WIFSTOPPED(status)) {
    tcsetpgrp(STDIN_FILENO, getpgrp());
    char order = 's';
    isToldOf = write(child.events, &order, 1) == 1 && read(child.orders, &order, 1) == 1;
    tcsetpgrp(STDIN_FILENO, job);
    kill(-job, SIGCONT);
  }
  _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

[[noreturn]] void become(const Child& child, bool hasTerminal) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (hasTerminal) {
    login_tty(child.err);  // makes it the controlling terminal, so that Ctrl-C is a signal
  } else {
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(child.err, STDERR_FILENO);
  }
  if (child.events >= 0) {
    becomeShell(child);
  }
  becomeProgram(child);
}

void closeIfOpen(int& descriptor) {
  if (descriptor >= 0) {
    close(descriptor);
    descriptor = -1;
  }
}

void readFrom(const pollfd& output, int& descriptor, std::string& text) {
  char bytes[4096];
  const ssize_t count = output.revents == 0 ? 0 : read(descriptor, bytes, sizeof bytes);
  if (count > 0) {
    text.append(bytes, static_cast<std::size_t>(count));
  } else if (output.revents != 0) {
    // Without users a terminal gives an error, a pipe its end.
    closeIfOpen(descriptor);
  }
}

}  // namespace

Program::Program(const std::vector<std::string>& arguments,
                 const std::vector<std::string>& environment, Terminal terminal, int standardOutput,
                 Window window)
    : m_deadline(std::chrono::steady_clock::now() + LongestRun) {
  const bool hasOut = terminal == Terminal::None || terminal == Terminal::Errors;
  int out[2] = {-1, standardOutput};
  int err[2];
  int events[2] = {-1, -1};
  int orders[2] = {-1, -1};
  const winsize size{window.rows, window.columns, 0, 0};
  if (hasOut && standardOutput < 0) {
    makePipe(out);
  }
  if (terminal == Terminal::None) {
    makePipe(err);
  } else if (openpty(&err[0], &err[1], nullptr, nullptr, &size) != 0 ||
             fcntl(err[0], F_SETFD, FD_CLOEXEC) != 0) {
    throw std::runtime_error("no terminal");
  }
  if (terminal == Terminal::Job) {
    makePipe(events);
    makePipe(orders);
  }
  std::vector<std::string> words = arguments;
  words.insert(words.begin(), "ahs");
  const Child child{pointersTo(words), pointersTo(environment), out[1], err[1], events[1],
                    orders[0]};
  m_pid = fork();
  if (m_pid == 0) {
    become(child, terminal != Terminal::None);
  }
  m_out = out[0];
  m_err = err[0];
  m_events = events[0];
  m_orders = orders[1];
  if (standardOutput < 0) {
    closeIfOpen(out[1]);
  }
  closeIfOpen(err[1]);
  closeIfOpen(events[1]);
  closeIfOpen(orders[0]);
  if (terminal == Terminal::Job && read(m_events, &m_job, sizeof m_job) != sizeof m_job) {
    throw std::runtime_error("no job");
  }
}

Program::~Program() {
  if (m_pid > 0) {
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
  }
  for (int* const descriptor : {&m_out, &m_err, &m_events, &m_orders}) {
    closeIfOpen(*descriptor);
  }
}

void Program::resize(Window window) const {
  const winsize size{window.rows, window.columns, 0, 0};
  EXPECT_EQ(ioctl(m_err, TIOCSWINSZ, &size), 0) << "the terminal keeps its size";
}

void Program::hangUp() { closeIfOpen(m_err); }

void Program::type(const std::string& text) const {
  EXPECT_EQ(write(m_err, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

bool Program::showsWhatIsTyped() const {
  termios state{};
  return tcgetattr(m_err, &state) == 0 && (state.c_lflag & ECHO) != 0;
}

bool Program::waitFor(const std::string& shown, std::size_t from, const std::string& text) {
  while (shown.find(text, from) == std::string::npos) {
    if (!readSome()) {
      return false;
    }
  }
  return true;
}

bool Program::waitForNext(const std::string& text) {
  const bool hasCome = waitFor(m_outcome.err, m_next, text);
  m_next = hasCome ? m_outcome.err.find(text, m_next) + text.size() : m_next;
  return hasCome;
}

bool Program::waitForStop() {
  pollfd event{m_events, POLLIN, 0};
  constexpr int LongestWaitMs = 10000;
  char stopped = 0;
  return poll(&event, 1, LongestWaitMs) == 1 && read(m_events, &stopped, 1) == 1;
}

void Program::bringBack() const { EXPECT_EQ(write(m_orders, "c", 1), 1) << "the shell has gone"; }

Outcome Program::finish() {
  while (readSome()) {
  }
  int status = 0;
  waitpid(m_pid, &status, 0);
  m_pid = -1;
  m_outcome.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return m_outcome;
}

// Waits for output and reads it from both descriptors. Returns false at the end of both, or after
// killing a program that takes too long.
bool Program::readSome() {
  pollfd outputs[2] = {{m_out, POLLIN, 0}, {m_err, POLLIN, 0}};
  if (m_out < 0 && m_err < 0) {
    return false;
  }
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      m_deadline - std::chrono::steady_clock::now());
  if (left.count() <= 0 || poll(outputs, 2, static_cast<int>(left.count())) == 0) {
    ADD_FAILURE() << "the program did not end; it has shown: " << m_outcome.err;
    kill(m_pid, SIGKILL);
    return false;
  }
  readFrom(outputs[0], m_out, m_outcome.out);
  readFrom(outputs[1], m_err, m_outcome.err);
  return true;
}

Outcome runForNobody(const std::vector<std::string>& arguments,
                     const std::vector<std::string>& environment) {
  int ends[2];
  makePipe(ends);
  close(ends[0]);
  Program program(arguments, environment, Program::Terminal::None, ends[1]);
  close(ends[1]);
  return program.finish();
}

}  // namespace tests
