#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "vpn/Api/AHS/Candidates.h"
#include "vpn/Api/AHS/SelectionRecord.h"

/// One headend while it is being measured.
struct LiveRow {
  std::string headend;
  std::string name;                     ///< beside the headend; empty for none
  std::vector<unsigned int> samplesMs;  ///< so far, in the order in which they came
  std::string waitsFor;                 ///< or what became of it; empty when it is done
};

/// How far a measurement is.
struct LiveState {
  unsigned int answered = 0;  ///< headends that answered at least once
  unsigned int probesEnded = 0;
  std::chrono::milliseconds elapsed{0};
  std::chrono::milliseconds budget{0};
  std::vector<LiveRow> rows;  ///< one for each headend that is measured
};

/// The row of a headend.
/// @param track its probes; null before the first.
/// @param probes how many it gets.
LiveRow liveRowOf(const Candidate& candidate, const SelectionRecord::Track* track,
                  unsigned int probes);
