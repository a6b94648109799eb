// One headend of a selection: the run's result joined with its probes' reports. No number stands
// for a measurement that did not happen.

#include "vpn/Api/AHS/HeadendResult.h"

#include <algorithm>
#include <utility>

#include "vpn/Api/AHS/SelectionRules.h"
#include "vpn/include/HttpSession.h"

namespace {

HeadendOutcome outcomeOfShortage(Shortage shortage) {
  return shortage == Shortage::Descriptors ? HeadendOutcome::LackOfDescriptors
         : shortage == Shortage::Threads   ? HeadendOutcome::LackOfThreads
                                           : HeadendOutcome::LackOfMemory;
}

// The last answer describes a measured headend, not a probe that was lost.
HeadendOutcome outcomeOfMeasured(const SelectionRecord::Track& track) {
  const auto last = std::find_if(
      track.ended.rbegin(), track.ended.rend(),
      [](const HttpProbe::Report& report) { return SelectionRules::isSample(report.status); });
  return last == track.ended.rend() ? HeadendOutcome::Answered : outcomeOf(*last);
}

HeadendResult resultOf(const Candidate& candidate, const SelectionRecord::Track* track,
                       std::optional<unsigned int> metricMs, bool fromCache, Shortage shortage) {
  HeadendResult result;
  result.headend = candidate.headend;
  result.name = candidate.name;
  result.metricMs = metricMs;
  result.outcome = outcomeOf(track, metricMs.has_value(), fromCache, shortage);
  if (track != nullptr) {
    result.probes = track->ended;
  }
  SelectionRules::Tally tally;
  for (const HttpProbe::Report& probe : result.probes) {
    tally.take(probe.status, probe.rttMs);
  }
  result.samplesMs = std::move(tally.samplesMs);
  return result;
}

/// The metric of each headend; of several the smallest.
std::map<std::string, unsigned int> metricsOf(const std::vector<CHeadendRTT>& measured) {
  std::map<std::string, unsigned int> metrics;
  for (const CHeadendRTT& record : measured) {
    const auto [entry, isNew] = metrics.emplace(record.GetHeadend(), record.GetRTT());
    entry->second = std::min(entry->second, record.GetRTT());
  }
  return metrics;
}

}  // namespace

const char* outcomeName(HeadendOutcome outcome) {
  static const char* const names[] = {"answered",
                                      "untrusted certificate",
                                      "client certificate wanted",
                                      "not HTTP",
                                      "failed",
                                      "from cache",
                                      "cannot connect",
                                      "timed out",
                                      "name not resolved",
                                      "no answer in time",
                                      "not finished in time",
                                      "not probed",
                                      "not in cache",
                                      Shortages::inWords(Shortage::Descriptors),
                                      Shortages::inWords(Shortage::Threads),
                                      Shortages::inWords(Shortage::Memory)};
  return names[static_cast<std::size_t>(outcome)];
}

HeadendOutcome outcomeOf(const HttpProbe::Report& probe) {
  if (probe.shortage != Shortage::None) {
    return outcomeOfShortage(probe.shortage);
  }
  switch (probe.status) {
    case HTTP_SESSION_SUCCESS:
      return HeadendOutcome::Answered;
    case HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE:
      return HeadendOutcome::UntrustedCertificate;
    case HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED:
      return HeadendOutcome::ClientCertificateWanted;
    case HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE:
      return HeadendOutcome::NotHttp;
    case HTTP_SESSION_ERROR_CONNECT:
    case HTTP_SESSION_ERROR_CANNOT_CONNECT:
      return HeadendOutcome::CannotConnect;
    case HTTP_SESSION_ERROR_TIMEOUT:
      return probe.unresolved ? HeadendOutcome::NameNotResolved : HeadendOutcome::TimedOut;
    case HTTP_SESSION_ERROR_DNS_RESOLUTION:
      return HeadendOutcome::NameNotResolved;
    default:
      return HeadendOutcome::Failed;
  }
}

unsigned int HeadendResult::httpStatus() const {
  const auto last = std::find_if(probes.rbegin(), probes.rend(),
                                 [](const auto& probe) { return probe.httpStatus != 0; });
  return last == probes.rend() ? 0 : last->httpStatus;
}

bool isServerError(unsigned int httpStatus) {
  constexpr unsigned int FirstServerError = 500;
  return httpStatus >= FirstServerError;
}

std::string outcomeInWords(HeadendOutcome outcome, unsigned int httpStatus) {
  const bool isRefused = outcome == HeadendOutcome::Answered ||
                         outcome == HeadendOutcome::CannotConnect;  // `SelectionNeedsService`
  return isRefused && isServerError(httpStatus) ? "answers " + std::to_string(httpStatus)
                                                : outcomeName(outcome);
}

std::string outcomeInWords(const HeadendResult& result) {
  return outcomeInWords(result.outcome, result.httpStatus());
}

bool isShortage(HeadendOutcome outcome) { return outcome >= HeadendOutcome::LackOfDescriptors; }

HeadendOutcome outcomeOf(const SelectionRecord::Track* track, bool hasMetric, bool fromCache,
                         Shortage shortage) {
  if (fromCache) {
    return hasMetric ? HeadendOutcome::FromCache : HeadendOutcome::NotInCache;
  }
  if (track == nullptr) {
    return hasMetric                    ? HeadendOutcome::Answered
           : shortage != Shortage::None ? outcomeOfShortage(shortage)
                                        : HeadendOutcome::NotProbed;
  }
  if (hasMetric) {
    return outcomeOfMeasured(*track);
  }
  if (track->ended.empty()) {
    return HeadendOutcome::NoAnswerInTime;
  }
  const HttpProbe::Report& last = track->ended.back();
  return SelectionRules::isSample(last.status) ? HeadendOutcome::NotFinishedInTime
                                               : outcomeOf(last);
}

std::vector<HeadendResult> collectResults(const std::vector<std::string>& headends,
                                          const std::vector<Candidate>& candidates,
                                          const std::map<Place, SelectionRecord::Track>& tracks,
                                          const std::vector<CHeadendRTT>& measured, bool fromCache,
                                          Shortage shortage) {
  // Several entries may name one headend; its result is told once.
  std::map<std::string, const Candidate*> waiting;
  for (const Candidate& candidate : candidates) {
    waiting.emplace(candidate.headend, &candidate);
  }
  const std::map<std::string, unsigned int> metrics = metricsOf(measured);
  std::vector<HeadendResult> results;
  const auto tell = [&](const std::string& headend) {
    const auto found = waiting.find(headend);
    if (found == waiting.end()) {
      return;
    }
    const Candidate& candidate = *found->second;
    waiting.erase(found);
    const auto metric = metrics.find(headend);
    const auto track = tracks.find(candidate.place);
    results.push_back(
        resultOf(candidate, track == tracks.end() ? nullptr : &track->second,
                 metric == metrics.end() ? std::nullopt : std::optional(metric->second), fromCache,
                 shortage));
  };
  std::for_each(headends.begin(), headends.end(), tell);
  for (const Candidate& candidate : candidates) {
    tell(candidate.headend);
  }
  return results;
}
