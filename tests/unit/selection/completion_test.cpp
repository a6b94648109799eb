// The end of a run: which of its two racing ends decides the result, what the client then receives,
// and what happens to the timer.

#include <string>

#include "tests/unit/selection/selection_fixture.h"

namespace tests {
namespace {

const char FirstTime[] = "finishAHS I QIB in finishAHS() for first time";
const char Selects[] = "finishAHS I Finished QIB thread, selected ";
const char SelectsNone[] = "finishAHS I Finished QIB thread, unable to select a host";

class Completion : public SelectionTest {
 protected:
  /// A run with results, ready for its end.
  CHeadendSelection& makeWithResults() {
    CHeadendSelection& selection = makeFor({"gw1", "gw2:8443"});
    member<PingResults>(selection) = entryOf({{"gw1", 30}, {"gw2:8443", 20}});
    return selection;
  }

  /// Arms the run's timer, like the measurement.
  void arm() {
    STATUSCODE status = 0;
    static CTimerList& list = *new CTimerList;
    member<Timer>(*run) = new CTimer(status, &list, exposed(tests::OnTimerExpired{}), run, 0);
    EXPECT_EQ(member<Timer>(*run)->StartTimer(1), 0);
  }

  void finish(bool killTimer, long status, const std::string& extraInfo = "") {
    call<FinishAHS>(*run, killTimer, status, extraInfo);
  }

  /// The outcome after the destructor's wait for it.
  Client::Outcome delivered() {
    destroy();
    return client.only();
  }
};

struct End {
  long status = Success;  ///< of the measurement
  bool hasResults = false;
  bool areCached = false;
  std::string last = {};
  long delivered = SelectionFailure;
  Texts list = {};
  bool isSaid = true;
};

class TheEnd : public Completion, public testing::WithParamInterface<Row<End>> {};

TEST_P(TheEnd, IsDeliveredOnAThreadOfItsOwnAndSaid) {
  const End& end = GetParam().is;
  CHeadendSelection& selection = makeFor({"gw1", "gw2:8443", "[2001:db8::1]:8443"}, 5, end.last);
  member<FoundInCache>(selection) = end.areCached;
  if (end.hasResults) {
    member<PingResults>(selection) = entryOf({{"gw1", 30}, {"gw2:8443", 20}});
  }
  finish(true, end.status, "realm");

  Texts said{FirstTime};
  if (end.isSaid) {
    said.push_back(end.list.empty() ? SelectsNone : Selects + end.list.front());
  }
  EXPECT_EQ(doubles::log().texts("finishAHS"), said);
  const Client::Outcome outcome = delivered();
  EXPECT_NE(outcome.thread, std::this_thread::get_id());
  EXPECT_EQ(outcome.reason, 5U);
  EXPECT_EQ(outcome.status, end.delivered);
  EXPECT_EQ(outcome.headends, end.list);
  EXPECT_EQ(outcome.extraInfo, "realm");
  EXPECT_EQ(cache().stored().size(), end.delivered == AddedToCache ? 1U : 0U);
}

const Texts Ranked{"gw2:8443", "gw1"};

INSTANTIATE_TEST_SUITE_P(
    Of, TheEnd,
    testing::ValuesIn(Rows<End>{
        {"AFreshSelectionIsAddedToTheCache",
         {.hasResults = true, .delivered = AddedToCache, .list = Ranked}},
        {"ACachedSelectionIsASuccess",
         {.hasResults = true, .areCached = true, .delivered = Success, .list = Ranked}},
        {"ATimeOutWithResultsIsASuccess",
         {.status = TimedOut, .hasResults = true, .delivered = AddedToCache, .list = Ranked}},
        {"ATimeOutWithoutResultsHasTheRankingsFailureAndTheLastHeadend",
         {.status = TimedOut, .last = "gw2:8443", .list = {"gw2:8443"}}},
        {"AFailedRankingHasTheLastHeadendOnce", {.last = "gw1", .list = {"gw1"}}},
        {"AFailedRankingWithoutALastHeadendHasAnEmptyList", {}},
        {"AFailedRankingOfACachedResultKeepsItsCode",
         {.areCached = true, .last = "gw1", .list = {"gw1"}}},
        {"AnAuthenticatingProxyHasAnEmptyListThoughALastHeadendIsKnownAndNoFinishedLine",
         {.status = AuthProxy,
          .hasResults = true,
          .last = "gw1",
          .delivered = AuthProxy,
          .isSaid = false}},
        {"AnyOtherFailureHasItsCodeAndTheLastHeadendWithItsPort",
         {.status = SomeFailure,
          .hasResults = true,
          .last = "gw2:8443",
          .delivered = SomeFailure,
          .list = {"gw2:8443"}}},
        {"ALastHeadendWithoutAPortIsItsBareHost",
         {.status = SomeFailure, .last = "gw1", .delivered = SomeFailure, .list = {"gw1"}}},
        {"ALastHeadendThatIsAnIPv6AddressStandsInBrackets",
         {.status = SomeFailure,
          .last = "[2001:db8::1]:8443",
          .delivered = SomeFailure,
          .list = {"[2001:db8::1]:8443"}}},
        {"AFailureWithoutALastHeadendSelectsNothing",
         {.status = SomeFailure, .hasResults = true, .delivered = SomeFailure}},
    }),
    nameOfRow);

TEST_F(Completion, EachCallHoldsTheEndLockAndDeletesTheTimerAndASecondOneDeliversNothing) {
  CHeadendSelection& selection = makeWithResults();
  Texts events;
  seams().onLock.set([&, end = &member<EndLock>(selection)](const CManualLock* lock, bool taken) {
    if (lock == end) {
      events.emplace_back(taken ? "taken" : "given back");
    }
  });
  doubles::log().setHook([&](const doubles::LogLine& line) {
    const bool isRanking = line.function == "logPingResults";
    events.push_back((timers().live == 0 ? "without timer: " : "") + line.message.substr(0, 30) +
                     (isRanking && run->isThreadTerminated() ? " and no further worker" : ""));
  });
  seams().beforeStart.set([&](CThread&) -> std::optional<STATUSCODE> {
    events.emplace_back("started");
    return THREAD_ERROR_CREATE_FAILED;  // no log line mentions it
  });
  arm();
  finish(true, Success);
  arm();
  finish(false, SomeFailure, "ignored");
  seams().onLock.set(nullptr);

  EXPECT_THAT(events,
              ElementsAre("taken", "QIB in finishAHS() for first t",
                          "without timer: *** QIB Selection Results ***\n and no further worker",
                          "without timer: Finished QIB thread, selected ", "started", "given back",
                          "taken", "without timer: QIB in finishAHS() a second ti", "given back"));
  destroy();
  EXPECT_THAT(doubles::log().lines(), SizeIs(4));
}

TEST_F(Completion, TheTimersOwnExpiryLeavesTheTimerAndTheSecondCallReleasesIt) {
  makeWithResults();
  arm();
  EXPECT_TRUE(fireTimer());
  EXPECT_EQ(doubles::log().texts().front(), "OnTimerExpired W QIB timer expired");
  EXPECT_EQ(timers().live, 1);

  finish(true, Success, "dropped");

  EXPECT_EQ(timers().live, 0);
  const Client::Outcome outcome = delivered();
  EXPECT_EQ(outcome.status, AddedToCache);
  EXPECT_EQ(outcome.extraInfo, "");
  EXPECT_NE(outcome.thread, timerThreadId);
}

TEST_F(Completion, AnExpiryWithoutARunOnlyLogs) {
  exposed(tests::OnTimerExpired{})(nullptr, 7);

  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("OnTimerExpired W QIB timer expired",
                          "OnTimerExpired E Invalid parameter sent to QIB OnTimerExpired"));
  EXPECT_EQ(client.calls(), 0U);
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

}  // namespace
}  // namespace tests
