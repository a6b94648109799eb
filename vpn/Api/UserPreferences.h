#pragma once

#include <string>

#include "vpn/Api/Preference.h"

/// One parsed preferences file. Constant once it is parsed; any thread may then read it.
class UserPreferences {
 public:
  /// The manually configured proxy; empty when unset.
  /// @{
  std::string getProxyHost() const;
  std::string getProxyPort() const;
  /// @}

  /// All that the file sets; belongs to this object.
  const PreferenceInfo& getPreferences() const { return m_preferences; }

  /// Replaces what the file sets. No other thread may read meanwhile.
  void setPreferences(const PreferenceInfo& preferences) { m_preferences = preferences; }

 private:
  PreferenceInfo m_preferences;
};
