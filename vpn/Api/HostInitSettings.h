#pragma once

#include "vpn/Api/Preference.h"

/// What one profile file sets for its hosts. Constant once it is parsed; any thread may then read
/// it.
class HostInitSettings {
 public:
  /// @param preferences copied.
  explicit HostInitSettings(const PreferenceInfo& preferences) : m_preferences(preferences) {}

  /// All that the profile sets; belongs to this object.
  const PreferenceInfo& getPreferences() const { return m_preferences; }

  /// Whether the profile sets the preference with that attribute.
  bool isEnabled(PreferenceId id, PreferenceAttribute attribute) const {
    Preference* preference = nullptr;
    return attribute == UserControllable && m_preferences.getPreference(id, preference) &&
           preference->isUserControllable();
  }

 private:
  PreferenceInfo m_preferences;
};
