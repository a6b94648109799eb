// A host that ends in the middle of a selection: brings the library up, starts runs, waits, and
// leaves in the way it is told to, with exit status 7. Should it hang, an alarm ends it.
// Usage: leaving_host return|exit|quick_exit|_exit|exec MICROSECONDS PLAN AUTHORITY ADDRESS...
// PLAN: plain, secure; busy for TLS handshakes without a pause; cached for runs that read a file of
// the cache again and again; endless for a callback that does not return, from whose call on it
// waits.

#include <unistd.h>

#include <cstdlib>

#include "tests/host/HostScene.h"

namespace {

constexpr int LeftAsTold = 7;
constexpr unsigned int HangsAfterSeconds = 45;
constexpr int Readers = 3;

/// What the process brings up. Allocated once and never freed: its threads run until the end.
struct Process {
  explicit Process(std::string whatToRun) : plan(std::move(whatToRun)) {}

  const std::string plan;
  const bool busy = plan == "busy";
  const std::string budget = busy || plan == "cached" ? "60000" : "100";
  tests::Host host{{{"SelectionConnectTimeout", budget},
                    {"SelectionReconnectTimeout", budget},
                    {"SelectionPingsPerHeadend", busy ? "100" : "2"},
                    {"ProxySettings", "none"}}};
  tests::Client client;
  tests::Client endless{[] {
    for (;;) {
      pause();
    }
  }};

  void Start(tests::Client& who, unsigned int reason) {
    ProxyIfc* const proxy = busy || plan == "secure" ? new tests::SecureProvider : nullptr;
    CHeadendSelection* const run = tests::makeRun(who, reason, "", proxy);
    std::thread([run] { run->run(); }).detach();
  }

  void StartReaders() {
    tests::executeRun(tests::makeRun(client));
    for (int i = 0; i < Readers; ++i) {
      std::thread([this] {
        for (;;) {
          tests::makeRun(client)->run();
        }
      }).detach();
    }
  }

  void StartRuns() {
    if (plan == "endless") {
      Start(endless, tests::AtConnection);
      endless.WaitForCall();
    } else if (plan == "cached") {
      StartReaders();
    } else {
      Start(client, tests::AtConnection);
      Start(client, tests::AtReconnection);
    }
  }
};

int leave(const std::string& how, Process& process) {
  if (how == "exit") {
    std::exit(LeftAsTold);
  }
  if (how == "quick_exit") {
    std::quick_exit(LeftAsTold);
  }
  if (how == "_exit") {
    _exit(LeftAsTold);
  }
  if (how == "exec") {
    execl("/bin/sh", "sh", "-c", "exit 7", nullptr);
    return EXIT_FAILURE;
  }
  process.host.TakeDown();  // as a host does that has the library in a variable of main
  return LeftAsTold;
}

}  // namespace

int main(int argc, char** argv) {
  alarm(HangsAfterSeconds);
  if (argc < 6) {
    return EXIT_FAILURE;
  }
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  HttpProbe::setTrustFile(arguments[3]);
  static Process& process = *new Process(arguments[2]);
  process.host.BringUp({arguments.begin() + 4, arguments.end()});
  process.StartRuns();
  std::this_thread::sleep_for(std::chrono::microseconds(std::stol(arguments[1])));
  return leave(arguments[0], process);
}
