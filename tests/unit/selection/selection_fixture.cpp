// What all tests of a selection run share: a run among doubles, brought to its end on a thread of
// its own, and the account at the end of each test. Whatever a test does, everything acquired must
// have been released and no thread may be left.

#include "tests/unit/selection/selection_fixture.h"

#include <pthread.h>

#include <utility>

#include "vpn/Common/Utility/Thread.h"

namespace tests {

void Client::AHSSelectedHost(unsigned int reason, const std::vector<std::string>& headends,
                             long status, const std::string& extraInfo) {
  if (during) {
    during();
  }
  const std::lock_guard<std::mutex> hold(m_lock);
  m_outcomes.push_back({reason, headends, status, extraInfo, std::this_thread::get_id()});
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
    if (line.function == "Destroy") {
      continue;  // the thread base's line
    }
    EXPECT_EQ(line.file, line.kind == doubles::LogLine::Kind::Verbose
                             ? "HeadendSelection"
                             : "vpn/Api/AHS/HeadendSelection")
        << line.toString();
    EXPECT_GT(line.line, 0U) << line.toString();
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
