// How far a headend's measurement is, by the rules that its worker goes by.

#include "cli/show/LiveState.h"

#include "cli/show/SelectionResult.h"
#include "vpn/Api/AHS/SelectionRules.h"

LiveRow liveRowOf(const Candidate& candidate, const SelectionRecord::Track* track,
                  unsigned int probes) {
  LiveRow row;
  row.headend = candidate.headend;
  row.name = nameBeside(candidate.headend, candidate.name);
  if (track == nullptr) {
    row.waitsFor = "waits to be measured";
    return row;
  }
  if (track->started == 0 && track->testing > 0) {
    row.waitsFor = "waits for the test of the way there";
    return row;
  }
  SelectionRules::Tally tally;
  for (const HttpProbe::Report& probe : track->ended) {
    tally.take(probe.status, probe.rttMs);
  }
  row.samplesMs = tally.samplesMs;
  if (tally.hasGivenUp) {
    row.waitsFor = outcomeName(outcomeOf(track, false, false));
  } else if (track->ended.size() < probes) {
    row.waitsFor = "waits for answer " + std::to_string(track->ended.size() + 1) + " of " +
                   std::to_string(probes);
  }
  return row;
}
