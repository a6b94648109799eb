// One selection after another in a process that things fail in. The test's own thread is exempt
// from faults except while it constructs a run, as is the client's callback: what fails there would
// be the host's own.

#include "tests/faults/Host.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <filesystem>
#include <new>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Api/AHS/ResolverPlace.h"
#include "vpn/Api/AHS/SelectionFiles.h"
#include "vpn/Api/ClientIfcBase.h"
#include "vpn/Api/ProxyIfc.h"
#include "vpn/Common/Utility/Thread.h"

extern "C" void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));

namespace tests {
namespace {

/// Longer than any selection takes, even one in which every probe runs into its time-out.
constexpr unsigned int PatienceSeconds = 60;
constexpr std::chrono::microseconds PollInterval{200};
constexpr std::chrono::seconds SettleLimit{30};

constexpr const char* OtherName = "another-gateway.test";
constexpr const char* LastHeadendName = "Named";

/// The headends as they are delivered; the last one is known by a name. Written once, before any
/// selection.
std::array<std::string, Host::HeadendCount> headendNames;

// --- What is said when a selection does not end ------------------------------------------------

std::array<char, 256> faultText{};

void sayFault() {
  // The test's own write(2) is no different, but need not be asked.
  static_cast<void>(!::write(STDERR_FILENO, faultText.data(), std::strlen(faultText.data())));
}

void onAlarm(int) {
  constexpr char Text[] = "\nThe selection does not end. ";
  static_cast<void>(!::write(STDERR_FILENO, Text, sizeof Text - 1));
  std::abort();
}

void onAbort(int) { sayFault(); }

void watchForDeath() {
  struct sigaction action {};
  action.sa_handler = onAlarm;
  sigaction(SIGALRM, &action, nullptr);
  action.sa_handler = onAbort;  // returns, upon which abort(3) ends the process
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  sigaction(SIGABRT, &action, nullptr);
  if (__sanitizer_set_death_callback != nullptr) {
    __sanitizer_set_death_callback(sayFault);
  } else {
    sigaction(SIGSEGV, &action, nullptr);
  }
}

void describe(const Fault& fault) {
  std::snprintf(faultText.data(), faultText.size(), "[fault: call %d, number %lu%s, error %d]\n",
                static_cast<int>(fault.call), fault.first, fault.lasting ? " and all after it" : "",
                fault.error);
}

// --- The client --------------------------------------------------------------------------------

/// Keeps the first call's outcome in numbers, so that it needs no memory.
class Client : public ClientIfcBase {
 public:
  void AHSSelectedHost(unsigned int, const std::vector<std::string>& headends, long status,
                       const std::string&) override {
    const Exemption hostsOwn;
    if (m_calls++ != 0) {
      return;
    }
    m_status = status;
    m_headends = static_cast<unsigned int>(headends.size());
    m_isLastFirst = !headends.empty() && headends.front() == headendNames.back();
    std::array<unsigned int, Host::HeadendCount> found{};
    unsigned int known = 0;
    for (const std::string& headend : headends) {
      const auto name = std::find(headendNames.begin(), headendNames.end(), headend);
      if (name != headendNames.end() &&
          found[static_cast<std::size_t>(name - headendNames.begin())]++ == 0) {
        ++known;
      }
    }
    m_areKnown = known == m_headends;
  }

  void Report(Outcome& outcome) const {
    outcome.calls = m_calls;
    outcome.status = m_status;
    outcome.headends = m_headends;
    outcome.areKnown = m_areKnown;
    outcome.isLastFirst = m_isLastFirst;
  }

 private:
  // The results thread writes, and has ended when the test reads.
  std::atomic<unsigned int> m_calls{0};
  std::atomic<STATUSCODE> m_status{-1};
  std::atomic<unsigned int> m_headends{0};
  std::atomic<bool> m_areKnown{false};
  std::atomic<bool> m_isLastFirst{false};
};

/// A provider that knows neither a proxy nor a user, and by being there makes probes secure.
class SecureProvider : public ProxyIfc {
 public:
  UnprotectedCredential getProxyUser() override { return {}; }
  UnprotectedCredential getProxyPswd() override { return {}; }
  std::string getProxyHost() override { return {}; }
  ProxyType getProxyType() override { return BasicProxy; }
};

/// Constructs a run; null when that failed, as `outcome` then tells.
CHeadendSelection* construct(Client& client, const std::string& lastHeadend, Outcome& outcome) {
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
  const auto limit = std::chrono::steady_clock::now() + SettleLimit;
  while ((CThread::RunningCount() > ours || threadCount() > all) &&
         std::chrono::steady_clock::now() < limit) {
    std::this_thread::sleep_for(PollInterval);
  }
}

bool isTheProfiles(const SelectionFiles::Selection& selection) {
  return selection.entry.GetKnownHeadends().find(headendNames.back() + ";") != std::string::npos;
}

unsigned int countEntries(const char* path) {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(path), ::closedir);
  unsigned int count = 0;
  while (directory && ::readdir(directory.get()) != nullptr) {
    ++count;
  }
  return count;
}

/// Waits for the gateways to say that they listen, and for their addresses.
std::vector<std::string> readAddresses(const std::string& outputFile) {
  const auto limit = std::chrono::steady_clock::now() + SettleLimit;
  while (std::chrono::steady_clock::now() < limit) {
    std::istringstream output(readFile(outputFile));
    std::vector<std::string> addresses;
    std::string word;
    while (output >> word && word != "ready") {
      if (word == "gateway" && output >> word) {
        addresses.push_back(word);
      }
    }
    if (word == "ready") {
      return addresses;
    }
    std::this_thread::sleep_for(PollInterval);
  }
  throw std::runtime_error("the gateways do not start: " + readFile(outputFile));
}

}  // namespace

Host::Host() : m_down(KnownAddress) {
  StartGateways();
  WriteConfiguration();
  m_options.sources.profileDirectory = m_directory.File("profiles");
  m_options.sources.userPreferencesFile = m_directory.File("preferences.xml");
  m_options.sources.cacheDirectory = CacheDirectory();
  m_options.log.file = m_directory.File("selection.log");
  watchForDeath();
}

Host::~Host() = default;

void Host::StartGateways() {
  const std::string output = m_directory.File("gateways.txt");
  m_gateways = std::make_unique<ChildProcess>(
      std::vector<std::string>{AHS_GATEWAYS, "--gateway", "127.0.77.1:0", "--gateway",
                               "127.0.77.2:0", "--gateway", std::string(KnownAddress) + ":0"},
      output, m_directory.Path());
  const std::vector<std::string> addresses = readAddresses(output);
  if (addresses.size() != HeadendCount) {
    throw std::runtime_error("the gateways are not those that were asked for");
  }
  std::copy(addresses.begin(), addresses.end(), headendNames.begin());
  headendNames.back().replace(0, headendNames.back().find(':'), KnownName);
}

void Host::WriteConfiguration() {
  m_directory.MakeDirectory("profiles");
  m_directory.Write(
      "profiles/laboratory.xml",
      "<profile version=\"1\"><preferences>"
      "<preference name=\"EnableAutomaticServerSelection\" value=\"true\"/></preferences><hosts>"
      "<host name=\"First\" address=\"" +
          headendNames[0] + "\"/><host name=\"Down\" address=\"" + m_down.Where().Text() +
          "\"/><host name=\"Second\" address=\"" + headendNames[1] + "\"/><host name=\"" +
          LastHeadendName + "\" address=\"" + headendNames[2] + "\"/></hosts></profile>");
  // Two probes, so that a worker that loses one still has a sample. The times are for machines that
  // do other things besides.
  m_directory.Write("preferences.xml",
                    "<preferences version=\"1\">"
                    "<preference name=\"SelectionPingsPerHeadend\" value=\"2\"/>"
                    "<preference name=\"SelectionConnectTimeout\" value=\"40000\"/>"
                    "<preference name=\"SelectionPingTimeout\" value=\"10000\"/>"
                    "<preference name=\"SelectionTestPingTimeout\" value=\"10\"/>"
                    "</preferences>");
}

std::string Host::Log() const { return readFile(m_options.log.file); }

STATUSCODE Host::Start() {
  std::filesystem::remove(m_options.log.file);
  m_ourThreads = CThread::RunningCount();
  m_allThreads = threadCount();
  STATUSCODE status = -1;
  m_library = std::make_unique<CClientLibrary>(m_options, status);
  return status;
}

void Host::Stop() {
  m_library.reset();
  waitForThreads(m_ourThreads, m_allThreads);
}

Outcome Host::Select(const Fault& fault, Probing probing) {
  const Exemption own;
  static const std::string lastHeadend = LastHeadendName;
  const unsigned int ourThreads = CThread::RunningCount();
  const unsigned int allThreads = threadCount();
  Outcome outcome;
  Client client;
  describe(fault);
  ::alarm(PatienceSeconds);
  arm(fault);
  if (CHeadendSelection* const selection = construct(client, lastHeadend, outcome)) {
    if (probing == Probing::Secure) {
      selection->SetProxy(new SecureProvider);
    }
    std::thread([selection] { selection->run(); }).join();
    waitForThreads(ourThreads, allThreads);
  }
  outcome.seen = disarm();
  ::alarm(0);
  client.Report(outcome);
  return outcome;
}

void Host::ResetCache() const {
  m_directory.MakeDirectory("state");
  m_directory.Write("state/selection-1.xml",
                    "<selection place=\"nameserver 192.0.2.1\" stored=\"" +
                        std::to_string(std::time(nullptr)) + "\"><candidate name=\"" + OtherName +
                        "\"/><result name=\"" + OtherName + "\" rtt=\"7\"/></selection>");
  for (const auto& item : std::filesystem::directory_iterator(CacheDirectory())) {
    std::string text = readFile(item.path());
    if (text.find(OtherName) == std::string::npos) {
      const std::size_t stamp = text.find("stored=\"") + std::strlen("stored=\"");
      text.replace(stamp, text.find('"', stamp) - stamp, "1");
      m_directory.Write("state/" + item.path().filename().string(), text);
    }
  }
}

void Host::RemoveCacheDirectory() const { std::filesystem::remove_all(CacheDirectory()); }

bool Host::IsStored() const {
  std::string problem;
  return std::ranges::any_of(
      SelectionFiles::list(CacheDirectory(), problem), [](const auto& selection) {
        return isTheProfiles(selection) && selection.entry.GetTimestamp() > 1;
      });
}

std::string Host::FindCacheFlaw() const {
  std::string flaw;
  const auto selections = SelectionFiles::list(CacheDirectory(), flaw);
  const auto others = std::ranges::count_if(selections, [](const auto& selection) {
    return selection.entry.GetKnownHeadends() == std::string(OtherName) + ";";
  });
  if (others != 1) {
    flaw += " the other selection is missing;";
  }
  if (others + std::ranges::count_if(selections, isTheProfiles) != std::ssize(selections)) {
    flaw += " there are strange selections;";
  }
  const std::filesystem::directory_iterator files(CacheDirectory());
  if (std::distance(begin(files), end(files)) != std::ssize(selections)) {
    flaw += " there are other files;";
  }
  return flaw;
}

unsigned int openDescriptors() { return countEntries("/proc/self/fd"); }

void startFirstThread() {
  std::thread([] {}).join();
}

void mendStandardInput() {
  if (::fcntl(STDIN_FILENO, F_GETFD) == -1) {
    EXPECT_EQ(::open("/dev/null", O_RDONLY), STDIN_FILENO);
  }
}

void wakeResolver() {
  std::vector<std::string> place;
  EXPECT_TRUE(readResolverPlace(place));
}

bool isTlsUsable() { return OSSL_LIB_CTX_get0_global_default() != nullptr; }

unsigned int threadCount() { return countEntries("/proc/self/task"); }

}  // namespace tests
