// A VPN client whose one thread is an event loop: it shows probes as they start and end, keeps them
// out of its own tunnel by a mark, gives up on Ctrl-C, and prints the ranking.
//
// Usage: event_loop MARK ADDRESS...
// MARK is that of "ip rule add fwmark MARK table TABLE"; 0 for none.
// Exit status: 0 with a headend, 1 without, 2 when it could not begin or go on, 130 after Ctrl-C.

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <ahs/ahs.hpp>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

namespace {

/// Reads as Ctrl-C arrives instead of ending the process; the threads of the library inherit that.
int interruptDescriptor() {
  sigset_t interrupt;
  sigemptyset(&interrupt);
  sigaddset(&interrupt, SIGINT);
  pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
  return signalfd(-1, &interrupt, SFD_CLOEXEC);
}

std::string milliseconds(ahs::Milliseconds time) { return std::to_string(time.count()) + " ms"; }

void showProgress(const ahs::Probe& probe) {
  std::printf("[%u/%u probes, %u/%u headends] %s %s\n", probe.probesEnded, probe.probesStarted,
              probe.headendsAnswered, probe.headendCount, probe.name.c_str(),
              probe.ended ? (std::string(ahs::outcomeName(probe.outcome)) + " after " +
                             milliseconds(probe.roundTrip))
                                .c_str()
                          : "...");
}

void showRanking(const ahs::Result& result) {
  for (const ahs::Candidate& candidate : result.candidates) {
    std::string samples;
    for (const ahs::Milliseconds sample : candidate.samples) {
      samples += " " + std::to_string(sample.count());
    }
    std::printf("%8s  %s at %s: %s, samples:%s\n",
                candidate.metric ? milliseconds(*candidate.metric).c_str() : "-",
                candidate.headend.c_str(),
                candidate.address.empty() ? "no address" : candidate.address.c_str(),
                ahs::outcomeName(candidate.outcome), samples.empty() ? " none" : samples.c_str());
  }
}

/// Marks the sockets of probes, which comes on threads of the library, several at a time.
class Marker {
 public:
  explicit Marker(std::uint32_t mark) : m_mark(mark) {}

  /// A client whose tunnel is up would give false here, so that nothing is measured through it.
  bool mark(int socket) {
    if (setsockopt(socket, SOL_SOCKET, SO_MARK, &m_mark, sizeof m_mark) != 0) {
      m_refused = errno;
    }
    return true;
  }
  void report() const {
    if (m_refused != 0) {
      errno = m_refused;
      std::perror("the probes carried no mark, which takes CAP_NET_ADMIN");
    }
  }

 private:
  const std::uint32_t m_mark;
  std::atomic<int> m_refused{0};
};

/// Does what comes, until the result has come. @return the exit status.
int runLoop(ahs::Library& library, const ahs::Selection& selection, int interrupt,
            const std::optional<int>& exitStatus) {
  while (!exitStatus) {
    pollfd descriptors[] = {{library.descriptor(), POLLIN, 0}, {interrupt, POLLIN, 0}};
    if (poll(descriptors, 2, -1) < 0 && errno != EINTR) {
      std::perror("poll");
      return 2;
    }
    signalfd_siginfo signal;
    if ((descriptors[1].revents & POLLIN) != 0 &&
        read(interrupt, &signal, sizeof signal) == sizeof signal) {
      selection.cancel();  // its result comes next
    }
    library.dispatch();
  }
  return *exitStatus;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: event_loop MARK ADDRESS...\n");
    return 2;
  }
  const auto mark = static_cast<std::uint32_t>(std::strtoul(argv[1], nullptr, 0));
  const int interrupt = interruptDescriptor();
  ahs::Library library({.headends = {argv + 2, argv + argc}, .ownLoop = true});

  Marker marker(mark);
  ahs::Request request;
  request.onProgress = showProgress;
  if (mark != 0) {
    request.onSocket = [&](int socket) { return marker.mark(socket); };
  }
  std::optional<int> exitStatus;
  const ahs::Selection selection = library.select(request, [&](const ahs::Result& result) {
    showRanking(result);
    std::printf("%s\n", result ? result.headends.front().c_str() : result.error.c_str());
    exitStatus = result ? 0 : result.status == ahs::Cancelled ? 130 : 1;
  });
  if (!selection) {
    std::fprintf(stderr, "event_loop: %s\n", selection.error().c_str());
    return 2;
  }
  const int status = runLoop(library, selection, interrupt, exitStatus);
  marker.report();
  return status;
}
