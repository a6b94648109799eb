// What the probes did, as told by the probes themselves. The record is complete at any moment: late
// probes may still be added to it while an earlier copy is being printed.

#include "vpn/Api/AHS/SelectionRecord.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "vpn/Api/AHS/SelectionRules.h"

namespace {

constexpr std::size_t Many = 3;
using std::chrono::milliseconds;

bool hasAnswered(const SelectionRecord::Track& track) {
  return std::any_of(track.ended.begin(), track.ended.end(), [](const HttpProbe::Report& report) {
    return SelectionRules::isSample(report.status);
  });
}

}  // namespace

SelectionRecord::SelectionRecord() = default;

bool SelectionRecord::isTestProbe(const HttpProbe::Report& report) {
  return (report.options & HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS) != 0;
}

void SelectionRecord::probeStarted(const HttpProbe::Report& report) {
  const CAutoLockT<CManualLock> guard(m_lock);
  if (isTestProbe(report)) {
    ++m_tracks[placeOf(report.host, report.port)].testing;
    return;
  }
  ++m_tracks[placeOf(report.host, report.port)].started;
  ++m_progress.probesStarted;
}

void SelectionRecord::probeEnded(const HttpProbe::Report& report) {
  noteEnd(report);
  tellIfDecided();
}

void SelectionRecord::noteEnd(const HttpProbe::Report& report) {
  const Place place = placeOf(report.host, report.port);
  const CAutoLockT<CManualLock> guard(m_lock);
  Track& track = m_tracks[place];
  if (isTestProbe(report)) {
    track.testing -= track.testing > 0 ? 1 : 0;
    if (track.testing == 0 && track.started == 0 && track.ended.empty()) {
      m_tracks.erase(place);  // it measures nothing
    }
    m_testProbe = report;
    if (Deciding::Standing* const standing = standingOf(place);
        standing != nullptr && !report.silent) {
      endSilence(*standing);
    }
    return;
  }
  const bool isSample = SelectionRules::isSample(report.status);
  const bool isFirstAnswer = isSample && !hasAnswered(track);
  if (isSample) {
    const long long us = 1000LL * report.rttMs;
    m_nearestUs = m_progress.placesAnswered == 0 ? us : std::min(m_nearestUs, us);
    m_slowestUs = std::max(m_slowestUs, report.networkRttUs >= 0 ? report.networkRttUs : us);
  }
  track.ended.push_back(report);
  ++m_progress.probesEnded;
  m_progress.placesAnswered += isFirstAnswer ? 1 : 0;
  noteSample(place, track);
}

ConnectPatience SelectionRecord::unanswered(const HttpProbe::Report& report,
                                            std::chrono::milliseconds waited) {
  const auto inMs = [](long long us) {
    return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::microseconds(us));
  };
  ConnectPatience::Known known;
  known.testsWay = isTestProbe(report);
  {
    const Place place = placeOf(report.host, report.port);
    const CAutoLockT<CManualLock> guard(m_lock);
    if (!known.testsWay) {
      const Track& track = m_tracks[place];
      known.wasSilent = !track.ended.empty() && track.ended.back().silent;
      known.othersAnswered = m_progress.placesAnswered > (hasAnswered(track) ? 1 : 0);
      known.nearest = inMs(m_nearestUs);
      known.slowest = inMs(m_slowestUs);
      known.manyAreSilent = manyAreSilent();
      known.manyWereLate = manyWereLate();
    }
    // Before the first attempt, a name may be looked up for long.
    if (Deciding::Standing* const standing = standingOf(place);
        standing != nullptr && !standing->isFinished && waited.count() > 0) {
      const auto since = MonotonicClock::now() - waited;
      m_silent += standing->silentSince ? 0 : 1;
      standing->silentSince = std::min(since, standing->silentSince.value_or(since));
    }
  }
  tellIfDecided();
  return ConnectPatience::of(known);
}

void SelectionRecord::connected(const HttpProbe::Report& report, long long rttUs) {
  if (isTestProbe(report)) {
    return;  // its end tells that it was not silent
  }
  {
    const Place place = placeOf(report.host, report.port);
    const CAutoLockT<CManualLock> guard(m_lock);
    m_slowestUs = std::max(m_slowestUs, rttUs);
    Deciding::Standing* const standing = standingOf(place);
    if (standing == nullptr || standing->isFinished) {
      return;
    }
    endSilence(*standing);
    if (rttUs >= 0 && !standing->ms) {
      standing->ms = static_cast<unsigned int>(rttUs / 1000);
    }
  }
  tellIfDecided();
}

void SelectionRecord::setRules(const Rules& rules) {
  const CAutoLockT<CManualLock> guard(m_lock);
  m_probes = rules.probes;
  m_rules.improvementPercent = rules.improvementPercent;
  for (const Candidate& candidate : rules.candidates) {
    if (m_indices.emplace(candidate.place, m_candidates.size()).second) {
      m_candidates.push_back(candidate);
    }
  }
  m_standings.resize(m_candidates.size());
  if (rules.last != nullptr) {
    m_rules.last = m_indices.at(rules.last->place);
  }
}

/// Null for what takes no part.
Deciding::Standing* SelectionRecord::standingOf(const Place& place) {
  const auto found = m_indices.find(place);
  return found == m_indices.end() ? nullptr : &m_standings[found->second];
}

/// Takes the probe that has ended last.
void SelectionRecord::noteSample(const Place& place, const Track& track) {
  Deciding::Standing* const standing = standingOf(place);
  if (standing == nullptr || standing->isFinished) {
    return;
  }
  SelectionRules::Tally tally;
  for (const HttpProbe::Report& report : track.ended) {
    tally.take(report.status, report.rttMs);
  }
  if (!track.ended.back().silent) {
    endSilence(*standing);
  }
  if (!tally.samplesMs.empty()) {
    standing->ms = SelectionRules::metricOfSamples(tally.samplesMs, m_probes);
  }
  if (tally.hasGivenUp || track.ended.size() >= m_probes) {
    standing->isFinished = true;
    m_silent -= standing->silentSince ? 1 : 0;
    standing->finishedAs = m_finished++;
    if (tally.hasGivenUp || tally.samplesMs.empty()) {
      standing->ms.reset();
    }
    m_best = Deciding::betterOf(m_standings, m_best,
                                static_cast<std::size_t>(standing - m_standings.data()));
  }
}

/// Notes an answer, a late one if the silence was one that counts.
void SelectionRecord::endSilence(Deciding::Standing& standing) {
  if (!standing.silentSince || standing.isFinished) {
    return;
  }
  const auto silence = MonotonicClock::now() - *standing.silentSince;
  m_late += silence >= ConnectPatience::silenceOf(std::chrono::milliseconds(0)) ? 1 : 0;
  --m_silent;
  standing.silentSince.reset();
}

/// A few may be gone. So many are rather held up by something that drops what opens connections.
bool SelectionRecord::manyAreSilent() const {
  constexpr std::size_t Part = 4;
  return m_silent >= Many && m_silent * Part > m_standings.size();
}

/// Packets are lost anywhere, but not so many.
bool SelectionRecord::manyWereLate() const {
  constexpr std::size_t Part = 8;
  return m_late >= Many && m_late * Part > m_standings.size();
}

void SelectionRecord::tellIfDecided() {
  Decided made;
  {
    const CAutoLockT<CManualLock> guard(m_lock);
    if (m_decided || !m_best) {
      return;
    }
    const auto now = MonotonicClock::now();
    m_rules.leastSilence = manyWereLate() ? ConnectPatience::Endless
                           : manyAreSilent()
                               ? ConnectPatience::silenceOfMany(std::chrono::ceil<milliseconds>(
                                     std::chrono::microseconds(m_slowestUs)))
                               : milliseconds(0);
    const std::optional<std::size_t> winner =
        Deciding::winnerOf(m_standings, m_rules, now, *m_best, m_rival);
    if (!winner) {
      return;
    }
    const Candidate& candidate = m_candidates[*winner];
    made = {candidate.name, candidate.headend, *m_standings[*winner].ms,
            std::chrono::duration_cast<std::chrono::milliseconds>(now - m_start)};
    m_decided = made;
  }
  decided(made);
}

std::optional<SelectionRecord::Decided> SelectionRecord::decision() const {
  const CAutoLockT<CManualLock> guard(m_lock);
  return m_decided;
}

void SelectionRecord::cutShort() {
  m_wasCutShort = true;
  cancel();
}

std::vector<CHeadendRTT> SelectionRecord::order() const {
  std::vector<std::pair<std::tuple<bool, bool, unsigned int, std::size_t>, std::string>> answered;
  {
    const CAutoLockT<CManualLock> guard(m_lock);
    for (std::size_t i = 0; i < m_standings.size(); ++i) {
      const Deciding::Standing& standing = m_standings[i];
      const std::string& headend = m_candidates[i].headend;
      if (standing.ms) {
        const bool isLater = !m_decided || headend != m_decided->headend;
        answered.push_back(
            {{isLater, !standing.isFinished, *standing.ms, standing.finishedAs}, headend});
      }
    }
  }
  std::ranges::sort(answered);
  std::vector<CHeadendRTT> headends;
  headends.reserve(answered.size());
  for (const auto& [rank, headend] : answered) {
    headends.emplace_back(headend, std::get<2>(rank));
  }
  return headends;
}

std::shared_ptr<SelectionRecord> SelectionRecord::current() {
  return std::dynamic_pointer_cast<SelectionRecord>(CTask::current());
}

void SelectionRecord::setTerms(Terms terms) {
  const CAutoLockT<CManualLock> guard(m_lock);
  m_terms = std::move(terms);
}

SelectionRecord::Terms SelectionRecord::terms() const {
  const CAutoLockT<CManualLock> guard(m_lock);
  return m_terms;
}

void SelectionRecord::notePlace(const std::string& place) {
  const CAutoLockT<CManualLock> guard(m_lock);
  m_place = place;
}

std::string SelectionRecord::place() const {
  const CAutoLockT<CManualLock> guard(m_lock);
  return m_place;
}

void SelectionRecord::noteEntry(const CCacheEntry& entry) {
  const CAutoLockT<CManualLock> guard(m_lock);
  m_entry = entry;
}

CCacheEntry SelectionRecord::entry() const {
  const CAutoLockT<CManualLock> guard(m_lock);
  return m_entry;
}

void SelectionRecord::noteBait(const HttpProbe::Report& report,
                               std::optional<HttpProbe::Report> Baits::*which) {
  const CAutoLockT<CManualLock> guard(m_lock);
  m_baits.*which = report;
}

SelectionRecord::Baits SelectionRecord::baits() const {
  const CAutoLockT<CManualLock> guard(m_lock);
  return m_baits;
}

SelectionRecord::Progress SelectionRecord::progress() const {
  const CAutoLockT<CManualLock> guard(m_lock);
  return m_progress;
}

std::optional<HttpProbe::Report> SelectionRecord::testProbe() const {
  const CAutoLockT<CManualLock> guard(m_lock);
  return m_testProbe;
}

std::map<Place, SelectionRecord::Track> SelectionRecord::tracks() const {
  const CAutoLockT<CManualLock> guard(m_lock);
  return m_tracks;
}
