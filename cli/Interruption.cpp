// Ending by a signal. A thread of its own takes the signals, so that the process ends at once also
// while its main thread is stuck: in a write to a pipe that nobody reads, or on a file system that
// does not answer. What is tidied up gets a second; an alarm ends the process if it takes longer.

#include "cli/Interruption.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <system_error>
#include <thread>

#include "cli/ExitStatus.h"

namespace {

constexpr unsigned int LongestTidyUpSeconds = 1;

std::atomic<int> statusAtEnd{ExitSignalBase};

struct TidyUp {
  std::mutex lock;
  std::function<void()> operation;  // guarded by lock
};

// Never freed: the waiting thread may need it while the process is ending.
TidyUp& tidyUpState() {
  static TidyUp* const state = new TidyUp;
  return *state;
}

sigset_t signalsThatEnd() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  // nohup(1) starts a program with SIGHUP ignored and means it. SIGINT is taken even so: a shell
  // script's background job starts with it ignored, and kill -INT is then still a clear request.
  struct sigaction hangUp {};
  sigaction(SIGHUP, nullptr, &hangUp);
  if (hangUp.sa_handler != SIG_IGN) {
    sigaddset(&signals, SIGHUP);
  }
  return signals;
}

void endNow(int /*signal*/) { _exit(statusAtEnd); }

void limitTidyUp() {
  struct sigaction action {};
  action.sa_handler = endNow;
  sigaction(SIGALRM, &action, nullptr);
  sigset_t alarmOnly;
  sigemptyset(&alarmOnly);
  sigaddset(&alarmOnly, SIGALRM);
  pthread_sigmask(SIG_UNBLOCK, &alarmOnly, nullptr);
  alarm(LongestTidyUpSeconds);
}

void waitAndEnd(const sigset_t& signals) {
  int signal = 0;
  while (sigwait(&signals, &signal) != 0) {
  }
  statusAtEnd = ExitSignalBase + signal;
  limitTidyUp();
  TidyUp& state = tidyUpState();
  const std::lock_guard<std::mutex> guard(state.lock);
  if (state.operation) {
    state.operation();
  }
  _exit(statusAtEnd);
}

}  // namespace

void Interruption::begin() {
  signal(SIGPIPE, SIG_IGN);
  const sigset_t signals = signalsThatEnd();
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &signals, &before);
  try {
    std::thread(waitAndEnd, signals).detach();
  } catch (const std::system_error&) {
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }
}

void Interruption::setTidyUp(std::function<void()> tidyUp) {
  TidyUp& state = tidyUpState();
  const std::lock_guard<std::mutex> guard(state.lock);
  state.operation = std::move(tidyUp);
}
