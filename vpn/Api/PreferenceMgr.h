#pragma once

/// @file
/// The preferences and profiles of the process.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "vpn/Api/Preference.h"
#include "vpn/Api/ProfileMgr.h"
#include "vpn/Api/UserPreferences.h"
#include "vpn/include/Locks.h"
#include "vpn/include/StatusCode.h"

/// Status codes of the preference manager (module 0x32).
enum PREFERENCEMGR_ERRORS : STATUSCODE {
  PREFERENCEMGR_SUCCESS = 0,
  PREFERENCEMGR_ERROR_BAD_PARAMETER = 0xFE320002,
  PREFERENCEMGR_ERROR_MEMALLOC_FAILED = 0xFE320004,
  PREFERENCEMGR_ERROR_ALREADY_EXISTS = 0xFE320008,
  PREFERENCEMGR_ERROR_NO_INSTANCE = 0xFE32000A,
};

/// The start-up of the client library creates the one instance from its files; users acquire and
/// release it in pairs, and the last release destroys it. The files are read once, at creation, and
/// everything is constant from then on. All operations may be called from any thread.
class PreferenceMgr {
 public:
  /// Where preferences and profiles come from. An empty path stands for nothing to read; a file or
  /// directory that does not exist counts as empty.
  struct Sources {
    std::string profileDirectory;       ///< its "*.xml" files are the profiles
    std::string userPreferencesFile;    ///< path of the user's own file
    std::string globalPreferencesFile;  ///< path of the machine's file
    /// Directory in which selections are kept between processes; empty: in memory only.
    std::string cacheDirectory;
    /// Headends that take part beside those of the profiles.
    std::vector<GivenHeadend> headends;
    /// The caller's own preferences, which go before every file's. Values must be allowed ones
    /// (`PreferenceBase::findError`).
    std::map<PreferenceId, std::string> preferences;
    /// How all headends are probed, whatever their entries say, where a part is given.
    /// @{
    std::optional<ProbeKind> probeKind;
    std::optional<unsigned short> probePort;
    /// @}
    /// Files are read whoever could have written them. Otherwise one that another user could have
    /// written counts as wrong; see FileTrust.
    bool trustFiles = false;

    bool operator==(const Sources&) const = default;
  };

  /// One place that gives a preference a value.
  struct Setting {
    /// Whose setting it is.
    enum class Origin { Caller, Profile, User, Global, Default };
    Origin origin = Origin::Default;  ///< whose it is
    std::string value;                ///< as it stands there
    std::string file;                 ///< empty for the caller and the default
    unsigned int line = 0;            ///< in the file
    std::string profile;              ///< its name, for one that a profile sets
    bool isUserControllable = false;  ///< the profile leaves it to the user
  };

  /// Creates the instance and acquires it for the caller. Wrong files are no failure: they are
  /// logged, listed by `getProblems`, and skipped.
  /// @return 0, PREFERENCEMGR_ERROR_ALREADY_EXISTS or PREFERENCEMGR_ERROR_MEMALLOC_FAILED.
  static STATUSCODE createInstance(const Sources& sources);

  /// The instance with its acquisition counted, or null when none exists.
  static PreferenceMgr* acquireInstance();

  /// Gives back one acquisition; the last one destroys the instance and all it has handed out.
  void releaseInstance();

  /// The profiles; they belong to this object.
  STATUSCODE getProfileMgr(ProfileMgr*& profileMgr);

  /// The value in force: the caller's choice, else that of the profiles, of the user's file, of the
  /// global file, else the default. What a profile leaves to the user, his file goes before. Of
  /// several profiles the first counts that sets it, in byte order of their names. For
  /// `EnableAutomaticServerSelection`, which is each profile's own, the default; for `ProxyHost`
  /// and `ProxyPort` the global file alone counts.
  /// @return 0, or PREFERENCEMGR_ERROR_BAD_PARAMETER for a number that is no preference.
  STATUSCODE getPreferenceValue(PreferenceId id, std::string& value);

  /// All places that set a preference, the one in force first and the default last; empty for a
  /// number that is no preference.
  std::vector<Setting> getSettings(PreferenceId id) const;

  /// The parsed file of a scope, an empty one when there is no such file; belongs to this object.
  /// The caller's preferences stand in the global one in place of the file's.
  /// @return 0.
  STATUSCODE getParsedPreferenceFile(PreferenceScope scope, UserPreferences*& preferences);

  /// See `Sources::cacheDirectory`.
  const std::string& getCacheDirectory() const { return m_sources.cacheDirectory; }

  /// What was wrong, in the order of reading: the user's preferences, the global ones, the
  /// profiles.
  std::vector<FileProblem> getProblems() const { return m_problems; }

  PreferenceMgr(const PreferenceMgr&) = delete;
  PreferenceMgr& operator=(const PreferenceMgr&) = delete;

 private:
  explicit PreferenceMgr(const Sources& sources);
  ~PreferenceMgr() = default;

  void loadPreferences(const std::string& path, UserPreferences& preferences);
  void reportProxyOfUser();
  void preferCaller();
  void addProfileSetting(PreferenceId id, std::vector<Setting>& settings) const;
  void addFileSetting(PreferenceScope scope, PreferenceId id, std::vector<Setting>& settings) const;

  // The lock is never freed, so that a thread that outlives the process's static objects may still
  // ask for the instance.
  static CManualLock& sm_instanceLock;
  static PreferenceMgr* sm_pInstance AHS_GUARDED_BY(sm_instanceLock);
  static unsigned int sm_uiAcquisitionCount AHS_GUARDED_BY(sm_instanceLock);

  // Written by the constructor only, hence without a lock.
  ProfileMgr m_profileMgr;
  UserPreferences m_userPreferences;
  UserPreferences m_globalPreferences;
  UserPreferences m_globalInForce;  // with the caller's in place of the file's
  const Sources m_sources;
  std::vector<FileProblem> m_problems;
};
