// The one preference manager of the process. It lives from its creation until the last acquisition
// is given back; files are read before anyone can acquire it, so all it hands out is constant.

#include "vpn/Api/PreferenceMgr.h"

#include <sys/stat.h>

#include <cerrno>
#include <new>

#include "vpn/Common/Logging/AppLog.h"

namespace {

constexpr const char* SourceFile = "vpn/Api/PreferenceMgr";

/// Name of the profile that addresses given by the caller make up.
constexpr const char* AddressProfile = "given addresses";

/// A file that may be there but cannot be looked at is for the reader to report.
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

PreferenceMgr::PreferenceMgr(const Sources& sources) : m_cacheFile(sources.cacheFile) {
  loadPreferences(sources.userPreferencesFile, m_userPreferences);
  reportProxyOfUser(sources.userPreferencesFile);
  loadPreferences(sources.globalPreferencesFile, m_globalPreferences);
  chooseProxy(sources.proxy);
  if (!sources.addresses.empty()) {
    m_profileMgr.addAddresses(AddressProfile, sources.addresses);
  } else if (!sources.profileDirectory.empty()) {
    m_profileMgr.loadDirectory(sources.profileDirectory);
  }
  const std::vector<FileProblem>& problems = m_profileMgr.getProblems();
  m_problems.insert(m_problems.end(), problems.begin(), problems.end());
  logProblems();
}

PreferenceMgr::~PreferenceMgr() = default;

STATUSCODE PreferenceMgr::getProfileMgr(ProfileMgr*& profileMgr) {
  profileMgr = &m_profileMgr;
  return PREFERENCEMGR_SUCCESS;
}

STATUSCODE PreferenceMgr::getPreferenceValue(PreferenceId id, std::string& value) {
  const PreferenceBase::Definition* definition = PreferenceBase::find(id);
  if (definition == nullptr) {
    return PREFERENCEMGR_ERROR_BAD_PARAMETER;
  }
  Preference* preference = nullptr;
  if (m_userPreferences.getPreferences().getPreference(id, preference) ||
      m_globalPreferences.getPreferences().getPreference(id, preference)) {
    value = preference->getPreferenceValue();
  } else {
    value = definition->defaultValue;
  }
  return PREFERENCEMGR_SUCCESS;
}

STATUSCODE PreferenceMgr::getParsedPreferenceFile(PreferenceScope scope,
                                                  UserPreferences*& preferences) {
  switch (scope) {
    case User:
      preferences = &m_userPreferences;
      return PREFERENCEMGR_SUCCESS;
    case Global:
      preferences = &m_globalPreferences;
      return PREFERENCEMGR_SUCCESS;
  }
  return PREFERENCEMGR_ERROR_BAD_PARAMETER;
}

const std::string& PreferenceMgr::getCacheFile() const { return m_cacheFile; }

std::vector<FileProblem> PreferenceMgr::getProblems() const { return m_problems; }

void PreferenceMgr::loadPreferences(const std::string& path, UserPreferences& preferences) {
  if (path.empty() || !mayExist(path)) {
    return;
  }
  PreferenceInfo parsed;
  if (readPreferencesFile(path, parsed, m_problems)) {
    preferences.setPreferences(parsed);
  }
}

// Which proxy there is belongs to the machine, so host and port count in the global file alone.
void PreferenceMgr::reportProxyOfUser(const std::string& path) {
  for (const PreferenceId id : {ProxyHost, ProxyPort}) {
    Preference* preference = nullptr;
    if (m_userPreferences.getPreferences().getPreference(id, preference)) {
      FileProblem problem;
      problem.file = path;
      problem.text = std::string(PreferenceBase::find(id)->name) +
                     " has no effect in a user's preferences; set it in the global ones";
      m_problems.push_back(problem);
    }
  }
}

// The choice goes into both files, because a run reads the setting from whichever has it and the
// proxy from the global one.
void PreferenceMgr::chooseProxy(const Sources::Proxy& proxy) {
  if (proxy.choice == Sources::Proxy::Choice::OfFiles) {
    return;
  }
  const bool isGiven = proxy.choice == Sources::Proxy::Choice::Given;
  const Preference setting(
      ProxySettings, isGiven ? PreferenceBase::ProxyOverride : PreferenceBase::ProxyNone, false);
  PreferenceInfo user = m_userPreferences.getPreferences();
  user.set(setting);
  m_userPreferences.setPreferences(user);
  PreferenceInfo global = m_globalPreferences.getPreferences();
  global.set(setting);
  if (isGiven) {
    global.set(Preference(ProxyHost, proxy.host, false));
    global.set(Preference(ProxyPort, proxy.port, false));
  }
  m_globalPreferences.setPreferences(global);
}

void PreferenceMgr::logProblems() const {
  for (const FileProblem& problem : m_problems) {
    CAppLog::LogDebugMessage("PreferenceMgr", SourceFile, __LINE__, Logging::DBG_Warning, "%s",
                             problem.toString().c_str());
  }
}
