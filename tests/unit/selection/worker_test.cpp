// One worker by itself, run on the test's own thread: which probes it sends, which of them count,
// when it stops, and what it reports.

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "tests/unit/selection/selection_fixture.h"

namespace tests {
namespace {

using doubles::ProbeAnswer;
using doubles::ProbeCall;
using doubles::probes;
using doubles::seams;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr STATUSCODE TimedOut = 0xFE53000B;

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

TEST_F(AWorker, SendsItsProbesOneAfterAnotherAndReportsTheSmallest) {
  probes().answer("gw1", {{.rtt = 12}, {.rtt = 15}, {.rtt = 11}});

  EXPECT_EQ(build("gw1", 3).Run(), 0);
  EXPECT_THAT(reported(), ElementsAre("gw1 11"));
  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("Run I QIB starting thread named gw1",
                          "logThreadPingResults I QIB ping results for gw1: (12 15 11 )",
                          "Run I QIB terminating thread for gw1"));
}

TEST_F(AWorker, LetsItsProbesShareAConnectionThatEndsWithIt) {
  build("gw1", 3).Run();

  const std::vector<ProbeCall> calls = probes().workerCalls();
  ASSERT_EQ(calls.size(), 3U);
  for (const ProbeCall& call : calls) {
    EXPECT_TRUE(call.connectionKept);
  }
  EXPECT_EQ(doubles::keptConnections(), 0U);
}

TEST_F(AWorker, ConnectsDirectlyWithThePingTimeOutInWholeSeconds) {
  EXPECT_EQ(build("gw1", 1, 10000, 2999).Run(), 0);

  ASSERT_THAT(probes().workerCalls(), SizeIs(1));
  const ProbeCall probe = probes().workerCalls()[0];
  EXPECT_EQ(probe.host, "gw1");
  EXPECT_EQ(probe.port, 443U);
  EXPECT_FALSE(probe.secure);
  EXPECT_FALSE(probe.reserved);
  EXPECT_EQ(probe.userAgent, "");
  EXPECT_EQ(probe.timeout, 2U);
  EXPECT_FALSE(probe.determineProxy);
  EXPECT_EQ(probe.proxyServer, "");
  EXPECT_EQ(probe.proxyUser, "");
  EXPECT_EQ(probe.proxyPswd, "");
  EXPECT_EQ(probe.options, 14U);
}

TEST_F(AWorker, APingTimeOutBelowASecondBecomesZero) {
  build("gw1", 1, 10000, 999).Run();

  EXPECT_EQ(probes().workerCalls()[0].timeout, 0U);
}

TEST_F(AWorker, EveryProbeStartsWithEmptyResults) {
  probes().answer("gw1", {{.rtt = 7, .httpStatus = 200, .lastError = 3}});
  build("gw1", 3).Run();

  for (const ProbeCall& probe : probes().workerCalls()) {
    EXPECT_TRUE(probe.resultsWereZero);
  }
}

TEST_F(AWorker, APortThatIsNoNumberCountsAs0) {
  member<UrlPort>(member<WorkerHeadend>(build("gw1", 1))) = "https";
  worker->Run();

  EXPECT_EQ(probes().workerCalls()[0].port, 0U);
}

TEST_F(AWorker, ReadsThePortAlikeWhereTheHostGroupsDigits) {
  // A port has no separators: only a locale that takes one of its digits for one shows here.
  for (const char separator : {',', '8', '4', '3'}) {
    const GroupedDigits grouped(separator);
    build("gw1:8443", 1).Run();

    EXPECT_EQ(probes().workerCalls().back().port, 8443U) << "separator " << separator;
  }
}

TEST_F(AWorker, LogsItsSamplesAlikeWhereTheHostGroupsDigits) {
  const GroupedDigits grouped(',');
  probes().answer("gw1", {{.rtt = 9999}, {.rtt = 4294967295}});
  build("gw1", 2).Run();

  EXPECT_THAT(doubles::log().textsOf("logThreadPingResults"),
              ElementsAre("logThreadPingResults I QIB ping results for gw1: (9999 4294967295 )"));
}

struct ProviderCase {
  ProxyType type;
  bool secure;
};

void PrintTo(const ProviderCase& given, std::ostream* out) { *out << "type " << given.type; }

class AWorkerBehindAProvider : public AWorker, public testing::WithParamInterface<ProviderCase> {};

TEST_P(AWorkerBehindAProvider, IsSecureUnlessTheProviderMeansNoProxyAndNeverUsesIt) {
  make();
  run->SetProxy(new Provider(GetParam().type, "user", "secret", "proxy1"));
  build("gw1:8443", 1).Run();

  const ProbeCall probe = probes().workerCalls()[0];
  EXPECT_EQ(probe.secure, GetParam().secure);
  EXPECT_EQ(probe.port, 8443U);
  EXPECT_FALSE(probe.determineProxy);
  EXPECT_EQ(probe.proxyServer, "");
  EXPECT_EQ(probe.proxyUser, "");
  EXPECT_EQ(probe.proxyPswd, "");
}

INSTANTIATE_TEST_SUITE_P(All, AWorkerBehindAProvider,
                         testing::Values(ProviderCase{BasicProxy, true},
                                         ProviderCase{NTLMProxy, true},
                                         ProviderCase{KerberosProxy, true},
                                         ProviderCase{NoProxy, false},
                                         ProviderCase{ProxyTypeMax, true}));

TEST_F(AWorker, WithNoProbeToSendOnlyStartsAndEnds) {
  EXPECT_EQ(build("gw1", 0).Run(), 0);

  EXPECT_THAT(probes().workerCalls(), IsEmpty());
  EXPECT_THAT(reported(), IsEmpty());
  EXPECT_THAT(doubles::log().texts(), ElementsAre("Run I QIB starting thread named gw1",
                                                  "Run I QIB terminating thread for gw1"));
}

class AnAnswer : public AWorker, public testing::WithParamInterface<STATUSCODE> {};

TEST_P(AnAnswer, CountsAsASampleWithoutAWord) {
  probes().answer("gw1", {{.status = GetParam(), .rtt = 33, .lastError = 60}});

  EXPECT_EQ(build("gw1", 2).Run(), GetParam()) << "the last probe's status";
  EXPECT_THAT(reported(), ElementsAre("gw1 33"));
  EXPECT_THAT(doubles::log().textsOf("Run"), SizeIs(2));
}

INSTANTIATE_TEST_SUITE_P(All, AnAnswer,
                         testing::Values(STATUSCODE{0}, HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE,
                                         HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE,
                                         HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED));

class AFailureToConnect : public AWorker, public testing::WithParamInterface<STATUSCODE> {};

TEST_P(AFailureToConnect, IsForgivenOnce) {
  probes().answer("gw1", {{.status = GetParam(), .rtt = 99}, {.rtt = 22}, {.rtt = 21}});

  EXPECT_EQ(build("gw1", 3).Run(), 0);
  EXPECT_THAT(reported(), ElementsAre("gw1 21"));
  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("Run I QIB starting thread named gw1",
                          "Run W QIB ping timeout or couldn't connect: gw1",
                          "logThreadPingResults I QIB ping results for gw1: (22 21 )",
                          "Run I QIB terminating thread for gw1"));
}

TEST_P(AFailureToConnect, EndsTheWorkerTheSecondTimeAlsoAfterAnswersBetween) {
  probes().answer("gw1",
                  {{.rtt = 20}, {.status = GetParam()}, {.rtt = 20}, {.status = GetParam()}});

  EXPECT_EQ(build("gw1", 9).Run(), GetParam());
  EXPECT_THAT(probes().workerCalls(), SizeIs(4));
  EXPECT_THAT(reported(), IsEmpty());
  EXPECT_TRUE(worker->isThreadTerminated());
  EXPECT_THAT(doubles::log().texts(), ElementsAre("Run I QIB starting thread named gw1",
                                                  "Run W QIB ping timeout or couldn't connect: gw1",
                                                  "Run W QIB ping timeout or couldn't connect: gw1",
                                                  "Run I QIB terminating thread for gw1"));
}

TEST_P(AFailureToConnect, AsTheLastProbeIsTheWorkersResultThoughItReports) {
  probes().answer("gw1", {{.rtt = 20}, {.status = GetParam()}});

  EXPECT_EQ(build("gw1", 2).Run(), GetParam());
  EXPECT_THAT(reported(), ElementsAre("gw1 20"));
}

INSTANTIATE_TEST_SUITE_P(All, AFailureToConnect,
                         testing::Values(HTTP_SESSION_ERROR_CONNECT, HTTP_SESSION_ERROR_TIMEOUT,
                                         HTTP_SESSION_ERROR_CANNOT_CONNECT));

TEST_F(AWorker, DifferentFailuresToConnectCountTogether) {
  probes().answer("gw1",
                  {{.status = HTTP_SESSION_ERROR_CONNECT}, {.status = HTTP_SESSION_ERROR_TIMEOUT}});

  EXPECT_EQ(build("gw1", 5).Run(), HTTP_SESSION_ERROR_TIMEOUT);
  EXPECT_THAT(probes().workerCalls(), SizeIs(2));
}

TEST_F(AWorker, TheFlagIsNotYetSetAtTheSecondConnectWarning) {
  probes().answer("gw1", {{.status = HTTP_SESSION_ERROR_CONNECT}});
  build("gw1", 5);
  std::vector<bool> flags;
  doubles::log().setHook([&](const doubles::LogLine& line) {
    if (line.severity == 'W') {
      flags.push_back(worker->isThreadTerminated());
    }
  });
  worker->Run();

  EXPECT_THAT(flags, ElementsAre(false, false));
}

TEST_F(AWorker, EndsOnANameThatDoesNotResolveWithTheFlagSetBeforeTheWarning) {
  probes().answer("gw1", {{.status = HTTP_SESSION_ERROR_DNS_RESOLUTION, .rtt = 6}});
  build("gw1:8443", 3);
  std::vector<bool> flags;
  doubles::log().setHook([&](const doubles::LogLine& line) {
    if (line.severity == 'W') {
      flags.push_back(worker->isThreadTerminated());
    }
  });

  EXPECT_EQ(worker->Run(), HTTP_SESSION_ERROR_DNS_RESOLUTION);
  EXPECT_THAT(flags, ElementsAre(true));
  EXPECT_THAT(reported(), IsEmpty());
  EXPECT_THAT(probes().workerCalls(), SizeIs(1));
  EXPECT_THAT(doubles::log().texts(), ElementsAre("Run I QIB starting thread named gw1",
                                                  "Run W QIB: DNS error for gw1, time: 6",
                                                  "Run I QIB terminating thread for gw1:8443"));
}

TEST_F(AWorker, ANameThatStopsToResolveDropsTheSamplesBefore) {
  probes().answer("gw1", {{.rtt = 20}, {.status = HTTP_SESSION_ERROR_DNS_RESOLUTION}});

  EXPECT_EQ(build("gw1", 3).Run(), HTTP_SESSION_ERROR_DNS_RESOLUTION);
  EXPECT_THAT(reported(), IsEmpty());
}

TEST_F(AWorker, AnyOtherFailureIsASampleWithAWarning) {
  probes().answer("gw1", {{.status = 0xFE460002, .rtt = 44, .lastError = 3}, {.rtt = 50}});

  EXPECT_EQ(build("gw1:8443", 2).Run(), 0);
  EXPECT_THAT(reported(), ElementsAre("gw1:8443 44"));
  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("Run I QIB starting thread named gw1", "Run W QIB ping error for gw1: 3",
                          "logThreadPingResults I QIB ping results for gw1:8443: (44 50 )",
                          "Run I QIB terminating thread for gw1:8443"));
}

TEST_F(AWorker, AnyOtherFailureNeverEndsTheWorkerButIsItsResultWhenLast) {
  probes().answer("gw1", {{.status = 0xFE460002, .rtt = 44}});

  EXPECT_EQ(build("gw1", 5).Run(), 0xFE460002);
  EXPECT_THAT(probes().workerCalls(), SizeIs(5));
}

TEST_F(AWorker, AHeadendWithAPortIsReportedAndEndedWithItAndOtherwiseNamedByHost) {
  EXPECT_EQ(build("10.0.0.5:8443", 1).Run(), 0);

  EXPECT_THAT(reported(), ElementsAre("10.0.0.5:8443 10"));
  EXPECT_EQ(worker->GetHeadend(), "10.0.0.5:8443");
  EXPECT_EQ(probes().workerCalls()[0].host, "10.0.0.5");
  EXPECT_THAT(doubles::log().textsOf("Run"),
              ElementsAre("Run I QIB starting thread named 10.0.0.5",
                          "Run I QIB terminating thread for 10.0.0.5:8443"));
}

TEST_F(AWorker, AnIPv6HeadendIsReportedInBrackets) {
  EXPECT_EQ(build("https://[2001:db8::1]:8443/group", 1).Run(), 0);

  EXPECT_THAT(reported(), ElementsAre("[2001:db8::1]:8443 10"));
  EXPECT_EQ(probes().workerCalls()[0].host, "2001:db8::1");
}

TEST_F(AWorker, SendsAnotherProbeWhileItsBudgetIsJustReached) {
  probes().answer("gw1", {{.rtt = 20, .takesMs = 500}, {.rtt = 10, .takesMs = 1}});

  EXPECT_EQ(build("gw1", 3, 500).Run(), TimedOut);
  EXPECT_THAT(probes().workerCalls(), SizeIs(2));
  EXPECT_THAT(reported(), ElementsAre("gw1 10")) << "out of time, it reports what it has";
  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("Run I QIB starting thread named gw1",
                          "logThreadPingResults I QIB ping results for gw1: (20 10 )",
                          "Run I QIB terminating thread for gw1"));
}

TEST_F(AWorker, OutOfTimeWithoutASampleReportsNothing) {
  probes().answer("gw1", {{.status = HTTP_SESSION_ERROR_TIMEOUT, .takesMs = 2000}});

  EXPECT_EQ(build("gw1", 3, 1000).Run(), TimedOut);
  EXPECT_THAT(reported(), IsEmpty());
  EXPECT_THAT(probes().workerCalls(), SizeIs(1));
}

TEST_F(AWorker, WithABudgetOf0SendsProbesWithinTheFirstMillisecond) {
  probes().answer("gw1", {{.rtt = 5}, {.rtt = 5, .takesMs = 1}});

  EXPECT_EQ(build("gw1", 9, 0).Run(), TimedOut);
  EXPECT_THAT(probes().workerCalls(), SizeIs(2));
}

TEST_F(AWorker, TheClockMayWrapDuringItsWork) {
  doubles::clock().set(0xFFFFFFF0UL);
  probes().answer("gw1", {{.rtt = 20, .takesMs = 0x20}});

  EXPECT_EQ(build("gw1", 3, 0x40).Run(), 0) << "96 ms on the clock, but the third probe is in time";
  EXPECT_THAT(probes().workerCalls(), SizeIs(3));
}

TEST_F(AWorker, OnlyTheLow32BitsOfTheClockCount) {
  doubles::clock().set(0x7FFFFFFF0UL);
  probes().answer("gw1", {{.rtt = 20, .takesMs = 0x20}});

  EXPECT_EQ(build("gw1", 3, 0x3F).Run(), TimedOut);
  EXPECT_THAT(probes().workerCalls(), SizeIs(2));
}

TEST_F(AWorker, TheRunsEndDoesNotStopIt) {
  make();
  run->setThreadTerminated(true);

  EXPECT_EQ(build("gw1", 3).Run(), 0);
  EXPECT_THAT(reported(), ElementsAre("gw1 10"));
}

TEST_F(AWorker, AskedToStopEndsBeforeItsNextProbeAndReportsNothing) {
  build("gw1:8443", 5);
  probes().answer("gw1", {{.rtt = 20}, {.rtt = 20, .during = [&] { worker->TerminateThread(); }}});

  EXPECT_EQ(worker->Run(), TimedOut);
  EXPECT_THAT(probes().workerCalls(), SizeIs(2));
  EXPECT_THAT(reported(), IsEmpty());
  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("Run I QIB starting thread named gw1",
                          "TerminateThread I QIB forcibly terminating thread for gw1:8443",
                          "Run I QIB terminating thread for gw1:8443"));
}

TEST_F(AWorker, AskedToStopDuringItsLastProbeReportsNothing) {
  build("gw1", 1);
  probes().answer("gw1", {{.rtt = 20, .during = [&] { worker->TerminateThread(); }}});

  EXPECT_EQ(worker->Run(), 0);
  EXPECT_THAT(reported(), IsEmpty());
}

TEST_F(AWorker, LogsTheStopRequestBeforeItSetsTheFlag) {
  build("gw1", 1);
  bool flag = true;
  doubles::log().setHook([&](const doubles::LogLine&) { flag = worker->isThreadTerminated(); });
  worker->TerminateThread();

  EXPECT_FALSE(flag);
  EXPECT_TRUE(worker->isThreadTerminated());
}

TEST_F(AWorker, TouchesItsFlagOnlyUnderItsLock) {
  build("gw1", 1);
  Texts events;
  const CManualLock* own = &member<WorkerLock>(*worker);
  seams().setLockHook([&](const CManualLock* lock, bool taken) {
    events.push_back(lock != own ? "other" : taken ? "taken" : "given back");
  });
  worker->setThreadTerminated(true);
  EXPECT_TRUE(worker->isThreadTerminated());
  seams().setLockHook(nullptr);

  EXPECT_THAT(events, ElementsAre("taken", "given back", "taken", "given back"));
}

TEST_F(AWorker, ReportsNothingForAnEmptyListOrOnceStopped) {
  build("gw1", 3).addHeadendToList({});
  EXPECT_THAT(reported(), IsEmpty());
  EXPECT_THAT(doubles::log().texts(), IsEmpty());

  worker->setThreadTerminated(true);
  worker->addHeadendToList({5});
  EXPECT_THAT(reported(), IsEmpty());
  EXPECT_THAT(doubles::log().texts(), IsEmpty());

  worker->setThreadTerminated(false);
  worker->addHeadendToList({5});
  EXPECT_THAT(reported(), ElementsAre("gw1 5"));
}

TEST_F(AWorker, LogsSamplesWithABlankAfterEach) {
  build("gw1", 3).logThreadPingResults("name", {12, 15, 4294967295U});
  worker->logThreadPingResults("other", {});

  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("logThreadPingResults I QIB ping results for name: (12 15 4294967295 )",
                          "logThreadPingResults I QIB ping results for other: no pings recorded"));
  EXPECT_EQ(doubles::log().lines()[0].format, "QIB ping results for %s: %s");
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

TEST_F(AWorker, AnswersOf0FromEveryProbeGiveTheBestMetric) {
  probes().answer("gw1", {{.rtt = 0}});
  EXPECT_EQ(build("gw1", 3).Run(), 0);

  EXPECT_THAT(reported(), ElementsAre("gw1 0"));
}

TEST_F(AWorker, AnswersOf0FromSomeProbesGiveTheWorstMetric) {
  probes().answer("gw1", {{.status = HTTP_SESSION_ERROR_CONNECT}, {.rtt = 0}, {.rtt = 0}});
  EXPECT_EQ(build("gw1", 3).Run(), 0);

  EXPECT_THAT(reported(), ElementsAre("gw1 9999"));
}

TEST_F(AWorker, HandsItsStatusOnAsTheThreadsExitCode) {
  probes().answer("gw1", {{.status = HTTP_SESSION_ERROR_DNS_RESOLUTION}});
  build("gw1", 3);
  unsigned int exitCode = 0;

  EXPECT_EQ(worker->Start(), 0);
  EXPECT_EQ(worker->WaitForCompletion(exitCode, CThread::Infinite), 0);
  EXPECT_EQ(exitCode, 0xFE460019U);
}

TEST_F(AWorker, CannotBeClonedAndIsNotDestroyedByDestroy) {
  build("gw1", 1);
  EXPECT_EQ(worker->Clone(), nullptr);
  worker->Destroy();

  ASSERT_THAT(doubles::log().lines(), SizeIs(1));
  EXPECT_EQ(doubles::log().texts()[0], "Destroy E IRunnable::Destroy not Implemented");
  EXPECT_EQ(doubles::log().lines()[0].file, "vpn/Common/Utility/Thread");
}

TEST_F(AWorker, HasACopyOfItsHeadend) {
  make();
  URL url("gw1:444");
  delete worker;
  worker = new Worker(*run, url, 1, 1000, 1000);
  url = URL("other");

  EXPECT_EQ(worker->GetHeadend(), "gw1:444");
}

}  // namespace
}  // namespace tests
