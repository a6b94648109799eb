// Signals that end or stop the process. A separate thread takes them, so that the process ends at
// once even if its main thread hangs in a write to a full pipe or on a dead file system. Cleaning
// up has one second; then an alarm ends the process.

#include "cli/Interruption.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <system_error>
#include <thread>
#include <utility>

#include "cli/ExitStatus.h"
#include "cli/Surroundings.h"
#include "vpn/include/Locks.h"

namespace {

constexpr unsigned int LongestTidyUpSeconds = 1;

std::atomic<int> statusAtEnd{ExitSignalBase};

struct State {
  CManualLock lock;
  Interruption::Duties duties AHS_GUARDED_BY(lock);
};

// Never freed: the waiting thread may need it while the process is ending.
State& state() {
  static State* const instance = new State;
  return *instance;
}

sigset_t signalsOfInterest() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGQUIT);
  sigaddset(&signals, SIGCONT);
  // nohup(1) starts a program with SIGHUP ignored and means it; so does a shell without job control
  // with SIGTSTP. `isMeantForOthers` decides about SIGINT and SIGQUIT.
  for (const int signal : {SIGHUP, SIGTSTP, SIGUSR1, SIGUSR2}) {
    if (!Surroundings::wasIgnored(signal)) {
      sigaddset(&signals, signal);
    }
  }
  return signals;
}

sigset_t only(int signal) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, signal);
  return signals;
}

void endNow(int /*signal*/) { _exit(statusAtEnd); }

void limitTidyUp() {
  struct sigaction action {};
  action.sa_handler = endNow;
  sigaction(SIGALRM, &action, nullptr);
  const sigset_t alarmOnly = only(SIGALRM);
  pthread_sigmask(SIG_UNBLOCK, &alarmOnly, nullptr);
  alarm(LongestTidyUpSeconds);
}

void perform(std::function<void()> Interruption::Duties::*duty) {
  State& all = state();
  const CAutoLockT<CManualLock> guard(all.lock);
  if (all.duties.*duty) {
    (all.duties.*duty)();
  }
}

bool isTakenOver(int signal, bool fromTerminal) {
  State& all = state();
  const CAutoLockT<CManualLock> guard(all.lock);
  return all.duties.takeOver && all.duties.takeOver(signal, fromTerminal);
}

[[noreturn]] void end(int signal) {
  statusAtEnd = ExitSignalBase + signal;
  limitTidyUp();
  perform(&Interruption::Duties::beforeEnd);
  _exit(statusAtEnd);
}

// Stops by the signal itself: the kernel then refuses if no shell is left to continue the process.
void stop() {
  perform(&Interruption::Duties::beforeStop);
  const sigset_t stopOnly = only(SIGTSTP);
  pthread_sigmask(SIG_UNBLOCK, &stopOnly, nullptr);
  raise(SIGTSTP);
  pthread_sigmask(SIG_BLOCK, &stopOnly, nullptr);
  // SIGCONT continued the process and is pending; this function does its work.
  const sigset_t continueOnly = only(SIGCONT);
  const timespec atOnce{};
  static_cast<void>(sigtimedwait(&continueOnly, nullptr, &atOnce));
  perform(&Interruption::Duties::afterStop);
}

/// The terminal's signals come from the kernel; a hang-up goes to the session's leader alone.
bool isFromTerminal(const siginfo_t& told) {
  return told.si_code == SI_KERNEL && told.si_signo != SIGHUP;
}

/// A shell without job control starts background jobs with SIGINT and SIGQUIT ignored: the
/// terminal's are not meant for them. kill -INT is a clear request.
bool isMeantForOthers(const siginfo_t& told) {
  return isFromTerminal(told) && Surroundings::wasIgnored(told.si_signo);
}

void answer(const siginfo_t& told) {
  const int signal = told.si_signo;
  if (signal == SIGTSTP) {
    static_cast<void>(isTakenOver(SIGTSTP, isFromTerminal(told)));
    stop();
    static_cast<void>(isTakenOver(SIGCONT, false));
  } else if (signal == SIGCONT) {
    perform(&Interruption::Duties::afterStop);
    static_cast<void>(isTakenOver(SIGCONT, false));
  } else if (!isMeantForOthers(told) && !isTakenOver(signal, isFromTerminal(told))) {
    end(signal);
  }
}

[[noreturn]] void waitForSignals(const sigset_t& signals) {
  while (true) {
    siginfo_t told{};
    if (sigwaitinfo(&signals, &told) > 0) {
      answer(told);
    }
  }
}

}  // namespace

void Interruption::begin() {
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
  const sigset_t signals = signalsOfInterest();
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &signals, &before);
  try {
    std::thread(waitForSignals, signals).detach();
  } catch (const std::system_error&) {
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }
}

void Interruption::setDuties(Duties duties) {
  State& all = state();
  const CAutoLockT<CManualLock> guard(all.lock);
  all.duties = std::move(duties);
}
