// What one profile sets for its hosts: a constant view of the profile's preferences.

#include "vpn/Api/HostInitSettings.h"

HostInitSettings::HostInitSettings(const PreferenceInfo& preferences)
    : m_preferences(preferences) {}

const PreferenceInfo& HostInitSettings::getPreferences() const { return m_preferences; }

bool HostInitSettings::isEnabled(PreferenceId id, PreferenceAttribute attribute) const {
  Preference* preference = nullptr;
  return attribute == UserControllable && m_preferences.getPreference(id, preference) &&
         preference->isUserControllable();
}
