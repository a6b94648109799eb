// The measurement as a whole: the time budget and its timer, the test probe with the proxy, the
// start of the workers and the wait for them.

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "tests/unit/selection/selection_fixture.h"

namespace tests {
namespace {

using doubles::cache;
using doubles::preferences;
using doubles::ProbeCall;
using doubles::probes;
using doubles::seams;
using doubles::timers;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr STATUSCODE AuthProxy = 0xFE53000A;
constexpr STATUSCODE TimedOut = 0xFE53000B;
constexpr STATUSCODE NoContext = 0xFE8D000A;
constexpr STATUSCODE SomeFailure = 0xFE360002;

const char Challenge[] =
    "HTTP/1.1 407 Proxy Authentication Required\r\n"
    "Proxy-Authenticate: NTLM\r\n"
    "Proxy-Authenticate: Basic realm=\"head office\"\r\n\r\n";

class Dispatch : public SelectionTest {
 protected:
  CHeadendSelection& makeFor(const Texts& addresses, unsigned int reason = Connection,
                             const std::string& last = "") {
    preferences().useAddresses(addresses);
    return make(reason, last);
  }

  STATUSCODE dispatch() { return call<StartPingThreads>(*run, extraInfo); }

  /// The one test probe.
  static ProbeCall testProbe() {
    const std::vector<ProbeCall> calls = probes().testCalls();
    EXPECT_EQ(calls.size(), 1U);
    return calls.size() == 1 ? calls.front() : ProbeCall{};
  }

  static Texts dispatchLines() { return doubles::log().textsOf("startPingThreads"); }

  std::string extraInfo = "untouched";
};

TEST_F(Dispatch, GivesAConnectionTheConnectBudgetAndTheWorkersWhatTheTestProbeLeft) {
  cache().settings.nConnectTimeout = 8000;
  cache().settings.nPingTimeout = 3500;
  cache().settings.nPingsPerHeadend = 4;
  probes().answerTest({.rtt = 300, .httpStatus = 200});
  CHeadendSelection& selection = makeFor({"gw1", "gw2:8443"});

  EXPECT_EQ(dispatch(), 0);
  EXPECT_THAT(timers().starts(), ElementsAre(8000U));
  ASSERT_THAT(member<Workers>(selection), SizeIs(2));
  for (Worker* worker : member<Workers>(selection)) {
    EXPECT_EQ(member<WorkerTimeout>(*worker), 7700U);
    EXPECT_EQ(member<WorkerNumPings>(*worker), 4U);
    EXPECT_EQ(member<WorkerPingTimeout>(*worker), 3500U);
  }
  EXPECT_EQ(member<WorkerHeadend>(*member<Workers>(selection)[0]).getHostAndPort(false), "gw1");
  EXPECT_EQ(member<WorkerHeadend>(*member<Workers>(selection)[1]).getHostAndPort(false),
            "gw2:8443");
  EXPECT_EQ(extraInfo, "untouched");
}

TEST_F(Dispatch, GivesAReconnectionTheReconnectBudgetWholeAndSendsNoTestProbe) {
  cache().settings.nReconnectTimeout = 3000;
  CHeadendSelection& selection = makeFor({"gw1"}, Reconnection);

  EXPECT_EQ(dispatch(), 0);
  EXPECT_THAT(timers().starts(), ElementsAre(3000U));
  EXPECT_EQ(member<WorkerTimeout>(*member<Workers>(selection)[0]), 3000U);
  EXPECT_THAT(probes().testCalls(), IsEmpty());
  EXPECT_THAT(dispatchLines(), IsEmpty());
  EXPECT_EQ(member<LastHeadend>(selection).getHost(), "") << "only the test probe needs one";
}

TEST_F(Dispatch, TheTestProbeKeepsNoConnection) {
  makeFor({"gw1"}, 3);

  EXPECT_EQ(dispatch(), 0);
  EXPECT_FALSE(testProbe().connectionKept);
}

TEST_F(Dispatch, EveryOtherReasonCountsAsAConnection) {
  makeFor({"gw1"}, 3);

  EXPECT_EQ(dispatch(), 0);
  EXPECT_THAT(timers().starts(), ElementsAre(cache().settings.nConnectTimeout));
  EXPECT_THAT(probes().testCalls(), SizeIs(1));
}

TEST_F(Dispatch, ATestProbeSlowerThanTheBudgetWrapsTheWorkersBudget) {
  cache().settings.nConnectTimeout = 100;
  probes().answerTest({.rtt = 250, .httpStatus = 200});
  CHeadendSelection& selection = makeFor({"gw1"});

  EXPECT_EQ(dispatch(), 0);
  EXPECT_EQ(member<WorkerTimeout>(*member<Workers>(selection)[0]), 4294967146U);
  EXPECT_THAT(timers().starts(), ElementsAre(100U));
}

TEST_F(Dispatch, TheTimerCallsBackWithTheRunAndIsKept) {
  CHeadendSelection& selection = makeFor({"gw1"});

  EXPECT_EQ(dispatch(), 0);
  EXPECT_NE(member<Timer>(selection), nullptr);
  EXPECT_EQ(timers().created(), 1);
  EXPECT_EQ(timers().pointerValue(), &selection);
  EXPECT_EQ(timers().longValue(), 0U);
  CExecutionContext* context = CExecutionContext::acquireInstance(API_INSTANCE);
  EXPECT_EQ(timers().list(), &context->GetTimerList());
  context->releaseInstance();
}

TEST_F(Dispatch, TheContextIsGivenBackOnceTheWorkersHaveEnded) {
  makeFor({"gw1"});

  EXPECT_EQ(dispatch(), 0);
  EXPECT_EQ(timers().contextAcquired(), 1);
  EXPECT_EQ(timers().contextReleased(), 1);
}

TEST_F(Dispatch, WithoutAnExecutionContextThereIsNoMeasurement) {
  timers().removeContext();
  CHeadendSelection& selection = makeFor({"gw1"});

  EXPECT_EQ(dispatch(), NoContext);
  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("startPingThreads E CInstanceSmartPtr<CExecutionContext> 0xFE8D000A"));
  EXPECT_EQ(member<Timer>(selection), nullptr);
  EXPECT_THAT(probes().testCalls(), IsEmpty());
  EXPECT_EQ(seams().starts(), 0);
}

TEST_F(Dispatch, ATimerThatCannotBeMadeIsKeptForItsDeletion) {
  timers().failConstruction(SomeFailure);
  CHeadendSelection& selection = makeFor({"gw1"});

  EXPECT_EQ(dispatch(), SomeFailure);
  EXPECT_THAT(doubles::log().texts(), ElementsAre("startPingThreads E CTimer 0xFE360002"));
  EXPECT_NE(member<Timer>(selection), nullptr);
  EXPECT_THAT(timers().starts(), IsEmpty());
  EXPECT_EQ(timers().contextReleased(), 1);
  EXPECT_EQ(seams().starts(), 0);
}

TEST_F(Dispatch, ATimerThatCannotBeArmedStopsTheMeasurement) {
  timers().failStart(SomeFailure);
  CHeadendSelection& selection = makeFor({"gw1"});

  EXPECT_EQ(dispatch(), SomeFailure);
  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("startPingThreads E CTimer::StartTimer 0xFE360002"));
  EXPECT_NE(member<Timer>(selection), nullptr);
  EXPECT_EQ(timers().contextReleased(), 1);
  EXPECT_THAT(probes().testCalls(), IsEmpty());
}

TEST_F(Dispatch, TheTestProbeGoesPlainlyToTheLastHeadend) {
  cache().settings.nTestPingTimeout = 5432;
  makeFor({"gw1", "gw2:8443"}, Connection, "gw2:8443");

  EXPECT_EQ(dispatch(), 0);
  const ProbeCall probe = testProbe();
  EXPECT_EQ(probe.host, "gw2");
  EXPECT_EQ(probe.port, 8443U);
  EXPECT_FALSE(probe.secure);
  EXPECT_FALSE(probe.reserved);
  EXPECT_EQ(probe.userAgent, "");
  EXPECT_EQ(probe.timeout, 5432U) << "handed on as it stands";
  EXPECT_EQ(probe.options, 15U);
  EXPECT_FALSE(probe.determineProxy);
  EXPECT_EQ(probe.proxyServer, "");
  EXPECT_EQ(probe.proxyUser, "");
  EXPECT_EQ(probe.proxyPswd, "");
  EXPECT_TRUE(probe.resultsWereZero);
  EXPECT_EQ(probe.thread, std::this_thread::get_id());
  EXPECT_EQ(dispatchLines().front(), "startPingThreads I QIB Sending test ping to gw2:8443");
}

TEST_F(Dispatch, WithoutALastHeadendTheTestProbeMakesTheFirstCandidateTheLast) {
  CHeadendSelection& selection = makeFor({"gw1:444", "gw2"});

  EXPECT_EQ(dispatch(), 0);
  EXPECT_EQ(testProbe().host, "gw1");
  EXPECT_EQ(testProbe().port, 444U);
  EXPECT_EQ(member<LastHeadend>(selection).getHostAndPort(false), "gw1:444");
}

TEST_F(Dispatch, APortThatIsNoNumberCountsAs0) {
  CHeadendSelection& selection = makeFor({"gw1"}, Connection, "gw1");
  member<UrlPort>(member<LastHeadend>(selection)) = "https";

  EXPECT_EQ(dispatch(), 0);
  EXPECT_EQ(testProbe().port, 0U);
  EXPECT_EQ(dispatchLines().front(), "startPingThreads I QIB Sending test ping to gw1:0");
}

TEST_F(Dispatch, APortAbove65535IsLoggedAsItIsAndSentInItsLow16Bits) {
  CHeadendSelection& selection = makeFor({"gw1"}, Connection, "gw1");
  member<UrlPort>(member<LastHeadend>(selection)) = "70000";

  EXPECT_EQ(dispatch(), 0);
  EXPECT_EQ(testProbe().port, 70000U - 65536U);
  EXPECT_EQ(dispatchLines().front(), "startPingThreads I QIB Sending test ping to gw1:70000");
}

TEST_F(Dispatch, AProviderWithAUserMakesTheTestProbeSecureOnPort443) {
  makeFor({"gw1:8443"}, Connection, "gw1:8443");
  run->SetProxy(new Provider(BasicProxy, "user", "secret", "proxy1"));

  EXPECT_EQ(dispatch(), 0);
  const ProbeCall probe = testProbe();
  EXPECT_TRUE(probe.secure);
  EXPECT_EQ(probe.port, 443U);
  EXPECT_EQ(probe.proxyUser, "user");
  EXPECT_EQ(probe.proxyPswd, "secret");
  EXPECT_EQ(dispatchLines().front(), "startPingThreads I QIB Sending test ping to gw1:443");
}

TEST_F(Dispatch, ThePasswordIsAskedForBeforeTheUser) {
  preferences().useAddresses({"gw1"});
  auto* const provider = new Provider(BasicProxy, "anna", "secret", "");
  make().SetProxy(provider);
  doubles::log().setHook([provider](const doubles::LogLine& line) {
    if (line.message == "QIB Sending test ping to gw1:443") {
      EXPECT_EQ(provider->asked, "password user ");
    }
  });
  runToEnd();
  EXPECT_EQ(doubles::log().count("startPingThreads I QIB Sending test ping to gw1:443"), 1U);
}

TEST_F(Dispatch, AProviderWithoutAUserLeavesTheTestProbePlainAndWithoutCredentials) {
  makeFor({"gw1:8443"}, Connection, "gw1:8443");
  run->SetProxy(new Provider(BasicProxy, "", "secret", ""));

  EXPECT_EQ(dispatch(), 0);
  const ProbeCall probe = testProbe();
  EXPECT_FALSE(probe.secure);
  EXPECT_EQ(probe.port, 8443U);
  EXPECT_EQ(probe.proxyUser, "");
  EXPECT_EQ(probe.proxyPswd, "");
}

TEST_F(Dispatch, CredentialsEndAtTheirFirstNul) {
  makeFor({"gw1"});
  run->SetProxy(new Provider(BasicProxy, std::string("us\0er", 5), std::string("se\0cret", 7), ""));

  EXPECT_EQ(dispatch(), 0);
  EXPECT_EQ(testProbe().proxyUser, "us");
  EXPECT_EQ(testProbe().proxyPswd, "se");
}

TEST_F(Dispatch, AUserNameThatStartsWithNulIsEmpty) {
  makeFor({"gw1"});
  run->SetProxy(new Provider(BasicProxy, std::string("\0user", 5), "secret", ""));

  EXPECT_EQ(dispatch(), 0);
  EXPECT_FALSE(testProbe().secure);
  EXPECT_EQ(testProbe().proxyUser, "");
  EXPECT_EQ(testProbe().proxyPswd, "");
}

TEST_F(Dispatch, AProviderWithAHostLeavesTheProxyToTheProbe) {
  makeFor({"gw1"});
  run->SetProxy(new Provider(NTLMProxy, "", "", "proxy1"));
  preferences().proxySettings = PreferenceBase::ProxyOverride;
  preferences().proxyHost = "other";

  EXPECT_EQ(dispatch(), 0);
  EXPECT_TRUE(testProbe().determineProxy);
  EXPECT_EQ(testProbe().proxyServer, "");
  EXPECT_THAT(preferences().valuesAsked, IsEmpty()) << "the configured proxy is not asked for";
}

TEST_F(Dispatch, AProviderWithoutAHostUsesTheConfiguredProxyWithItsCredentials) {
  makeFor({"gw1"});
  run->SetProxy(new Provider(BasicProxy, "user", "secret", ""));
  preferences().proxySettings = PreferenceBase::ProxyOverride;
  preferences().proxyHost = "proxy1";
  preferences().proxyPort = "3128";

  EXPECT_EQ(dispatch(), 0);
  EXPECT_FALSE(testProbe().determineProxy);
  EXPECT_EQ(testProbe().proxyServer, "http=http://proxy1:3128");
  EXPECT_EQ(testProbe().proxyUser, "user");
  EXPECT_EQ(testProbe().proxyPswd, "secret");
}

TEST_F(Dispatch, WithoutAProviderTheTestProbeUsesTheConfiguredProxy) {
  makeFor({"gw1"});
  preferences().proxySettings = PreferenceBase::ProxyOverride;
  preferences().proxyHost = "proxy1";

  EXPECT_EQ(dispatch(), 0);
  EXPECT_FALSE(testProbe().determineProxy);
  EXPECT_EQ(testProbe().proxyServer, "http=http://proxy1");
}

class AcceptedAnswer : public Dispatch, public testing::WithParamInterface<STATUSCODE> {};

TEST_P(AcceptedAnswer, OfTheTestProbeIsNoFailure) {
  probes().answerTest({.status = GetParam(), .rtt = 8, .lastError = 56});
  makeFor({"gw1"});

  EXPECT_EQ(dispatch(), 0);
  EXPECT_THAT(dispatchLines(), ElementsAre("startPingThreads I QIB Sending test ping to gw1:443",
                                           "startPingThreads I QIB test ping took 8"));
}

INSTANTIATE_TEST_SUITE_P(All, AcceptedAnswer,
                         testing::Values(0, HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE,
                                         HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED,
                                         HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE));

class FailedTestProbe : public Dispatch, public testing::WithParamInterface<STATUSCODE> {};

TEST_P(FailedTestProbe, IsLoggedWithItsLastErrorAndMeasurementGoesOn) {
  probes().answerTest({.status = GetParam(), .rtt = 21, .lastError = 0x1C});
  makeFor({"gw1"});

  EXPECT_EQ(dispatch(), 0);
  EXPECT_THAT(dispatchLines(),
              ElementsAre("startPingThreads I QIB Sending test ping to gw1:443",
                          "startPingThreads E HttpProbe::SendHttpProbe QIB test ping failed 0x1C",
                          "startPingThreads I QIB test ping took 21"));
  EXPECT_EQ(doubles::log().lines()[1].code, 0x1C);
  EXPECT_THAT(probes().workerCalls("gw1"), SizeIs(3));
}

INSTANTIATE_TEST_SUITE_P(All, FailedTestProbe,
                         testing::Values(HTTP_SESSION_ERROR_CONNECT, HTTP_SESSION_ERROR_TIMEOUT,
                                         HTTP_SESSION_ERROR_CANNOT_CONNECT,
                                         HTTP_SESSION_ERROR_DNS_RESOLUTION,
                                         STATUSCODE{0xFE460002}));

class ChallengedTestProbe : public Dispatch, public testing::WithParamInterface<STATUSCODE> {};

TEST_P(ChallengedTestProbe, EndsTheMeasurementWithTheRealmWhateverItsStatus) {
  probes().answerTest({.status = GetParam(), .rtt = 9, .httpStatus = 407, .headers = Challenge});
  CHeadendSelection& selection = makeFor({"gw1", "gw2"});

  EXPECT_EQ(dispatch(), AuthProxy);
  EXPECT_EQ(extraInfo, "head office");
  EXPECT_EQ(member<Timer>(selection), nullptr);
  EXPECT_EQ(timers().live(), 0);
  EXPECT_FALSE(fireTimer());
  EXPECT_EQ(timers().contextReleased(), 1);
  EXPECT_EQ(seams().starts(), 0);
  EXPECT_EQ(dispatchLines().back(), "startPingThreads I QIB: Encountered an auth proxy");
  EXPECT_EQ(doubles::log().count("startPingThreads I QIB test ping took 9"), 0U);
}

INSTANTIATE_TEST_SUITE_P(All, ChallengedTestProbe,
                         testing::Values(STATUSCODE{0}, HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE,
                                         HTTP_SESSION_ERROR_CONNECT));

TEST_F(Dispatch, AChallengedProbeThatAlsoFailedLogsItsFailureFirst) {
  probes().answerTest({.status = HTTP_SESSION_ERROR_CONNECT, .httpStatus = 407, .lastError = 7});
  makeFor({"gw1"});

  EXPECT_EQ(dispatch(), AuthProxy);
  EXPECT_THAT(dispatchLines(),
              ElementsAre("startPingThreads I QIB Sending test ping to gw1:443",
                          "startPingThreads E HttpProbe::SendHttpProbe QIB test ping failed 0x7",
                          "startPingThreads I QIB: Encountered an auth proxy"));
  EXPECT_EQ(extraInfo, "") << "no challenge, no realm";
}

TEST_F(Dispatch, AChallengeThatMeetsAnExpiredTimerStillDeletesIt) {
  probes().answerTest(
      {.httpStatus = 407, .headers = Challenge, .during = [&] { EXPECT_TRUE(fireTimer()); }});
  CHeadendSelection& selection = makeFor({"gw1"});

  EXPECT_EQ(dispatch(), AuthProxy);
  EXPECT_EQ(member<Timer>(selection), nullptr);
  EXPECT_EQ(timers().live(), 0);
}

TEST_F(Dispatch, ATimerThatExpiresDuringTheTestProbeStopsBeforeAnyWorker) {
  probes().answerTest({.rtt = 3, .during = [&] { EXPECT_TRUE(fireTimer()); }});
  CHeadendSelection& selection = makeFor({"gw1"});

  EXPECT_EQ(dispatch(), TimedOut);
  EXPECT_THAT(dispatchLines(),
              ElementsAre("startPingThreads I QIB Sending test ping to gw1:443",
                          "startPingThreads I QIB test ping took 3",
                          "startPingThreads W QIB timer expired before any servers could be "
                          "pinged."));
  EXPECT_THAT(member<Workers>(selection), IsEmpty());
  EXPECT_EQ(timers().contextReleased(), 1);
}

TEST_F(Dispatch, AReconnectionWhoseTimerHasExpiredStopsBeforeTheFirstWorker) {
  CHeadendSelection& selection = makeFor({"gw1", "gw2"}, Reconnection);
  selection.setThreadTerminated(true);

  EXPECT_EQ(dispatch(), TimedOut);
  EXPECT_THAT(dispatchLines(),
              ElementsAre("startPingThreads W QIB timer expired before starting thread 0"));
  EXPECT_THAT(member<Workers>(selection), ElementsAre(nullptr, nullptr));
}

TEST_F(Dispatch, ATimerThatExpiresBetweenTwoStartsLeavesTheLaterSlotsEmpty) {
  doubles::Gate release;
  for (const char* host : {"gw0", "gw1", "gw2"}) {
    probes().answer(host, {{.rtt = 30, .during = [&] { EXPECT_TRUE(release.wait()); }}});
  }
  CHeadendSelection& selection = makeFor({"gw0", "gw1", "gw2", "gw3", "gw4"});
  int started = 0;
  seams().setAfterStart([&](CThread& thread) {
    if (dynamic_cast<Worker*>(&thread) != nullptr && ++started == 3) {
      EXPECT_TRUE(fireTimer());
    }
  });

  EXPECT_EQ(dispatch(), TimedOut) << "without waiting for the workers, which are still probing";
  EXPECT_EQ(dispatchLines().back(),
            "startPingThreads W QIB timer expired before starting thread 3");
  ASSERT_THAT(member<Workers>(selection), SizeIs(5));
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_NE(member<Workers>(selection)[i], nullptr);
  }
  EXPECT_EQ(member<Workers>(selection)[3], nullptr);
  EXPECT_EQ(member<Workers>(selection)[4], nullptr);
  EXPECT_EQ(timers().contextReleased(), 1);

  release.open();
  EXPECT_TRUE(doubles::eventually([] { return CThread::RunningCount() == 0; }));
  for (const char* host : {"gw0", "gw1", "gw2"}) {
    EXPECT_EQ(probes().workerCalls(host).size(), 3U) << "runs to its own end";
  }
  EXPECT_THAT(probes().workerCalls("gw3"), IsEmpty());
}

TEST_F(Dispatch, WorkersAreStartedInTheOrderOfTheListAndWaitedForInIt) {
  makeFor({"gw1", "gw2", "gw3"}, Reconnection);
  Texts order;
  seams().setAfterStart([&](CThread& thread) {
    order.push_back("start " + dynamic_cast<Worker&>(thread).GetHeadend());
  });
  seams().setAfterWait(
      [&](CThread& thread, STATUSCODE result, unsigned int&, unsigned int timeoutMs) {
        EXPECT_EQ(timeoutMs, CThread::Infinite);
        order.push_back("wait " + dynamic_cast<Worker&>(thread).GetHeadend());
        return result;
      });

  EXPECT_EQ(dispatch(), 0);
  EXPECT_THAT(order, ElementsAre("start gw1", "start gw2", "start gw3", "wait gw1", "wait gw2",
                                 "wait gw3"));
}

TEST_F(Dispatch, ReturnsOnlyWhenEveryWorkerHasEnded) {
  makeFor({"gw1", "gw2"}, Reconnection);

  EXPECT_EQ(dispatch(), 0);
  EXPECT_THAT(doubles::log().textsOf("Run"), SizeIs(4)) << "both have logged their end";
}

TEST_F(Dispatch, AWaitThatFailsIsLoggedAndTheNextWorkerIsWaitedFor) {
  makeFor({"gw1", "gw2"}, Reconnection);
  int waits = 0;
  seams().setAfterWait([&](CThread&, STATUSCODE result, unsigned int&, unsigned int) -> STATUSCODE {
    return ++waits == 1 ? THREAD_ERROR_TIMEOUT : result;
  });

  EXPECT_EQ(dispatch(), 0);
  EXPECT_EQ(waits, 2);
  EXPECT_THAT(dispatchLines(),
              ElementsAre("startPingThreads W CSelectionThread::WaitForCompletion 0xFE34000B"));
}

TEST_F(Dispatch, AWaitThatFailsDoesNotHideTheWorkersOwnFailure) {
  makeFor({"gw1"}, Reconnection);
  seams().setAfterWait(
      [](CThread&, STATUSCODE, unsigned int& exitCode, unsigned int) -> STATUSCODE {
        exitCode = 0xFE460019;
        return THREAD_ERROR_TIMEOUT;
      });

  EXPECT_EQ(dispatch(), 0);
  EXPECT_THAT(dispatchLines(),
              ElementsAre("startPingThreads W CSelectionThread::WaitForCompletion 0xFE34000B",
                          "startPingThreads W CSelectionThread::Run 0xFE460019"));
}

TEST_F(Dispatch, AWaitThatFailsDoesNotRepeatTheFailureOfTheWorkerBefore) {
  probes().answer("gw1", {{.status = HTTP_SESSION_ERROR_DNS_RESOLUTION}});
  makeFor({"gw1", "gw2"}, Reconnection);
  seams().setBeforeStart([](CThread& thread) -> std::optional<STATUSCODE> {
    if (dynamic_cast<Worker&>(thread).GetHeadend() == "gw2") {
      return THREAD_ERROR_CREATE_FAILED;
    }
    return std::nullopt;
  });

  EXPECT_EQ(dispatch(), 0);
  EXPECT_THAT(dispatchLines(),
              ElementsAre("startPingThreads W CSelectionThread::Run 0xFE460019",
                          "startPingThreads W CSelectionThread::WaitForCompletion 0xFE34000D"));
}

TEST_F(Dispatch, AWorkerThatEndsWithAFailureIsLoggedAndIsNoFailureOfTheMeasurement) {
  probes().answer("gw1", {{.status = HTTP_SESSION_ERROR_DNS_RESOLUTION}});
  CHeadendSelection& selection = makeFor({"gw1", "gw2"}, Reconnection);

  EXPECT_EQ(dispatch(), 0);
  EXPECT_THAT(dispatchLines(), ElementsAre("startPingThreads W CSelectionThread::Run 0xFE460019"));
  EXPECT_THAT(recordsOf(member<PingResults>(selection)), ElementsAre("gw2 10"));
}

TEST_F(Dispatch, AWorkerThatCannotBeStartedIsOnlyMissedAtTheWait) {
  CHeadendSelection& selection = makeFor({"gw1", "gw2"}, Reconnection);
  seams().setBeforeStart([](CThread& thread) -> std::optional<STATUSCODE> {
    if (dynamic_cast<Worker&>(thread).GetHeadend() == "gw1") {
      return THREAD_ERROR_CREATE_FAILED;
    }
    return std::nullopt;
  });

  EXPECT_EQ(dispatch(), 0);
  EXPECT_THAT(dispatchLines(),
              ElementsAre("startPingThreads W CSelectionThread::WaitForCompletion 0xFE34000D"));
  EXPECT_THAT(recordsOf(member<PingResults>(selection)), ElementsAre("gw2 10"));
}

TEST_F(Dispatch, EveryHeadendIsMeasuredOnAThreadOfItsOwn) {
  makeFor({"gw1", "gw2", "gw3"}, Reconnection);
  EXPECT_EQ(dispatch(), 0);

  std::vector<std::thread::id> threads;
  for (const char* host : {"gw1", "gw2", "gw3"}) {
    const std::vector<ProbeCall> calls = probes().workerCalls(host);
    ASSERT_THAT(calls, SizeIs(3));
    EXPECT_EQ(calls[0].thread, calls[1].thread);
    EXPECT_EQ(calls[0].thread, calls[2].thread);
    threads.push_back(calls[0].thread);
  }
  EXPECT_EQ(std::count(threads.begin(), threads.end(), std::this_thread::get_id()), 0);
}

}  // namespace
}  // namespace tests
