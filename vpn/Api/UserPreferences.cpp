// One parsed preferences file, with shortcuts to the proxy that a person configured in it.

#include "vpn/Api/UserPreferences.h"

namespace {

std::string valueOf(const PreferenceInfo& preferences, PreferenceId id) {
  Preference* preference = nullptr;
  return preferences.getPreference(id, preference) ? preference->getPreferenceValue()
                                                   : std::string();
}

}  // namespace

std::string UserPreferences::getProxyHost() const { return valueOf(m_preferences, ProxyHost); }

std::string UserPreferences::getProxyPort() const { return valueOf(m_preferences, ProxyPort); }
