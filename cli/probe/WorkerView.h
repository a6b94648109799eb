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
  std::chrono::milliseconds endedAfter{0};  ///< since the first of them started
};

/// What a selection would make of a headend whose probes end like these.
struct WorkerView {
  std::size_t probes = 0;                ///< how many of them it would take
  std::size_t lateAnswers = 0;           ///< that came when its own probes had timed out
  std::vector<unsigned int> samplesMs;   ///< that it would take from them
  std::optional<unsigned int> metricMs;  ///< none: the headend would have no result
  HeadendOutcome outcome = HeadendOutcome::NotProbed;
  std::string why;  ///< a sentence
};

/// Looks at the first probes, as many as a selection sends; all of them if there are fewer.
WorkerView workerViewOf(const ProbePlan& plan, const std::vector<EndedProbe>& probes);

/// Round trips, the smallest first.
struct Spread {
  long long leastUs = 0;
  long long medianUs = 0;
  long long mostUs = 0;
};

/// The spread of one of the round trips of a report; those below 0 did not happen. None if none
/// did.
std::optional<Spread> spreadOf(const std::vector<EndedProbe>& probes,
                               long long HttpProbe::Report::*roundTrip);

/// The samples of all probes.
std::vector<unsigned int> samplesOf(const std::vector<EndedProbe>& probes);
