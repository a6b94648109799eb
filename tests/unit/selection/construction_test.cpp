// Construction and destruction of a selection run: what is acquired, in which order it is given
// back, and that a run whose construction failed is harmless.

#include <array>
#include <vector>

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
  const std::vector<std::pair<unsigned int, std::string>> texts{{0, "connection"},
                                                                {1, "reconnection"},
                                                                {2, "preferences change"},
                                                                {3, "proxy authentication"},
                                                                {4, "process launch"},
                                                                {5, "disconnect"},
                                                                {6, "unknown"},
                                                                {0xFFFFFFFFU, "unknown"}};
  for (const auto& [reason, text] : texts) {
    EXPECT_EQ(call<GetReasonText>(make(reason)), text);
    destroy();
  }
}

class Destruction : public SelectionTest {
 protected:
  /// A run with everything that a destructor can meet, brought to its end except for the deletion.
  void makeFinished() {
    CHeadendSelection& selection = makeFor({"gw1"});
    selection.SetProxy(nullptr);
    selection.SetProxy(new Provider(NoProxy, "", "", ""));
    std::string extraInfo;
    EXPECT_EQ(call<StartPingThreads>(selection, extraInfo), 0);
    call<FinishAHS>(selection, false, 0L, extraInfo);
    EXPECT_NE(member<Timer>(selection), nullptr);
    journal().reset();
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

  EXPECT_THAT(journal().events(),
              ElementsAre("waited", "timer deleted", "provider deleted", "results thread deleted",
                          "cache released", "worker deleted"));
}

TEST_F(Destruction, GoesOnWhenTheWaitFailsAndLogsItUnlessTheThreadNeverRan) {
  makeFinished();
  seams().afterWait.set([](CThread&, STATUSCODE, unsigned int&, unsigned int) -> STATUSCODE {
    return THREAD_ERROR_TIMEOUT;
  });
  destroy();

  EXPECT_EQ(doubles::log().texts().back(),
            "~CHeadendSelection E CThread::WaitForCompletion 0xFE34000B");
  EXPECT_THAT(journal().events(),
              ElementsAre("timer deleted", "provider deleted", "cache released"));

  seams().afterWait.set(nullptr);
  makeFinished();
  seams().afterWait.set([](CThread&, STATUSCODE, unsigned int&, unsigned int) -> STATUSCODE {
    return THREAD_ERROR_INVALID_STATE;
  });
  destroy();

  EXPECT_THAT(doubles::log().textsOf("~CHeadendSelection"), SizeIs(1));
}

}  // namespace
}  // namespace tests
