// A test's own preferences and profiles, without files; every step can fail.

#include "tests/unit/selection/doubles/preferences.h"

#include "tests/support/private_access.h"
#include "vpn/Api/PreferenceMgr.h"
#include "vpn/Api/ProfileMgr.h"
#include "vpn/Api/UserPreferences.h"

AHS_EXPOSE(Profiles, &ProfileMgr::m_fileInitMap);
AHS_EXPOSE(Hosts, &ProfileMgr::m_hostProfileMap);

namespace doubles {

void PreferenceScript::forgetAllProfilesBut(const std::string& name) const {
  std::erase_if(tests::member<tests::Profiles>(*handedOut),
                [&name](const auto& profile) { return profile.first != name; });
}

void PreferenceScript::forgetAllHostsBut(const std::string& name) const {
  std::erase_if(tests::member<tests::Hosts>(*handedOut),
                [&name](const auto& host) { return host.first != name; });
}

void PreferenceScript::reset() { *this = PreferenceScript{}; }

void PreferenceScript::useAddresses(const std::vector<std::string>& addresses) {
  profiles = {{.name = "profile"}};
  hosts.clear();
  for (const std::string& address : addresses) {
    hosts.push_back({.name = address, .address = address, .profile = "profile"});
  }
}

}  // namespace doubles

ProfileMgr::ProfileMgr() {
  const doubles::PreferenceScript& script = doubles::preferences();
  for (const auto& profile : script.profiles) {
    PreferenceInfo info;
    if (profile.automaticSelection) {
      info.set(Preference(EnableAutomaticServerSelection, *profile.automaticSelection,
                          profile.userControllable));
    }
    m_settings.push_back(std::make_unique<HostInitSettings>(info));
    m_fileInitMap[profile.name] = m_settings.back().get();
  }
  for (const auto& host : script.hosts) {
    if (host.isNull) {
      m_hostProfileMap[host.name] = nullptr;
      continue;
    }
    m_hosts.push_back(std::make_unique<HostProfile>(host.profile, host.name, host.address, 0));
    m_hostProfileMap[host.name] = m_hosts.back().get();
  }
}

void ProfileMgr::loadDirectory(const std::string&) {}
void ProfileMgr::addHeadends(const std::string&, const std::vector<GivenHeadend>&) {}

const std::map<std::string, HostInitSettings*>& ProfileMgr::getFileInitMap() const {
  return m_fileInitMap;
}

const std::map<std::string, HostProfile*>& ProfileMgr::getHostProfileMap() const {
  return m_hostProfileMap;
}

std::string ProfileMgr::getProfileNameFromHost(const std::string& hostName) const {
  const doubles::PreferenceScript& script = doubles::preferences();
  if (script.whenAskedForAProfile) {
    script.whenAskedForAProfile();
  }
  for (const auto& host : script.hosts) {
    if (host.name == hostName) {
      return host.profile;
    }
  }
  return {};
}

std::string UserPreferences::getProxyHost() const { return doubles::preferences().proxyHost; }
std::string UserPreferences::getProxyPort() const { return doubles::preferences().proxyPort; }

PreferenceMgr::PreferenceMgr(const Sources&) {}

PreferenceMgr* PreferenceMgr::acquireInstance() {
  doubles::PreferenceScript& script = doubles::preferences();
  if (!script.hasInstance) {
    return nullptr;
  }
  ++script.acquired;
  return new PreferenceMgr(Sources{});
}

void PreferenceMgr::releaseInstance() {
  ++doubles::preferences().released;
  delete this;
}

STATUSCODE PreferenceMgr::getProfileMgr(ProfileMgr*& profileMgr) {
  if (doubles::preferences().profileMgrStatus == 0) {
    profileMgr = &m_profileMgr;
    doubles::preferences().handedOut = profileMgr;
  }
  return doubles::preferences().profileMgrStatus;
}

STATUSCODE PreferenceMgr::getPreferenceValue(PreferenceId id, std::string& value) {
  doubles::preferences().valuesAsked.push_back(id);
  if (doubles::preferences().valueStatus == 0) {
    value = doubles::preferences().proxySettings;
  }
  return doubles::preferences().valueStatus;
}

STATUSCODE PreferenceMgr::getParsedPreferenceFile(PreferenceScope scope,
                                                  UserPreferences*& preferences) {
  doubles::preferences().filesAsked.push_back(scope);
  if (doubles::preferences().fileStatus == 0) {
    preferences = &m_globalPreferences;
  }
  return doubles::preferences().fileStatus;
}
