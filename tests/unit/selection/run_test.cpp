// A run from its first line to the client's callback: the driver's decisions one by one, and the
// whole log of typical runs, line by line.

#include <stdexcept>
#include <utility>
#include <vector>

#include "tests/unit/selection/selection_fixture.h"

namespace tests {
namespace {

using doubles::cache;
using doubles::LogLine;
using doubles::preferences;
using doubles::ProbeAnswer;
using doubles::probes;
using doubles::seams;
using doubles::timers;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr long AddedToCache = 0xFE530010;
constexpr long NoHeadends = 0xFE53000D;
constexpr long NoCache = 0xFE53000C;
constexpr long AuthProxy = 0xFE53000A;
constexpr long Unexpected = 0xFE530009;
constexpr long SelectionFailure = 0xFE53000F;
constexpr STATUSCODE NoContext = 0xFE8D000A;

class SelectHeadend : public SelectionTest {
 protected:
  STATUSCODE select() { return call<tests::SelectHeadend>(*run, list, extraInfo); }

  /// A run whose cache the test takes away.
  void makeWithoutCache() {
    CHeadendSelection& selection = make();
    member<Cache>(selection)->releaseInstance();
    member<Cache>(selection) = nullptr;
  }

  Texts list;
  std::string extraInfo;
};

TEST_F(SelectHeadend, LogsReasonAndHostOfTheLastHeadendWithoutItsPort) {
  preferences().useAddresses({"gw1:8443"});
  cache().hitWith(entryOf({{"gw1:8443", 5}}));
  make(3, "gw1:8443");
  select();

  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("selectHeadend I Starting QIB processing during proxy authentication "
                          "attempt. Last headend: gw1"));
}

TEST_F(SelectHeadend, AnEmptyLastHeadendIsLoggedAsSuchAndTheRunGoesOn) {
  preferences().useAddresses({"gw1"});
  cache().hitWith(entryOf({{"gw1", 5}}));
  make(6);
  EXPECT_EQ(select(), 0);

  EXPECT_THAT(doubles::log().texts(), ElementsAre("selectHeadend I Starting QIB processing during "
                                                  "unknown attempt. Last headend: "));
}

TEST_F(SelectHeadend, WithoutACacheFailsBeforeTheCandidatesAreLookedAt) {
  makeWithoutCache();
  EXPECT_EQ(select(), NoCache);

  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("selectHeadend I Starting QIB processing during connection attempt. Last "
                          "headend: ",
                          "selectHeadend E QIB cache could not be created."));
  EXPECT_THAT(list, IsEmpty());
}

TEST_F(SelectHeadend, WithoutCandidatesFailsBeforeTheCacheIsAsked) {
  make();
  EXPECT_EQ(select(), NoHeadends);

  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("selectHeadend I Starting QIB processing during connection attempt. Last "
                          "headend: ",
                          "selectHeadend E QIB has no hosts to process."));
  EXPECT_THAT(cache().lookups(), IsEmpty());
  EXPECT_THAT(list, IsEmpty());
}

TEST_F(SelectHeadend, AHitLeavesTheListAloneAndSendsNothing) {
  preferences().useAddresses({"GW1", "gw2:8443"});
  cache().hitWith(entryOf({{"gw2:8443", 5}}));
  CHeadendSelection& selection = make();
  EXPECT_EQ(select(), 0);

  EXPECT_THAT(cache().lookups(), ElementsAre("gw2:8443;gw1;"));
  EXPECT_TRUE(member<FoundInCache>(selection));
  EXPECT_THAT(recordsOf(member<PingResults>(selection)), ElementsAre("gw2:8443 5"));
  EXPECT_THAT(list, IsEmpty());
  EXPECT_EQ(seams().starts(), 0);
  EXPECT_EQ(timers().created(), 0);
  EXPECT_THAT(probes().testCalls(), IsEmpty());
}

TEST_F(SelectHeadend, TheCacheIsAskedWithoutALockAfterTheResultsLockWasTakenAndGivenBack) {
  preferences().useAddresses({"gw1"});
  cache().hitWith(entryOf({{"gw1", 5}}));
  CHeadendSelection& selection = make();
  const CManualLock* results = &member<CacheLock>(selection);
  std::vector<std::string> order;
  seams().setLockHook([&](const CManualLock* lock, bool taken) {
    order.push_back(std::string(lock == results ? "results" : "other") + (taken ? "+" : "-"));
  });
  cache().setLookupHook([&] { order.emplace_back("look-up"); });
  select();
  seams().setLockHook(nullptr);

  ASSERT_GE(order.size(), 3U);
  EXPECT_THAT(Texts(order.begin(), order.begin() + 3),
              ElementsAre("results+", "results-", "look-up"));
}

TEST_F(SelectHeadend, AMissThatIsMeasuredLeavesTheListAlone) {
  preferences().useAddresses({"gw1"});
  CHeadendSelection& selection = make();
  EXPECT_EQ(select(), 0);

  EXPECT_FALSE(member<FoundInCache>(selection));
  EXPECT_THAT(list, IsEmpty());
  EXPECT_THAT(recordsOf(member<PingResults>(selection)), ElementsAre("gw1 10"));
}

TEST_F(SelectHeadend, AFailedMeasurementGivesTheLastHeadendWithItsPort) {
  preferences().useAddresses({"gw1:8443"});
  timers().removeContext();
  make(Reconnection, "gw1:8443");

  EXPECT_EQ(select(), NoContext);
  EXPECT_THAT(list, ElementsAre("gw1:8443"));
}

TEST_F(SelectHeadend, AFailedMeasurementGivesTheBareHostOfALastHeadendWithoutAPort) {
  preferences().useAddresses({"gw1"});
  timers().removeContext();
  make(Reconnection, "gw1");

  EXPECT_EQ(select(), NoContext);
  EXPECT_THAT(list, ElementsAre("gw1"));
}

TEST_F(SelectHeadend, AFailedMeasurementWithoutALastHeadendGivesAnEmptyName) {
  preferences().useAddresses({"gw1"});
  timers().removeContext();
  make(Reconnection);

  EXPECT_EQ(select(), NoContext);
  EXPECT_THAT(list, ElementsAre(""));
}

class Run : public SelectionTest {
 protected:
  static std::string starting(const std::string& reason, const std::string& last) {
    return "selectHeadend I Starting QIB processing during " + reason +
           " attempt. Last headend: " + last;
  }
};

TEST_F(Run, OpensWithItsThreadAtTheThirdLevelOfDetail) {
  cache().hitWith(entryOf({{"gw1", 5}}));
  preferences().useAddresses({"gw1"});
  make();
  runToEnd();

  const LogLine first = doubles::log().lines().front();
  EXPECT_EQ(first.toString(), threadLine());
  EXPECT_EQ(first.kind, LogLine::Kind::Verbose);
  EXPECT_EQ(first.file, "HeadendSelection");
  EXPECT_EQ(first.format, "CHeadendSelection thread ID '%d'");
  EXPECT_EQ(first.component, CLC_VPN_API);
  EXPECT_EQ(first.level, CUST_LOG_LEVEL_3);
  EXPECT_EQ(first.thread, runThreadId);
}

TEST_F(Run, CallsTheClientOnAThreadThatIsNotItsOwn) {
  preferences().useAddresses({"gw1"});
  make();
  runToEnd();

  EXPECT_NE(client.only().thread, runThreadId);
}

/// A provider that tells which thread deletes it: the one that deletes its run.
class Leaver : public Provider {
 public:
  explicit Leaver(std::thread::id& deletedBy)
      : Provider(NoProxy, "", "", ""), m_deletedBy(deletedBy) {}
  ~Leaver() override { m_deletedBy = std::this_thread::get_id(); }

 private:
  std::thread::id& m_deletedBy;
};

TEST_F(Run, IsDeletedOnItsOwnThread) {
  preferences().useAddresses({"gw1"});
  std::thread::id deletedBy;
  make().SetProxy(new Leaver(deletedBy));
  runToEnd();

  EXPECT_EQ(deletedBy, runThreadId);
}

/// A provider with a mistake in it.
template <class Exception>
class ThrowingProvider : public Provider {
 public:
  explicit ThrowingProvider(Exception exception)
      : Provider(BasicProxy, "", "", ""), m_exception(exception) {}
  UnprotectedCredential getProxyPswd() override { throw m_exception; }

 private:
  const Exception m_exception;
};

TEST_F(Run, AProviderThatThrowsCostsTheSelectionAndNotTheProcess) {
  preferences().useAddresses({"gw1", "gw2"});
  make(Connection, "gw2")
      .SetProxy(new ThrowingProvider<std::runtime_error>(std::runtime_error("no key ring")));
  runToEnd();

  EXPECT_EQ(client.only().status, Unexpected);
  EXPECT_THAT(client.only().headends, ElementsAre("gw2"));
  EXPECT_EQ(doubles::log().count("run E QIB ended by an exception: no key ring"), 1U);
}

TEST_F(Run, AProviderThatThrowsWhatIsNoExceptionDoesNotEither) {
  preferences().useAddresses({"gw1"});
  make().SetProxy(new ThrowingProvider<int>(7));
  runToEnd();

  EXPECT_EQ(client.only().status, Unexpected);
  EXPECT_THAT(client.only().headends, ElementsAre("gw1")) << "the test probe has made it the last";
}

TEST_F(Run, PassesAnUnknownReasonOnUnchanged) {
  preferences().useAddresses({"gw1"});
  make(4711);
  runToEnd();

  EXPECT_EQ(client.only().reason, 4711U);
  EXPECT_EQ(client.only().status, AddedToCache);
}

TEST_F(Run, AFreshSelectionLogsEveryStepAndEndsInTheCache) {
  preferences().useAddresses({"gw1"});
  probes().answerTest({.rtt = 17, .httpStatus = 200});
  probes().answer("gw1", {{.rtt = 12}, {.rtt = 15}, {.rtt = 11}});
  make();
  runToEnd();

  EXPECT_THAT(
      doubles::log().texts(),
      ElementsAre(threadLine(), starting("connection", ""),
                  "startPingThreads I QIB Sending test ping to gw1:443",
                  "startPingThreads I QIB test ping took 17", "Run I QIB starting thread named gw1",
                  "logThreadPingResults I QIB ping results for gw1: (12 15 11 )",
                  "Run I QIB terminating thread for gw1",
                  "finishAHS I QIB in finishAHS() for first time",
                  "logPingResults I *** QIB Selection Results ***\n"
                  "QIB performed for connection attempt. Last server: 'gw1'\n"
                  "\n"
                  "Server Address     RTT (ms)\n"
                  "gw1     11\n"
                  "\n"
                  "Selected 'gw1' as the optimal server.\n",
                  "finishAHS I Finished QIB thread, selected gw1"));
  EXPECT_EQ(client.only().reason, Connection);
  EXPECT_EQ(client.only().status, AddedToCache);
  EXPECT_THAT(client.only().headends, ElementsAre("gw1"));
  EXPECT_EQ(client.only().extraInfo, "");
  ASSERT_EQ(cache().stored().size(), 1U);
  EXPECT_EQ(cache().stored()[0].GetKnownHeadends(), "gw1;");
}

TEST_F(Run, ASelectionFromTheCacheMeasuresNothingAndSaysSo) {
  preferences().useAddresses({"gw1", "gw2"});
  cache().hitWith(entryOf({{"gw1", 30}, {"gw2", 20}}));
  make(4);
  runToEnd();

  EXPECT_THAT(doubles::log().texts(),
              ElementsAre(threadLine(), starting("process launch", ""),
                          "finishAHS I QIB in finishAHS() for first time",
                          "logPingResults I *** QIB Selection Results ***\n"
                          "QIB performed for process launch attempt. Last server: ''\n"
                          "\n"
                          "Results obtained from QIB cache. No ping tests were performed.\n"
                          "\n"
                          "Server Address     RTT (ms)\n"
                          "gw2     20\n"
                          "gw1     30\n"
                          "\n"
                          "Selected 'gw2' as the optimal server.\n",
                          "finishAHS I Finished QIB thread, selected gw2"));
  EXPECT_EQ(client.only().status, 0);
  EXPECT_THAT(client.only().headends, ElementsAre("gw2", "gw1"));
  EXPECT_THAT(cache().stored(), IsEmpty());
  EXPECT_EQ(timers().created(), 0);
}

TEST_F(Run, AReconnectionThatRetainsAWorseLastHeadendSaysSo) {
  preferences().useAddresses({"gw-a", "gw-b"});
  // Both workers are out at once, and the first one ends before the second one gets an answer.
  seams().setAfterStart([](CThread& thread) {
    if (dynamic_cast<Worker*>(&thread) != nullptr) {
      EXPECT_TRUE(doubles::log().await("Run I QIB starting thread named gw-a"));
    }
  });
  const auto after = [](const char* line) {
    return [line] { EXPECT_TRUE(doubles::log().await(line)); };
  };
  probes().answer("gw-a", {{.rtt = 40, .during = after("Run I QIB starting thread named gw-b")}});
  probes().answer("gw-b", {{.rtt = 46, .during = after("Run I QIB terminating thread for gw-a")}});
  cache().settings.nPingsPerHeadend = 2;
  make(Reconnection, "GW-B");
  runToEnd();

  EXPECT_THAT(
      doubles::log().texts(),
      ElementsAre(threadLine(), starting("reconnection", "gw-b"),
                  "Run I QIB starting thread named gw-a", "Run I QIB starting thread named gw-b",
                  "logThreadPingResults I QIB ping results for gw-a: (40 40 )",
                  "Run I QIB terminating thread for gw-a",
                  "logThreadPingResults I QIB ping results for gw-b: (46 46 )",
                  "Run I QIB terminating thread for gw-b",
                  "finishAHS I QIB in finishAHS() for first time",
                  "logPingResults I *** QIB Selection Results ***\n"
                  "QIB performed for reconnection attempt. Last server: 'gw-b'\n"
                  "\n"
                  "Server Address     RTT (ms)\n"
                  "gw-a     40\n"
                  "gw-b     46\n"
                  "\n"
                  "Retained the last server to maximize the user experience.\n",
                  "finishAHS I Finished QIB thread, selected gw-b"));
  EXPECT_EQ(client.only().reason, Reconnection);
  EXPECT_EQ(client.only().status, AddedToCache);
  EXPECT_THAT(client.only().headends, ElementsAre("gw-b", "gw-a"));
}

TEST_F(Run, ATimeOutDuringTheProbesKeepsTheLastHeadendAndEndsTwiceInTheLog) {
  preferences().useAddresses({"gw1"});
  cache().settings.nPingsPerHeadend = 1;
  doubles::Gate probing;
  doubles::Gate release;
  probes().answer("gw1", {{.rtt = 40, .during = [&] {
                             probing.open();
                             EXPECT_TRUE(release.wait());
                           }}});
  make();
  startRun();
  ASSERT_TRUE(probing.wait());
  EXPECT_TRUE(fireTimer());
  release.open();
  joinRun();

  EXPECT_THAT(
      doubles::log().texts(),
      ElementsAre(
          threadLine(), starting("connection", ""),
          "startPingThreads I QIB Sending test ping to gw1:443",
          "startPingThreads I QIB test ping took 0", "Run I QIB starting thread named gw1",
          "OnTimerExpired W QIB timer expired", "finishAHS I QIB in finishAHS() for first time",
          "getBestHeadendsList I didn't get any QIB results from "
          "CCacheEntry::GetHeadendList()",
          "logPingResults I *** QIB Selection Results ***\n"
          "QIB performed for connection attempt. Last server: 'gw1'\n"
          "\n"
          "Unable to generate search results. Retaining the last server.\n",
          "finishAHS I Finished QIB thread, selected gw1",
          "logThreadPingResults I QIB ping results for gw1: (40 )",
          "Run I QIB terminating thread for gw1", "finishAHS I QIB in finishAHS() a second time"));
  EXPECT_EQ(client.only().status, SelectionFailure);
  EXPECT_THAT(client.only().headends, ElementsAre("gw1"));
  EXPECT_EQ(client.only().extraInfo, "");
  EXPECT_THAT(cache().stored(), IsEmpty());
}

TEST_F(Run, WithoutCandidatesTheClientHearsThatThereAreNone) {
  make();
  runToEnd();

  EXPECT_THAT(doubles::log().texts(),
              ElementsAre(threadLine(), starting("connection", ""),
                          "selectHeadend E QIB has no hosts to process.",
                          "run W CHeadendSelection::selectHeadend 0xFE53000D",
                          "finishAHS I QIB in finishAHS() for first time",
                          "finishAHS I Finished QIB thread, unable to select a host"));
  EXPECT_EQ(client.only().status, NoHeadends);
  EXPECT_THAT(client.only().headends, IsEmpty());
}

TEST_F(Run, WithoutACacheTheClientHearsThatThereIsNone) {
  preferences().useAddresses({"gw1:444"});
  CHeadendSelection& selection = make(Connection, "gw1:444");
  member<Cache>(selection)->releaseInstance();
  member<Cache>(selection) = nullptr;
  runToEnd();

  EXPECT_THAT(doubles::log().texts(),
              ElementsAre(threadLine(), starting("connection", "gw1"),
                          "selectHeadend E QIB cache could not be created.",
                          "run W CHeadendSelection::selectHeadend 0xFE53000C",
                          "finishAHS I QIB in finishAHS() for first time",
                          "finishAHS I Finished QIB thread, selected gw1:444"));
  EXPECT_EQ(client.only().status, NoCache);
  EXPECT_THAT(client.only().headends, ElementsAre("gw1:444"));
}

TEST_F(Run, AnAuthenticatingProxyEndsTheRunWithItsRealm) {
  preferences().useAddresses({"gw1"});
  probes().answerTest({.httpStatus = 407,
                       .headers = "HTTP/1.1 407 Proxy Authentication Required\r\n"
                                  "Proxy-Authenticate: Basic realm=\"head office\"\r\n\r\n"});
  make(Connection, "gw1");
  runToEnd();

  EXPECT_THAT(doubles::log().texts(),
              ElementsAre(threadLine(), starting("connection", "gw1"),
                          "startPingThreads I QIB Sending test ping to gw1:443",
                          "startPingThreads I QIB: Encountered an auth proxy",
                          "run W CHeadendSelection::selectHeadend 0xFE53000A",
                          "finishAHS I QIB in finishAHS() for first time"));
  EXPECT_EQ(client.only().status, AuthProxy);
  EXPECT_THAT(client.only().headends, IsEmpty());
  EXPECT_EQ(client.only().extraInfo, "head office");
}

TEST_F(Run, ANameThatDoesNotResolveLeavesTheHeadendWithoutAResult) {
  preferences().useAddresses({"gw1"});
  probes().answer("gw1", {{.status = HTTP_SESSION_ERROR_DNS_RESOLUTION, .rtt = 0}});
  make();
  runToEnd();

  EXPECT_THAT(
      doubles::log().texts(),
      ElementsAre(threadLine(), starting("connection", ""),
                  "startPingThreads I QIB Sending test ping to gw1:443",
                  "startPingThreads I QIB test ping took 0", "Run I QIB starting thread named gw1",
                  "Run W QIB: DNS error for gw1, time: 0", "Run I QIB terminating thread for gw1",
                  "startPingThreads W CSelectionThread::Run 0xFE460019",
                  "finishAHS I QIB in finishAHS() for first time",
                  "getBestHeadendsList I didn't get any QIB results from "
                  "CCacheEntry::GetHeadendList()",
                  "logPingResults I *** QIB Selection Results ***\n"
                  "QIB performed for connection attempt. Last server: 'gw1'\n"
                  "\n"
                  "Unable to generate search results. Retaining the last server.\n",
                  "finishAHS I Finished QIB thread, selected gw1"));
  EXPECT_EQ(client.only().status, SelectionFailure);
  EXPECT_THAT(client.only().headends, ElementsAre("gw1"));
}

TEST_F(Run, TheSecondFailureToConnectDropsTheHeadendWithItsSamples) {
  preferences().useAddresses({"gw1:8443"});
  cache().settings.nPingsPerHeadend = 5;
  probes().answer("gw1", {{.status = HTTP_SESSION_ERROR_TIMEOUT},
                          {.rtt = 20},
                          {.status = HTTP_SESSION_ERROR_CANNOT_CONNECT}});
  make(Reconnection, "gw1:8443");
  runToEnd();

  EXPECT_THAT(doubles::log().texts(),
              ElementsAre(threadLine(), starting("reconnection", "gw1"),
                          "Run I QIB starting thread named gw1",
                          "Run W QIB ping timeout or couldn't connect: gw1",
                          "Run W QIB ping timeout or couldn't connect: gw1",
                          "Run I QIB terminating thread for gw1:8443",
                          "startPingThreads W CSelectionThread::Run 0xFE46001D",
                          "finishAHS I QIB in finishAHS() for first time",
                          "getBestHeadendsList I didn't get any QIB results from "
                          "CCacheEntry::GetHeadendList()",
                          "logPingResults I *** QIB Selection Results ***\n"
                          "QIB performed for reconnection attempt. Last server: 'gw1:8443'\n"
                          "\n"
                          "Unable to generate search results. Retaining the last server.\n",
                          "finishAHS I Finished QIB thread, selected gw1:8443"));
  EXPECT_EQ(client.only().status, SelectionFailure);
}

TEST_F(Run, AFailedMeasurementIsLoggedAndDeliveredWithTheLastHeadend) {
  preferences().useAddresses({"gw1", "gw2"});
  timers().removeContext();
  make(Reconnection, "gw2");
  runToEnd();

  EXPECT_THAT(doubles::log().texts(),
              ElementsAre(threadLine(), starting("reconnection", "gw2"),
                          "startPingThreads E CInstanceSmartPtr<CExecutionContext> 0xFE8D000A",
                          "run W CHeadendSelection::selectHeadend 0xFE8D000A",
                          "finishAHS I QIB in finishAHS() for first time",
                          "finishAHS I Finished QIB thread, selected gw2"));
  EXPECT_EQ(client.only().status, NoContext);
  EXPECT_THAT(client.only().headends, ElementsAre("gw2"));
}

TEST_F(Run, TheListOfAFailedMeasurementIsItsOwnViewAndNotDelivered) {
  preferences().useAddresses({"gw1"});
  timers().removeContext();
  make(Reconnection);
  runToEnd();

  // The run's own list holds one empty name; what is delivered is built anew.
  EXPECT_THAT(client.only().headends, IsEmpty());
}

TEST_F(Run, WorkersOfSeveralHeadendsEachLogTheirOwnLinesInOrder) {
  const Texts hosts{"gw1", "gw2", "gw3"};
  preferences().useAddresses(hosts);
  probes().answer("gw1", {{.rtt = 30}});
  probes().answer("gw2", {{.rtt = 10}});
  probes().answer("gw3", {{.rtt = 20}});
  make(Reconnection);
  runToEnd();

  for (const std::string& host : hosts) {
    Texts own;
    for (const LogLine& line : doubles::log().lines()) {
      const bool ofAWorker = line.function == "Run" || line.function == "logThreadPingResults";
      if (ofAWorker && line.message.find(host) != std::string::npos) {
        own.push_back(line.message.substr(0, line.message.find(host)));
      }
    }
    EXPECT_THAT(own, ElementsAre("QIB starting thread named ", "QIB ping results for ",
                                 "QIB terminating thread for "));
  }
  EXPECT_THAT(client.only().headends, ElementsAre("gw2", "gw3", "gw1"));
  EXPECT_EQ(doubles::log().texts().back(), "finishAHS I Finished QIB thread, selected gw2");
}

TEST_F(Run, TheTimeOutOfTheTestProbeIsDeliveredOnceWithTheFirstCandidate) {
  preferences().useAddresses({"gw1", "gw2"});
  probes().answerTest({.rtt = 5, .during = [&] { EXPECT_TRUE(fireTimer()); }});
  make();
  runToEnd();

  EXPECT_THAT(
      doubles::log().texts(),
      ElementsAre(threadLine(), starting("connection", ""),
                  "startPingThreads I QIB Sending test ping to gw1:443",
                  "OnTimerExpired W QIB timer expired",
                  "finishAHS I QIB in finishAHS() for first time",
                  "getBestHeadendsList I didn't get any QIB results from "
                  "CCacheEntry::GetHeadendList()",
                  "logPingResults I *** QIB Selection Results ***\n"
                  "QIB performed for connection attempt. Last server: 'gw1'\n"
                  "\n"
                  "Unable to generate search results. Retaining the last server.\n",
                  "finishAHS I Finished QIB thread, selected gw1",
                  "startPingThreads I QIB test ping took 5",
                  "startPingThreads W QIB timer expired before any servers could be pinged.",
                  "run W CHeadendSelection::selectHeadend 0xFE53000B",
                  "finishAHS I QIB in finishAHS() a second time"));
  EXPECT_EQ(client.only().status, SelectionFailure);
  EXPECT_THAT(client.only().headends, ElementsAre("gw1"));
  EXPECT_THAT(probes().workerCalls(), IsEmpty());
}

}  // namespace
}  // namespace tests
