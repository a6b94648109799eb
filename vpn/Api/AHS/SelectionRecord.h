#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vpn/Api/AHS/CacheEntry.h"
#include "vpn/Api/AHS/Candidates.h"
#include "vpn/Api/AHS/Deciding.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/IP/ProbeTask.h"
#include "vpn/include/Locks.h"

/// What is known of one selection while it runs: the task of the run's threads. Keeps every probe
/// that measures a headend, the test probe, which tries the way through a proxy and asks for all
/// headers, and the cache entry that the run used or stored. Any thread may call anything.
class SelectionRecord : public ProbeTask {
 public:
  /// The probes of one place.
  struct Track {
    unsigned int started = 0;
    std::vector<HttpProbe::Report> ended;  ///< in the order in which they ended
    unsigned int testing = 0;              ///< probes that test the way and are out
  };
  /// How far the measurement is.
  struct Progress {
    unsigned int probesStarted = 0;
    unsigned int probesEnded = 0;
    unsigned int placesAnswered = 0;
  };

  /// The choice before the end of the measurement; see `Deciding`.
  struct Decided {
    std::string name;  ///< of the host entry
    std::string headend;
    unsigned int metricMs = 0;
    std::chrono::milliseconds after{0};  ///< since the record was made
  };

  /// Probes of what cannot answer: what answers them answers for everybody. None before they ended.
  struct Baits {
    std::optional<HttpProbe::Report> address;  ///< of an address that nobody has
    std::optional<HttpProbe::Report> name;     ///< of a name that nobody has
  };

  void probeStarted(const HttpProbe::Report& report) override;
  void probeEnded(const HttpProbe::Report& report) override;
  ConnectPatience unanswered(const HttpProbe::Report& report,
                             std::chrono::milliseconds waited) override;
  void connected(const HttpProbe::Report& report, long long rttUs) override;
  void noteShortage(Shortage what) noexcept override { m_shortage = what; }

  SelectionRecord();

  /// The record of the selection that this thread works for; null for none.
  static std::shared_ptr<SelectionRecord> current();

  /// What a selection asks for beyond the run's arguments.
  struct Terms {
    /// How its probes leave the machine. The cache treats another way as another place. Printable
    /// ASCII.
    std::vector<std::string> way = {};
    /// The cache finds nothing for it, but stores what it measures.
    bool measuresNow = false;
    /// What is older is no hit.
    std::optional<std::chrono::seconds> maxAge = {};
    /// The run's reason, its candidates as it delivers them, and which of them was used last.
    unsigned int reason = 0;
    std::vector<std::string> headends = {};
    std::string last = {};
  };
  /// To be set before the run starts.
  void setTerms(Terms terms);
  Terms terms() const;

  /// What takes part and how the run chooses, without which nothing is decided. To be set before
  /// the run starts.
  struct Rules {
    std::vector<Candidate> candidates;
    unsigned int probes = 0;  ///< to each
    unsigned int improvementPercent = 0;
    const Candidate* last = nullptr;  ///< on a reconnection the headend used last, one of them
  };
  void setRules(const Rules& rules);
  std::optional<Decided> decision() const;

  /// Once it is decided, ends the probes that are out. What was measured is remembered, unlike that
  /// of a cancelled run.
  void cutShort();
  /// Whether it was cancelled otherwise.
  bool wasDropped() const noexcept { return isCancelled() && !m_wasCutShort; }
  /// The headends that have answered, and how far they are as far as known: the decided one, those
  /// that have finished, the others; each part the nearest first.
  std::vector<CHeadendRTT> order() const;

  /// Where the run looked into the cache, as the cache writes it; empty if that cannot be told.
  void notePlace(const std::string& place);
  std::string place() const;

  /// The run has used or stored this entry of the cache.
  void noteEntry(const CCacheEntry& entry);
  /// That entry; one without records if there is none.
  CCacheEntry entry() const;

  /// What this machine lacked last.
  Shortage shortage() const noexcept { return m_shortage; }

  /// A bait's probe has ended.
  void noteBait(const HttpProbe::Report& report, std::optional<HttpProbe::Report> Baits::*which);
  Baits baits() const;

  Progress progress() const;
  std::map<Place, Track> tracks() const;
  /// The test probe that has ended; none before it has.
  std::optional<HttpProbe::Report> testProbe() const;

  /// Whether a probe tests the way through a proxy and measures no headend.
  static bool isTestProbe(const HttpProbe::Report& report);

 protected:
  /// `probeEnded` without the decision that it may bring, which `tellIfDecided` tells.
  void noteEnd(const HttpProbe::Report& report);
  void tellIfDecided();
  /// The selection is decided: told once, by a thread of a probe, before the run's result.
  virtual void decided(const Decided& /*decision*/) {}

 private:
  void noteSample(const Place& place, const Track& track) AHS_REQUIRES(m_lock);
  Deciding::Standing* standingOf(const Place& place) AHS_REQUIRES(m_lock);
  void endSilence(Deciding::Standing& standing) AHS_REQUIRES(m_lock);
  bool manyAreSilent() const AHS_REQUIRES(m_lock);
  bool manyWereLate() const AHS_REQUIRES(m_lock);

  std::atomic<Shortage> m_shortage{Shortage::None};
  std::atomic<bool> m_wasCutShort{false};
  mutable CManualLock m_lock{SpinCount};
  std::map<Place, Track> m_tracks AHS_GUARDED_BY(m_lock);
  std::optional<HttpProbe::Report> m_testProbe AHS_GUARDED_BY(m_lock);
  /// Round trips of those that have answered, in microseconds.
  long long m_nearestUs AHS_GUARDED_BY(m_lock) = 0;
  long long m_slowestUs AHS_GUARDED_BY(m_lock) = 0;
  const MonotonicClock::time_point m_start = MonotonicClock::now();
  std::vector<Candidate> m_candidates AHS_GUARDED_BY(m_lock);  // each place once
  std::map<Place, std::size_t> m_indices AHS_GUARDED_BY(m_lock);
  std::vector<Deciding::Standing> m_standings AHS_GUARDED_BY(m_lock);
  Deciding::Rules m_rules AHS_GUARDED_BY(m_lock);
  std::size_t m_silent AHS_GUARDED_BY(m_lock) = 0;  // of those that are out
  std::size_t m_late AHS_GUARDED_BY(m_lock) = 0;    // have answered after a long silence
  unsigned int m_probes AHS_GUARDED_BY(m_lock) = 0;
  std::size_t m_finished AHS_GUARDED_BY(m_lock) = 0;
  std::optional<std::size_t> m_best AHS_GUARDED_BY(m_lock);  // of those that have finished
  std::size_t m_rival AHS_GUARDED_BY(m_lock) = 0;            // may win, as far as known
  std::optional<Decided> m_decided AHS_GUARDED_BY(m_lock);
  Baits m_baits AHS_GUARDED_BY(m_lock);
  Progress m_progress AHS_GUARDED_BY(m_lock);
  std::string m_place AHS_GUARDED_BY(m_lock);
  CCacheEntry m_entry AHS_GUARDED_BY(m_lock);
  Terms m_terms AHS_GUARDED_BY(m_lock);
};
