// Construction and destruction of a selection run: what is acquired, in which order it is given
// back, and that a run whose construction failed is harmless.

#include <array>
#include <memory>
#include <vector>

#include "tests/unit/selection/selection_fixture.h"

namespace tests {
namespace {

using doubles::cache;
using doubles::journal;
using doubles::preferences;
using doubles::probes;
using doubles::seams;
using doubles::timers;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr STATUSCODE SomeFailure = 0xFE530004;
constexpr STATUSCODE ProfileFailure = 0xFE320009;

class Construction : public SelectionTest {
 protected:
  /// A run whose construction fails.
  CHeadendSelection& makeFailing(STATUSCODE expected) {
    long status = 0;
    run = new CHeadendSelection(&client, "", Connection, status);
    EXPECT_EQ(status, expected);
    return *run;
  }
};

TEST_F(Construction, ReadsSettingsAndCandidatesAndStartsNothing) {
  preferences().useAddresses({"gw1", "gw2:8443"});
  CHeadendSelection& selection = make(4, "GW2:8443");

  EXPECT_EQ(member<Callback>(selection), &client);
  EXPECT_EQ(member<Reason>(selection), 4U);
  EXPECT_EQ(keysOf(member<HeadendList>(selection)), (Texts{"gw1", "gw2:8443"}));
  EXPECT_EQ(member<LastHeadend>(selection).getHostAndPort(false), "gw2:8443");
  EXPECT_EQ(member<Settings>(selection).nConnectTimeout, cache().settings.nConnectTimeout);
  EXPECT_NE(member<Cache>(selection), nullptr);
  EXPECT_FALSE(member<TerminatedThreads>(selection));
  EXPECT_FALSE(member<Finished>(selection));
  EXPECT_FALSE(member<FoundInCache>(selection));
  EXPECT_EQ(member<Timer>(selection), nullptr);
  EXPECT_EQ(member<ProxyProvider>(selection), nullptr);
  EXPECT_EQ(member<Results>(selection), nullptr);
  EXPECT_THAT(member<Workers>(selection), IsEmpty());
  EXPECT_THAT(recordsOf(member<PingResults>(selection)), IsEmpty());
  EXPECT_EQ(cache().acquired(), 1);
  EXPECT_EQ(cache().settingsReads(), 1);
  EXPECT_EQ(timers().contextAcquired(), 0);
  EXPECT_EQ(timers().created(), 0);
  EXPECT_EQ(seams().starts(), 0);
  EXPECT_THAT(probes().testCalls(), IsEmpty());
  EXPECT_THAT(doubles::log().texts(), IsEmpty());
}

TEST_F(Construction, KnowsNoProxyAtFirst) {
  CHeadendSelection& selection = make();

  EXPECT_FALSE(member<ProxyData>(selection).determineProxy);
  EXPECT_EQ(member<ProxyData>(selection).proxyServer, "");
  EXPECT_EQ(member<ProxyData>(selection).proxyUser, "");
  EXPECT_EQ(member<ProxyData>(selection).proxyPswd, "");
  EXPECT_EQ(call<GetProxy>(selection), nullptr);
}

TEST_F(Construction, AFailingCacheIsReportedAndNoSettingOrProfileIsRead) {
  preferences().useAddresses({"gw1"});
  cache().failCreation(SomeFailure, false);
  CHeadendSelection& selection = makeFailing(SomeFailure);

  EXPECT_EQ(member<Callback>(selection), nullptr);
  EXPECT_EQ(member<Cache>(selection), nullptr);
  EXPECT_EQ(cache().settingsReads(), 0);
  EXPECT_EQ(preferences().acquired, 0);
  EXPECT_THAT(member<HeadendList>(selection), IsEmpty());
  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("CHeadendSelection E CSelectionCache::createSingletonInstance "
                          "0xFE530004"));
}

TEST_F(Construction, AFailingCacheLeavesTheSettingsZero) {
  cache().failCreation(SomeFailure, false);
  const HS_SETTINGS& settings = member<Settings>(makeFailing(SomeFailure));

  EXPECT_FALSE(settings.bAHSEnabled);
  EXPECT_THAT(
      (std::array{settings.nResumeTime, settings.nImprovement, settings.nClearCache,
                  settings.nConnectTimeout, settings.nReconnectTimeout, settings.nPingTimeout,
                  settings.nPingsPerHeadend, settings.nTestPingTimeout, settings.nMaxResults}),
      Each(0U));
}

TEST_F(Construction, AFailingCacheThatHandedOutItsInstanceGetsItBackOnce) {
  cache().failCreation(SomeFailure, true);
  CHeadendSelection& selection = makeFailing(SomeFailure);

  EXPECT_EQ(member<Cache>(selection), nullptr);
  EXPECT_EQ(cache().released(), 1);
  destroy();
  EXPECT_EQ(cache().released(), 1);
}

TEST_F(Construction, AFailingProfileListIsReportedWithTheSettingsAlreadyRead) {
  preferences().profileMgrStatus = ProfileFailure;
  CHeadendSelection& selection = makeFailing(ProfileFailure);

  EXPECT_EQ(member<Callback>(selection), nullptr);
  EXPECT_EQ(member<Settings>(selection).nPingsPerHeadend, cache().settings.nPingsPerHeadend);
  EXPECT_THAT(
      doubles::log().texts(),
      ElementsAre("getHeadendListFromProfile E PreferenceMgr::getProfileMgr 0xFE320009",
                  "CHeadendSelection E CSelectionCache::getHeadendListFromProfile 0xFE320009"));
  destroy();
  EXPECT_EQ(cache().released(), 1);
}

TEST_F(Construction, AnEmptyListOfCandidatesIsNoFailure) {
  EXPECT_THAT(member<HeadendList>(make()), IsEmpty());
}

TEST_F(Construction, AFailedRunIsDestroyedWithoutWaitingOrLogging) {
  cache().failCreation(SomeFailure, false);
  makeFailing(SomeFailure);
  int waits = 0;
  seams().setAfterWait([&](CThread&, STATUSCODE result, unsigned int&, unsigned int) {
    ++waits;
    return result;
  });

  destroy();

  EXPECT_EQ(waits, 0);
  EXPECT_THAT(journal().events(), IsEmpty());
  EXPECT_EQ(doubles::log().lines().size(), 1U) << "the line of the construction alone";
}

TEST_F(Construction, LocksOfRunAndWorkerAreMadeWithTheArgument500) {
  preferences().useAddresses({"gw1"});
  CHeadendSelection& selection = make();
  EXPECT_THAT(seams().lockArguments(), ElementsAre(500U, 500U));

  delete new Worker(selection, URL("gw1"), 1, 1, 1);

  EXPECT_THAT(seams().lockArguments(), ElementsAre(500U, 500U, 500U));
}

TEST_F(Construction, ThreadsAreMadeWithTheArgument0) {
  CHeadendSelection& selection = make();

  delete new Worker(selection, URL("gw1"), 1, 1, 1);
  delete new ResultsThread(&client, 0, {}, 0, "");

  // The first is the results thread that a run keeps for the case that there is no memory.
  EXPECT_THAT(seams().threadArguments(), ElementsAre(0U, 0U, 0U));
}

TEST_F(Construction, TheProviderIsKeptUncheckedAndDeletedWithTheRun) {
  CHeadendSelection& selection = make();
  auto* provider = new Provider(BasicProxy, "", "", "");
  selection.SetProxy(nullptr);
  selection.SetProxy(provider);

  EXPECT_EQ(call<GetProxy>(selection), provider);
  EXPECT_THAT(journal().events(), IsEmpty());
  destroy();
  EXPECT_THAT(journal().events(), ElementsAre("provider deleted", "cache released"));
}

TEST_F(Construction, TheTerminationFlagIsReadAndWritten) {
  CHeadendSelection& selection = make();
  EXPECT_FALSE(selection.isThreadTerminated());

  selection.setThreadTerminated(true);
  EXPECT_TRUE(selection.isThreadTerminated());
  EXPECT_TRUE(member<TerminatedThreads>(selection));

  selection.setThreadTerminated(false);
  EXPECT_FALSE(selection.isThreadTerminated());
}

class Reasons : public SelectionTest,
                public testing::WithParamInterface<std::pair<unsigned int, std::string>> {};

TEST_P(Reasons, HaveATextForTheLog) {
  EXPECT_EQ(call<GetReasonText>(make(GetParam().first)), GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(All, Reasons,
                         testing::Values(std::pair(0U, "connection"), std::pair(1U, "reconnection"),
                                         std::pair(2U, "preferences change"),
                                         std::pair(3U, "proxy authentication"),
                                         std::pair(4U, "process launch"),
                                         std::pair(5U, "disconnect"), std::pair(6U, "unknown"),
                                         std::pair(0xFFFFFFFFU, "unknown")));

class Destruction : public SelectionTest {
 protected:
  /// A run with everything that a destructor can meet, brought to its end except for the deletion.
  void makeFinished() {
    preferences().useAddresses({"gw1"});
    CHeadendSelection& selection = make();
    selection.SetProxy(new Provider(NoProxy, "", "", ""));
    std::string extraInfo;
    EXPECT_EQ(call<StartPingThreads>(selection, extraInfo), 0);
    call<FinishAHS>(selection, false, 0L, extraInfo);
    EXPECT_NE(member<Timer>(selection), nullptr);
    journal().reset();
  }
};

TEST_F(Destruction, WaitsForTheClientThenGivesEverythingBackInThisOrder) {
  makeFinished();
  seams().setAfterWait([&](CThread&, STATUSCODE result, unsigned int&, unsigned int timeoutMs) {
    journal().add(timeoutMs == CThread::Infinite ? "waited" : "waited with a limit");
    return result;
  });
  seams().setBeforeDelete([results = member<Results>(*run)](CThread& thread) {
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

TEST_F(Destruction, DoesNotEndBeforeTheClientsCallbackHasReturned) {
  preferences().useAddresses({"gw1"});
  doubles::Gate inCallback;
  doubles::Gate mayReturn;
  client.during = [&] {
    inCallback.open();
    EXPECT_TRUE(mayReturn.wait());
    journal().add("callback returned");
  };
  make();
  startRun();
  EXPECT_TRUE(inCallback.wait());
  EXPECT_EQ(cache().released(), 0);
  mayReturn.open();
  joinRun();

  const auto events = journal().events();
  EXPECT_THAT(events, Contains("callback returned"));
  EXPECT_EQ(events.back(), "cache released");
}

TEST_F(Destruction, AFailedWaitForTheResultsThreadIsLoggedAndDestructionGoesOn) {
  makeFinished();
  seams().setAfterWait([](CThread&, STATUSCODE, unsigned int&, unsigned int) -> STATUSCODE {
    return THREAD_ERROR_TIMEOUT;
  });
  const std::size_t before = doubles::log().lines().size();

  destroy();

  ASSERT_EQ(doubles::log().lines().size(), before + 1);
  EXPECT_EQ(doubles::log().texts().back(),
            "~CHeadendSelection E CThread::WaitForCompletion 0xFE34000B");
  EXPECT_THAT(journal().events(),
              ElementsAre("timer deleted", "provider deleted", "cache released"));
}

TEST_F(Destruction, AResultsThreadThatNeverRanIsNoError) {
  makeFinished();
  seams().setAfterWait([](CThread&, STATUSCODE, unsigned int&, unsigned int) -> STATUSCODE {
    return THREAD_ERROR_INVALID_STATE;
  });
  const std::size_t before = doubles::log().lines().size();

  destroy();

  EXPECT_EQ(doubles::log().lines().size(), before);
}

TEST_F(Destruction, AWorkerIsNotWaitedForAgain) {
  makeFinished();
  seams().setAfterWait([](CThread& thread, STATUSCODE result, unsigned int&, unsigned int) {
    EXPECT_NE(dynamic_cast<ResultsThread*>(&thread), nullptr);
    return result;
  });
  ASSERT_EQ(member<Workers>(*run).size(), 1U);
  EXPECT_NE(member<Workers>(*run)[0], nullptr);

  destroy();
}

}  // namespace
}  // namespace tests
