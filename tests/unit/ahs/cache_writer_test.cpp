// The writer: one job at a time, nobody waits longer than he wants to, and nothing is left of a
// writer but a job under way.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>
#include <vector>

#include "tests/support/Eventually.h"
#include "vpn/Api/AHS/CacheWriter.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"

namespace tests {
namespace {

using std::chrono::steady_clock;

/// Jobs that go on when they are told to. Shared by the jobs, which may outlive a test.
class Gate {
 public:
  CCacheWriter::Job Job(int name) {
    return [shared = m_shared, name] {
      shared->begun = name;
      shared->open.wait();
      shared->ended = name;
      CCacheWriter::Outcome outcome;
      outcome.problem = "job " + std::to_string(name);
      return outcome;
    };
  }
  void Open() { m_promise.set_value(); }
  bool HasBegun(int name) const {
    return eventually([&] { return m_shared->begun == name; });
  }
  bool HasEnded(int name) const {
    return eventually([&] { return m_shared->ended == name; });
  }
  int Ended() const { return m_shared->ended; }

 private:
  struct Shared {
    std::atomic<int> begun{0};
    std::atomic<int> ended{0};
    std::shared_future<void> open;
  };
  std::promise<void> m_promise;
  const std::shared_ptr<Shared> m_shared = [this] {
    auto shared = std::make_shared<Shared>();
    shared->open = m_promise.get_future().share();
    return shared;
  }();
};

CCacheWriter::Outcome done() { return {}; }

bool waitFor(const CCacheWriter::Ticket& ticket) {
  return ticket.WaitUntil(steady_clock::now() + Limit);
}

}  // namespace

TEST(CacheWriter, DoesAJobAndTellsItsOutcomeOnce) {
  CCacheWriter writer;
  ASSERT_TRUE(writer.Submit(1, [] {
    CCacheWriter::Outcome outcome;
    outcome.status = HEADENDSELECTION_ERROR_CACHE_FAILURE;
    outcome.problem = "why";
    return outcome;
  }));
  ASSERT_TRUE(waitFor(writer.Last()));
  EXPECT_FALSE(writer.IsBusy());
  CCacheWriter::Outcome outcome;
  ASSERT_TRUE(writer.Take(outcome));
  EXPECT_EQ(outcome.number, 1U);
  EXPECT_EQ(outcome.status, HEADENDSELECTION_ERROR_CACHE_FAILURE);
  EXPECT_EQ(outcome.problem, "why");
  EXPECT_FALSE(writer.Take(outcome));
}

TEST(CacheWriter, HasNothingToWaitForBeforeItsFirstJob) {
  CCacheWriter writer;
  EXPECT_FALSE(writer.IsBusy());
  EXPECT_TRUE(writer.Last().WaitUntil(steady_clock::now()));
  EXPECT_TRUE(CCacheWriter::Ticket().WaitUntil(steady_clock::now()));
}

TEST(CacheWriter, AJobThatHasNotBegunGivesWayToTheNextOne) {
  Gate gate;
  CCacheWriter writer;
  ASSERT_TRUE(writer.Submit(1, gate.Job(1)));
  const CCacheWriter::Ticket first = writer.Last();
  ASSERT_TRUE(gate.HasBegun(1));
  ASSERT_TRUE(writer.Submit(2, gate.Job(2)));
  const CCacheWriter::Ticket second = writer.Last();
  ASSERT_TRUE(writer.Submit(3, gate.Job(3)));
  EXPECT_TRUE(writer.IsBusy());
  EXPECT_FALSE(first.WaitUntil(steady_clock::now()));
  gate.Open();
  EXPECT_TRUE(waitFor(first));
  EXPECT_TRUE(waitFor(second)) << "who waits for a job waits for the one in its place";
  EXPECT_EQ(gate.Ended(), 3);
  CCacheWriter::Outcome outcome;
  ASSERT_TRUE(waitFor(writer.Last()));
  ASSERT_TRUE(writer.Take(outcome));
  EXPECT_EQ(outcome.number, 3U);
  EXPECT_EQ(outcome.problem, "job 3");
}

TEST(CacheWriter, AJobThatThrowsHasFailed) {
  CCacheWriter writer;
  ASSERT_TRUE(writer.Submit(1, []() -> CCacheWriter::Outcome { throw std::bad_alloc(); }));
  ASSERT_TRUE(waitFor(writer.Last()));
  CCacheWriter::Outcome outcome;
  ASSERT_TRUE(writer.Take(outcome));
  EXPECT_EQ(outcome.status, HEADENDSELECTION_ERROR_MEMALLOC_FAILED);
  ASSERT_TRUE(writer.Submit(2, done));
  EXPECT_TRUE(waitFor(writer.Last()));
}

TEST(CacheWriter, ThatIsDestroyedLeavesTheJobUnderWayToItselfAndTakesTheNextOneBack) {
  Gate gate;
  {
    CCacheWriter writer;
    ASSERT_TRUE(writer.Submit(1, gate.Job(1)));
    ASSERT_TRUE(gate.HasBegun(1));
    ASSERT_TRUE(writer.Submit(2, gate.Job(2)));
  }
  gate.Open();
  EXPECT_TRUE(gate.HasEnded(1));
  CCacheWriter next;
  ASSERT_TRUE(next.Submit(1, done));
  EXPECT_TRUE(waitFor(next.Last()));
  EXPECT_EQ(gate.Ended(), 1);
}

TEST(CacheWriter, ThoseThatWereGivenUpAreNotManyThreads) {
  constexpr std::size_t Most = 4;
  Gate gate;
  std::vector<std::unique_ptr<CCacheWriter>> writers;
  for (std::size_t i = 0; i < Most; ++i) {
    writers.push_back(std::make_unique<CCacheWriter>());
    ASSERT_TRUE(eventually([&] { return writers.back()->Submit(1, gate.Job(1)); }))
        << "those of earlier tests end";
  }
  CCacheWriter oneMore;
  EXPECT_FALSE(oneMore.Submit(1, done));
  EXPECT_TRUE(writers[0]->Submit(2, done)) << "it has a thread";
  gate.Open();
  EXPECT_TRUE(eventually([&] { return oneMore.Submit(2, done); }));
  EXPECT_TRUE(waitFor(oneMore.Last()));
}

TEST(CacheWriter, AChildOfForkBeginsAnew) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "ThreadSanitizer lets no such child have threads";
#endif
  Gate gate;
  CCacheWriter writer;
  ASSERT_TRUE(writer.Submit(1, gate.Job(1)));
  ASSERT_TRUE(gate.HasBegun(1));
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    CCacheWriter::Outcome outcome;
    const bool isFresh = !writer.IsBusy() && !writer.Take(outcome);
    const bool works = writer.Submit(2, done) && waitFor(writer.Last()) && writer.Take(outcome);
    _exit(isFresh && works && outcome.number == 2 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(writer.IsBusy());
  gate.Open();
  EXPECT_TRUE(waitFor(writer.Last()));
}

}  // namespace tests
