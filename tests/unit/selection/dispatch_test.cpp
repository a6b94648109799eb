// The whole measurement: the time budget and its timer, the test probe through the proxy, starting
// the workers and waiting for them.

#include <set>
#include <string>
#include <vector>

#include "tests/unit/selection/selection_fixture.h"

namespace tests {
namespace {

const char Challenge[] =
    "HTTP/1.1 407 Proxy Authentication Required\r\n"
    "Proxy-Authenticate: NTLM\r\n"
    "Proxy-Authenticate: Basic realm=\"head office\"\r\n\r\n";

class Dispatch : public SelectionTest {
 protected:
  STATUSCODE dispatch() { return call<StartPingThreads>(*run, extraInfo); }

  /// The one test probe.
  static ProbeCall testProbe() {
    const std::vector<ProbeCall> calls = probes().testCalls();
    EXPECT_EQ(calls.size(), 1U);
    return calls.size() == 1 ? calls.front() : ProbeCall{};
  }

  /// The log lines of the measurement, without the function's name.
  static Texts lines() {
    Texts texts = doubles::log().texts("startPingThreads");
    for (std::string& text : texts) {
      text.erase(0, text.find(' ') + 1);
    }
    return texts;
  }

  std::string extraInfo = "untouched";
};

struct Budget {
  unsigned int reason = Connection;
  unsigned int connectTimeout = 8000;
  unsigned int testRtt = 300;
  std::size_t testProbes = 1;
  unsigned long timer = 8000;
  unsigned int ofWorkers = 7700;
};

class TheBudget : public Dispatch, public testing::WithParamInterface<Row<Budget>> {};

TEST_P(TheBudget, ArmsTheTimerAndIsHandedToTheWorkers) {
  const Budget& budget = GetParam().is;
  cache().settings.nConnectTimeout = budget.connectTimeout;
  cache().settings.nReconnectTimeout = 3000;
  cache().settings.nPingTimeout = 3500;
  cache().settings.nPingsPerHeadend = 4;
  probes().answerTest({.rtt = budget.testRtt, .httpStatus = 200});
  CHeadendSelection& selection = makeFor({"gw1", "gw2:8443"}, budget.reason);

  EXPECT_EQ(dispatch(), 0);
  EXPECT_THAT(timers().starts.get(), ElementsAre(budget.timer));
  EXPECT_THAT(probes().testCalls(), SizeIs(budget.testProbes));
  EXPECT_THAT(lines(), SizeIs(budget.testProbes * 2));
  ASSERT_THAT(member<Workers>(selection), SizeIs(2));
  for (Worker* worker : member<Workers>(selection)) {
    EXPECT_EQ(member<WorkerTimeout>(*worker), budget.ofWorkers);
    EXPECT_EQ(member<WorkerNumPings>(*worker), 4U);
    EXPECT_EQ(member<WorkerPingTimeout>(*worker), 3500U);
  }
  EXPECT_EQ(extraInfo, "untouched");
}

INSTANTIATE_TEST_SUITE_P(
    Of, TheBudget,
    testing::ValuesIn(Rows<Budget>{
        {"AConnectionLessTheTestProbe", {}},
        {"AReconnectionWholeWithoutATestProbe",
         {.reason = Reconnection, .testProbes = 0, .timer = 3000, .ofWorkers = 3000}},
        {"AnyOtherReasonIsThatOfAConnection", {.reason = 3}},
        {"ATestProbeSlowerThanItWraps",
         {.connectTimeout = 100, .testRtt = 250, .timer = 100, .ofWorkers = 4294967146U}},
    }),
    nameOfRow);

TEST_F(Dispatch, WithoutAContextOrATimerThereIsNoMeasurement) {
  struct Trouble {
    bool hasContext;
    long construction, start;
    const char* line;
    bool keepsTimer;
  };
  for (const Trouble& trouble :
       {Trouble{false, 0, 0, "E CInstanceSmartPtr<CExecutionContext> 0xFE8D000A", false},
        Trouble{true, SomeFailure, 0, "E CTimer 0xFE360002", true},
        Trouble{true, 0, SomeFailure, "E CTimer::StartTimer 0xFE360002", true}}) {
    SCOPED_TRACE(trouble.line);
    doubles::log().reset();
    timers().hasContext = trouble.hasContext;
    timers().constructionStatus = trouble.construction;
    timers().startStatus = trouble.start;
    CHeadendSelection& selection = makeFor({"gw1"});
    EXPECT_EQ(dispatch(), trouble.hasContext ? SomeFailure : NoContext);
    EXPECT_THAT(lines(), ElementsAre(trouble.line));
    EXPECT_EQ(member<Timer>(selection) != nullptr, trouble.keepsTimer) << "for its deletion";
    EXPECT_EQ(timers().contextReleased, timers().contextAcquired);
    destroy();
  }
  EXPECT_THAT(probes().testCalls(), IsEmpty());
  EXPECT_EQ(seams().starts, 0);
}

TEST_F(Dispatch, TheTestProbeGoesPlainlyToTheLastHeadendAndKeepsNoConnection) {
  cache().settings.nTestPingTimeout = 5432;
  makeFor({"gw1", "gw2:8443"}, Connection, "gw2:8443");

  EXPECT_EQ(dispatch(), 0);
  const ProbeCall probe = testProbe();
  EXPECT_EQ(probe.host, "gw2");
  EXPECT_FALSE(probe.reserved);
  EXPECT_EQ(probe.userAgent, "");
  EXPECT_EQ(probe.timeout, 5432U) << "handed on as it stands";
  EXPECT_EQ(probe.options, 15U);
  EXPECT_TRUE(probe.resultsWereZero);
  EXPECT_EQ(probe.thread, std::this_thread::get_id());
  EXPECT_FALSE(probe.connectionKept);
  EXPECT_EQ(lines().front(), "I QIB Sending test ping to gw2:8443");
}

TEST_F(Dispatch, WithoutALastHeadendTheTestProbeMakesTheFirstCandidateTheLast) {
  CHeadendSelection& selection = makeFor({"gw1:444", "gw2"});

  EXPECT_EQ(dispatch(), 0);
  EXPECT_EQ(testProbe().host, "gw1");
  EXPECT_EQ(testProbe().port, 444U);
  EXPECT_EQ(member<LastHeadend>(selection).getHostAndPort(false), "gw1:444");
}

TEST_F(Dispatch, APortThatIsNoNumberCountsAs0AndOneAbove65535IsSentInItsLow16Bits) {
  for (const auto& [port, logged, sent] :
       {std::tuple("https", "0", 0U), std::tuple("70000", "70000", 70000U - 65536U)}) {
    CHeadendSelection& selection = makeFor({"gw1"}, Connection, "gw1");
    member<UrlPort>(member<LastHeadend>(selection)) = port;
    EXPECT_EQ(dispatch(), 0);
    EXPECT_EQ(testProbe().port, sent);
    EXPECT_EQ(lines().front(), std::string("I QIB Sending test ping to gw1:") + logged);
    destroy();
    probes().calls.set({});
    doubles::log().reset();
  }
}

struct Way {
  bool hasProvider = true;
  std::string user = "user";
  std::string password = "secret";
  std::string providersHost = {};
  std::string port = {};  ///< of the proxy in the preferences
  // The properties of the test probe:
  bool secure = true;
  bool determineProxy = false;
  std::string server = "http=http://proxy1";
  std::string sentUser = {};
  std::string sentPassword = {};
};

class TheTestProbe : public Dispatch, public testing::WithParamInterface<Row<Way>> {};

TEST_P(TheTestProbe, GoesByWayOfTheProxy) {
  const Way& way = GetParam().is;
  preferences().proxySettings = PreferenceBase::ProxyOverride;
  preferences().proxyHost = "proxy1";
  preferences().proxyPort = way.port;
  makeFor({"gw1:8443"}, Connection, "gw1:8443");
  Provider* provider = nullptr;
  if (way.hasProvider) {
    provider = new Provider(BasicProxy, way.user, way.password, way.providersHost);
    run->SetProxy(provider);
  }

  EXPECT_EQ(dispatch(), 0);
  EXPECT_TRUE(provider == nullptr || provider->asked.starts_with("password user "));
  const ProbeCall probe = testProbe();
  EXPECT_EQ(probe.secure, way.secure);
  EXPECT_EQ(probe.port, way.secure ? 443U : 8443U);
  EXPECT_EQ(probe.determineProxy, way.determineProxy);
  EXPECT_EQ(probe.proxyServer, way.server);
  EXPECT_EQ(probe.proxyUser, way.sentUser);
  EXPECT_EQ(probe.proxyPswd, way.sentPassword);
  EXPECT_EQ(preferences().valuesAsked.empty(), way.determineProxy);
}

INSTANTIATE_TEST_SUITE_P(
    With, TheTestProbe,
    testing::ValuesIn(Rows<Way>{
        {"NoProviderUsesTheConfiguredProxy", {.hasProvider = false, .secure = false}},
        {"AUserIsSecureOnPort443AndAHostLeavesTheProxyToTheProbe",
         {.providersHost = "other",
          .determineProxy = true,
          .server = "",
          .sentUser = "user",
          .sentPassword = "secret"}},
        {"NoHostUsesTheConfiguredProxyWithItsCredentials",
         {.port = "3128",
          .server = "http=http://proxy1:3128",
          .sentUser = "user",
          .sentPassword = "secret"}},
        {"NoUserIsPlainAndWithoutCredentials", {.user = "", .secure = false}},
        {"AHostButNoUserIsPlain",
         {.user = "",
          .providersHost = "other",
          .secure = false,
          .determineProxy = true,
          .server = ""}},
        {"CredentialsThatEndAtTheirFirstNul",
         {.user = {"us\0er", 5},
          .password = {"se\0cret", 7},
          .sentUser = "us",
          .sentPassword = "se"}},
        {"AUserThatStartsWithNulIsPlain", {.user = {"\0user", 5}, .secure = false}},
    }),
    nameOfRow);

TEST_F(Dispatch, ATestProbeThatFailsIsLoggedWithItsLastErrorUnlessTheServerAnswered) {
  for (const auto& [status, isAnswer] :
       std::vector<std::pair<STATUSCODE, bool>>{{0, true},
                                                {HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE, true},
                                                {HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED, true},
                                                {HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE, true},
                                                {HTTP_SESSION_ERROR_CONNECT, false},
                                                {HTTP_SESSION_ERROR_TIMEOUT, false},
                                                {HTTP_SESSION_ERROR_CANNOT_CONNECT, false},
                                                {HTTP_SESSION_ERROR_DNS_RESOLUTION, false},
                                                {SomeFailure, false}}) {
    SCOPED_TRACE(status);
    doubles::log().reset();
    probes().calls.set({});
    probes().answerTest({.status = status, .rtt = 21, .lastError = 0x1C});
    makeFor({"gw1"});
    EXPECT_EQ(dispatch(), 0);
    Texts expected{"I QIB Sending test ping to gw1:443", "I QIB test ping took 21"};
    if (!isAnswer) {
      expected.insert(expected.begin() + 1, "E HttpProbe::SendHttpProbe QIB test ping failed 0x1C");
    }
    EXPECT_EQ(lines(), expected);
    EXPECT_THAT(probes().workerCalls("gw1"), SizeIs(3)) << "the measurement goes on";
    destroy();
  }
}

TEST_F(Dispatch, AChallengeEndsTheMeasurementWithTheRealmWhateverTheProbesStatus) {
  for (const STATUSCODE status :
       {STATUSCODE{0}, STATUSCODE{HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE},
        STATUSCODE{HTTP_SESSION_ERROR_CONNECT}}) {
    SCOPED_TRACE(status);
    const bool isFailure = status == HTTP_SESSION_ERROR_CONNECT;
    doubles::log().reset();
    probes().answerTest(
        {.status = status, .rtt = 9, .httpStatus = 407, .lastError = 7, .headers = Challenge});
    CHeadendSelection& selection = makeFor({"gw1", "gw2"});
    EXPECT_EQ(dispatch(), AuthProxy);
    EXPECT_EQ(extraInfo, "head office");
    EXPECT_EQ(member<Timer>(selection), nullptr);
    EXPECT_EQ(timers().live, 0);
    EXPECT_FALSE(fireTimer());
    EXPECT_EQ(timers().contextReleased, timers().contextAcquired);
    Texts expected{"I QIB Sending test ping to gw1:443", "I QIB: Encountered an auth proxy"};
    if (isFailure) {
      expected.insert(expected.begin() + 1, "E HttpProbe::SendHttpProbe QIB test ping failed 0x7");
    }
    EXPECT_EQ(lines(), expected);
    destroy();
  }
  EXPECT_EQ(seams().starts, 0);
}

TEST_F(Dispatch, AReconnectionWhoseTimerHasExpiredStopsBeforeTheFirstWorker) {
  CHeadendSelection& selection = makeFor({"gw1", "gw2"}, Reconnection);
  selection.setThreadTerminated(true);
  EXPECT_EQ(dispatch(), TimedOut);
  EXPECT_EQ(lines().back(), "W QIB timer expired before starting thread 0");
}

TEST_F(Dispatch, ATimerThatExpiresBetweenTwoStartsLeavesTheLaterSlotsEmpty) {
  Gate release;
  for (const char* host : {"gw0", "gw1", "gw2"}) {
    probes().answer(host, {{.rtt = 30, .during = [&] { EXPECT_TRUE(release.wait()); }}});
  }
  CHeadendSelection& selection = makeFor({"gw0", "gw1", "gw2", "gw3", "gw4"});
  int started = 0;
  seams().afterStart.set([&](CThread& thread) {
    if (dynamic_cast<Worker*>(&thread) != nullptr && ++started == 3) {
      EXPECT_TRUE(fireTimer());
    }
  });

  EXPECT_EQ(dispatch(), TimedOut) << "without waiting for the workers, which are still probing";
  EXPECT_EQ(lines().back(), "W QIB timer expired before starting thread 3");
  EXPECT_THAT(member<Workers>(selection),
              ElementsAre(testing::NotNull(), testing::NotNull(), testing::NotNull(),
                          testing::IsNull(), testing::IsNull()));
  EXPECT_EQ(timers().contextReleased, 1);

  release.open();
  EXPECT_TRUE(doubles::eventually([] { return CThread::RunningCount() == 0; }));
  for (const char* host : {"gw0", "gw1", "gw2"}) {
    EXPECT_THAT(probes().workerCalls(host), SizeIs(3)) << "runs to its own end";
  }
}

TEST_F(Dispatch, WorkersRunOnThreadsOfTheirOwnAndAreStartedAndWaitedForInTheOrderOfTheList) {
  makeFor({"gw1", "gw2:8443", "gw3"}, Reconnection);
  Texts order;
  seams().afterStart.set([&](CThread& thread) {
    order.push_back("start " + dynamic_cast<Worker&>(thread).GetHeadend());
  });
  seams().afterWait.set(
      [&](CThread& thread, STATUSCODE result, unsigned int&, unsigned int timeoutMs) {
        EXPECT_EQ(timeoutMs, CThread::Infinite);
        order.push_back("wait " + dynamic_cast<Worker&>(thread).GetHeadend());
        return result;
      });

  EXPECT_EQ(dispatch(), 0);
  EXPECT_THAT(order, ElementsAre("start gw1", "start gw2:8443", "start gw3", "wait gw1",
                                 "wait gw2:8443", "wait gw3"));
  EXPECT_THAT(doubles::log().texts("Run"), SizeIs(6)) << "all have logged their end";
  std::set<std::thread::id> ofMain{std::this_thread::get_id()};
  for (const char* host : {"gw1", "gw2", "gw3"}) {
    std::set<std::thread::id> threads;
    for (const ProbeCall& call : probes().workerCalls(host)) {
      threads.insert(call.thread);
    }
    EXPECT_THAT(threads, SizeIs(1));
    EXPECT_NE(threads, ofMain);
  }
}

TEST_F(Dispatch, AWaitThatFailsHidesNeitherTheWorkersOwnFailureNorTheNextWorker) {
  makeFor({"gw1", "gw2"}, Reconnection);
  int waits = 0;
  seams().afterWait.set([&](CThread&, STATUSCODE, unsigned int& code, unsigned int) -> STATUSCODE {
    code = ++waits == 1 ? 0xFE460019 : 0;
    return waits == 1 ? STATUSCODE{THREAD_ERROR_TIMEOUT} : 0;
  });

  EXPECT_EQ(dispatch(), 0);
  EXPECT_EQ(waits, 2);
  EXPECT_THAT(lines(), ElementsAre("W CSelectionThread::WaitForCompletion 0xFE34000B",
                                   "W CSelectionThread::Run 0xFE460019"));
}

TEST_F(Dispatch, ADnsErrorAndAWorkerThatCannotStartAreLoggedAndTheOthersAreMeasured) {
  probes().answer("gw1", {{.status = HTTP_SESSION_ERROR_DNS_RESOLUTION}});
  CHeadendSelection& selection = makeFor({"gw1", "gw2", "gw3"}, Reconnection);
  seams().beforeStart.set([](CThread& thread) -> std::optional<STATUSCODE> {
    if (dynamic_cast<Worker&>(thread).GetHeadend() == "gw2") {
      return THREAD_ERROR_CREATE_FAILED;
    }
    return std::nullopt;
  });

  EXPECT_EQ(dispatch(), 0);
  EXPECT_THAT(lines(), ElementsAre("W CSelectionThread::Run 0xFE460019",
                                   "W CSelectionThread::WaitForCompletion 0xFE34000D"))
      << "the failure of the one before is not repeated";
  EXPECT_THAT(recordsOf(member<PingResults>(selection)), ElementsAre("gw3 10"));
}

}  // namespace
}  // namespace tests
