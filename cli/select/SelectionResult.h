#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cli/files/Candidates.h"
#include "cli/select/ProbeRecorder.h"
#include "vpn/Api/AHS/HeadendRTT.h"
#include "vpn/include/StatusCode.h"

/// What became of one headend.
struct HeadendResult {
  std::string headend;                    ///< host, or host ":" port
  std::string name;                       ///< of its host entry, the first where there are several
  std::optional<unsigned int> metricMs;   ///< none: the headend has no result in this selection
  std::vector<unsigned int> samplesMs;    ///< measured now, in the order in which they came
  std::string outcome;                    ///< see `outcomeOf`
  std::vector<HttpProbe::Report> probes;  ///< all of this selection, also those without an answer
};

/// Everything that is printed about one selection.
struct SelectionResult {
  unsigned int reason = 0;
  STATUSCODE status = 0;
  std::vector<std::string> headends;  ///< as delivered, best first
  std::string extraInfo;
  bool fromCache = false;
  bool hadLogin = false;                ///< the run had credentials for the proxy
  std::string last;                     ///< the headend used last, as in `headends`; empty for none
  unsigned int improvementPercent = 0;  ///< how much better another one must be
  bool isResponseMeasured = false;      ///< metrics are times to the gateways' answers
  std::optional<std::chrono::seconds> cacheAge;  ///< since the cached measurement, if it is known
  unsigned int cacheDays = 0;                    ///< how long a measurement may be used again
  std::chrono::milliseconds elapsed{0};
  std::string report;  ///< the selection report as the log has it; empty when there was no ranking
  /// The delivered headends in their order, then the other candidates in theirs.
  std::vector<HeadendResult> results;
};

/// A headend for a person: "gw-ams.example.com:8443 (Amsterdam)", or the address alone where the
/// host entry has no name of its own. May hold anything: it is still to be made visible.
std::string titleOf(const HeadendResult& headend);

/// Round trips in decimal, in their order.
std::string samplesText(const std::vector<unsigned int>& samplesMs, const char* separator);

/// What became of a headend, in a few words that stay the same from version to version:
/// with a metric: "answered", "untrusted certificate", "client certificate wanted", "not HTTP",
/// "failed" (an answer of another kind), "from cache"; without one: "cannot connect", "timed out",
/// "name not resolved", "no answer in time", "not finished in time", "not probed", "not in cache".
/// @param track the headend's probes; null when there were none.
std::string outcomeOf(const ProbeRecorder::Track* track, bool hasMetric, bool fromCache);

/// Puts together what is known of each headend.
/// @param measured the records of the run, empty for a run that failed.
std::vector<HeadendResult> collectResults(const std::vector<std::string>& headends,
                                          const std::vector<Candidate>& candidates,
                                          const std::map<Place, ProbeRecorder::Track>& tracks,
                                          const std::vector<CHeadendRTT>& measured, bool fromCache);

/// The exit status that a selection's status stands for.
int exitStatusOf(STATUSCODE status);
