#pragma once

#include "vpn/Api/Preference.h"

/// What one profile file sets for its hosts. Constant once it is parsed; any thread may then read
/// it.
class HostInitSettings {
 public:
  /// @param preferences copied.
  explicit HostInitSettings(const PreferenceInfo& preferences);

  /// All that the profile sets; belongs to this object.
  const PreferenceInfo& getPreferences() const;

  /// Whether the profile sets the preference with that attribute.
  bool isEnabled(PreferenceId id, PreferenceAttribute attribute) const;

 private:
  PreferenceInfo m_preferences;
};
