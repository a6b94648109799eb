// What the probes did, as told by the probes themselves. The record is complete at any moment: late
// probes may still be added to it while an earlier copy is being printed.

#include "cli/select/ProbeRecorder.h"

#include <algorithm>

#include "vpn/Api/AHS/HeadendSelectionProbeWorth.h"

namespace {

bool isTestProbe(const HttpProbe::Report& report) {
  return (report.options & HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS) != 0;
}

bool hasAnswered(const ProbeRecorder::Track& track) {
  return std::any_of(track.ended.begin(), track.ended.end(), [](const HttpProbe::Report& report) {
    return ProbeRecorder::isSample(report.status);
  });
}

}  // namespace

bool ProbeRecorder::isSample(STATUSCODE status) {
  const ProbeWorth worth = worthOfProbe(status);
  return worth == ProbeWorth::Sample || worth == ProbeWorth::SampleDespiteError;
}

void ProbeRecorder::ProbeStarted(const HttpProbe::Report& report) {
  if (isTestProbe(report)) {
    return;
  }
  const CAutoLockT<CManualLock> guard(m_lock);
  ++m_tracks[placeOf(report.host, report.port)].started;
  ++m_progress.probesStarted;
}

void ProbeRecorder::ProbeEnded(const HttpProbe::Report& report) {
  if (isTestProbe(report)) {
    return;
  }
  const CAutoLockT<CManualLock> guard(m_lock);
  Track& track = m_tracks[placeOf(report.host, report.port)];
  const bool isFirstAnswer = isSample(report.status) && !hasAnswered(track);
  track.ended.push_back(report);
  ++m_progress.probesEnded;
  m_progress.placesAnswered += isFirstAnswer ? 1 : 0;
}

ProbeRecorder::Progress ProbeRecorder::progress() const {
  const CAutoLockT<CManualLock> guard(m_lock);
  return m_progress;
}

std::map<Place, ProbeRecorder::Track> ProbeRecorder::tracks() const {
  const CAutoLockT<CManualLock> guard(m_lock);
  return m_tracks;
}
