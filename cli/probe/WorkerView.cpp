// What a worker of a selection would make of these probes, by the worker's own rules. A probe that
// took longer than a selection waits counts as timed out.

#include "cli/probe/WorkerView.h"

#include <algorithm>

#include "cli/show/SelectionResult.h"
#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/Api/AHS/SelectionRules.h"
#include "vpn/include/HttpSession.h"

namespace {

using std::chrono::milliseconds;

/// The state of the worker after some probes.
struct Worker {
  WorkerView view;
  SelectionRecord::Track track;
  SelectionRules::Tally tally;
  bool isLate = false;  // the selection's time limit has expired
  bool hasTimedOut = false;
  milliseconds saved{0};  // time by which its probes end earlier
};

/// The probe as a worker would see it, cut at the worker's own time limit.
EndedProbe asSent(const EndedProbe& probe, const ProbePlan& plan, Worker& worker) {
  const auto took = std::chrono::microseconds(probe.report.totalUs);
  EndedProbe own = probe;
  if (plan.timeout > plan.selectionTimeout && took > plan.selectionTimeout) {
    worker.view.lateAnswers += SelectionRules::isSample(probe.report.status) ? 1 : 0;
    worker.saved += std::chrono::floor<milliseconds>(took - plan.selectionTimeout);
    own.report.status = HTTP_SESSION_ERROR_TIMEOUT;
    own.report.rttMs = 0;
  }
  own.endedAfter -= worker.saved;
  return own;
}

void take(const EndedProbe& probe, Worker& worker) {
  worker.track.ended.push_back(probe.report);
  ++worker.view.probes;
  worker.hasTimedOut = worker.hasTimedOut || probe.report.status == HTTP_SESSION_ERROR_TIMEOUT;
  worker.tally.take(probe.report.status, probe.report.rttMs);
}

/// A note if this time limit differs from a selection's.
std::string limitInWords(const Worker& worker, const ProbePlan& plan) {
  const std::string limit =
      std::to_string(plan.selectionTimeout.count()) + " s (SelectionPingTimeout)";
  if (worker.view.lateAnswers > 0) {
    return " A selection waits for an answer no longer than " + limit + ".";
  }
  return worker.hasTimedOut && plan.timeout < plan.selectionTimeout
             ? " A selection waits longer for an answer, " + limit + ", and may get one."
             : "";
}

std::string whyOf(const Worker& worker, const ProbePlan& plan) {
  const std::string number = std::to_string(worker.view.probes);
  if (worker.isLate) {
    return "No result: the time limit of a selection, " +
           std::to_string(plan.selectionLimit.count()) +
           " ms (SelectionConnectTimeout), comes before its probes have ended.";
  }
  const auto& samples = worker.tally.samplesMs;
  if (worker.tally.hasGivenUp &&
      worker.tally.connectFailures < SelectionRules::MostConnectFailures) {
    return "No result: a worker gives up a headend whose name is not resolved.";
  }
  if (worker.tally.hasGivenUp) {
    return "No result: a worker gives up at the second probe without a connection or an answer in "
           "time, probe " +
           number + (samples.empty() ? "." : ", whatever it has measured before.");
  }
  if (!worker.view.metricMs) {
    return "No result: there is no sample.";
  }
  if (*worker.view.metricMs == 0) {
    return "The metric is 0: every sample is.";
  }
  return std::find(samples.begin(), samples.end(), *worker.view.metricMs) == samples.end()
             ? "The metric is the worst that there is: no sample is better, or 0 alone among "
               "others."
             : "The metric is the smallest sample that is not 0; the smallest metric is chosen.";
}

}  // namespace

WorkerView workerViewOf(const ProbePlan& plan, const std::vector<EndedProbe>& probes) {
  const unsigned int wanted = std::min(plan.count, plan.selectionCount);
  Worker worker;
  worker.track.started = wanted;
  for (const EndedProbe& probe : probes) {
    if (worker.tally.hasGivenUp || worker.view.probes == wanted) {
      break;
    }
    const EndedProbe own = asSent(probe, plan, worker);
    worker.isLate = own.endedAfter > plan.selectionLimit;
    if (worker.isLate) {
      break;
    }
    take(own, worker);
  }
  WorkerView& view = worker.view;
  view.samplesMs = worker.tally.samplesMs;
  if (!worker.isLate && !worker.tally.hasGivenUp && !view.samplesMs.empty()) {
    view.metricMs = SelectionRules::metricOfSamples(view.samplesMs, wanted);
  }
  view.outcome = outcomeOf(&worker.track, view.metricMs.has_value(), false);
  view.why = whyOf(worker, plan) + limitInWords(worker, plan);
  return view;
}

std::optional<Spread> spreadOf(const std::vector<EndedProbe>& probes,
                               long long HttpProbe::Report::*roundTrip) {
  std::vector<long long> sorted;
  for (const EndedProbe& probe : probes) {
    if (probe.report.*roundTrip >= 0) {
      sorted.push_back(probe.report.*roundTrip);
    }
  }
  if (sorted.empty()) {
    return std::nullopt;
  }
  std::sort(sorted.begin(), sorted.end());
  // The median of an even number is the mean of the two in the middle.
  const long long median = (sorted[(sorted.size() - 1) / 2] + sorted[sorted.size() / 2]) / 2;
  return Spread{sorted.front(), median, sorted.back()};
}

std::vector<unsigned int> samplesOf(const std::vector<EndedProbe>& probes) {
  SelectionRules::Tally tally;
  for (const EndedProbe& probe : probes) {
    tally.take(probe.report.status, probe.report.rttMs);
  }
  return tally.samplesMs;
}
