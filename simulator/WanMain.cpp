// The command `ahs-wan`: runs a command in its own network, with the scene's distances to headends.
// One thread carries all packets: it reads them from the kernel, holds each in the delay line, and
// writes it to the other side.

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/wait.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <csignal>
#include <exception>
#include <iostream>
#include <system_error>

#include "simulator/Alarm.h"
#include "simulator/DelayLine.h"
#include "simulator/Network.h"
#include "simulator/Processes.h"

namespace {

using namespace simulator;
using namespace std::chrono_literals;

constexpr int Usage = 2;
/// The status "skipped" of automake and ctest.
constexpr int ExitNotPermitted = 77;

/// Thousands of gateways with certificates are ready within one second.
constexpr auto ServersStartLimit = 30s;
constexpr auto EndPatience = 2s;

struct Options {
  std::string config;
  std::vector<std::string> paths;
  std::vector<std::string> names;
  std::string servers;
  std::uint64_t seed = 1;
  bool statistics = false;
  std::vector<std::string> command;
};

FileDescriptor blockSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) sigaddset(&signals, signal);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  return FileDescriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

/// Ends all children when the scope is left in any way.
struct ChildrenEnd {
  ~ChildrenEnd() { endAllChildren(EndPatience); }
};

/// Takes real-time priority: waiting for a processor would add the machine's delay to the
/// network's. Without permission, the network is only exact on an idle machine.
void takePrecedence() {
  sched_param priority{};
  priority.sched_priority = sched_get_priority_min(SCHED_RR);
  constexpr int Highest = -20;
  if (sched_setscheduler(0, SCHED_RR | SCHED_RESET_ON_FORK, &priority) != 0) {
    setpriority(PRIO_PROCESS, 0, Highest);
  }
}

class Wan {
 public:
  Wan(const Options& options, const Scene& scene);

  /// Runs servers and the command. @return the command's status.
  int Run();

 private:
  void StartServers();
  void watch(int fd);
  bool handleSignals(int& status);
  void drainServers();
  bool read(Direction direction);
  void forward();
  int carry();
  void printStatistics() const;

  const Options& m_options;
  FileDescriptor m_signals;
  Network m_network;
  DelayLine m_line;
  ChildrenEnd m_childrenEnd;
  FileDescriptor m_epoll;
  Alarm m_alarm;
  FileDescriptor m_serversOutput;
  pid_t m_servers = 0;
  pid_t m_command = 0;
};

Wan::Wan(const Options& options, const Scene& scene)
    : m_options(options),
      m_signals(blockSignals()),
      m_network(Network::make(scene)),
      m_line(scene, options.seed),
      m_epoll(epoll_create1(EPOLL_CLOEXEC)) {
  hideOtherNames(scene);
  adoptOrphans();
  for (const int fd :
       {m_signals.get(), m_network.gatewayTun.get(), m_network.clientTun.get(), m_alarm.fd()}) {
    watch(fd);
  }
}

void Wan::watch(int fd) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = fd;
  if (epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
    throw std::system_error(errno, std::generic_category(), "epoll_ctl");
  }
}

int Wan::Run() {
  if (!m_options.servers.empty()) StartServers();
  Launch launch;
  launch.arguments = m_options.command;
  m_command = start(launch);
  takePrecedence();
  const int status = carry();
  if (m_options.statistics) printStatistics();
  return status;
}

/// Starts the servers and waits for their line "ready".
void Wan::StartServers() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe2");
  }
  m_serversOutput = FileDescriptor(ends[0]);
  FileDescriptor writeEnd(ends[1]);
  fcntl(writeEnd.get(), F_SETFL, 0);
  Launch launch;
  launch.arguments = {"/bin/sh", "-c", "exec " + m_options.servers};
  launch.networkNamespace = m_network.gatewayNamespace.get();
  launch.standardOutput = writeEnd.get();
  m_servers = start(launch);
  writeEnd.close();

  const auto limit = Clock::now() + ServersStartLimit;
  std::string output = "\n";
  while (output.find("\nready\n") == std::string::npos) {
    std::array<char, 4096> buffer;
    const ssize_t count = ::read(m_serversOutput.get(), buffer.data(), buffer.size());
    if (count > 0) {
      output.append(buffer.data(), static_cast<std::size_t>(count));
    } else if (count == 0) {
      throw std::runtime_error("the servers ended before they were ready");
    } else if (Clock::now() > limit) {
      throw std::runtime_error("the servers are not ready in time");
    } else {
      signalfd_siginfo signal;
      const bool interrupted =
          ::read(m_signals.get(), &signal, sizeof signal) > 0 && signal.ssi_signo != SIGCHLD;
      if (interrupted) throw std::runtime_error("interrupted");
      pollfd waiting{m_serversOutput.get(), POLLIN, 0};
      poll(&waiting, 1, 50);
    }
  }
  watch(m_serversOutput.get());
}

/// Carries packets until the command has ended. @return its status.
int Wan::carry() {
  int status = 0;
  bool more = false;
  while (true) {
    forward();
    m_alarm.set(m_line.nextDue());
    std::array<epoll_event, 8> events;
    const int count = epoll_wait(m_epoll.get(), events.data(), events.size(), more ? 0 : -1);
    if (count < 0 && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "epoll_wait");
    }
    for (int i = 0; i < count; ++i) {
      const int fd = events[static_cast<std::size_t>(i)].data.fd;
      if (fd == m_alarm.fd()) m_alarm.acknowledge();
      if (fd == m_signals.get() && handleSignals(status)) return status;
      if (fd == m_serversOutput.get()) drainServers();
    }
    more = read(Direction::ToGateways);
    more = read(Direction::ToClients) || more;
  }
}

/// @return whether the command has ended; `status` is then set.
bool Wan::handleSignals(int& status) {
  signalfd_siginfo signal;
  while (::read(m_signals.get(), &signal, sizeof signal) == sizeof signal) {
    // The terminal has sent this signal to the command as well.
    const bool fromTerminal = signal.ssi_signo == SIGINT && signal.ssi_code == SI_KERNEL;
    if (signal.ssi_signo != SIGCHLD && !fromTerminal) {
      kill(m_command, static_cast<int>(signal.ssi_signo));
    }
  }
  int waitStatus = 0;
  pid_t ended = 0;
  while ((ended = waitpid(-1, &waitStatus, WNOHANG)) > 0) {
    if (ended == m_servers) std::cerr << "ahs-wan: the servers have ended\n";
    if (ended == m_command) {
      status = exitStatus(waitStatus);
      return true;
    }
  }
  return false;
}

/// Discards the servers' output after "ready", so that a full pipe does not stop them.
void Wan::drainServers() {
  std::array<char, 4096> buffer;
  if (::read(m_serversOutput.get(), buffer.data(), buffer.size()) == 0) m_serversOutput.close();
}

/// @return whether more may be readable.
bool Wan::read(Direction direction) {
  // Few at a time, so that due packets do not wait for a burst.
  constexpr int MostAtOnce = 32;
  const int tun =
      direction == Direction::ToGateways ? m_network.clientTun.get() : m_network.gatewayTun.get();
  std::array<unsigned char, 65'536> buffer;
  for (int i = 0; i < MostAtOnce; ++i) {
    const ssize_t length = ::read(tun, buffer.data(), buffer.size());
    if (length <= 0) return false;
    m_line.accept(direction, {buffer.data(), static_cast<std::size_t>(length)}, Clock::now());
  }
  return true;
}

void Wan::forward() {
  while (const auto packet = m_line.takeDue(Clock::now())) {
    const int tun = packet->direction == Direction::ToGateways ? m_network.gatewayTun.get()
                                                               : m_network.clientTun.get();
    // A failed write loses the packet, as on any network.
    if (write(tun, packet->bytes.data(), packet->bytes.size()) < 0) continue;
  }
}

void Wan::printStatistics() const {
  const DelayLine::Statistics& statistics = m_line.getStatistics();
  const std::chrono::duration<double, std::micro> worst = statistics.worstLateness;
  const std::chrono::duration<double, std::micro> total = statistics.totalLateness;
  const double count = statistics.forwarded == 0 ? 1 : static_cast<double>(statistics.forwarded);
  std::cerr << "ahs-wan: " << statistics.forwarded << " packets carried, " << statistics.lost
            << " lost, " << statistics.dropped << " dropped; mean " << total.count() / count
            << " us late, worst " << worst.count() << " us\n";
}

/// @return -1 to continue, else the exit status.
int parseCommandLine(int argc, char** argv, Options& options) {
  CLI::App app("Runs a command in a network in which headends are far away.", "ahs-wan");
  app.add_option("--config", options.config,
                 "File that describes the scene (see simulator/README.md)");
  app.add_option("--path", options.paths,
                 "ADDRESS[,rtt=MS][,opening=MS][,jitter=MS][,loss=PERCENT][,reorder]; may be given "
                 "several times")
      ->allow_extra_args(false);
  app.add_option("--name", options.names, "NAME,ADDRESS; may be given several times")
      ->allow_extra_args(false);
  app.add_option("--servers", options.servers,
                 "Shell command that runs on the gateways' side; it prints \"ready\" once ready");
  app.add_option("--seed", options.seed, "Seed of jitter and loss")->capture_default_str();
  app.add_flag("--stats", options.statistics, "Print the network's accuracy at the end");
  app.add_option("command", options.command, "Command for the clients' side, after --")->required();
  app.footer(
      "Exit status: the command's; 2 usage, 77 not permitted on this machine, 125 own failure.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : Usage;
  }
  return -1;
}

Scene readScene(const Options& options) {
  Scene scene;
  if (!options.config.empty()) scene.addFile(options.config);
  for (const std::string& path : options.paths) scene.addLine("path " + path);
  for (const std::string& name : options.names) scene.addLine("name " + name);
  return scene;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (const int status = parseCommandLine(argc, argv, options); status >= 0) return status;
  if (!endWithParent()) return ExitOwnFailure;
  try {
    const Scene scene = readScene(options);
    Wan wan(options, scene);
    return wan.Run();
  } catch (const NotPermitted& error) {
    std::cerr << "ahs-wan: no network of its own here: " << error.what() << '\n';
    return ExitNotPermitted;
  } catch (const SceneError& error) {
    std::cerr << "ahs-wan: " << error.what() << '\n';
    return Usage;
  } catch (const std::exception& error) {
    std::cerr << "ahs-wan: " << error.what() << '\n';
    return ExitOwnFailure;
  }
}
