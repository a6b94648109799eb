// Shared by all tests of a selection run: runs one among doubles on a separate thread, and checks
// after each test that everything acquired is released and no thread is left.

#include "tests/unit/selection/selection_fixture.h"

#include <pthread.h>

#include <utility>

#include "vpn/Common/Utility/Thread.h"

doubles::PreferenceScript& doubles::preferences() {
  static PreferenceScript& instance = *new PreferenceScript;
  return instance;
}

namespace tests {

void Client::AHSSelectedHost(unsigned int reason, const std::vector<std::string>& headends,
                             long status, const std::string& extraInfo) {
  if (during) {
    during();
  }
  m_outcomes.add(Outcome{reason, headends, status, extraInfo, std::this_thread::get_id()});
}

Client::Outcome Client::only() const {
  const std::vector<Outcome> outcomes = m_outcomes.get();
  EXPECT_EQ(outcomes.size(), 1U) << "the client is called exactly once per run";
  return outcomes.size() == 1 ? outcomes.front() : Outcome{};
}

SelectionTest::SelectionTest() {
  doubles::renewWorld();
  preferences().reset();
}

void SelectionTest::TearDown() {
  joinRun();
  destroy();
  EXPECT_TRUE(quiet());
  EXPECT_EQ(CThread::RunningCount(), 0U);
  EXPECT_EQ(timers().live, 0);
  EXPECT_EQ(timers().contextAcquired, timers().contextReleased);
  EXPECT_EQ(preferences().acquired, preferences().released);
  EXPECT_EQ(cache().acquired, cache().released);
  for (const doubles::LogLine& line : doubles::log().lines()) {
    if (line.file.starts_with("vpn/Common/Utility/")) {
      continue;  // the thread base's own
    }
    EXPECT_EQ(line.file, line.kind == doubles::LogLine::Kind::Verbose
                             ? "HeadendSelection"
                             : "vpn/Api/AHS/HeadendSelection")
        << line.toString();
    EXPECT_GT(line.line, 0U) << line.toString();
  }
}

CHeadendSelection& SelectionTest::make(unsigned int reason, const std::string& last,
                                       long expected) {
  EXPECT_EQ(run, nullptr) << "one run at a time";
  long status = -1;
  run = new CHeadendSelection(&client, last, reason, status);
  EXPECT_EQ(status, expected);
  return *run;
}

CHeadendSelection& SelectionTest::makeFor(const Texts& addresses, unsigned int reason,
                                          const std::string& last) {
  preferences().useAddresses(addresses);
  return make(reason, last);
}

void SelectionTest::destroy() { delete std::exchange(run, nullptr); }

void SelectionTest::runToEnd() {
  startRun();
  joinRun();
}

void SelectionTest::startRun() {
  runThread = std::thread([this, started = std::exchange(run, nullptr)] {
    runThreadId = std::this_thread::get_id();
    runThreadHandle = pthread_self();
    started->run();
    hasRunReturned = true;
  });
}

void SelectionTest::joinRun() {
  if (runThread.joinable()) {
    runThread.join();
  }
}

Client::Outcome SelectionTest::outcome() {
  EXPECT_TRUE(quiet());
  const Client::Outcome only = client.only();
  EXPECT_NE(only.thread, runThreadId);
  EXPECT_NE(only.thread, timerThreadId);
  return only;
}

bool SelectionTest::quiet() {
  return doubles::eventually([] {
    return CThread::RunningCount() == 0 && cache().acquired == cache().released &&
           timers().live == 0;
  });
}

bool SelectionTest::fireTimer() {
  bool fired = false;
  std::thread timerThread([&] {
    timerThreadId = std::this_thread::get_id();
    fired = timers().fire();
  });
  timerThread.join();
  return fired;
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
