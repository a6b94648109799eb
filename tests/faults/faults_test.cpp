// Selections in a process in which one thing after another fails. Whatever it is, the client is
// called exactly once with something it can use, nothing is left behind, and the next selection is
// as if nothing had been. Each disturbed selection has a client library of its own, so that it
// finds the log file open and leaves nothing to hide behind.
//
// Where there are very many calls, only some of them are made to fail in turn, evenly spread. The
// environment variable AHS_FAULTS is "all" for each of them, or the number of the only one.

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
#include "vpn/Common/Utility/Thread.h"

extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

namespace tests {
namespace {

// --- A process that selects ----------------------------------------------------------------------
//
// The test's own thread is exempt from faults except while it constructs a run, as is the client's
// callback: what fails there would be the host's own.

/// Headends that answer.
constexpr unsigned int HeadendCount = 3;

/// How a selection probes: plainly, or over TLS as it does for a client with a proxy that wants a
/// login.
enum class Probing { Plain, Secure };

/// What became of one selection.
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

/// Longer than any selection takes, even one in which every probe runs into its time-out.
constexpr unsigned int PatienceSeconds = 60;

/// The headends as they are delivered; the last one is known by a name. Written once, before any
/// selection.
std::array<std::string, HeadendCount> headendNames;

/// Keeps the first call's outcome in numbers, so that it needs no memory.
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
  Outcome& m_outcome;  // the test's again when the run has returned
};

/// Constructs a run; null when that failed, as `outcome` then tells.
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

/// Waits until the process has no more threads than before.
void waitForThreads(unsigned int ours, unsigned int all) {
  eventually([=] { return CThread::RunningCount() <= ours && threadCount() <= all; });
}

/// A process that selects: gateways on the loopback interface, one of them known by a name, and one
/// more that is down; preferences, a log file, a cache.
/// Used by one thread, which is exempt from faults. A selection that does not end ends the process.
class DisturbedHost {
 public:
  // Two probes, so that a worker that loses one still has a sample. The times are for machines
  // that do other things besides.
  DisturbedHost()
      : m_host({{"SelectionPingsPerHeadend", "2"},
                {"SelectionConnectTimeout", "40000"},
                {"SelectionPingTimeout", "10000"},
                {"SelectionTestPingTimeout", "10"}}) {
    HttpProbe::setTrustFile("");  // a certificate that is not trusted is an answer too
    std::ranges::copy(m_gateways.Addresses(), headendNames.begin());
    headendNames.back().replace(0, headendNames.back().find(':'), KnownName);
  }

  /// Brings the client library up, with a new log.
  void Start() {
    std::filesystem::remove(m_host.LogFile());
    m_ourThreads = CThread::RunningCount();
    m_allThreads = threadCount();
    m_host.BringUp({headendNames[0], m_down.Where().Text(), headendNames[1], headendNames[2]});
  }

  /// Takes it down and waits until its threads are gone.
  void Stop() {
    m_host.TakeDown();
    waitForThreads(m_ourThreads, m_allThreads);
  }

  /// What has been logged since.
  std::string Log() const { return readFile(m_host.LogFile()); }

  /// Runs one selection to its end while `fault` is armed, and waits until none of its threads is
  /// left. No block of memory that it takes for itself is left either.
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

  /// Makes its directory, and what has been selected expire.
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
  /// Whether a selection that has not expired is in the cache.
  bool IsStored() const {
    std::string problem;
    return std::ranges::any_of(
        SelectionFiles::list(m_host.CacheDirectory(), problem),
        [](const auto& selection) { return selection.entry.GetTimestamp() > 1; });
  }

  /// What is wrong with the cache: a file that is no selection, or none of the cache's.
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
  // What there was before the library.
  unsigned int m_ourThreads = 0;
  unsigned int m_allThreads = 0;
};

// --- Its promise ---------------------------------------------------------------------------------

/// Threads race, so that runs differ a little in how often they call what fails.
constexpr unsigned long CallsBeyond = 3;

/// Calls that fail in turn when not all are asked for: in one process, and each in a child's.
constexpr unsigned long ManyRuns = 500;
constexpr unsigned long ManyFirstRuns = 100;

/// Statuses with which a selection may end that something disturbed.
constexpr STATUSCODE Endings[] = {
    HEADENDSELECTION_ERROR_ADDED_TO_CACHE,
    HEADENDSELECTION_ERROR_SELECTION_FAILURE,
    HEADENDSELECTION_ERROR_MEMALLOC_FAILED,
};

/// One fault after another: at the first call, at the second one, and so on.
struct Sweep {
  std::string name;
  Fault fault;  ///< `first` is set by the sweep
  /// Headends that a selection delivers however it is disturbed; if it may deliver fewer than all,
  /// it may fail as well.
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

/// Starts a thread that ends at once. ThreadSanitizer starts one of its own, which stays, with the
/// first of a process: threads are to be counted after that.
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
    // Also for a selection that does not end, or ends the process.
    std::cout << "at call " << number << " of " << calls << std::endl;
    strikes += disturb(fault).failed != 0 ? 1 : 0;
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_GT(strikes, 0U);
}

void AFault::Prepare() {
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
  // OpenSSL tries to come up once a process.
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
  for (int run = 0; run < 4; ++run) {  // the first ones make much that the later ones find made
    calls = std::max(calls, CountCalls());
  }
  DisturbAll(calls, ManyRuns, [this](const Fault& fault) {
    const long blocks = liveBlocks();
    const unsigned int descriptors = openDescriptors();
    const Seen seen = Examine(fault);
    // libcurl up to 7.88 closes descriptor 0 when it gets no memory for the lock of a look-up (it
    // takes a field that is not set yet for a socket).
    if (fault.call == Call::AllocateInC && ::fcntl(STDIN_FILENO, F_GETFD) == -1) {
      EXPECT_EQ(::open("/dev/null", O_RDONLY), STDIN_FILENO);
    }
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_EQ(liveBlocks(), blocks);
    return seen;
  });
}

/// The first selection of a process, which is a child's; the gateways and the files are the
/// parent's. Named so that the test program runs it before it has selected itself.
class FirstSelectionDeathTest : public AFault {
 protected:
  /// Lets a child select. Its failures become this process's.
  Seen InChild(const std::function<Seen()>& selection) {
    auto* const seen = static_cast<Seen*>(
        mmap(nullptr, sizeof(Seen), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const pid_t child = fork();
    if (child == 0) {
      startFirstThread();
      // Has the C library make what its resolver needs for good. That of glibc 2.36 does not
      // survive if it gets no memory for it: it then keeps a lock for ever, or never works again.
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
// And what that may cost. Log and cache are conveniences: whatever becomes of their
// files, the selection is the same. Of the network, what fails once costs a probe at most, and a
// worker has a second one; a name that is not found costs its headend.

constexpr unsigned int All = HeadendCount;
constexpr unsigned int AllButOne = HeadendCount - 1;

/// Each of these errors, for once and lastingly.
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
              {"Flush", Call::Flush, {ENOSPC}, All, All},
              {"Close", Call::Close, {EIO}, All, All},
              {"Rename", Call::Rename, {EACCES, ENOSPC}, All, All},
              {"MakeDirectory", Call::MakeDirectory, {EACCES, ENOSPC}, All, All},
              {"LookAt", Call::LookAt, {EACCES}, All, All},
              {"ReadResolver", Call::ReadResolver, {EMFILE}, All, All}}),
    nameOfSweep);

// libcurl's resolver wakes who waits for it through a pair of sockets; without it the look-up has
// failed, which costs the headend that has a name.
INSTANTIATE_TEST_SUITE_P(
    SelectionWithoutSockets, AFault,
    sweepsOf({{"Socket", Call::Socket, {EMFILE, ENOBUFS}, AllButOne},
              {"Connect", Call::Connect, {ENETUNREACH, EADDRNOTAVAIL}, All},
              {"Control", Call::Control, {ENOMEM}, All},
              {"SocketOption", Call::SocketOption, {ENOBUFS}, All},
              {"SocketName", Call::SocketName, {ENOBUFS}, All},
              {"Poll", Call::Poll, {ENOMEM}, All},
              {"Send", Call::Send, {ECONNRESET, ENOBUFS}, All},
              {"Receive", Call::Receive, {ECONNRESET}, All},
              {"SecureSend", Call::Send, {ECONNRESET}, All, 0, Probing::Secure},
              {"SecureReceive", Call::Receive, {ECONNRESET}, All, 0, Probing::Secure},
              {"SecurePoll", Call::Poll, {ENOMEM}, All, 0, Probing::Secure}}),
    nameOfSweep);

// A sanitizer is an allocator too.
#ifdef AHS_C_MEMORY
// Not lastingly: what the libraries below make of that is theirs.
const auto InC =
    testing::Values(Sweep{"Plain", {Call::AllocateInC, 0, false, ENOMEM}},
                    Sweep{"Secure", {Call::AllocateInC, 0, false, ENOMEM}, 0, Probing::Secure});
INSTANTIATE_TEST_SUITE_P(SelectionWithoutCMemory, AFault, InC, nameOfSweep);
INSTANTIATE_TEST_SUITE_P(SelectionWithoutCMemory, FirstSelectionDeathTest, InC, nameOfSweep);
#endif

}  // namespace
}  // namespace tests
