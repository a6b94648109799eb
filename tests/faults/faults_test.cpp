// Selections in a process with one failure after another. Whatever fails, the client is called
// exactly once with a usable result, nothing is left behind, and the next selection is undisturbed.
// Each disturbed selection starts its own client library, so that the log file is open and no leak
// stays hidden.
//
// If there are very many calls, only some fail in turn, evenly spread. With AHS_FAULTS set to "all"
// every call fails; with a number, only that call.

#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <openssl/crypto.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <new>
#include <thread>

#include "tests/faults/Injection.h"
#include "tests/host/HostScene.h"
#include "tests/support/Eventually.h"
#include "tests/support/LoopbackSockets.h"
#include "tests/support/ProviderWithoutProxy.h"
#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/ResolverPlace.h"
#include "vpn/Api/AHS/SelectionFiles.h"
#include "vpn/Api/ClientIfcBase.h"
#include "vpn/Common/IP/SocketLoop.h"
#include "vpn/Common/Utility/Thread.h"

extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

namespace tests {
namespace {

// --- A process that selects ----------------------------------------------------------------------
//
// The test's own thread is exempt from faults except while it constructs a run; so is the client's
// callback. A failure there would be the host's.

/// Number of headends that answer.
constexpr unsigned int HeadendCount = 3;

/// Kind of probes: plain, or over TLS as for a client with a proxy login.
enum class Probing { Plain, Secure };

/// The end of one selection.
struct Outcome {
  bool isConstructed = false;
  bool threw = false;            ///< construction ended by std::bad_alloc
  STATUSCODE construction = -1;  ///< the status of construction
  unsigned int calls = 0;        ///< of the client
  STATUSCODE status = -1;        ///< of the first call, as the rest
  unsigned int headends = 0;     ///< how many were delivered
  bool areKnown = false;         ///< they are all of the profile, and none comes twice
  bool isLastFirst = false;      ///< the first one is the last headend
  Seen seen;
};

/// Longer than any selection, even if every probe times out.
constexpr unsigned int PatienceSeconds = 60;

/// The headends as delivered; the last one has a name. Written once, before any selection.
std::array<std::string, HeadendCount> headendNames;

/// Keeps the first call's outcome in numbers, without allocating memory.
class FrugalClient : public ClientIfcBase {
 public:
  explicit FrugalClient(Outcome& outcome) : m_outcome(outcome) {}

  void AHSSelectedHost(unsigned int, const std::vector<std::string>& headends, long status,
                       const std::string&) override {
    const Exemption hostsOwn;
    if (m_outcome.calls++ != 0) {
      return;
    }
    m_outcome.status = status;
    m_outcome.headends = static_cast<unsigned int>(headends.size());
    m_outcome.isLastFirst = !headends.empty() && headends.front() == headendNames.back();
    const auto found = std::ranges::count_if(headendNames, [&](const std::string& name) {
      return std::ranges::find(headends, name) != headends.end();
    });
    m_outcome.areKnown = found == std::ssize(headends);
  }

 private:
  Outcome& m_outcome;  // the test reads it after the run
};

/// Constructs a run; null, with `outcome` set, if that failed.
CHeadendSelection* construct(FrugalClient& client, const std::string& lastHeadend,
                             Outcome& outcome) {
  CHeadendSelection* selection = nullptr;
  try {
    const Exemption none(false);
    selection = new CHeadendSelection(&client, lastHeadend, 0, outcome.construction);
  } catch (const std::bad_alloc&) {
    outcome.threw = true;
    return nullptr;
  }
  outcome.isConstructed = outcome.construction == 0;
  if (!outcome.isConstructed) {
    delete selection;
    selection = nullptr;
  }
  return selection;
}

unsigned int countEntries(const char* path) {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(path), ::closedir);
  unsigned int count = 0;
  while (directory && ::readdir(directory.get()) != nullptr) {
    ++count;
  }
  return count;
}

unsigned int openDescriptors() { return countEntries("/proc/self/fd"); }
unsigned int threadCount() { return countEntries("/proc/self/task"); }

/// Waits until the process has no more threads than given.
void waitForThreads(unsigned int ours, unsigned int all) {
  eventually([=] { return CThread::RunningCount() <= ours && threadCount() <= all; });
}

/// A process that selects: gateways on the loopback interface, one of them with a name, and another
/// one that is down; preferences, a log file, a cache. Used by one thread, which is exempt from
/// faults. A hanging selection ends the process.
class DisturbedHost {
 public:
  // Two probes, so that a worker that loses one still has a sample. The times suit busy machines.
  DisturbedHost()
      : m_host({{"SelectionPingsPerHeadend", "2"},
                {"SelectionConnectTimeout", "40000"},
                {"SelectionPingTimeout", "10000"},
                {"SelectionTestPingTimeout", "10"}}) {
    HttpProbe::setTrustFile("");  // an untrusted certificate is an answer too
    std::ranges::copy(m_gateways.Addresses(), headendNames.begin());
    headendNames.back().replace(0, headendNames.back().find(':'), KnownName);
  }

  /// Starts the client library with a new log.
  void Start() {
    std::filesystem::remove(m_host.LogFile());
    m_ourThreads = CThread::RunningCount();
    m_allThreads = threadCount();
    m_host.BringUp({headendNames[0], m_down.Where().Text(), headendNames[1], headendNames[2]});
  }

  /// Stops the library and waits until its threads are gone.
  void Stop() {
    m_host.TakeDown();
    waitForThreads(m_ourThreads, m_allThreads);
  }

  /// The log since the last start.
  std::string Log() const { return readFile(m_host.LogFile()); }

  /// Runs one selection to its end while `fault` is armed. Waits until none of its threads and none
  /// of its memory is left.
  Outcome Select(const Fault& fault, Probing probing) {
    const Exemption own;
    const unsigned int ourThreads = CThread::RunningCount();
    const unsigned int allThreads = threadCount();
    Outcome outcome;
    FrugalClient client(outcome);
    ::alarm(PatienceSeconds);
    arm(fault);
    if (CHeadendSelection* const selection = construct(client, headendNames.back(), outcome)) {
      if (probing == Probing::Secure) {
        selection->SetProxy(new ProviderWithoutProxy);
      }
      std::thread([selection] { selection->run(); }).join();
      waitForThreads(ourThreads, allThreads);
    }
    outcome.seen = disarm();
    ::alarm(0);
    return outcome;
  }

  /// Creates the cache's directory, and lets stored selections expire.
  void ResetCache() const {
    std::filesystem::create_directory(m_host.CacheDirectory());
    std::filesystem::permissions(m_host.CacheDirectory(), std::filesystem::perms::owner_all);
    for (const auto& item : std::filesystem::directory_iterator(m_host.CacheDirectory())) {
      std::string text = readFile(item.path());
      const std::size_t stamp = text.find("stored=\"") + std::strlen("stored=\"");
      text.replace(stamp, text.find('"', stamp) - stamp, "1");
      std::ofstream(item.path(), std::ios::trunc) << text;
    }
  }

  std::string CacheDirectory() const { return m_host.CacheDirectory(); }
  /// Whether the cache holds a selection that has not expired.
  bool IsStored() const {
    std::string problem;
    return std::ranges::any_of(
        SelectionFiles::list(m_host.CacheDirectory(), problem),
        [](const auto& selection) { return selection.entry.GetTimestamp() > 1; });
  }

  /// A flaw in the cache: a damaged file, or a foreign one.
  std::string FindCacheFlaw() const {
    std::string flaw;
    const auto selections = SelectionFiles::list(m_host.CacheDirectory(), flaw);
    const std::filesystem::directory_iterator files(m_host.CacheDirectory());
    if (std::distance(begin(files), end(files)) != std::ssize(selections)) {
      flaw += " there are other files;";
    }
    return flaw;
  }

 private:
  const GatewayProcess m_gateways{{"", "", ""}};
  const RefusingPort m_down{KnownAddress};
  Host m_host;
  // Numbers from before the library's start.
  unsigned int m_ourThreads = 0;
  unsigned int m_allThreads = 0;
};

// --- Its promise ---------------------------------------------------------------------------------

/// Threads race, so the number of failing calls varies a little between runs.
constexpr unsigned long CallsBeyond = 3;

/// Most calls that fail in turn unless all are requested: in one process, and each in a child.
constexpr unsigned long ManyRuns = 500;
constexpr unsigned long ManyFirstRuns = 100;

/// Statuses with which a disturbed selection may end.
constexpr STATUSCODE Endings[] = {
    HEADENDSELECTION_ERROR_ADDED_TO_CACHE,
    HEADENDSELECTION_ERROR_SELECTION_FAILURE,
    HEADENDSELECTION_ERROR_MEMALLOC_FAILED,
};

/// One fault after another: at the first call, then at the second, and so on.
struct Sweep {
  std::string name;
  Fault fault;  ///< `first` is set by the sweep
  /// The fewest headends that any disturbed selection delivers; if fewer than all, it may also
  /// fail.
  unsigned int leastHeadends = 0;
  Probing probing = Probing::Plain;

  friend void PrintTo(const Sweep& sweep, std::ostream* out) { *out << sweep.name; }
};

const auto nameOfSweep = [](const auto& info) { return info.param.name; };

/// The numbers of the calls that fail in turn.
std::vector<unsigned long> numbers(unsigned long calls, unsigned long most) {
  const char* const asked = std::getenv("AHS_FAULTS");
  const bool isAll = asked != nullptr && std::string(asked) == "all";
  if (asked != nullptr && !isAll) {
    return {std::stoul(asked)};
  }
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  most /= 3;
#endif
  const unsigned long step = isAll ? 1 : std::max(1UL, (calls + most - 1) / most);
  std::vector<unsigned long> result;
  for (unsigned long number = 1; number <= calls + CallsBeyond; number += step) {
    result.push_back(number);
  }
  return result;
}

/// Starts a thread that ends at once. With a process's first thread ThreadSanitizer starts a
/// permanent one; threads must be counted after that.
void startFirstThread() {
  std::thread([] {}).join();
}

class AFault : public testing::TestWithParam<Sweep> {
 protected:
  static void SetUpTestSuite() {
    startFirstThread();
    sm_host = std::make_unique<DisturbedHost>();
  }
  static void TearDownTestSuite() { sm_host.reset(); }

  void DisturbAll(unsigned long calls, unsigned long most,
                  const std::function<Seen(const Fault&)>& disturb);
  void Prepare();
  unsigned long CountCalls();
  Seen Examine(const Fault& fault);
  void CheckDisturbed(const Outcome& outcome);
  void CheckUndisturbed();

  static std::unique_ptr<DisturbedHost> sm_host;
};

std::unique_ptr<DisturbedHost> AFault::sm_host;

void AFault::DisturbAll(unsigned long calls, unsigned long most,
                        const std::function<Seen(const Fault&)>& disturb) {
  ASSERT_GT(calls, 0U) << "a selection makes no such call";
  unsigned long strikes = 0;
  for (const unsigned long number : numbers(calls, most)) {
    Fault fault = GetParam().fault;
    fault.first = number;
    // Printed early, for a selection that hangs or ends the process.
    std::cout << "at call " << number << " of " << calls << std::endl;
    strikes += disturb(fault).failed != 0 ? 1 : 0;
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_GT(strikes, 0U);
}

void AFault::Prepare() {
  SocketLoop::prepare();  // what it opens stays open
  sm_host->Start();
  sm_host->ResetCache();
  if (GetParam().fault.call == Call::MakeDirectory) {
    std::filesystem::remove_all(sm_host->CacheDirectory());
  }
}

unsigned long AFault::CountCalls() {
  Prepare();
  const unsigned long calls =
      sm_host->Select({.call = GetParam().fault.call}, GetParam().probing).seen.calls;
  sm_host->Stop();
  return calls;
}

Seen AFault::Examine(const Fault& fault) {
  Prepare();
  const unsigned int descriptors = openDescriptors();
  const unsigned int threads = CThread::RunningCount();
  const unsigned int tasks = threadCount();
  const Outcome outcome = sm_host->Select(fault, GetParam().probing);
  CheckDisturbed(outcome);
  EXPECT_LE(CThread::RunningCount(), threads);
  EXPECT_LE(threadCount(), tasks);
  EXPECT_LE(openDescriptors(), descriptors);
  if (fault.call != Call::MakeDirectory) {
    EXPECT_EQ(sm_host->FindCacheFlaw(), "");
  }
  CheckUndisturbed();
  sm_host->Stop();
  if (HasFailure()) {
    std::cout << sm_host->Log() << std::flush;
  }
  return outcome.seen;
}

void AFault::CheckDisturbed(const Outcome& outcome) {
  if (!outcome.isConstructed) {
    const Call call = GetParam().fault.call;
    EXPECT_TRUE(call == Call::Allocate || call == Call::AllocateInC);
    EXPECT_TRUE(outcome.threw || outcome.construction == HEADENDSELECTION_ERROR_MEMALLOC_FAILED)
        << std::hex << outcome.construction;
    EXPECT_EQ(outcome.calls, 0U);
    return;
  }
  EXPECT_EQ(outcome.calls, 1U);
  EXPECT_TRUE(outcome.areKnown);
  EXPECT_GE(outcome.headends, std::max(1U, GetParam().leastHeadends));
  EXPECT_THAT(Endings, testing::Contains(outcome.status)) << std::hex << outcome.status;
  if (GetParam().leastHeadends > 1) {
    EXPECT_EQ(outcome.status, HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
  }
  if (outcome.status != HEADENDSELECTION_ERROR_ADDED_TO_CACHE) {
    EXPECT_EQ(outcome.headends, 1U);
    EXPECT_TRUE(outcome.isLastFirst);
  }
}

void AFault::CheckUndisturbed() {
  sm_host->ResetCache();
  const Outcome outcome = sm_host->Select(Fault(), GetParam().probing);
  EXPECT_TRUE(outcome.isConstructed);
  EXPECT_EQ(outcome.calls, 1U);
  // OpenSSL tries to initialise only once per process.
  if (GetParam().probing == Probing::Secure && OSSL_LIB_CTX_get0_global_default() == nullptr) {
    EXPECT_EQ(outcome.status, HEADENDSELECTION_ERROR_SELECTION_FAILURE);
    return;
  }
  EXPECT_EQ(outcome.status, HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
  EXPECT_EQ(outcome.headends, HeadendCount);
  EXPECT_TRUE(outcome.areKnown);
  EXPECT_TRUE(sm_host->IsStored());
  EXPECT_EQ(sm_host->FindCacheFlaw(), "");
}

TEST_P(AFault, EndsInOneCall) {
  const Exemption own;
  unsigned long calls = 0;
  for (int run = 0; run < 4; ++run) {  // first runs create what later runs reuse
    calls = std::max(calls, CountCalls());
  }
  DisturbAll(calls, ManyRuns, [this](const Fault& fault) {
    const long blocks = liveBlocks();
    const unsigned int descriptors = openDescriptors();
    const Seen seen = Examine(fault);
    // libcurl up to 7.88 closes descriptor 0 if it gets no memory for the lock of a look-up: it
    // takes an unset field for a socket.
    if (fault.call == Call::AllocateInC && ::fcntl(STDIN_FILENO, F_GETFD) == -1) {
      EXPECT_EQ(::open("/dev/null", O_RDONLY), STDIN_FILENO);
    }
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_EQ(liveBlocks(), blocks);
    return seen;
  });
}

/// A process's first selection, in a child; gateways and files belong to the parent. The name makes
/// the test program run this before its own selections.
class FirstSelectionDeathTest : public AFault {
 protected:
  /// Lets a child select. Its failures count here.
  Seen InChild(const std::function<Seen()>& selection) {
    auto* const seen = static_cast<Seen*>(
        mmap(nullptr, sizeof(Seen), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const pid_t child = fork();
    if (child == 0) {
      startFirstThread();
      // Lets the C library create its resolver's permanent data. Without memory for it, glibc 2.36
      // keeps a lock for ever or never works again.
      std::vector<std::string> place;
      EXPECT_TRUE(readResolverPlace(place));
      *seen = selection();
      if (__lsan_do_recoverable_leak_check != nullptr) {
        EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0);
      }
      std::cout.flush();
      std::fflush(nullptr);
      _exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << (WIFSIGNALED(status) ? strsignal(WTERMSIG(status)) : "see above");
    const Seen result = *seen;
    munmap(seen, sizeof(Seen));
    return result;
  }
};

TEST_P(FirstSelectionDeathTest, EndsInOneCall) {
  const Exemption own;
  const Seen seen = InChild([this] { return Seen{CountCalls(), 0}; });
  DisturbAll(seen.calls, ManyFirstRuns,
             [this](const Fault& fault) { return InChild([&] { return Examine(fault); }); });
}

// --- What may fail
// ---------------------------------------------------------------------------------
//
// And the permitted cost. Log and cache are conveniences: their files never change the selection.
// One network failure costs at most a probe, and a worker has a second one; a name that is not
// found costs its headend.

constexpr unsigned int All = HeadendCount;
constexpr unsigned int AllButOne = HeadendCount - 1;

/// Each of these errors, once and lasting.
struct Kind {
  std::string name;
  Call call = Call::None;
  std::vector<int> errors;
  unsigned int least = 0;
  unsigned int leastOfLasting = 0;
  Probing probing = Probing::Plain;
};

std::string nameOf(Call call, int error) {
  if (call == Call::LookUpName) {
    return "_Failure" + std::to_string(-error);
  }
  return error == 0                   ? ""
         : error == Fault::ShortWrite ? "_Short"
                                      : std::string("_") + strerrorname_np(error);
}

auto sweepsOf(const std::vector<Kind>& kinds) {
  std::vector<Sweep> sweeps;
  for (const Kind& kind : kinds) {
    for (const int error : kind.errors) {
      const std::string name = kind.name + nameOf(kind.call, error);
      sweeps.push_back({name + "_Once", {kind.call, 0, false, error}, kind.least, kind.probing});
      sweeps.push_back(
          {name + "_FromThereOn", {kind.call, 0, true, error}, kind.leastOfLasting, kind.probing});
    }
  }
  return testing::ValuesIn(sweeps);
}

INSTANTIATE_TEST_SUITE_P(
    SelectionWithoutThreads, AFault,
    sweepsOf({{"Plain", Call::CreateThread, {EAGAIN}, AllButOne},
              {"Secure", Call::CreateThread, {EAGAIN}, AllButOne, 0, Probing::Secure}}),
    nameOfSweep);

INSTANTIATE_TEST_SUITE_P(SelectionWithoutMemory, AFault, sweepsOf({{"Plain", Call::Allocate, {0}}}),
                         nameOfSweep);

INSTANTIATE_TEST_SUITE_P(SelectionWithoutMemory, FirstSelectionDeathTest,
                         sweepsOf({{"Plain", Call::Allocate, {0}},
                                   {"Secure", Call::Allocate, {0}, 0, 0, Probing::Secure}}),
                         nameOfSweep);

INSTANTIATE_TEST_SUITE_P(SelectionWithoutNames, AFault,
                         sweepsOf({{"LookUp",
                                    Call::LookUpName,
                                    {EAI_AGAIN, EAI_NONAME, EAI_MEMORY, EAI_SYSTEM, EAI_FAIL},
                                    AllButOne,
                                    AllButOne}}),
                         nameOfSweep);

INSTANTIATE_TEST_SUITE_P(
    SelectionWithoutFiles, AFault,
    sweepsOf({{"Open", Call::Open, {EMFILE, EACCES, ENOSPC}, All, All},
              {"Read", Call::Read, {EIO}, All, All},
              {"Write", Call::Write, {ENOSPC, EIO, Fault::ShortWrite}, All, All},
              {"Close", Call::Close, {EIO}, All, All},
              {"Rename", Call::Rename, {EACCES, ENOSPC}, All, All},
              {"MakeDirectory", Call::MakeDirectory, {EACCES, ENOSPC}, All, All},
              {"LookAt", Call::LookAt, {EACCES}, All, All},
              {"ReadResolver", Call::ReadResolver, {EMFILE}, All, All}}),
    nameOfSweep);

// libcurl's resolver wakes its waiter through a socket pair; without it the look-up fails, which
// costs the headend with a name.
INSTANTIATE_TEST_SUITE_P(
    SelectionWithoutSockets, AFault,
    sweepsOf({{"Socket", Call::Socket, {EMFILE, ENOBUFS}, AllButOne},
              {"Connect", Call::Connect, {ENETUNREACH, EADDRNOTAVAIL}, All},
              {"SocketOption", Call::SocketOption, {ENOBUFS}, All},
              {"Watch", Call::Watch, {EMFILE}, AllButOne},
              {"Send", Call::Send, {ECONNRESET, ENOBUFS}, All},
              {"Receive", Call::Receive, {ECONNRESET}, All},
              {"SecureSend", Call::Send, {ECONNRESET}, All, 0, Probing::Secure},
              {"SecureReceive", Call::Receive, {ECONNRESET}, All, 0, Probing::Secure}}),
    nameOfSweep);

// A sanitizer brings its own allocator.
#ifdef AHS_C_MEMORY
// Not lasting: the reaction of other libraries is not ours to test.
const auto InC =
    testing::Values(Sweep{"Plain", {Call::AllocateInC, 0, false, ENOMEM}},
                    Sweep{"Secure", {Call::AllocateInC, 0, false, ENOMEM}, 0, Probing::Secure});
INSTANTIATE_TEST_SUITE_P(SelectionWithoutCMemory, AFault, InC, nameOfSweep);
INSTANTIATE_TEST_SUITE_P(SelectionWithoutCMemory, FirstSelectionDeathTest, InC, nameOfSweep);
#endif

}  // namespace
}  // namespace tests
