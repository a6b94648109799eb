// A single worker on the test's own thread: which probes it sends, which of them count, when it
// stops, and what it reports.

#include <locale>
#include <string>
#include <vector>

#include "tests/unit/selection/selection_fixture.h"

namespace tests {
namespace {

constexpr STATUSCODE Connect = HTTP_SESSION_ERROR_CONNECT;
constexpr STATUSCODE ProbeTimeOut = HTTP_SESSION_ERROR_TIMEOUT;
constexpr STATUSCODE CannotConnect = HTTP_SESSION_ERROR_CANNOT_CONNECT;
constexpr STATUSCODE Dns = HTTP_SESSION_ERROR_DNS_RESOLUTION;
constexpr STATUSCODE Invalid = HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE;
constexpr STATUSCODE Untrusted = HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE;
constexpr STATUSCODE CertificateNeeded = HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED;
constexpr STATUSCODE OtherFailure = 0xFE460002;

class AWorker : public SelectionTest {
 protected:
  ~AWorker() override { delete worker; }

  void TearDown() override {
    delete std::exchange(worker, nullptr);
    SelectionTest::TearDown();
  }

  Worker& build(const std::string& address, unsigned int numPings, unsigned int timeout = 10000,
                unsigned int pingTimeout = 2000) {
    if (run == nullptr) {
      make();
    }
    delete worker;
    worker = new Worker(*run, URL(address), numPings, timeout, pingTimeout);
    return *worker;
  }

  Texts reported() { return recordsOf(member<PingResults>(*run)); }

  Worker* worker = nullptr;
};

ProbeAnswer ms(unsigned int rtt, unsigned int takesMs = 0) {
  return {.rtt = rtt, .takesMs = takesMs};
}
ProbeAnswer failed(STATUSCODE status, unsigned int rtt = 0, unsigned int takesMs = 0) {
  return {.status = status, .rtt = rtt, .lastError = 3, .takesMs = takesMs};
}

/// The outcomes of a worker's probes and the expected result: unless stated, three probes are sent
/// and nothing is reported.
struct Work {
  explicit Work(std::vector<ProbeAnswer> ofProbes) : answers(std::move(ofProbes)) {}
  Work& of(unsigned int count) { return pings = count, *this; }
  Work& within(unsigned int ms, unsigned long now = 1000) {
    return budget = ms, clock = now, *this;
  }
  Work& ends(STATUSCODE with, std::size_t after = 3) { return exit = with, sent = after, *this; }
  Work& warns(const Texts& texts) { return warnings = texts, *this; }
  Work& reports(const char* ofProbes, const char* metric) {
    return samples = ofProbes, report = metric, *this;
  }

  unsigned int pings = 3;
  std::vector<ProbeAnswer> answers;
  unsigned int budget = 10000;
  unsigned long clock = 1000;
  STATUSCODE exit = 0;
  std::size_t sent = 3;
  Texts warnings;
  std::string samples;
  std::string report;
};

class TheWork : public AWorker, public testing::WithParamInterface<Row<Work>> {};

TEST_P(TheWork, IsLoggedByHostAndReportedAndEndedWithThePort) {
  const Work& work = GetParam().is;
  doubles::clock() = work.clock;
  probes().answer("gw1", work.answers);
  EXPECT_EQ(build("gw1:8443", work.pings, work.budget).Run(), work.exit);

  Texts expected{"Run I QIB starting thread named gw1"};
  for (const std::string& warning : work.warnings) {
    expected.push_back("Run W QIB" + warning);
  }
  if (!work.report.empty()) {
    expected.push_back("logThreadPingResults I QIB ping results for gw1:8443: (" + work.samples +
                       " )");
    EXPECT_THAT(reported(), ElementsAre("gw1:8443 " + work.report));
  } else {
    EXPECT_THAT(reported(), IsEmpty());
  }
  expected.emplace_back("Run I QIB terminating thread for gw1:8443");
  EXPECT_EQ(doubles::log().texts(), expected);
  EXPECT_THAT(probes().workerCalls(), SizeIs(work.sent));
}

const char Refused[] = " ping timeout or couldn't connect: gw1";

INSTANTIATE_TEST_SUITE_P(
    Of, TheWork,
    testing::ValuesIn(Rows<Work>{
        {"NoProbeOnlyStartsAndEnds", Work({}).of(0).ends(0, 0)},
        {"ThreeAnswersReportsTheSmallest",
         Work({ms(12), ms(15), ms(11)}).reports("12 15 11", "11")},
        {"AnswersOf0FromEveryProbeReportsTheBestMetric", Work({ms(0)}).reports("0 0 0", "0")},
        {"AnswersOf0FromSomeProbesReportsTheWorstMetric",
         Work({failed(Connect), ms(0)}).warns({Refused}).reports("0 0", "9999")},
        {"InvalidAnswersCountsThemAndEndsWithTheLastStatus",
         Work({failed(Invalid, 33)}).ends(Invalid).reports("33 33 33", "33")},
        {"UntrustedCertificatesCountsThem",
         Work({failed(Untrusted, 33)}).ends(Untrusted).reports("33 33 33", "33")},
        {"CertificatesThatAreAskedForCountsThem",
         Work({failed(CertificateNeeded, 33)}).ends(CertificateNeeded).reports("33 33 33", "33")},
        {"OneConnectTimeOutForgivesIt",
         Work({failed(ProbeTimeOut, 99), ms(22), ms(21)}).warns({Refused}).reports("22 21", "21")},
        {"ASecondFailureToConnectEndsWithoutAReportAlsoAfterAnswersBetween",
         Work({ms(20), failed(ProbeTimeOut), ms(20), failed(ProbeTimeOut)})
             .of(9)
             .ends(ProbeTimeOut, 4)
             .warns({Refused, Refused})},
        {"DifferentFailuresToConnectCountsThemTogether",
         Work({failed(Connect), failed(CannotConnect)})
             .ends(CannotConnect, 2)
             .warns({Refused, Refused})},
        {"AFailureToConnectOfTheLastProbeReportsAndEndsWithIt",
         Work({ms(20), failed(CannotConnect)})
             .of(2)
             .ends(CannotConnect, 2)
             .warns({Refused})
             .reports("20", "20")},
        {"ADnsFailureOfTheFirstProbeEndsWithoutAReport",
         Work({failed(Dns, 6)}).ends(Dns, 1).warns({": DNS error for gw1, time: 6"})},
        {"ANameThatStopsToResolveDropsTheSamplesBefore",
         Work({ms(20), failed(Dns)}).ends(Dns, 2).warns({": DNS error for gw1, time: 0"})},
        {"AnyOtherFailureIsASampleWithAWarning", Work({failed(OtherFailure, 44), ms(50)})
                                                     .warns({" ping error for gw1: 3"})
                                                     .reports("44 50 50", "44")},
        {"AnyOtherFailureNeverEndsItButIsItsResultWhenLast",
         Work({failed(OtherFailure, 44)})
             .ends(OtherFailure)
             .warns(Texts(3, " ping error for gw1: 3"))
             .reports("44 44 44", "44")},
        {"ABudgetThatIsJustReachedSendsAnotherProbeAndThenReportsWhatItHas",
         Work({ms(20, 500), ms(10, 1)}).within(500).ends(TimedOut, 2).reports("20 10", "10")},
        {"ABudgetThatIsSpentWithoutASampleReportsNothing",
         Work({failed(ProbeTimeOut, 0, 2000)}).within(1000).ends(TimedOut, 1).warns({Refused})},
        {"ABudgetOf0SendsProbesWithinTheFirstMillisecond",
         Work({ms(5), ms(5, 1)}).of(9).within(0).ends(TimedOut, 2).reports("5 5", "5")},
        {"AClockThatWrapsIsInTimeAtWhatItsLow32BitsTell",  // 64 ms before the third probe
         Work({ms(20, 0x20)}).within(0x40, 0xFFFFFFF0UL).reports("20 20 20", "20")},
        {"AClockThatWrapsIsOutOfTimeAtWhatItsLow32BitsTell",
         Work({ms(20, 0x20)}).within(0x3F, 0x7FFFFFFF0UL).ends(TimedOut, 2).reports("20 20", "20")},
    }),
    nameOfRow);

TEST_F(AWorker, SendsItsProbesDirectlyOnAConnectionThatEndsWithIt) {
  probes().answer("gw1", {{.rtt = 7, .httpStatus = 200, .lastError = 3}});
  EXPECT_EQ(build("gw1", 3, 10000, 2999).Run(), 0);

  ASSERT_THAT(probes().workerCalls(), SizeIs(3));
  for (const ProbeCall& probe : probes().workerCalls()) {
    EXPECT_EQ(probe.host, "gw1");
    EXPECT_EQ(probe.port, 443U);
    EXPECT_FALSE(probe.secure);
    EXPECT_FALSE(probe.reserved);
    EXPECT_EQ(probe.userAgent, "");
    EXPECT_EQ(probe.timeout, 2U) << "in whole seconds";
    EXPECT_EQ(probe.options, 14U);
    EXPECT_TRUE(probe.resultsWereZero);
    EXPECT_TRUE(probe.connectionKept);
  }
  EXPECT_EQ(doubles::keptConnections, 0U);
  build("gw1", 1, 10000, 999).Run();
  EXPECT_EQ(probes().workerCalls().back().timeout, 0U);
}

TEST_F(AWorker, IsSecureUnlessTheProviderMeansNoProxyAndNeverUsesTheProxy) {
  for (const ProxyType type : {BasicProxy, NTLMProxy, KerberosProxy, NoProxy, ProxyTypeMax}) {
    make();
    run->SetProxy(new Provider(type, "user", "secret", "proxy1"));
    build("gw1:8443", 1).Run();
    const ProbeCall probe = probes().workerCalls().back();
    EXPECT_EQ(probe.secure, type != NoProxy);
    EXPECT_EQ(probe.port, 8443U);
    EXPECT_FALSE(probe.determineProxy);
    EXPECT_EQ(probe.proxyServer, "");
    EXPECT_EQ(probe.proxyUser, "");
    EXPECT_EQ(probe.proxyPswd, "");
    delete std::exchange(worker, nullptr);
    destroy();
  }
}

TEST_F(AWorker, APortThatIsNoNumberCountsAs0) {
  member<UrlPort>(member<WorkerHeadend>(build("gw1", 1))) = "https";
  worker->Run();

  EXPECT_EQ(probes().workerCalls()[0].port, 0U);
}

/// Makes new streams of the whole program group digits by three.
struct Grouping : std::numpunct<char> {
  char do_thousands_sep() const override { return '4'; }  // a digit of a port, too
  std::string do_grouping() const override { return "\3"; }
};

TEST_F(AWorker, WritesAndReadsNumbersAlikeWhereTheHostGroupsDigits) {
  probes().answer("gw1", {{.rtt = 9999}});
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  build("gw1:8443", 1).Run();
  Texts list;
  call<GetBestHeadendsList>(*run, list);
  std::locale::global(before);
  EXPECT_EQ(probes().workerCalls().back().port, 8443U);
  EXPECT_EQ(doubles::log().texts()[1],
            "logThreadPingResults I QIB ping results for gw1:8443: (9999 )");
  EXPECT_THAT(doubles::log().texts().back(), testing::HasSubstr("\ngw1:8443     9999\n"));
}

TEST_F(AWorker, SetsItsFlagBeforeTheDnsWarningAndAfterTheSecondOfAFailureToConnect) {
  for (const auto& [status, expected] : std::vector<std::pair<STATUSCODE, std::vector<bool>>>{
           {Dns, {true}}, {Connect, {false, false}}}) {
    probes().answer("gw1", {{.status = status}});
    build("gw1", 5);
    std::vector<bool> flags;
    doubles::log().setHook([&](const doubles::LogLine& line) {
      if (line.severity == 'W') {
        flags.push_back(worker->isThreadTerminated());
      }
    });
    worker->Run();
    EXPECT_EQ(flags, expected);
    EXPECT_TRUE(worker->isThreadTerminated());
  }
}

TEST_F(AWorker, OfAnIPv6HeadendReportsItInBrackets) {
  EXPECT_EQ(build("https://[2001:db8::1]:8443/group", 1).Run(), 0);

  EXPECT_THAT(reported(), ElementsAre("[2001:db8::1]:8443 10"));
  EXPECT_EQ(probes().workerCalls()[0].host, "2001:db8::1");
}

TEST_F(AWorker, AskedToStopEndsBeforeItsNextProbeAndReportsNothingAlsoAfterItsLastOne) {
  for (const unsigned int pings : {5U, 2U}) {
    doubles::log().reset();
    probes().calls.set({});
    build("10.0.0.5:8443", pings);
    probes().answer("10.0.0.5",
                    {{.rtt = 20}, {.rtt = 20, .during = [&] { worker->TerminateThread(); }}});
    EXPECT_EQ(worker->Run(), pings == 2 ? 0 : TimedOut);
    EXPECT_THAT(probes().workerCalls(), SizeIs(2));
    EXPECT_THAT(reported(), IsEmpty());
    EXPECT_THAT(doubles::log().texts(),
                ElementsAre("Run I QIB starting thread named 10.0.0.5",
                            "TerminateThread I QIB forcibly terminating thread for 10.0.0.5:8443",
                            "Run I QIB terminating thread for 10.0.0.5:8443"));
  }
}

TEST_F(AWorker, LogsTheStopRequestBeforeItSetsTheFlagUnderItsLock) {
  build("gw1", 1);
  bool flag = true;
  doubles::log().setHook([&](const doubles::LogLine&) { flag = worker->isThreadTerminated(); });
  worker->TerminateThread();
  EXPECT_FALSE(flag);

  Texts events;
  seams().onLock.set([&](const CManualLock* lock, bool taken) {
    EXPECT_EQ(lock, &member<WorkerLock>(*worker));
    events.emplace_back(taken ? "taken" : "given back");
  });
  EXPECT_TRUE(worker->isThreadTerminated());
  worker->setThreadTerminated(false);
  seams().onLock.set(nullptr);

  EXPECT_THAT(events, ElementsAre("taken", "given back", "taken", "given back"));
}

TEST_F(AWorker, LogsSamplesWithABlankAfterEach) {
  build("gw1", 3).logThreadPingResults("name", {12, 15, 4294967295U});
  worker->logThreadPingResults("other", {});

  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("logThreadPingResults I QIB ping results for name: (12 15 4294967295 )",
                          "logThreadPingResults I QIB ping results for other: no pings recorded"));
}

TEST_F(AWorker, HasTheSmallestNonZeroSampleUpTo9999AsItsMetric) {
  struct Metric {
    unsigned int numPings;
    std::vector<unsigned int> samples;
    unsigned int metric;
  };
  for (const Metric& is :
       {// A 0 among others is skipped; nothing but 0 is 0; some probes without a sample are worst.
        Metric{3, {0, 40, 25}, 25}, Metric{3, {0, 0, 0}, 0}, Metric{3, {0, 0}, 9999},
        // All above the ceiling, and no sample at all.
        Metric{2, {10000, 12000}, 9999}, Metric{3, {}, 9999}, Metric{0, {}, 0},
        Metric{1, {9999}, 9999}, Metric{1, {9998}, 9998}, Metric{1, {1}, 1},
        Metric{2, {0x80000000U, 0x80000000U}, 0}, Metric{3, {0x80000000U, 0x80000000U}, 9999},
        Metric{3, {4294967295U, 1, 0}, 0}, Metric{1, {0, 0}, 9999}}) {
    EXPECT_EQ(build("gw1", is.numPings).calculateRTTMetric(is.samples), is.metric)
        << is.numPings << " probes, samples " << testing::PrintToString(is.samples);
  }
}

TEST_F(AWorker, NamesItsHeadendCannotBeClonedAndIsNotDestroyedByDestroy) {
  build("gw1:444", 1);
  EXPECT_EQ(worker->GetHeadend(), "gw1:444");
  EXPECT_EQ(worker->Clone(), nullptr);
  worker->Destroy();

  ASSERT_THAT(doubles::log().lines(), SizeIs(1));
  EXPECT_EQ(doubles::log().texts()[0], "Destroy E IRunnable::Destroy not Implemented");
  EXPECT_EQ(doubles::log().lines()[0].file, "vpn/Common/Utility/Thread");
}

}  // namespace
}  // namespace tests
