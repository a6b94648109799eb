// The preference manager of the process. It reads files before anyone can acquire it, so all that
// it hands out is constant.

#include "vpn/Api/PreferenceMgr.h"

#include <sys/stat.h>

#include <cerrno>
#include <new>
#include <utility>

#include "vpn/Common/Logging/AppLog.h"

namespace {

constexpr const char* SourceFile = "vpn/Api/PreferenceMgr";

/// Name of the profile that headends given by the caller make up.
constexpr const char* GivenProfile = "given addresses";

/// The reader reports a file that exists but cannot be examined.
bool mayExist(const std::string& path) {
  struct stat status = {};
  return ::stat(path.c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

}  // namespace

CManualLock& PreferenceMgr::sm_instanceLock = *new CManualLock();
PreferenceMgr* PreferenceMgr::sm_pInstance = nullptr;
unsigned int PreferenceMgr::sm_uiAcquisitionCount = 0;

STATUSCODE PreferenceMgr::createInstance(const Sources& sources) {
  CAutoLockT<CManualLock> guard(sm_instanceLock);
  if (sm_pInstance != nullptr) {
    return PREFERENCEMGR_ERROR_ALREADY_EXISTS;
  }
  try {
    sm_pInstance = new PreferenceMgr(sources);
  } catch (const std::bad_alloc&) {
    return PREFERENCEMGR_ERROR_MEMALLOC_FAILED;
  }
  sm_uiAcquisitionCount = 1;
  return PREFERENCEMGR_SUCCESS;
}

PreferenceMgr* PreferenceMgr::acquireInstance() {
  CAutoLockT<CManualLock> guard(sm_instanceLock);
  if (sm_pInstance != nullptr) {
    ++sm_uiAcquisitionCount;
  }
  return sm_pInstance;
}

void PreferenceMgr::releaseInstance() {
  CAutoLockT<CManualLock> guard(sm_instanceLock);
  if (--sm_uiAcquisitionCount == 0) {
    sm_pInstance = nullptr;
    delete this;
  }
}

PreferenceMgr::PreferenceMgr(const Sources& sources) : m_sources(sources) {
  loadPreferences(sources.userPreferencesFile, m_userPreferences);
  reportProxyOfUser();
  loadPreferences(sources.globalPreferencesFile, m_globalPreferences);
  preferCaller();
  if (sources.trustFiles) {
    m_profileMgr.trustFiles();
  }
  if (!sources.headends.empty()) {
    m_profileMgr.addHeadends(GivenProfile, sources.headends);
  }
  if (!sources.profileDirectory.empty()) {
    m_profileMgr.loadDirectory(sources.profileDirectory);
  }
  const std::vector<FileProblem>& problems = m_profileMgr.getProblems();
  m_problems.insert(m_problems.end(), problems.begin(), problems.end());
  for (const FileProblem& problem : m_problems) {
    CAppLog::LogDebugMessage("PreferenceMgr", SourceFile, __LINE__, Logging::DBG_Warning, "%s",
                             problem.toString().c_str());
  }
}

STATUSCODE PreferenceMgr::getProfileMgr(ProfileMgr*& profileMgr) {
  profileMgr = &m_profileMgr;
  return PREFERENCEMGR_SUCCESS;
}

STATUSCODE PreferenceMgr::getPreferenceValue(PreferenceId id, std::string& value) {
  const std::vector<Setting> settings = getSettings(id);
  if (settings.empty()) {
    return PREFERENCEMGR_ERROR_BAD_PARAMETER;
  }
  value = settings.front().value;
  return PREFERENCEMGR_SUCCESS;
}

std::vector<PreferenceMgr::Setting> PreferenceMgr::getSettings(PreferenceId id) const {
  std::vector<Setting> settings;
  const PreferenceBase::Definition* definition = PreferenceBase::find(id);
  if (definition == nullptr) {
    return settings;
  }
  addProfileSetting(id, settings);
  if (id != ProxyHost && id != ProxyPort) {
    addFileSetting(User, id, settings);
  }
  if (settings.size() == 2 && settings.front().isUserControllable) {
    std::swap(settings.front(), settings.back());
  }
  if (const auto callers = m_sources.preferences.find(id); callers != m_sources.preferences.end()) {
    settings.insert(settings.begin(), {Setting::Origin::Caller, callers->second, "", 0, "", false});
  }
  addFileSetting(Global, id, settings);
  settings.push_back({Setting::Origin::Default, definition->defaultValue, "", 0, "", false});
  return settings;
}

STATUSCODE PreferenceMgr::getParsedPreferenceFile(PreferenceScope scope,
                                                  UserPreferences*& preferences) {
  preferences = scope == User ? &m_userPreferences : &m_globalInForce;
  return PREFERENCEMGR_SUCCESS;
}

void PreferenceMgr::loadPreferences(const std::string& path, UserPreferences& preferences) {
  if (path.empty() || !mayExist(path)) {
    return;
  }
  ProfileFile parsed;
  const FileTrust::Check check =
      m_sources.trustFiles ? FileTrust::Check::Waived : FileTrust::Check::Strict;
  if (readConfigurationFile(path, ConfigurationKind::Preferences, parsed, m_problems, check)) {
    preferences.setPreferences(parsed.preferences);
  }
}

// The proxy belongs to the machine, so its host and port count in the global file alone.
void PreferenceMgr::reportProxyOfUser() {
  for (const PreferenceId id : {ProxyHost, ProxyPort}) {
    Preference* preference = nullptr;
    if (m_userPreferences.getPreferences().getPreference(id, preference)) {
      m_problems.push_back(
          {m_sources.userPreferencesFile, preference->getLine(), preference->getColumn(),
           std::string(PreferenceBase::find(id)->name) +
               " has no effect in a user's preferences; set it in the global ones"});
    }
  }
}

// A run reads the proxy's host and port from the global file.
void PreferenceMgr::preferCaller() {
  PreferenceInfo global = m_globalPreferences.getPreferences();
  for (const auto& [id, value] : m_sources.preferences) {
    global.set(Preference(id, value, false));
  }
  m_globalInForce.setPreferences(global);
}

void PreferenceMgr::addProfileSetting(PreferenceId id, std::vector<Setting>& settings) const {
  if (id == EnableAutomaticServerSelection) {
    return;  // each profile's own
  }
  for (const auto& [name, profile] : m_profileMgr.getFileInitMap()) {
    Preference* preference = nullptr;
    if (profile->getPreferences().getPreference(id, preference)) {
      settings.push_back({Setting::Origin::Profile, preference->getPreferenceValue(),
                          m_profileMgr.getProfilePath(name), preference->getLine(), name,
                          preference->isUserControllable()});
      return;
    }
  }
}

void PreferenceMgr::addFileSetting(PreferenceScope scope, PreferenceId id,
                                   std::vector<Setting>& settings) const {
  const UserPreferences& file = scope == User ? m_userPreferences : m_globalPreferences;
  Preference* preference = nullptr;
  if (!file.getPreferences().getPreference(id, preference)) {
    return;
  }
  const bool isUsers = scope == User;
  settings.push_back({isUsers ? Setting::Origin::User : Setting::Origin::Global,
                      preference->getPreferenceValue(),
                      isUsers ? m_sources.userPreferencesFile : m_sources.globalPreferencesFile,
                      preference->getLine(), "", false});
}
