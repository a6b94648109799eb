// What the process inherits. The main thread notes it before it starts another thread; all threads
// only read it later.

#include "cli/Surroundings.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>

namespace {

constexpr std::array Signals = {SIGPIPE, SIGXFSZ, SIGINT,  SIGQUIT,
                                SIGHUP,  SIGTSTP, SIGUSR1, SIGUSR2};

struct Noted {
  std::vector<int> descriptors;
  sigset_t blocked{};
  sigset_t ignored{};
  rlimit files{};
};

// Never freed: threads may ask while the process is ending.
Noted& noted() {
  static Noted* const instance = new Noted;
  return *instance;
}

bool isOpen(int descriptor) { return fcntl(descriptor, F_GETFD) >= 0 || errno != EBADF; }

void fillStandardDescriptors() {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    // open(2) takes the lowest free number. A write to a read-only output fails, so the writer
    // learns that nobody reads.
    if (!isOpen(descriptor)) {
      static_cast<void>(open("/dev/null", O_RDONLY));
    }
  }
}

/// Does nothing before the limit was noted.
void limitDescriptors(rlim_t most) {
  const rlimit files{most, noted().files.rlim_max};
  if (files.rlim_max != 0) {
    setrlimit(RLIMIT_NOFILE, &files);
  }
}

}  // namespace

void Surroundings::note() {
  fillStandardDescriptors();
  Noted& all = noted();
  for (int descriptor = STDERR_FILENO + 1; descriptor < MostDescriptors; ++descriptor) {
    if (isOpen(descriptor)) {
      all.descriptors.push_back(descriptor);
    }
  }
  sigemptyset(&all.ignored);
  for (const int signal : Signals) {
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    if (action.sa_handler == SIG_IGN) {
      sigaddset(&all.ignored, signal);
    }
  }
  pthread_sigmask(SIG_SETMASK, nullptr, &all.blocked);
  getrlimit(RLIMIT_NOFILE, &all.files);
  raiseDescriptorLimit();
}

void Surroundings::raiseDescriptorLimit() { limitDescriptors(noted().files.rlim_max); }

void Surroundings::restoreDescriptorLimit() { limitDescriptors(noted().files.rlim_cur); }

void Surroundings::forget(int descriptor) {
  std::erase(noted().descriptors, descriptor);
  fillStandardDescriptors();
}

const std::vector<int>& Surroundings::descriptors() { return noted().descriptors; }

const sigset_t& Surroundings::blockedSignals() { return noted().blocked; }

bool Surroundings::wasIgnored(int signal) { return sigismember(&noted().ignored, signal) == 1; }
