// One selection after another in a process that things fail in. The test's own thread is exempt
// from faults except while it constructs a run, as is the client's callback: what fails there would
// be the host's own.

#include "tests/faults/Host.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <thread>

#include "tests/support/Eventually.h"
#include "tests/support/ProviderWithoutProxy.h"
#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Api/AHS/SelectionFiles.h"
#include "vpn/Api/ClientIfcBase.h"
#include "vpn/Common/Utility/Thread.h"

namespace tests {
namespace {

/// Longer than any selection takes, even one in which every probe runs into its time-out.
constexpr unsigned int PatienceSeconds = 60;

/// The headends as they are delivered; the last one is known by a name. Written once, before any
/// selection.
std::array<std::string, DisturbedHost::HeadendCount> headendNames;

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

/// Waits until the process has no more threads than before.
void waitForThreads(unsigned int ours, unsigned int all) {
  eventually([=] { return CThread::RunningCount() <= ours && threadCount() <= all; });
}

unsigned int countEntries(const char* path) {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(path), ::closedir);
  unsigned int count = 0;
  while (directory && ::readdir(directory.get()) != nullptr) {
    ++count;
  }
  return count;
}

}  // namespace

// Two probes, so that a worker that loses one still has a sample. The times are for machines that
// do other things besides.
DisturbedHost::DisturbedHost()
    : m_host({{"SelectionPingsPerHeadend", "2"},
              {"SelectionConnectTimeout", "40000"},
              {"SelectionPingTimeout", "10000"},
              {"SelectionTestPingTimeout", "10"}}) {
  HttpProbe::setTrustFile("");  // a certificate that is not trusted is an answer too
  std::ranges::copy(m_gateways.Addresses(), headendNames.begin());
  headendNames.back().replace(0, headendNames.back().find(':'), KnownName);
}

void DisturbedHost::Start() {
  std::filesystem::remove(m_host.LogFile());
  m_ourThreads = CThread::RunningCount();
  m_allThreads = threadCount();
  m_host.BringUp({headendNames[0], m_down.Where().Text(), headendNames[1], headendNames[2]});
}

void DisturbedHost::Stop() {
  m_host.TakeDown();
  waitForThreads(m_ourThreads, m_allThreads);
}

Outcome DisturbedHost::Select(const Fault& fault, Probing probing) {
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

void DisturbedHost::ResetCache() const {
  std::filesystem::create_directory(m_host.CacheDirectory());
  std::filesystem::permissions(m_host.CacheDirectory(), std::filesystem::perms::owner_all);
  for (const auto& item : std::filesystem::directory_iterator(m_host.CacheDirectory())) {
    std::string text = readFile(item.path());
    const std::size_t stamp = text.find("stored=\"") + std::strlen("stored=\"");
    text.replace(stamp, text.find('"', stamp) - stamp, "1");
    std::ofstream(item.path(), std::ios::trunc) << text;
  }
}

bool DisturbedHost::IsStored() const {
  std::string problem;
  return std::ranges::any_of(
      SelectionFiles::list(m_host.CacheDirectory(), problem),
      [](const auto& selection) { return selection.entry.GetTimestamp() > 1; });
}

std::string DisturbedHost::FindCacheFlaw() const {
  std::string flaw;
  const auto selections = SelectionFiles::list(m_host.CacheDirectory(), flaw);
  const std::filesystem::directory_iterator files(m_host.CacheDirectory());
  if (std::distance(begin(files), end(files)) != std::ssize(selections)) {
    flaw += " there are other files;";
  }
  return flaw;
}

unsigned int openDescriptors() { return countEntries("/proc/self/fd"); }
unsigned int threadCount() { return countEntries("/proc/self/task"); }

}  // namespace tests
