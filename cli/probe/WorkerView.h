#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "cli/probe/ProbeOptions.h"
#include "vpn/Api/AHS/HeadendResult.h"
#include "vpn/Common/IP/HttpProbe.h"

/// A probe that has ended.
struct EndedProbe {
  HttpProbe::Report report;
  std::chrono::milliseconds endedAfter{0};  ///< since the first probe started
};

/// What a selection would make of a headend with such probes.
struct WorkerView {
  std::size_t probes = 0;                ///< number of probes it would send
  std::size_t lateAnswers = 0;           ///< answers after its own time-out
  std::vector<unsigned int> samplesMs;   ///< the samples it would use
  std::optional<unsigned int> metricMs;  ///< empty: no result
  HeadendOutcome outcome = HeadendOutcome::NotProbed;
  std::string why;  ///< a sentence
};

/// Looks at the first probes: as many as a selection sends, or all if there are fewer.
WorkerView workerViewOf(const ProbePlan& plan, const std::vector<EndedProbe>& probes);

/// Round trips, the smallest first.
struct Spread {
  long long leastUs = 0;
  long long medianUs = 0;
  long long mostUs = 0;
};

/// The spread of one time of a report over all probes. Times below 0 did not happen. Empty if all
/// are below 0.
std::optional<Spread> spreadOf(const std::vector<EndedProbe>& probes,
                               long long HttpProbe::Report::*roundTrip);

/// The samples of all probes.
std::vector<unsigned int> samplesOf(const std::vector<EndedProbe>& probes);
