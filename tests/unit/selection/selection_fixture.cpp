// What all tests of a selection run share: a run among doubles, brought to its end on a thread of
// its own, and the account at the end of each test. Whatever a test does, everything acquired must
// have been released and no thread may be left.

#include "tests/unit/selection/selection_fixture.h"

#include <pthread.h>

#include <set>
#include <utility>

#include "vpn/Common/Utility/Thread.h"

namespace tests {
namespace {

/// Function and format of every message of the component. What comes from a profile or the network
/// is an argument and never part of a format.
const std::set<std::pair<std::string, std::string>>& knownFormats() {
  static const std::set<std::pair<std::string, std::string>> known{
      {"run", "CHeadendSelection thread ID '%d'"},
      {"run", "QIB ended by an exception: %s"},
      {"selectHeadend", "Starting QIB processing during %s attempt. Last headend: %s"},
      {"selectHeadend", "QIB cache could not be created."},
      {"selectHeadend", "QIB has no hosts to process."},
      {"finishAHS", "QIB in finishAHS() for first time"},
      {"finishAHS", "QIB in finishAHS() a second time"},
      {"finishAHS", "Finished QIB thread, selected %s"},
      {"finishAHS", "Finished QIB thread, unable to select a host"},
      {"OnTimerExpired", "QIB timer expired"},
      {"OnTimerExpired", "Invalid parameter sent to QIB OnTimerExpired"},
      {"startPingThreads", "QIB Sending test ping to %s:%d"},
      {"startPingThreads", "QIB test ping took %d"},
      {"startPingThreads", "QIB: Encountered an auth proxy"},
      {"startPingThreads", "QIB timer expired before any servers could be pinged."},
      {"startPingThreads", "QIB timer expired before starting thread %d"},
      {"Run", "QIB starting thread named %s"},
      {"Run", "QIB terminating thread for %s"},
      {"Run", "QIB ping timeout or couldn't connect: %s"},
      {"Run", "QIB: DNS error for %s, time: %d"},
      {"Run", "QIB ping error for %s: %d"},
      {"TerminateThread", "QIB forcibly terminating thread for %s"},
      {"logThreadPingResults", "QIB ping results for %s: %s"},
      {"addHeadendToList", "Empty headend."},
      {"getBestHeadendsList", "unable to get QIB results from CCacheEntry::GetHeadendList()"},
      {"getBestHeadendsList", "didn't get any QIB results from CCacheEntry::GetHeadendList()"},
      {"logPingResults", "%s"},
      {"getHeadendListFromProfile", "QIB unable to get preference EnableAutomaticServerSelection"},
  };
  return known;
}

class Grouping : public std::numpunct<char> {
 public:
  explicit Grouping(char separator) : m_separator(separator) {}

 protected:
  char do_thousands_sep() const override { return m_separator; }
  std::string do_grouping() const override { return "\3"; }

 private:
  const char m_separator;
};

}  // namespace

GroupedDigits::GroupedDigits(char separator)
    : m_before(std::locale::global(std::locale(std::locale::classic(), new Grouping(separator)))) {}

void Client::AHSSelectedHost(unsigned int reason, const std::vector<std::string>& headends,
                             long status, const std::string& extraInfo) {
  ++m_busy;
  if (during) {
    during();
  }
  {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_outcomes.push_back({reason, headends, status, extraInfo, std::this_thread::get_id()});
  }
  --m_busy;
}

std::size_t Client::calls() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_outcomes.size();
}

std::vector<Client::Outcome> Client::outcomes() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_outcomes;
}

Client::Outcome Client::only() const {
  const std::vector<Outcome> all = outcomes();
  EXPECT_EQ(all.size(), 1U) << "the client is called exactly once per run";
  return all.size() == 1 ? all.front() : Outcome{};
}

SelectionTest::SelectionTest() {
  doubles::journal().reset();
  doubles::log().reset();
  doubles::probes().reset();
  doubles::clock().reset();
  doubles::timers().reset();
  doubles::cache().reset();
  doubles::preferences().reset();
  doubles::seams().reset();
}

SelectionTest::~SelectionTest() = default;

void SelectionTest::TearDown() {
  joinRun();
  destroy();
  EXPECT_TRUE(quiet());
  EXPECT_EQ(CThread::RunningCount(), 0U);
  EXPECT_EQ(doubles::timers().live(), 0);
  EXPECT_EQ(doubles::timers().contextAcquired(), doubles::timers().contextReleased());
  EXPECT_EQ(doubles::preferences().acquired, doubles::preferences().released);
  EXPECT_EQ(doubles::cache().acquired(), doubles::cache().released());
  for (const doubles::LogLine& line : doubles::log().lines()) {
    if (line.file == "vpn/Common/Utility/Thread") {
      continue;  // the thread base's own
    }
    EXPECT_EQ(line.file, line.kind == doubles::LogLine::Kind::Verbose
                             ? "HeadendSelection"
                             : "vpn/Api/AHS/HeadendSelection")
        << line.toString();
    EXPECT_GT(line.line, 0U) << line.toString();
    if (line.kind != doubles::LogLine::Kind::ReturnCode) {
      EXPECT_EQ(knownFormats().count({line.function, line.format}), 1U)
          << line.function << " has no format \"" << line.format << '"';
    }
    EXPECT_EQ(line.systemError, 0) << line.toString();
    EXPECT_EQ(line.hasExtraText, line.message == "PreferenceMgr::getPreferenceValue")
        << line.toString();
  }
}

CHeadendSelection& SelectionTest::make(unsigned int reason, const std::string& last) {
  EXPECT_EQ(run, nullptr) << "one run a test";
  long status = -1;
  run = new CHeadendSelection(&client, last, reason, status);
  EXPECT_EQ(status, 0);
  return *run;
}

void SelectionTest::destroy() { delete std::exchange(run, nullptr); }

void SelectionTest::runToEnd() {
  startRun();
  joinRun();
}

void SelectionTest::startRun() {
  runThread = std::thread([this, started = std::exchange(run, nullptr)] {
    threadId = static_cast<int>(pthread_self());
    runThreadId = std::this_thread::get_id();
    started->run();
    hasRunReturned = true;
  });
}

void SelectionTest::joinRun() {
  if (runThread.joinable()) {
    runThread.join();
  }
}

bool SelectionTest::quiet() {
  return doubles::eventually([] {
    return CThread::RunningCount() == 0 &&
           doubles::cache().acquired() == doubles::cache().released() &&
           doubles::timers().live() == 0;
  });
}

bool SelectionTest::fireTimer() {
  bool fired = false;
  std::thread timerThread([&] {
    timerThreadId = std::this_thread::get_id();
    fired = doubles::timers().fire();
  });
  timerThread.join();
  return fired;
}

std::string SelectionTest::threadLine() const {
  return "run I CHeadendSelection thread ID '" + std::to_string(threadId) + "'";
}

CCacheEntry entryOf(const std::vector<std::pair<std::string, unsigned int>>& results) {
  CCacheEntry entry;
  for (const auto& [host, rtt] : results) {
    entry.AddHeadend(CHeadendRTT(host, rtt));
  }
  return entry;
}

Texts recordsOf(const CCacheEntry& entry) {
  std::vector<CHeadendRTT> list;
  EXPECT_EQ(entry.GetHeadendList(list), 0);
  Texts texts;
  for (const CHeadendRTT& record : list) {
    texts.push_back(record.GetHeadend() + " " + std::to_string(record.GetRTT()));
  }
  return texts;
}

Texts keysOf(const std::vector<URL>& urls) {
  Texts texts;
  for (const URL& url : urls) {
    texts.push_back(url.getHostAndPort(false));
  }
  return texts;
}

}  // namespace tests
