// One worker by itself, run on the test's own thread: which probes it sends, which of them count,
// when it stops, and what it reports.

#include <locale>
#include <ostream>
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

struct Work {
  unsigned int pings = 3;
  std::vector<ProbeAnswer> answers = {{.rtt = 10}};
  unsigned int budget = 10000;
  unsigned long clock = 1000;
  // What then comes of it:
  STATUSCODE exit = 0;
  std::size_t sent = 3;
  Texts warnings = {};
  std::string samples = {};
  std::string report = {};  ///< none if empty
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
        {"NoProbeOnlyStartsAndEnds", {.pings = 0, .sent = 0}},
        {"ThreeAnswersReportsTheSmallest",
         {.answers = {{.rtt = 12}, {.rtt = 15}, {.rtt = 11}},
          .samples = "12 15 11",
          .report = "11"}},
        {"AnswersOf0FromEveryProbeReportsTheBestMetric",
         {.answers = {{}}, .samples = "0 0 0", .report = "0"}},
        {"AnswersOf0FromSomeProbesReportsTheWorstMetric",
         {.answers = {{.status = Connect}, {}},
          .warnings = {Refused},
          .samples = "0 0",
          .report = "9999"}},
        {"InvalidAnswersCountsThemAndEndsWithTheLastStatus",
         {.answers = {{.status = Invalid, .rtt = 33, .lastError = 60}},
          .exit = Invalid,
          .samples = "33 33 33",
          .report = "33"}},
        {"UntrustedCertificatesCountsThem",
         {.answers = {{.status = Untrusted, .rtt = 33}},
          .exit = Untrusted,
          .samples = "33 33 33",
          .report = "33"}},
        {"CertificatesThatAreAskedForCountsThem",
         {.answers = {{.status = CertificateNeeded, .rtt = 33}},
          .exit = CertificateNeeded,
          .samples = "33 33 33",
          .report = "33"}},
        {"OneConnectTimeOutForgivesIt",
         {.answers = {{.status = ProbeTimeOut, .rtt = 99}, {.rtt = 22}, {.rtt = 21}},
          .warnings = {Refused},
          .samples = "22 21",
          .report = "21"}},
        {"ASecondFailureToConnectEndsWithoutAReportAlsoAfterAnswersBetween",
         {.pings = 9,
          .answers = {{.rtt = 20}, {.status = ProbeTimeOut}, {.rtt = 20}, {.status = ProbeTimeOut}},
          .exit = ProbeTimeOut,
          .sent = 4,
          .warnings = {Refused, Refused}}},
        {"DifferentFailuresToConnectCountsThemTogether",
         {.answers = {{.status = Connect}, {.status = CannotConnect}},
          .exit = CannotConnect,
          .sent = 2,
          .warnings = {Refused, Refused}}},
        {"AFailureToConnectOfTheLastProbeReportsAndEndsWithIt",
         {.pings = 2,
          .answers = {{.rtt = 20}, {.status = CannotConnect}},
          .exit = CannotConnect,
          .sent = 2,
          .warnings = {Refused},
          .samples = "20",
          .report = "20"}},
        {"ADnsFailureOfTheFirstProbeEndsWithoutAReport",
         {.answers = {{.status = Dns, .rtt = 6}},
          .exit = Dns,
          .sent = 1,
          .warnings = {": DNS error for gw1, time: 6"}}},
        {"ANameThatStopsToResolveDropsTheSamplesBefore",
         {.answers = {{.rtt = 20}, {.status = Dns}},
          .exit = Dns,
          .sent = 2,
          .warnings = {": DNS error for gw1, time: 0"}}},
        {"AnyOtherFailureIsASampleWithAWarning",
         {.answers = {{.status = OtherFailure, .rtt = 44, .lastError = 3}, {.rtt = 50}},
          .warnings = {" ping error for gw1: 3"},
          .samples = "44 50 50",
          .report = "44"}},
        {"AnyOtherFailureNeverEndsItButIsItsResultWhenLast",
         {.answers = {{.status = OtherFailure, .rtt = 44}},
          .exit = OtherFailure,
          .warnings = Texts(3, " ping error for gw1: 0"),
          .samples = "44 44 44",
          .report = "44"}},
        {"ABudgetThatIsJustReachedSendsAnotherProbeAndThenReportsWhatItHas",
         {.answers = {{.rtt = 20, .takesMs = 500}, {.rtt = 10, .takesMs = 1}},
          .budget = 500,
          .exit = TimedOut,
          .sent = 2,
          .samples = "20 10",
          .report = "10"}},
        {"ABudgetThatIsSpentWithoutASampleReportsNothing",
         {.answers = {{.status = ProbeTimeOut, .takesMs = 2000}},
          .budget = 1000,
          .exit = TimedOut,
          .sent = 1,
          .warnings = {Refused}}},
        {"ABudgetOf0SendsProbesWithinTheFirstMillisecond",
         {.pings = 9,
          .answers = {{.rtt = 5}, {.rtt = 5, .takesMs = 1}},
          .budget = 0,
          .exit = TimedOut,
          .sent = 2,
          .samples = "5 5",
          .report = "5"}},
        {"AClockThatWrapsIsInTimeAtWhatItsLow32BitsTell",  // 64 ms before the third probe
         {.answers = {{.rtt = 20, .takesMs = 0x20}},
          .budget = 0x40,
          .clock = 0xFFFFFFF0UL,
          .samples = "20 20 20",
          .report = "20"}},
        {"AClockThatWrapsIsOutOfTimeAtWhatItsLow32BitsTell",
         {.answers = {{.rtt = 20, .takesMs = 0x20}},
          .budget = 0x3F,
          .clock = 0x7FFFFFFF0UL,
          .exit = TimedOut,
          .sent = 2,
          .samples = "20 20",
          .report = "20"}},
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

/// Groups digits by three in new streams of the whole program.
class Grouping : public std::numpunct<char> {
 public:
  explicit Grouping(char separator) : m_separator(separator) {}

 protected:
  char do_thousands_sep() const override { return m_separator; }
  std::string do_grouping() const override { return "\3"; }

 private:
  const char m_separator;
};

TEST_F(AWorker, WritesAndReadsNumbersAlikeWhereTheHostGroupsDigits) {
  const std::locale before = std::locale();
  probes().answer("gw1", {{.rtt = 9999}});
  // A port has no separators: only a locale that takes one of its digits for one shows here.
  for (const char separator : {',', '8', '4', '3'}) {
    std::locale::global(std::locale(std::locale::classic(), new Grouping(separator)));
    build("gw1:8443", 1).Run();
    Texts list;
    call<GetBestHeadendsList>(*run, list);
    std::locale::global(before);
    EXPECT_EQ(probes().workerCalls().back().port, 8443U) << "separator " << separator;
    EXPECT_EQ(doubles::log().texts()[1],
              "logThreadPingResults I QIB ping results for gw1:8443: (9999 )");
    EXPECT_THAT(doubles::log().texts().back(), testing::HasSubstr("\ngw1:8443     9999\n"));
  }
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

TEST_F(AWorker, IsNotStoppedByTheRunsEnd) {
  make();
  run->setThreadTerminated(true);

  EXPECT_EQ(build("gw1", 3).Run(), 0);
  EXPECT_THAT(reported(), ElementsAre("gw1 10"));
}

TEST_F(AWorker, AskedToStopEndsBeforeItsNextProbeAndReportsNothing) {
  build("10.0.0.5:8443", 5);
  probes().answer("10.0.0.5",
                  {{.rtt = 20}, {.rtt = 20, .during = [&] { worker->TerminateThread(); }}});

  EXPECT_EQ(worker->Run(), TimedOut);
  EXPECT_THAT(probes().workerCalls(), SizeIs(2));
  EXPECT_THAT(reported(), IsEmpty());
  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("Run I QIB starting thread named 10.0.0.5",
                          "TerminateThread I QIB forcibly terminating thread for 10.0.0.5:8443",
                          "Run I QIB terminating thread for 10.0.0.5:8443"));
}

TEST_F(AWorker, AskedToStopDuringItsLastProbeReportsNothing) {
  build("gw1", 1);
  probes().answer("gw1", {{.rtt = 20, .during = [&] { worker->TerminateThread(); }}});

  EXPECT_EQ(worker->Run(), 0);
  EXPECT_THAT(reported(), IsEmpty());
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

struct MetricCase {
  unsigned int numPings;
  std::vector<unsigned int> samples;
  unsigned int metric;
};

void PrintTo(const MetricCase& given, std::ostream* out) {
  *out << given.numPings << " probes, samples " << testing::PrintToString(given.samples);
}

class Metric : public AWorker, public testing::WithParamInterface<MetricCase> {};

TEST_P(Metric, IsTheSmallestNonZeroSampleUpTo9999) {
  EXPECT_EQ(build("gw1", GetParam().numPings).calculateRTTMetric(GetParam().samples),
            GetParam().metric);
}

INSTANTIATE_TEST_SUITE_P(
    Examples, Metric,
    testing::Values(MetricCase{3, {0, 40, 25}, 25}, MetricCase{3, {0, 0, 0}, 0},
                    MetricCase{3, {0, 0}, 9999}, MetricCase{2, {10000, 12000}, 9999},
                    MetricCase{3, {}, 9999}, MetricCase{0, {}, 0}, MetricCase{1, {9999}, 9999},
                    MetricCase{1, {9998}, 9998}, MetricCase{1, {1}, 1},
                    MetricCase{2, {0x80000000U, 0x80000000U}, 0},
                    MetricCase{3, {0x80000000U, 0x80000000U}, 9999},
                    MetricCase{3, {4294967295U, 1, 0}, 0}, MetricCase{1, {0, 0}, 9999}));

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
