// Runs a command and writes its cost. A small program of its own, because the kernel adds the
// memory of the starting process to the command's. The command inherits the standard streams, and
// is always ended.

#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <exception>
#include <fstream>
#include <iostream>
#include <string>

#include "simulator/Processes.h"

namespace {

constexpr int Usage = 2;

/// How often to count the threads. A selection keeps all of its threads more than ten times as
/// long.
constexpr timespec BetweenCounts{0, 10'000'000};

/// The number of a process's threads; 0 when it is gone.
unsigned int countThreads(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  std::string word;
  unsigned int count = 0;
  while (status >> word) {
    if (word == "Threads:" && status >> count) break;
  }
  return count;
}

double milliseconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
}

int measure(const std::string& reportFile, const simulator::Launch& launch) {
  sigset_t childEnds;
  sigemptyset(&childEnds);
  sigaddset(&childEnds, SIGCHLD);
  sigprocmask(SIG_BLOCK, &childEnds, nullptr);

  const auto start = std::chrono::steady_clock::now();
  const pid_t command = simulator::start(launch);
  unsigned int mostThreads = 1;
  int status = 0;
  rusage usage{};
  // Terminates when the command ends; the caller limits its time.
  while (wait4(command, &status, WNOHANG, &usage) == 0) {
    mostThreads = std::max(mostThreads, countThreads(command));
    sigtimedwait(&childEnds, nullptr, &BetweenCounts);
  }
  const std::chrono::duration<double, std::milli> elapsed =
      std::chrono::steady_clock::now() - start;

  std::ofstream report(reportFile);
  report << "{\"elapsedMs\": " << elapsed.count()
         << ", \"userMs\": " << milliseconds(usage.ru_utime)
         << ", \"systemMs\": " << milliseconds(usage.ru_stime)
         << ", \"peakKib\": " << usage.ru_maxrss << ", \"threads\": " << mostThreads << "}\n";
  return report.flush() ? simulator::exitStatus(status) : simulator::ExitOwnFailure;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: bench-measure REPORT-FILE COMMAND [ARGUMENT...]\n";
    return Usage;
  }
  if (!simulator::endWithParent()) return simulator::ExitOwnFailure;
  simulator::Launch launch;
  launch.arguments.assign(argv + 2, argv + argc);
  try {
    return measure(argv[1], launch);
  } catch (const std::exception& error) {
    std::cerr << "bench-measure: " << error.what() << '\n';
    return simulator::ExitOwnFailure;
  }
}
