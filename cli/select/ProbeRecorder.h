#pragma once

#include <map>
#include <vector>

#include "cli/files/Candidates.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/include/Locks.h"

/// Remembers every probe of the process that measures a headend. The probe that only tests the way
/// through a proxy (it asks for all headers) is known as long as it is out, and then left out. Any
/// thread may call anything.
class ProbeRecorder : public HttpProbe::Watcher {
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

  void ProbeStarted(const HttpProbe::Report& report) override;
  void ProbeEnded(const HttpProbe::Report& report) override;

  Progress progress() const;
  std::map<Place, Track> tracks() const;

  /// Whether a probe that ended with this status tells a round-trip time: a refusal that came from
  /// the server is as good a measurement as a welcome.
  static bool isSample(STATUSCODE status);

 private:
  mutable CManualLock m_lock;
  std::map<Place, Track> m_tracks AHS_GUARDED_BY(m_lock);
  Progress m_progress AHS_GUARDED_BY(m_lock);
};
