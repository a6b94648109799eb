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
  const CAutoLockT<CManualLock> guard(m_lock);
  if (isTestProbe(report)) {
    ++m_tracks[placeOf(report.host, report.port)].testing;
    return;
  }
  ++m_tracks[placeOf(report.host, report.port)].started;
  ++m_progress.probesStarted;
}

void ProbeRecorder::ProbeEnded(const HttpProbe::Report& report) {
  const Place place = placeOf(report.host, report.port);
  const CAutoLockT<CManualLock> guard(m_lock);
  Track& track = m_tracks[place];
  if (isTestProbe(report)) {
    track.testing -= track.testing > 0 ? 1 : 0;
    if (track.testing == 0 && track.started == 0 && track.ended.empty()) {
      m_tracks.erase(place);  // it measures nothing
    }
    return;
  }
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
