// What a worker of a selection would make of probes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/probe/WorkerView.h"
#include "tests/unit/cli/some_probes.h"

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;

TEST(WorkerView, TheMetricIsTheSmallestSampleThatIsNotZero) {
  const WorkerView view = workerViewOf(somePlan(3), {answered(25), answered(0), answered(18)});
  EXPECT_EQ(view.metricMs, 18U);
  EXPECT_THAT(view.samplesMs, ElementsAre(25, 0, 18));
  EXPECT_STREQ(outcomeName(view.outcome), "answered");
  EXPECT_THAT(view.why, HasSubstr("smallest sample"));
}

void expectView(const std::string& what, unsigned int count, const std::vector<EndedProbe>& ended,
                unsigned int probes, std::optional<unsigned int> metricMs, const char* outcome,
                const char* why) {
  SCOPED_TRACE(what);
  const WorkerView view = workerViewOf(somePlan(count), ended);
  EXPECT_EQ(view.probes, probes);
  EXPECT_EQ(view.metricMs, metricMs);
  EXPECT_STREQ(outcomeName(view.outcome), outcome);
  EXPECT_THAT(view.why, HasSubstr(why));
}

TEST(WorkerView, IsThatOfAWorkerOfASelection) {
  const EndedProbe timedOut = failed(HTTP_SESSION_ERROR_TIMEOUT);
  const EndedProbe refused = failed(HTTP_SESSION_ERROR_CANNOT_CONNECT);
  const EndedProbe unknown = failed(HTTP_SESSION_ERROR_DNS_RESOLUTION);
  EndedProbe untrusted = answered(18);
  untrusted.report.status = HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE;
  expectView("only as many probes count as a selection sends", 5,
             {answered(25), answered(24), answered(23), answered(1)}, 3, 23, "answered", "");
  expectView("nothing but zero is the best metric", 3, {answered(0), answered(0), answered(0)}, 3,
             0, "answered", "The metric is 0");
  expectView("zero among lost probes is no usable sample", 3, {answered(0), timedOut, answered(0)},
             3, 9999, "answered", "worst");
  expectView("one failure to connect costs a sample only", 3, {refused, answered(25), answered(24)},
             3, 24, "answered", "");
  expectView("the second ends the headend whatever was measured", 3,
             {timedOut, answered(25), refused}, 3, {}, "cannot connect",
             "probe 3, whatever it has measured before");
  expectView("after the end no probe counts", 3, {timedOut, timedOut, answered(25)}, 2, {},
             "timed out", "");
  expectView("an unknown name ends the headend", 3, {unknown}, 1, {}, "name not resolved",
             "not resolved");
  expectView("a refusal by the server is a sample", 1, {untrusted}, 1, 18, "untrusted certificate",
             "");
  expectView("a single probe without a connection gives no result", 1, {refused}, 1, {},
             "cannot connect", "No result: there is no sample.");
}

TEST(WorkerView, AProbeThatEndsAfterTheTimeLimitOfASelectionComesTooLate) {
  EndedProbe late = answered(25);
  late.endedAfter = milliseconds(10001);
  const WorkerView view = workerViewOf(somePlan(3), {answered(24), late});
  EXPECT_EQ(view.metricMs, std::nullopt);
  EXPECT_STREQ(outcomeName(view.outcome), "not finished in time");
  EXPECT_THAT(view.why, HasSubstr("10000 ms (SelectionConnectTimeout)"));
  EXPECT_EQ(workerViewOf(somePlan(4), {answered(24), answered(23), answered(22), late}).metricMs,
            22U)
      << "a selection does not send it";
}

/// A probe that waited longer than a selection waits.
EndedProbe answeredAfter(milliseconds time) {
  EndedProbe probe = answered(25);
  probe.report.totalUs = std::chrono::microseconds(time).count();
  return probe;
}

TEST(WorkerView, AnAnswerThatComesAfterTheTimeLimitOfAWorkersProbeIsATimeOut) {
  ProbePlan plan = somePlan(3);
  plan.timeout = std::chrono::seconds(6);
  const EndedProbe late = answeredAfter(milliseconds(2600));
  const WorkerView view = workerViewOf(plan, {late, answered(24), late});
  EXPECT_EQ(view.metricMs, std::nullopt);
  EXPECT_EQ(view.lateAnswers, 2U);
  EXPECT_STREQ(outcomeName(view.outcome), "timed out");
  EXPECT_THAT(view.why, HasSubstr("no longer than 2 s (SelectionPingTimeout)"));
  EXPECT_EQ(workerViewOf(plan, {late, answered(24), answered(23)}).metricMs, 23U)
      << "one of them costs a sample only";
  EXPECT_EQ(workerViewOf(plan, {answeredAfter(milliseconds(2000))}).metricMs, 25U);
}

TEST(WorkerView, AWorkerIsDoneSoonerThanProbesThatWaitLonger) {
  ProbePlan plan = somePlan(3);
  plan.timeout = std::chrono::seconds(9);
  EndedProbe late = answeredAfter(milliseconds(9000));
  late.endedAfter = milliseconds(9000);
  EndedProbe last = answered(24);
  last.endedAfter = milliseconds(16999);
  EXPECT_EQ(workerViewOf(plan, {late, answered(25), last}).metricMs, 24U)
      << "its first probe was over 7 s sooner, its last after 9.999 s";
  last.endedAfter = milliseconds(17001);
  EXPECT_STREQ(outcomeName(workerViewOf(plan, {late, answered(25), last}).outcome),
               "not finished in time");
}

TEST(WorkerView, AShorterTimeLimitThanAWorkersLeavesTheVerdictOpen) {
  ProbePlan plan = somePlan(2);
  plan.timeout = std::chrono::seconds(1);
  const EndedProbe lost = failed(HTTP_SESSION_ERROR_TIMEOUT);
  EXPECT_THAT(workerViewOf(plan, {lost, lost}).why,
              HasSubstr("A selection waits longer for an answer, 2 s (SelectionPingTimeout)"));
  const EndedProbe refused = failed(HTTP_SESSION_ERROR_CANNOT_CONNECT);
  EXPECT_THAT(workerViewOf(plan, {refused, refused}).why, testing::Not(HasSubstr("longer")));
}

std::optional<Spread> spreadOf(const std::vector<long long>& roundTripsUs) {
  std::vector<EndedProbe> probes(roundTripsUs.size());
  for (std::size_t i = 0; i < probes.size(); ++i) {
    probes[i].report.networkRttUs = roundTripsUs[i];
  }
  return ::spreadOf(probes, &HttpProbe::Report::networkRttUs);
}

TEST(Spread, TheMedianOfAnEvenNumberLiesBetweenTheTwoInTheMiddle) {
  const std::optional<Spread> spread = spreadOf({40, 10, -1, 30, 20});
  ASSERT_TRUE(spread);
  EXPECT_EQ(spread->leastUs, 10);
  EXPECT_EQ(spread->medianUs, 25);
  EXPECT_EQ(spread->mostUs, 40);
  EXPECT_EQ(spreadOf({3, 1, 2})->medianUs, 2);
  EXPECT_FALSE(spreadOf({}));
  EXPECT_FALSE(spreadOf({-1, -1}));
}

}  // namespace
