// Makes selections one after another in one process, of every kind that there is, and looks at what
// the process holds on to between them: memory, threads, descriptors. After a warm-up, in which
// caches of the libraries below fill, none of it may grow with the number of selections.
//
// Figures are taken between rounds, when the client library is down and nothing of it should be
// left. What is compared is the median of the second fifth of the figures with that of the last, so
// that one figure that was taken at a bad moment decides nothing. A selection that leaked only 100
// bytes would show after a thousand.
//
// Usage: many_selections [--warm-up RUNS] [--runs RUNS]
// Ends with status 0 when all is level, 1 when not, 2 when a selection went wrong. Selections come
// in rounds, so there may be a few more; fewer than ten rounds are not compared.

#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "tests/host/HostScene.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Common/Utility/Thread.h"

namespace {

using tests::Client;
using tests::Host;

/// What the process holds.
struct Figures {
  long runs = 0;
  long residentKiB = 0;
  long heapKiB = 0;
  long threads = 0;
  long descriptors = 0;
};

struct Quantity {
  const char* name;
  long Figures::*value;
  /// By how much it may differ, however many selections lie between. Threads and descriptors are
  /// counted exactly. The heap in use moves by what the libraries below keep of the last transfers;
  /// resident memory by how the allocator's arenas, of which late threads get one or another, have
  /// been touched.
  long allowance;
};

constexpr Quantity Quantities[] = {
    {"resident KiB", &Figures::residentKiB, 2048},
    {"heap KiB", &Figures::heapKiB, 16},
    {"threads", &Figures::threads, 0},
    {"descriptors", &Figures::descriptors, 0},
};

// A sanitizer's allocator keeps what is freed, and has threads of its own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool MemoryCounts = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool MemoryCounts = false;
#else
constexpr bool MemoryCounts = true;
#endif
#else
constexpr bool MemoryCounts = true;
#endif

long countEntries(const char* directory) {
  const std::filesystem::directory_iterator entries(directory);
  return std::distance(begin(entries), end(entries));
}

long residentKiB() {
  std::ifstream status("/proc/self/status");
  std::string word;
  while (status >> word) {
    if (word == "VmRSS:") {
      long value = 0;
      status >> value;
      return value;
    }
  }
  throw std::runtime_error("no VmRSS");
}

/// Once every thread that a selection started has left the process: the kernel needs a moment to
/// bury one that is detached.
Figures measure(long runs, long ownThreads) {
  if (!tests::nothingIsLeft()) {
    throw std::runtime_error("a selection left something behind");
  }
  constexpr const char* Threads = "/proc/self/task";
  tests::eventually([ownThreads] { return countEntries(Threads) <= ownThreads; });
  constexpr std::size_t BytesOfAKiB = 1024;
  return {runs, residentKiB(), static_cast<long>(mallinfo2().uordblks / BytesOfAKiB),
          countEntries(Threads), countEntries("/proc/self/fd")};
}

/// The main thread, and one that a sanitizer starts beside the first other one.
long countOwnThreads() {
  std::thread([] {}).join();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // until it has left the process
  return countEntries("/proc/self/task");
}

/// A proxy that asks everybody for a login.
tests::ScriptedServer::Script proxyThatAsksForALogin() {
  return tests::answering(
      "HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic realm=\"office\"\r\n"
      "Content-Length: 0\r\nConnection: close\r\n\r\n");
}

/// The kinds of selections, in rounds.
class Rounds {
 public:
  /// @return how many selections it was.
  int MakeOne() {
    m_runs = 0;
    Ordinary();
    WithTls();
    OutOfTime();
    BehindAProxyThatAsksForALogin();
    WithoutHeadends();
    m_host.TakeDown();
    return m_runs;
  }

 private:
  void Select(std::initializer_list<long> expected, unsigned int reason,
              ProxyIfc* proxy = nullptr) {
    Client client;
    tests::executeRun(tests::makeRun(client, reason, "", proxy));
    if (std::find(expected.begin(), expected.end(), client.Status()) == expected.end()) {
      throw std::runtime_error(std::string("a selection ended with ") +
                               statusCodeName(client.Status()) + " instead of " +
                               statusCodeName(*expected.begin()));
    }
    ++m_runs;
  }

  /// A fresh selection and then one from the cache.
  void SelectTwice(
      unsigned int reason,
      ProxyIfc* (*makeProxy)() = [] { return static_cast<ProxyIfc*>(nullptr); }) {
    m_host.ForgetSelections();
    Select({HEADENDSELECTION_ERROR_ADDED_TO_CACHE}, reason, makeProxy());
    Select({0}, reason, makeProxy());
  }

  void BringUp(const std::vector<std::size_t>& gateways, const Host::Preferences& changes = {},
               const Host::Preferences& global = {}) {
    Host::Preferences preferences = changes;
    preferences.merge(Host::patient());
    m_host.SetPreferences(preferences, global);
    std::vector<std::string> addresses;
    for (const std::size_t gateway : gateways) {
      addresses.push_back(m_gateways.Addresses()[gateway]);
    }
    m_host.ForgetSelections();
    m_host.BringUp(addresses);
  }

  /// All answer; or one is dead and one hangs up.
  void Ordinary() {
    BringUp({Near, AlsoNear, ThirdNear}, {{"SelectionPingsPerHeadend", "2"}});
    for (int i = 0; i < 4; ++i) {
      SelectTwice(i % 2 == 0 ? tests::AtConnection : tests::AtReconnection);
    }
    BringUp({Near, Dead, HangsUp}, {{"SelectionPingsPerHeadend", "2"}});
    for (int i = 0; i < 3; ++i) {
      SelectTwice(tests::AtConnection);
    }
  }

  void WithTls() {
    BringUp({Near, Dead, AlsoNear});
    for (int i = 0; i < 3; ++i) {
      SelectTwice(i % 2 == 0 ? tests::AtConnection : tests::AtReconnection,
                  [] { return static_cast<ProxyIfc*>(new tests::SecureProvider); });
    }
  }

  /// The timer comes before the slowest worker has reported; on a machine that is slower still,
  /// before any has.
  void OutOfTime() {
    BringUp({Near, Far, Dead}, {{"SelectionReconnectTimeout", "100"}});
    Select({HEADENDSELECTION_ERROR_ADDED_TO_CACHE, HEADENDSELECTION_ERROR_SELECTION_FAILURE},
           tests::AtReconnection, new tests::SecureProvider);
  }

  void BehindAProxyThatAsksForALogin() {
    const tests::ScriptedServer proxy(proxyThatAsksForALogin());
    BringUp({Near, AlsoNear, ThirdNear}, {{"ProxySettings", "override"}},
            {{"ProxyHost", "127.0.0.1"}, {"ProxyPort", std::to_string(proxy.port())}});
    for (int i = 0; i < 2; ++i) {
      Select({HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED}, tests::AtConnection);
      Select({HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED}, tests::AtConnection,
             new tests::SecureProvider);
    }
  }

  void WithoutHeadends() {
    BringUp({});
    Select({HEADENDSELECTION_ERROR_NO_HEADENDS}, tests::AtConnection);
  }

  enum : std::size_t { Near, AlsoNear, ThirdNear, Dead, HangsUp, Far };
  const tests::GatewayProcess m_gateways{
      {"", "", "", "behaviour=refuse", "behaviour=closes", "delay=130"}};
  Host m_host;
  int m_runs = 0;
};

long median(std::vector<Figures>::const_iterator from, std::vector<Figures>::const_iterator to,
            long Figures::*value) {
  std::vector<long> values;
  std::transform(from, to, std::back_inserter(values),
                 [value](const Figures& figures) { return figures.*value; });
  // Of an even number the lower one of the two in the middle.
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>((values.size() - 1) / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

bool isLevel(const std::vector<Figures>& all) {
  const auto fifth = static_cast<std::ptrdiff_t>(all.size() / 5);
  bool level = true;
  for (const Quantity& quantity : Quantities) {
    const long early = median(all.begin() + fifth, all.begin() + 2 * fifth, quantity.value);
    const long late = median(all.end() - fifth, all.end(), quantity.value);
    const bool counts = MemoryCounts || quantity.allowance == 0;
    const bool within = late - early <= quantity.allowance;
    std::printf("%-14s %8ld %8ld   %+ld, allowed +%ld%s\n", quantity.name, early, late,
                late - early, quantity.allowance,
                !counts ? ", not compared in this build" : (within ? "" : ": NOT LEVEL"));
    level = level && (within || !counts);
  }
  return level;
}

long option(int argc, char** argv, const char* name, long value) {
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], name) == 0) {
      value = std::atol(argv[i + 1]);
    }
  }
  return value;
}

int makeSelections(long warmUp, long count) {
  const long ownThreads = countOwnThreads();
  Rounds rounds;
  std::vector<Figures> all;
  // The reserve comes first: the vector shall not be part of what it lists.
  all.reserve(static_cast<std::size_t>(std::max(count, 0L)) + 1);
  for (long runs = 0; runs < warmUp;) {
    runs += rounds.MakeOne();
  }
  for (long runs = 0; runs < count;) {
    runs += rounds.MakeOne();
    all.push_back(measure(runs, ownThreads));
  }
  constexpr std::size_t FewestToCompare = 10;
  if (all.size() < FewestToCompare) {
    std::printf("%ld selections, too few to compare\n", all.back().runs);
    return 0;
  }
  std::printf("%zu samples in %ld selections; medians of the second and of the last fifth\n",
              all.size(), all.back().runs);
  return isLevel(all) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return makeSelections(option(argc, argv, "--warm-up", 200), option(argc, argv, "--runs", 300));
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "many_selections: %s\n", problem.what());
    return 2;
  }
}
