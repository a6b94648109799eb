// Construction and destruction of a run: what it acquires, in which order it releases that, and
// that a run whose construction failed is harmless.

#include <array>

#include "tests/unit/selection/selection_fixture.h"

namespace tests {
namespace {

constexpr STATUSCODE ProfileFailure = 0xFE320009;

class Construction : public SelectionTest {};

TEST_F(Construction, ReadsSettingsAndCandidatesAndStartsNothing) {
  CHeadendSelection& selection = makeFor({"gw1", "gw2:8443"}, 4, "GW2:8443");

  EXPECT_EQ(member<Callback>(selection), &client);
  EXPECT_EQ(keysOf(member<HeadendList>(selection)), (Texts{"gw1", "gw2:8443"}));
  EXPECT_EQ(member<LastHeadend>(selection).getHostAndPort(false), "gw2:8443");
  EXPECT_EQ(member<Settings>(selection).nConnectTimeout, cache().settings.nConnectTimeout);
  EXPECT_FALSE(selection.isThreadTerminated());
  EXPECT_FALSE(member<ProxyData>(selection).determineProxy);
  EXPECT_EQ(call<GetProxy>(selection), nullptr);
  EXPECT_EQ(cache().acquired, 1);
  EXPECT_EQ(cache().settingsReads, 1);
  EXPECT_EQ(timers().contextAcquired, 0);
  EXPECT_EQ(seams().starts, 0);
  EXPECT_THAT(probes().testCalls(), IsEmpty());
  EXPECT_THAT(doubles::log().texts(), IsEmpty());
}

TEST_F(Construction, OnAFailingCacheReadsNothingAndItsDestructionReleasesOnlyWhatWasAcquired) {
  preferences().useAddresses({"gw1"});
  cache().creationStatus = SomeFailure;
  seams().afterWait.set([](CThread&, STATUSCODE result, unsigned int&, unsigned int) {
    ADD_FAILURE() << "there is nobody to wait for";
    return result;
  });
  for (const bool setsPointer : {false, true}) {
    SCOPED_TRACE(setsPointer ? "that hands out its instance" : "that hands out nothing");
    cache().setsPointer = setsPointer;
    CHeadendSelection& selection = make(Connection, "", SomeFailure);
    EXPECT_EQ(member<Callback>(selection), nullptr);
    EXPECT_EQ(member<Cache>(selection), nullptr);
    EXPECT_EQ(cache().released, setsPointer ? 1 : 0);
    const HS_SETTINGS& settings = member<Settings>(selection);
    EXPECT_FALSE(settings.bAHSEnabled);
    EXPECT_THAT(
        (std::array{settings.nResumeTime, settings.nImprovement, settings.nClearCache,
                    settings.nConnectTimeout, settings.nReconnectTimeout, settings.nPingTimeout,
                    settings.nPingsPerHeadend, settings.nTestPingTimeout, settings.nMaxResults}),
        testing::Each(0U));
    destroy();
    EXPECT_EQ(cache().released, setsPointer ? 1 : 0);
  }

  EXPECT_EQ(cache().settingsReads, 0);
  EXPECT_EQ(preferences().acquired, 0);
  const char line[] = "CHeadendSelection E CSelectionCache::createSingletonInstance 0xFE360002";
  EXPECT_THAT(doubles::log().texts(), ElementsAre(line, line));
}

TEST_F(Construction, AFailingProfileListIsReportedWithTheSettingsAlreadyRead) {
  preferences().profileMgrStatus = ProfileFailure;
  CHeadendSelection& selection = make(Connection, "", ProfileFailure);

  EXPECT_EQ(member<Callback>(selection), nullptr);
  EXPECT_EQ(member<Settings>(selection).nPingsPerHeadend, cache().settings.nPingsPerHeadend);
  EXPECT_THAT(
      doubles::log().texts(),
      ElementsAre("getHeadendListFromProfile E PreferenceMgr::getProfileMgr 0xFE320009",
                  "CHeadendSelection E CSelectionCache::getHeadendListFromProfile 0xFE320009"));
}

TEST_F(Construction, LocksAreMadeWithTheArgument500AndThreadsWith0) {
  CHeadendSelection& selection = make();
  delete new Worker(selection, URL("gw1"), 1, 1, 1);
  delete new ResultsThread(&client, 0, {}, 0, "");

  EXPECT_THAT(seams().lockArguments.get(), ElementsAre(500U, 500U, 500U));
  // The first is the results thread that a run keeps for the case that there is no memory.
  EXPECT_THAT(seams().threadArguments.get(), ElementsAre(0U, 0U, 0U));
}

TEST_F(Construction, EveryReasonHasATextForTheLog) {
  unsigned int reason = 0;
  for (const char* text : {"connection", "reconnection", "preferences change",
                           "proxy authentication", "process launch", "disconnect", "unknown"}) {
    EXPECT_EQ(call<GetReasonText>(make(reason++)), text);
    destroy();
  }
  EXPECT_EQ(call<GetReasonText>(make(0xFFFFFFFFU)), "unknown");
}

class Destruction : public SelectionTest {
 protected:
  /// A finished run with everything that a destructor can meet, not yet deleted.
  void makeFinished() {
    CHeadendSelection& selection = makeFor({"gw1"});
    selection.SetProxy(nullptr);
    selection.SetProxy(new Provider(NoProxy, "", "", ""));
    std::string extraInfo;
    EXPECT_EQ(call<StartPingThreads>(selection, extraInfo), 0);
    call<FinishAHS>(selection, false, 0L, extraInfo);
    EXPECT_NE(member<Timer>(selection), nullptr);
    journal().set({});
  }
};

TEST_F(Destruction, WaitsForTheClientAloneThenGivesEverythingBackInThisOrder) {
  makeFinished();
  const auto* const results = member<Results>(*run);
  seams().afterWait.set(
      [results](CThread& thread, STATUSCODE result, unsigned int&, unsigned int timeoutMs) {
        EXPECT_EQ(&thread, results);
        journal().add(timeoutMs == CThread::Infinite ? "waited" : "waited with a limit");
        return result;
      });
  seams().beforeDelete.set([results](CThread& thread) {
    if (&thread == results) {
      journal().add("results thread deleted");
    } else if (dynamic_cast<Worker*>(&thread) != nullptr) {
      journal().add("worker deleted");
    }
  });

  destroy();

  EXPECT_THAT(journal().get(),
              ElementsAre("waited", "timer deleted", "provider deleted", "results thread deleted",
                          "cache released", "worker deleted"));
}

TEST_F(Destruction, GoesOnWhenTheWaitFailsAndLogsItUnlessTheThreadNeverRan) {
  for (const STATUSCODE failure : {THREAD_ERROR_TIMEOUT, THREAD_ERROR_INVALID_STATE}) {
    makeFinished();
    doubles::log().reset();
    seams().afterWait.set(
        [failure](CThread&, STATUSCODE, unsigned int&, unsigned int) { return failure; });
    destroy();
    seams().afterWait.set(nullptr);
    EXPECT_THAT(journal().get(),
                ElementsAre("timer deleted", "provider deleted", "cache released"));
    EXPECT_EQ(doubles::log().texts("~CHeadendSelection"),
              failure == THREAD_ERROR_INVALID_STATE
                  ? Texts{}
                  : Texts{"~CHeadendSelection E CThread::WaitForCompletion 0xFE34000B"});
  }
}

}  // namespace
}  // namespace tests
