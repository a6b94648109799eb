#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "vpn/Api/AHS/CacheEntry.h"
#include "vpn/Api/AHS/Candidates.h"
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
    std::vector<std::string> way;
    /// The cache finds nothing for it, but stores what it measures.
    bool measuresNow = false;
  };
  /// To be set before the run starts.
  void setTerms(Terms terms);
  Terms terms() const;

  /// The run has used or stored this entry of the cache.
  void noteEntry(const CCacheEntry& entry);
  /// That entry; one without records if there is none.
  CCacheEntry entry() const;

  /// What this machine lacked last.
  Shortage shortage() const noexcept { return m_shortage; }

  Progress progress() const;
  std::map<Place, Track> tracks() const;
  /// The test probe that has ended; none before it has.
  std::optional<HttpProbe::Report> testProbe() const;

  /// Whether a probe tests the way through a proxy and measures no headend.
  static bool isTestProbe(const HttpProbe::Report& report);

 private:
  std::atomic<Shortage> m_shortage{Shortage::None};
  mutable CManualLock m_lock;
  std::map<Place, Track> m_tracks AHS_GUARDED_BY(m_lock);
  std::optional<HttpProbe::Report> m_testProbe AHS_GUARDED_BY(m_lock);
  /// Round trips of those that have answered, in microseconds.
  long long m_nearestUs AHS_GUARDED_BY(m_lock) = 0;
  long long m_slowestUs AHS_GUARDED_BY(m_lock) = 0;
  Progress m_progress AHS_GUARDED_BY(m_lock);
  CCacheEntry m_entry AHS_GUARDED_BY(m_lock);
  Terms m_terms AHS_GUARDED_BY(m_lock);
};
