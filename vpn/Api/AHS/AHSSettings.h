#pragma once

/// The settings of automatic headend selection. Read once per run.
struct HS_SETTINGS {
  /// Automatic selection as a whole: what `EnableAutomaticServerSelection` is in the preferences in
  /// force. Profiles alone may set it, so it is the default, off; whether a headend takes part is
  /// decided per profile.
  bool bAHSEnabled;
  /// Hours of suspension after which a client should select anew.
  unsigned int nResumeTime;
  /// How much better another headend must be on a reconnection, in percent.
  unsigned int nImprovement;
  /// Days for which a cached result counts.
  unsigned int nClearCache;
  /// Time limit of a selection, in milliseconds, for every reason but a reconnection.
  unsigned int nConnectTimeout;
  /// The same for a reconnection.
  unsigned int nReconnectTimeout;
  /// Time limit of one probe, in milliseconds.
  unsigned int nPingTimeout;
  /// Probes sent to each headend.
  unsigned int nPingsPerHeadend;
  /// Time limit of the test probe. It is handed to the probe as it stands, which takes seconds.
  unsigned int nTestPingTimeout;
  /// Largest number of results a client should show.
  unsigned int nMaxResults;
};

/// Reads the settings from the preferences in force.
class CAHSSettings {
 public:
  CAHSSettings() = delete;

  /// Fills every field. A preference that is missing, not a number or out of its range (see
  /// docs/profiles.md) gives the default, the latter two with a warning in the log; without
  /// preferences all are defaults. Any thread may call it.
  static void GetSettings(HS_SETTINGS& settings);
};
