// A run from its first log line to the client's callback: each decision of the driver, and the
// whole log of typical runs.

#include <cstdio>
#include <stdexcept>

#include "tests/unit/selection/selection_fixture.h"

namespace tests {
namespace {

class SelectHeadend : public SelectionTest {
 protected:
  STATUSCODE select() { return call<tests::SelectHeadend>(*run, list, extraInfo); }

  Texts list;
  std::string extraInfo;
};

TEST_F(SelectHeadend, OfACacheHitLeavesTheListAloneAndSendsNothing) {
  cache().hit.set(entryOf({{"gw2:8443", 5}}));
  CHeadendSelection& selection = makeFor({"GW1", "gw2:8443"}, 3, "gw2:8443");
  EXPECT_EQ(select(), 0);

  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("selectHeadend I Starting QIB processing during proxy authentication "
                          "attempt. Last headend: gw2"))
      << "the host, without its port";
  EXPECT_THAT(cache().lookups.get(), ElementsAre("gw2:8443;gw1;"));
  EXPECT_TRUE(member<FoundInCache>(selection));
  EXPECT_THAT(recordsOf(member<PingResults>(selection)), ElementsAre("gw2:8443 5"));
  EXPECT_THAT(list, IsEmpty());
  EXPECT_EQ(seams().starts, 0);
  EXPECT_EQ(timers().created, 0);
  EXPECT_THAT(probes().testCalls(), IsEmpty());
}

TEST_F(SelectHeadend, TheCacheIsAskedWithoutALockAfterTheResultsLockWasTakenAndGivenBack) {
  CHeadendSelection& selection = makeFor({"gw1"});
  cache().hit.set(entryOf({{"gw1", 5}}));
  Texts order;
  seams().onLock.set([&](const CManualLock* lock, bool taken) {
    order.push_back(std::string(lock == &member<CacheLock>(selection) ? "results" : "other") +
                    (taken ? "+" : "-"));
  });
  cache().duringLookup.set([&] { order.emplace_back("look-up"); });
  select();
  seams().onLock.set(nullptr);

  ASSERT_GE(order.size(), 3U);
  EXPECT_THAT(Texts(order.begin(), order.begin() + 3),
              ElementsAre("results+", "results-", "look-up"));
}

TEST_F(SelectHeadend, AFailedMeasurementGivesTheLastHeadendWithItsPortIfItHasOne) {
  timers().hasContext = false;
  for (const std::string last : {"gw1:8443", "gw1", ""}) {
    makeFor({"gw1:8443", "gw1"}, Reconnection, last);
    EXPECT_EQ(select(), NoContext);
    EXPECT_THAT(list, ElementsAre(last));
    destroy();
    list.clear();
  }
}

class Run : public SelectionTest {
 protected:
  static std::string starting(const std::string& reason, const std::string& last) {
    return "selectHeadend I Starting QIB processing during " + reason +
           " attempt. Last headend: " + last;
  }

  /// All lines except the first, which contains the thread.
  Texts transcript() const {
    Texts texts = doubles::log().texts();
    EXPECT_EQ(texts.front(), "run I CHeadendSelection thread ID '" +
                                 std::to_string(static_cast<int>(runThreadHandle)) + "'");
    texts.erase(texts.begin());
    return texts;
  }
};

TEST_F(Run, WithAnUnknownReasonAndAnEmptyLastHeadendGoesOnAndIsDeletedOnItsOwnThread) {
  makeFor({"gw1"}, 4711).SetProxy(new Provider(NoProxy, "", "", ""));
  runToEnd();

  EXPECT_EQ(doubles::log().texts()[1], starting("unknown", ""));
  EXPECT_EQ(client.only().reason, 4711U);
  EXPECT_EQ(client.only().status, AddedToCache);
  EXPECT_NE(client.only().thread, runThreadId);
  EXPECT_EQ(Provider::deletedBy, runThreadId);
}

/// A provider that throws.
struct ThrowingProvider : Provider {
  explicit ThrowingProvider(bool isException)
      : Provider(BasicProxy, "", "", ""), throwsException(isException) {}
  UnprotectedCredential getProxyPswd() override {
    throwsException ? throw std::runtime_error("no key ring") : throw 7;
  }
  const bool throwsException;
};

class AProviderThatThrows : public Run, public testing::WithParamInterface<bool> {};

TEST_P(AProviderThatThrows, CostsTheSelectionAndNotTheProcess) {
  makeFor({"gw1", "gw2"}).SetProxy(new ThrowingProvider(GetParam()));
  runToEnd();

  EXPECT_EQ(client.only().status, Unexpected);
  EXPECT_THAT(client.only().headends, ElementsAre("gw1")) << "the test probe has made it the last";
  EXPECT_EQ(doubles::log().count("run E QIB ended by an exception: no key ring"), GetParam());
}

INSTANTIATE_TEST_SUITE_P(AnExceptionOrNot, AProviderThatThrows, testing::Bool());

// The transcripts.

TEST_F(Run, AFreshSelectionLogsEveryStepAndEndsInTheCache) {
  probes().answerTest({.rtt = 17, .httpStatus = 200});
  probes().answer("gw1", {{.rtt = 12}, {.rtt = 15}, {.rtt = 11}});
  makeFor({"gw1"});
  runToEnd();

  EXPECT_THAT(
      transcript(),
      ElementsAre(starting("connection", ""), "startPingThreads I QIB Sending test ping to gw1:443",
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
  const doubles::LogLine first = doubles::log().lines().front();
  EXPECT_EQ(first.kind, doubles::LogLine::Kind::Verbose);
  EXPECT_EQ(first.component, CLC_VPN_API);
  EXPECT_EQ(first.level, CUST_LOG_LEVEL_3);
  EXPECT_EQ(first.thread, runThreadId);
  EXPECT_EQ(client.only().reason, Connection);
  EXPECT_EQ(client.only().status, AddedToCache);
  EXPECT_THAT(client.only().headends, ElementsAre("gw1"));
  EXPECT_EQ(client.only().extraInfo, "");
  ASSERT_EQ(cache().stored().size(), 1U);
  EXPECT_EQ(cache().stored()[0].GetKnownHeadends(), "gw1;");
}

TEST_F(Run, ASelectionFromTheCacheMeasuresNothingAndSaysSo) {
  cache().hit.set(entryOf({{"gw1", 30}, {"gw2", 20}}));
  makeFor({"gw1", "gw2"}, 4);
  runToEnd();

  EXPECT_THAT(
      transcript(),
      ElementsAre(starting("process launch", ""), "finishAHS I QIB in finishAHS() for first time",
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
  EXPECT_EQ(timers().created, 0);
}

TEST_F(Run, AReconnectionThatRetainsAWorseLastHeadendSaysSo) {
  // Both workers have started, and the first ends before the second gets an answer.
  seams().afterStart.set([](CThread& thread) {
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
  makeFor({"gw-a", "gw-b"}, Reconnection, "GW-B");
  runToEnd();

  EXPECT_THAT(transcript(),
              ElementsAre(starting("reconnection", "gw-b"), "Run I QIB starting thread named gw-a",
                          "Run I QIB starting thread named gw-b",
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

TEST_F(Run, AnAuthenticatingProxyEndsTheRunWithItsRealm) {
  probes().answerTest({.httpStatus = 407,
                       .headers = "HTTP/1.1 407 Proxy Authentication Required\r\n"
                                  "Proxy-Authenticate: Basic realm=\"head office\"\r\n\r\n"});
  makeFor({"gw1"}, Connection, "gw1");
  runToEnd();

  EXPECT_THAT(transcript(), ElementsAre(starting("connection", "gw1"),
                                        "startPingThreads I QIB Sending test ping to gw1:443",
                                        "startPingThreads I QIB: Encountered an auth proxy",
                                        "run W CHeadendSelection::selectHeadend 0xFE53000A",
                                        "finishAHS I QIB in finishAHS() for first time"));
  EXPECT_EQ(client.only().status, AuthProxy);
  EXPECT_THAT(client.only().headends, IsEmpty());
  EXPECT_EQ(client.only().extraInfo, "head office");
}

TEST_F(Run, TheTimeOutOfTheTestProbeIsDeliveredOnceWithTheFirstCandidate) {
  probes().answerTest({.rtt = 5, .during = [&] { EXPECT_TRUE(fireTimer()); }});
  makeFor({"gw1", "gw2"});
  runToEnd();

  EXPECT_THAT(
      transcript(),
      ElementsAre(starting("connection", ""), "startPingThreads I QIB Sending test ping to gw1:443",
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

struct Refusal {
  Texts candidates = {};
  std::string last = {};
  bool hasCache = true;
  std::string line = {};
  long status = NoHeadends;
};

class ARefusal : public Run, public testing::WithParamInterface<Row<Refusal>> {};

TEST_P(ARefusal, IsToldToLogAndClientWithTheLastHeadend) {
  const Refusal& refusal = GetParam().is;
  timers().hasContext = false;
  CHeadendSelection& selection = makeFor(refusal.candidates, Reconnection, refusal.last);
  if (!refusal.hasCache) {
    member<Cache>(selection)->releaseInstance();
    member<Cache>(selection) = nullptr;
  }
  runToEnd();

  char failed[64];
  std::snprintf(failed, sizeof failed, "run W CHeadendSelection::selectHeadend 0x%lX",
                static_cast<unsigned long>(refusal.status));
  const std::string host = refusal.last.substr(0, refusal.last.find(':'));
  EXPECT_THAT(transcript(), ElementsAre(starting("reconnection", host), refusal.line, failed,
                                        "finishAHS I QIB in finishAHS() for first time",
                                        "finishAHS I Finished QIB thread, " +
                                            (host.empty() ? "unable to select a host"
                                                          : "selected " + refusal.last)));
  EXPECT_EQ(client.only().status, refusal.status);
  EXPECT_EQ(client.only().headends, host.empty() ? Texts{} : Texts{refusal.last});
}

INSTANTIATE_TEST_SUITE_P(
    For, ARefusal,
    testing::ValuesIn(Rows<Refusal>{
        {"WantOfCandidates", {.line = "selectHeadend E QIB has no hosts to process."}},
        {"WantOfACache",
         {.candidates = {"gw1:444"},
          .last = "gw1:444",
          .hasCache = false,
          .line = "selectHeadend E QIB cache could not be created.",
          .status = NoCache}},
        {"WantOfATimer",
         {.candidates = {"gw1", "gw2"},
          .last = "gw2",
          .line = "startPingThreads E CInstanceSmartPtr<CExecutionContext> 0xFE8D000A",
          .status = NoContext}},
        {"WantOfATimerAndOfALastHeadend",
         {.candidates = {"gw1"},
          .line = "startPingThreads E CInstanceSmartPtr<CExecutionContext> 0xFE8D000A",
          .status = NoContext}},
    }),
    nameOfRow);

}  // namespace
}  // namespace tests
