// Where headends and proxy come from: the host entries whose profile allows automatic selection,
// the key that names them in the cache, and the proxy that the preferences override the system's
// with.

#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Api/PreferenceMgr.h"
#include "vpn/Common/Logging/AppLog.h"
#include "vpn/include/InstanceSmartPtr.h"
#include "vpn/include/StringUtils.h"

STATUSCODE CHeadendSelection::getHeadendListFromProfile(const std::string& lastHeadend) {
  const CInstanceSmartPtr<PreferenceMgr> ispPreferenceMgr;
  if (ispPreferenceMgr == nullptr) {
    CAppLog::LogReturnCode("getHeadendListFromProfile", LogSource, __LINE__, Logging::DBG_Error,
                           "CInstanceSmartPtr<PreferenceMgr>", PREFERENCEMGR_ERROR_NO_INSTANCE, 0,
                           nullptr);
    return PREFERENCEMGR_ERROR_NO_INSTANCE;
  }
  ProfileMgr* pProfileMgr = nullptr;
  const STATUSCODE status = ispPreferenceMgr->getProfileMgr(pProfileMgr);
  if (status != 0) {
    CAppLog::LogReturnCode("getHeadendListFromProfile", LogSource, __LINE__, Logging::DBG_Error,
                           "PreferenceMgr::getProfileMgr", status, 0, nullptr);
    return status;
  }

  std::map<std::string, bool> profilesWithAHS = findProfilesWithAHS(*pProfileMgr);
  const std::map<std::string, HostProfile*> hostProfileMap = pProfileMgr->getHostProfileMap();
  const std::string lastName = CStringUtils::toLower(lastHeadend);
  for (const auto& [hostName, pProfile] : hostProfileMap) {
    if (pProfile == nullptr || !profilesWithAHS[pProfileMgr->getProfileNameFromHost(hostName)]) {
      continue;
    }
    const URL url(SelectionRules::addressOf(*pProfile));
    if (CStringUtils::toLower(hostName) == lastName) {
      m_lastHeadend = url;
    }
    m_headendList.push_back(url);  // once a name: they are the keys of a map
  }
  return 0;
}

// For each profile: may its hosts take part?
std::map<std::string, bool> CHeadendSelection::findProfilesWithAHS(ProfileMgr& profileMgr) {
  std::map<std::string, bool> profilesWithAHS;
  // A copy, as of the hosts: the loop must not hold on to the profile manager's container.
  // NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
  const std::map<std::string, HostInitSettings*> profileMap = profileMgr.getFileInitMap();
  for (const auto& [profileName, pSettings] : profileMap) {
    const SelectionRules::Participation participation = SelectionRules::participationOf(*pSettings);
    if (participation == SelectionRules::Participation::NotSet) {
      CAppLog::LogDebugMessage("getHeadendListFromProfile", LogSource, __LINE__, Logging::DBG_Error,
                               "QIB unable to get preference EnableAutomaticServerSelection");
    }
    profilesWithAHS[profileName] = SelectionRules::takesPart(participation);
  }
  return profilesWithAHS;
}

std::string CHeadendSelection::getKnownHeadends() {
  // Last headend first, so that the first one ends the key.
  std::string key;
  for (auto headend = m_headendList.rbegin(); headend != m_headendList.rend(); ++headend) {
    key += CStringUtils::toLower(headend->getHostAndPort(false)) + ";";
  }
  return key;
}

ProxyIfc* CHeadendSelection::getProxy() { return m_pProxy; }

std::string CHeadendSelection::getProxyServer() {
  const CInstanceSmartPtr<PreferenceMgr> ispPreferenceMgr;
  if (ispPreferenceMgr == nullptr) {
    CAppLog::LogReturnCode("getProxyServer", LogSource, __LINE__, Logging::DBG_Error,
                           "CInstanceSmartPtr<PreferenceMgr>", PREFERENCEMGR_ERROR_NO_INSTANCE, 0,
                           nullptr);
    return "";
  }
  std::string proxySettings;
  STATUSCODE status = ispPreferenceMgr->getPreferenceValue(ProxySettings, proxySettings);
  if (status != 0) {
    CAppLog::LogReturnCode("getProxyServer", LogSource, __LINE__, Logging::DBG_Error,
                           "PreferenceMgr::getPreferenceValue", status, 0, "ProxySettings");
    return "";
  }
  if (proxySettings != PreferenceBase::ProxyOverride) {
    return "";
  }
  UserPreferences* pGlobalPreferences = nullptr;
  status = ispPreferenceMgr->getParsedPreferenceFile(Global, pGlobalPreferences);
  if (status != 0) {
    CAppLog::LogReturnCode("getProxyServer", LogSource, __LINE__, Logging::DBG_Error,
                           "PreferenceMgr::getParsedPreferenceFile", status, 0, nullptr);
    return "";
  }
  if (pGlobalPreferences->getProxyHost().empty()) {
    return "";
  }
  std::string proxyServer = "http=http://" + pGlobalPreferences->getProxyHost();
  if (!pGlobalPreferences->getProxyPort().empty()) {
    proxyServer += ":" + pGlobalPreferences->getProxyPort();
  }
  return proxyServer;
}
