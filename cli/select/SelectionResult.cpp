// One selection as a whole: what the run delivered, joined with what its probes told. A headend
// that gave no answer is never left out, and no number stands for a measurement that did not
// happen.

#include "cli/select/SelectionResult.h"

#include <algorithm>

#include "cli/ExitStatus.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/include/HttpSession.h"

namespace {

const char* outcomeOfStatus(STATUSCODE status) {
  switch (status) {
    case HTTP_SESSION_SUCCESS:
      return "answered";
    case HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE:
      return "untrusted certificate";
    case HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED:
      return "client certificate wanted";
    case HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE:
      return "not HTTP";
    case HTTP_SESSION_ERROR_CONNECT:
    case HTTP_SESSION_ERROR_CANNOT_CONNECT:
      return "cannot connect";
    case HTTP_SESSION_ERROR_TIMEOUT:
      return "timed out";
    case HTTP_SESSION_ERROR_DNS_RESOLUTION:
      return "name not resolved";
    default:
      return "failed";
  }
}

// A headend that was measured is described by its last answer, not by a probe that was lost.
std::string outcomeOfMeasured(const ProbeRecorder::Track& track) {
  const auto last = std::find_if(
      track.ended.rbegin(), track.ended.rend(),
      [](const HttpProbe::Report& report) { return ProbeRecorder::isSample(report.status); });
  return outcomeOfStatus(last == track.ended.rend() ? HTTP_SESSION_SUCCESS : last->status);
}

class Collector {
 public:
  Collector(const std::map<Place, ProbeRecorder::Track>& tracks,
            const std::vector<CHeadendRTT>& measured, bool fromCache)
      : m_tracks(tracks), m_fromCache(fromCache) {
    for (const CHeadendRTT& record : measured) {
      const auto [entry, isNew] = m_metrics.emplace(record.GetHeadend(), record.GetRTT());
      entry->second = std::min(entry->second, record.GetRTT());
    }
  }

  HeadendResult resultOf(const std::string& headend, const Candidate* candidate) const {
    HeadendResult result;
    result.headend = headend;
    result.name = candidate == nullptr ? headend : candidate->name;
    const auto metric = m_metrics.find(headend);
    if (metric != m_metrics.end()) {
      result.metricMs = metric->second;
    }
    const ProbeRecorder::Track* track = trackOf(candidate);
    result.outcome = outcomeOf(track, result.metricMs.has_value(), m_fromCache);
    if (track != nullptr) {
      result.probes = track->ended;
    }
    for (const HttpProbe::Report& probe : result.probes) {
      if (ProbeRecorder::isSample(probe.status)) {
        result.samplesMs.push_back(probe.rttMs);
      }
    }
    return result;
  }

 private:
  const ProbeRecorder::Track* trackOf(const Candidate* candidate) const {
    const auto track = candidate == nullptr ? m_tracks.end() : m_tracks.find(candidate->place);
    return track == m_tracks.end() ? nullptr : &track->second;
  }

  const std::map<Place, ProbeRecorder::Track>& m_tracks;
  const bool m_fromCache;
  std::map<std::string, unsigned int> m_metrics;
};

}  // namespace

std::string titleOf(const HeadendResult& headend) {
  const std::string name = nameBeside(headend.headend, headend.name);
  return headend.headend + (name.empty() ? "" : " (" + name + ")");
}

std::string samplesText(const std::vector<unsigned int>& samplesMs, const char* separator) {
  std::string text;
  for (const unsigned int sample : samplesMs) {
    text += (text.empty() ? "" : separator) + std::to_string(sample);
  }
  return text;
}

std::string outcomeOf(const ProbeRecorder::Track* track, bool hasMetric, bool fromCache) {
  if (fromCache) {
    return hasMetric ? "from cache" : "not in cache";
  }
  if (track == nullptr) {
    return hasMetric ? "answered" : "not probed";
  }
  if (hasMetric) {
    return outcomeOfMeasured(*track);
  }
  if (track->ended.empty()) {
    return "no answer in time";
  }
  const STATUSCODE last = track->ended.back().status;
  return ProbeRecorder::isSample(last) ? "not finished in time" : outcomeOfStatus(last);
}

std::vector<HeadendResult> collectResults(const std::vector<std::string>& headends,
                                          const std::vector<Candidate>& candidates,
                                          const std::map<Place, ProbeRecorder::Track>& tracks,
                                          const std::vector<CHeadendRTT>& measured,
                                          bool fromCache) {
  // Several entries may name one headend; its result is told once.
  std::map<std::string, const Candidate*> waiting;
  for (const Candidate& candidate : candidates) {
    waiting.emplace(candidate.headend, &candidate);
  }
  const Collector collector(tracks, measured, fromCache);
  std::vector<HeadendResult> results;
  const auto tell = [&](const std::string& headend) {
    const auto found = waiting.find(headend);
    if (found != waiting.end()) {
      results.push_back(collector.resultOf(headend, found->second));
      waiting.erase(found);
    }
  };
  std::for_each(headends.begin(), headends.end(), tell);
  for (const Candidate& candidate : candidates) {
    tell(candidate.headend);
  }
  return results;
}

int exitStatusOf(STATUSCODE status) {
  switch (status) {
    case HEADENDSELECTION_SUCCESS:
    case HEADENDSELECTION_ERROR_ADDED_TO_CACHE:
      return ExitSelected;
    case HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED:
      return ExitProxyAsks;
    case HEADENDSELECTION_ERROR_NO_HEADENDS:
      return ExitUsage;
    default:
      return ExitNotMeasured;
  }
}
