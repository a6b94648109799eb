// The end of a run: which of the two that race for it decides the result, what the client receives
// in each case, and what becomes of the timer.

#include <string>
#include <vector>

#include "tests/unit/selection/selection_fixture.h"

namespace tests {
namespace {

using doubles::cache;
using doubles::preferences;
using doubles::probes;
using doubles::seams;
using doubles::timers;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr long Success = 0;
constexpr long AddedToCache = 0xFE530010;
constexpr long AuthProxy = 0xFE53000A;
constexpr long TimedOut = 0xFE53000B;
constexpr long SelectionFailure = 0xFE53000F;
constexpr long SomeFailure = 0xFE8D000A;

class Completion : public SelectionTest {
 protected:
  /// A run with results, ready for its end.
  CHeadendSelection& makeWithResults(unsigned int reason = Connection,
                                     const std::string& last = "") {
    preferences().useAddresses({"gw1", "gw2:8443"});
    CHeadendSelection& selection = make(reason, last);
    member<PingResults>(selection) = entryOf({{"gw1", 30}, {"gw2:8443", 20}});
    return selection;
  }

  CHeadendSelection& makeWithoutResults(const std::string& last) {
    preferences().useAddresses({"gw1", "gw2:8443"});
    return make(Connection, last);
  }

  /// Gives the run an armed timer, as the measurement does.
  void arm() {
    STATUSCODE status = 0;
    static CTimerList& list = *new CTimerList;
    member<Timer>(*run) = new CTimer(status, &list, exposed(tests::OnTimerExpired{}), run, 0);
    EXPECT_EQ(member<Timer>(*run)->StartTimer(1), 0);
  }

  void finish(bool killTimer, long status, const std::string& extraInfo = "") {
    call<FinishAHS>(*run, killTimer, status, extraInfo);
  }

  /// The outcome after the destructor has waited for it.
  Client::Outcome delivered() {
    destroy();
    return client.only();
  }
};

TEST_F(Completion, ASecondCallDeliversNothingAndOnlyLogs) {
  makeWithResults();
  finish(true, Success);
  const std::size_t before = doubles::log().lines().size();
  finish(true, SomeFailure, "ignored");

  EXPECT_EQ(doubles::log().lines().size(), before + 1);
  EXPECT_EQ(doubles::log().texts().back(), "finishAHS I QIB in finishAHS() a second time");
  EXPECT_EQ(seams().starts(), 1);
  EXPECT_EQ(delivered().status, AddedToCache);
}

TEST_F(Completion, TheFirstCallDeletesTheTimerWhenAskedToAfterItsFirstLine) {
  makeWithResults();
  arm();
  doubles::log().setHook([](const doubles::LogLine& line) {
    EXPECT_EQ(timers().live(), line.message == "QIB in finishAHS() for first time" ? 1 : 0);
  });
  finish(true, Success);

  EXPECT_EQ(member<Timer>(*run), nullptr);
  EXPECT_EQ(timers().live(), 0);
}

TEST_F(Completion, TheTimersOwnExpiryLeavesTheTimerAndTheRunsEndDeletesIt) {
  makeWithResults();
  arm();
  EXPECT_TRUE(fireTimer());
  EXPECT_NE(member<Timer>(*run), nullptr);
  EXPECT_EQ(timers().live(), 1);

  finish(true, Success);

  EXPECT_EQ(member<Timer>(*run), nullptr);
  EXPECT_EQ(timers().live(), 0);
  EXPECT_EQ(doubles::log().count("finishAHS I QIB in finishAHS() a second time"), 1U);
}

TEST_F(Completion, ASecondCallDeletesTheTimerEvenWhenNotAskedTo) {
  makeWithResults();
  finish(true, Success);
  arm();
  finish(false, TimedOut);

  EXPECT_EQ(member<Timer>(*run), nullptr);
  EXPECT_EQ(timers().live(), 0);
}

TEST_F(Completion, StopsTheStartOfFurtherWorkers) {
  makeWithResults();
  EXPECT_FALSE(member<TerminatedThreads>(*run));
  bool stoppedBeforeRanking = false;
  doubles::log().setHook([&](const doubles::LogLine& line) {
    stoppedBeforeRanking |= line.function == "logPingResults" && run->isThreadTerminated();
  });
  finish(false, TimedOut);
  EXPECT_TRUE(stoppedBeforeRanking);

  EXPECT_TRUE(member<TerminatedThreads>(*run));
  EXPECT_TRUE(run->isThreadTerminated());
  EXPECT_TRUE(member<Finished>(*run));
}

TEST_F(Completion, AFreshSelectionIsDeliveredAsAddedToTheCache) {
  makeWithResults(5);
  finish(true, Success, "realm");

  EXPECT_THAT(doubles::log().textsOf("finishAHS"),
              ElementsAre("finishAHS I QIB in finishAHS() for first time",
                          "finishAHS I Finished QIB thread, selected gw2:8443"));
  const Client::Outcome outcome = delivered();
  EXPECT_EQ(outcome.reason, 5U);
  EXPECT_EQ(outcome.status, AddedToCache);
  EXPECT_THAT(outcome.headends, ElementsAre("gw2:8443", "gw1"));
  EXPECT_EQ(outcome.extraInfo, "realm");
}

TEST_F(Completion, ACachedSelectionIsDeliveredAsSuccess) {
  member<FoundInCache>(makeWithResults()) = true;
  finish(true, Success);

  const Client::Outcome outcome = delivered();
  EXPECT_EQ(outcome.status, Success);
  EXPECT_THAT(outcome.headends, ElementsAre("gw2:8443", "gw1"));
  EXPECT_EQ(outcome.extraInfo, "");
}

TEST_F(Completion, APartialResultThatCanBeRankedTurnsATimeOutIntoASuccess) {
  makeWithResults();
  arm();
  EXPECT_TRUE(fireTimer());

  const Client::Outcome outcome = delivered();
  EXPECT_EQ(outcome.status, AddedToCache);
  EXPECT_THAT(outcome.headends, ElementsAre("gw2:8443", "gw1"));
  EXPECT_EQ(outcome.extraInfo, "");
  EXPECT_NE(outcome.thread, timerThreadId);
  EXPECT_EQ(cache().stored().size(), 1U);
}

TEST_F(Completion, ATimeOutWithNothingToRankDeliversTheRankingsFailureAndTheLastHeadend) {
  makeWithoutResults("gw2:8443");
  finish(false, TimedOut);

  const Client::Outcome outcome = delivered();
  EXPECT_EQ(outcome.status, SelectionFailure);
  EXPECT_THAT(outcome.headends, ElementsAre("gw2:8443"));
}

TEST_F(Completion, AFailedRankingAfterSuccessDeliversTheLastHeadendOnce) {
  makeWithoutResults("gw1");
  finish(true, Success, "realm");

  EXPECT_EQ(doubles::log().texts().back(), "finishAHS I Finished QIB thread, selected gw1");
  const Client::Outcome outcome = delivered();
  EXPECT_EQ(outcome.status, SelectionFailure);
  EXPECT_THAT(outcome.headends, ElementsAre("gw1"));
  EXPECT_EQ(outcome.extraInfo, "realm");
}

TEST_F(Completion, AFailedRankingWithoutALastHeadendDeliversAnEmptyList) {
  makeWithoutResults("");
  finish(true, Success);

  EXPECT_EQ(doubles::log().texts().back(),
            "finishAHS I Finished QIB thread, unable to select a host");
  EXPECT_THAT(delivered().headends, IsEmpty());
}

TEST_F(Completion, AFailedRankingOfACachedResultKeepsItsFailureCode) {
  member<FoundInCache>(makeWithoutResults("gw1")) = true;
  finish(true, Success);

  EXPECT_EQ(delivered().status, SelectionFailure);
}

TEST_F(Completion, AnAuthenticatingProxyDeliversAnEmptyListWithoutAFinishedLine) {
  makeWithResults(Connection, "gw1");
  finish(true, AuthProxy, "head office");

  EXPECT_THAT(doubles::log().texts(), ElementsAre("finishAHS I QIB in finishAHS() for first time"));
  const Client::Outcome outcome = delivered();
  EXPECT_EQ(outcome.status, AuthProxy);
  EXPECT_THAT(outcome.headends, IsEmpty());
  EXPECT_EQ(outcome.extraInfo, "head office");
  EXPECT_THAT(cache().stored(), IsEmpty());
}

TEST_F(Completion, AnyOtherFailureKeepsItsCodeAndDeliversTheLastHeadendWithItsPort) {
  makeWithResults(Connection, "gw2:8443");
  finish(true, SomeFailure, "realm");

  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("finishAHS I QIB in finishAHS() for first time",
                          "finishAHS I Finished QIB thread, selected gw2:8443"));
  const Client::Outcome outcome = delivered();
  EXPECT_EQ(outcome.status, SomeFailure);
  EXPECT_THAT(outcome.headends, ElementsAre("gw2:8443"));
  EXPECT_EQ(outcome.extraInfo, "realm");
}

TEST_F(Completion, ALastHeadendWithoutAPortIsDeliveredAsItsBareHost) {
  makeWithoutResults("gw1");
  finish(true, SomeFailure);

  EXPECT_THAT(delivered().headends, ElementsAre("gw1"));
}

TEST_F(Completion, ALastHeadendThatIsAnIPv6AddressIsDeliveredInBrackets) {
  preferences().useAddresses({"[2001:db8::1]:8443"});
  make(Connection, "[2001:db8::1]:8443");
  finish(true, SomeFailure);

  EXPECT_THAT(delivered().headends, ElementsAre("[2001:db8::1]:8443"));
}

TEST_F(Completion, AFailureWithoutALastHeadendSelectsNothing) {
  makeWithResults();
  finish(true, SomeFailure);

  EXPECT_EQ(doubles::log().texts().back(),
            "finishAHS I Finished QIB thread, unable to select a host");
  EXPECT_THAT(delivered().headends, IsEmpty());
}

TEST_F(Completion, HoldsTheEndLockFromTheFirstLineToTheStartOfTheResultsThread) {
  CHeadendSelection& selection = makeWithResults();
  const CManualLock* end = &member<EndLock>(selection);
  int depth = 0;
  std::vector<int> depths;
  seams().setLockHook([&](const CManualLock* lock, bool taken) {
    if (lock == end) {
      depth += taken ? 1 : -1;
    }
  });
  doubles::log().setHook([&](const doubles::LogLine&) { depths.push_back(depth); });
  seams().setBeforeStart([&](CThread&) -> std::optional<STATUSCODE> {
    depths.push_back(depth);
    return std::nullopt;
  });
  finish(true, Success);
  seams().setLockHook(nullptr);

  EXPECT_THAT(depths, testing::SizeIs(4)) << "two lines, the report, and the start";
  EXPECT_THAT(depths, testing::Each(1));
  EXPECT_EQ(depth, 0);
}

TEST_F(Completion, ASecondCallHoldsTheEndLockUntilItHasDeletedTheTimerAndLogged) {
  CHeadendSelection& selection = makeWithResults();
  finish(false, TimedOut);
  arm();
  Texts events;
  seams().setLockHook([&, end = &member<EndLock>(selection)](const CManualLock* lock, bool taken) {
    if (lock == end) {
      events.emplace_back(taken ? "taken" : "given back");
    }
  });
  doubles::log().setHook([&](const doubles::LogLine&) {
    events.emplace_back(timers().live() == 0 ? "logged without timer" : "logged");
  });
  finish(true, Success);
  seams().setLockHook(nullptr);

  EXPECT_THAT(events, ElementsAre("taken", "logged without timer", "given back"));
}

TEST_F(Completion, AResultsThreadThatDoesNotStartIsNotReported) {
  makeWithResults();
  seams().setBeforeStart(
      [](CThread&) -> std::optional<STATUSCODE> { return THREAD_ERROR_CREATE_FAILED; });
  finish(true, Success);
  const std::size_t before = doubles::log().lines().size();

  EXPECT_NE(member<Results>(*run), nullptr);
  destroy();

  EXPECT_EQ(doubles::log().lines().size(), before);
}

TEST_F(Completion, TheClientIsCalledOnAThreadOfItsOwn) {
  makeWithResults();
  finish(true, Success);

  EXPECT_NE(delivered().thread, std::this_thread::get_id());
}

TEST_F(Completion, AnExpiryWithoutARunOnlyLogs) {
  exposed(tests::OnTimerExpired{})(nullptr, 7);

  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("OnTimerExpired W QIB timer expired",
                          "OnTimerExpired E Invalid parameter sent to QIB OnTimerExpired"));
  EXPECT_EQ(client.calls(), 0U);
}

TEST_F(Completion, AnExpiryEndsTheRunWhateverTheSecondValue) {
  makeWithResults();
  exposed(tests::OnTimerExpired{})(run, 4711);

  EXPECT_EQ(doubles::log().texts().front(), "OnTimerExpired W QIB timer expired");
  EXPECT_EQ(delivered().status, AddedToCache);
}

TEST_F(Completion, TheResultsThreadHasCopiesThatEndAtTheFirstNul) {
  Texts list{std::string("gw1\0hidden", 10), "gw2", ""};
  std::string extraInfo("re\0alm", 6);
  auto* thread = new ResultsThread(&client, 2, list, SomeFailure, extraInfo);
  list.clear();
  extraInfo.clear();

  EXPECT_EQ(thread->Run(), 0);
  delete thread;

  const Client::Outcome outcome = client.only();
  EXPECT_EQ(outcome.reason, 2U);
  EXPECT_THAT(outcome.headends, ElementsAre("gw1", "gw2", ""));
  EXPECT_EQ(outcome.status, SomeFailure);
  EXPECT_EQ(outcome.extraInfo, std::string("re\0alm", 6));
}

TEST_F(Completion, WhenTheTimerWinsTheRealmThatTheRunBringsIsDropped) {
  preferences().useAddresses({"gw1"});
  probes().answerTest({.httpStatus = 407,
                       .headers = "HTTP/1.1 407 no\r\nProxy-Authenticate: Basic realm=\"x\"\r\n",
                       .during = [&] { EXPECT_TRUE(fireTimer()); }});
  make();
  runToEnd();

  EXPECT_EQ(client.only().status, SelectionFailure);
  EXPECT_EQ(client.only().extraInfo, "");
  EXPECT_EQ(doubles::log().texts().back(), "finishAHS I QIB in finishAHS() a second time");
}

}  // namespace
}  // namespace tests
