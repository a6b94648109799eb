#pragma once

/// @file
/// What preferences there are.

#include <map>
#include <span>
#include <string>
#include <vector>

/// The preferences of the client, by number. The names in the files and the defaults are in
/// `PreferenceBase`.
enum PreferenceId {
  ProxySettings = 20,
  ProxyHost = 21,
  ProxyPort = 22,
  EnableAutomaticServerSelection = 50,
  SelectionResumeTime = 51,
  SelectionImprovement = 52,
  SelectionClearCache = 53,
  SelectionConnectTimeout = 54,
  SelectionReconnectTimeout = 55,
  SelectionPingTimeout = 56,
  SelectionPingsPerHeadend = 57,
  SelectionTestPingTimeout = 58,
  SelectionMaxResults = 59,
  RoundTripTime = 60,
  SilentHeadends = 65,
  SelectionNeedsService = 66,
};

/// What a file can say of a preference besides its value.
enum PreferenceAttribute {
  /// The user may change the preference.
  UserControllable = 1,
};

/// Whose preference file.
enum PreferenceScope {
  User = 0,
  Global = 1,
};

/// Names, defaults and fixed values of the preferences. Constant; any thread may read it.
class PreferenceBase {
 public:
  PreferenceBase() = delete;

  /// "true": the value of a switch that is on.
  static const std::string& PreferenceEnabled;
  /// "override": the value of `ProxySettings` that means the host and port in the preferences.
  static const std::string& ProxyOverride;
  /// "system": the value of `ProxySettings` that means what the system is set to.
  static const std::string& ProxySystem;
  /// "none": the value of `ProxySettings` that means a direct connection.
  static const std::string& ProxyNone;
  /// "network": the value of `RoundTripTime` that means the network's round trip, whatever speaks
  /// against it.
  static const std::string& RoundTripNetwork;
  /// "response": the value of `RoundTripTime` that means the headend's answer.
  static const std::string& RoundTripResponse;

  /// One preference that a file may set.
  struct Definition {
    PreferenceId id;           ///< its number
    const char* name;          ///< as it is written in the files, letter case included
    const char* defaultValue;  ///< in force when no file sets it
    /// A wrong value is loaded all the same, because the preference's reader checks it. Otherwise
    /// it is left out, as if the file did not set it.
    bool checkedByReader = false;
    /// For a number: unit, empty for none, and range; for everything else: null.
    const char* unit = nullptr;
    unsigned int least = 0;            ///< smallest number allowed
    unsigned int most = 0;             ///< largest number allowed
    std::vector<std::string> words{};  ///< the values allowed; neither unit nor words: a host
    bool isForProfiles = true;         ///< a profile may set it
    bool isForPreferences = true;      ///< a preferences file may set it
  };

  /// All preferences.
  static std::span<const Definition> definitions();
  /// The preference of a name (exact) or a number; null if there is none.
  /// @{
  static const Definition* find(const std::string& name);
  static const Definition* find(PreferenceId id);
  /// @}

  /// What is wrong with `value` for a preference, as a phrase that says what is allowed; empty if
  /// it may stand. The default may always stand.
  static std::string findError(const Definition& definition, const std::string& value);

  /// Reads the value of a preference that is a number.
  /// @param definition the preference.
  /// @param value as a file has it.
  /// @param number receives it; left alone on failure.
  /// @return false if `value` is not a decimal number within the preference's range.
  static bool parseNumber(const Definition& definition, const std::string& value,
                          unsigned int& number);
};

/// One preference as a file sets it.
class Preference {
 public:
  /// @param id which one.
  /// @param value as the file has it, checked or not.
  /// @param userControllable the file leaves it to the user.
  /// @param line, column place in its file, 0 if it comes from no file.
  Preference(PreferenceId id, const std::string& value, bool userControllable,
             unsigned int line = 0, unsigned int column = 0)
      : m_id(id),
        m_value(value),
        m_userControllable(userControllable),
        m_line(line),
        m_column(column) {}

  /// What it was made with.
  /// @{
  PreferenceId getPreferenceId() const { return m_id; }
  const std::string& getPreferenceValue() const { return m_value; }
  bool isUserControllable() const { return m_userControllable; }
  unsigned int getLine() const { return m_line; }
  unsigned int getColumn() const { return m_column; }
  /// @}

 private:
  PreferenceId m_id;
  std::string m_value;
  bool m_userControllable;
  unsigned int m_line;
  unsigned int m_column;
};

/// The preferences that one file sets.
class PreferenceInfo {
 public:
  /// Finds a preference. The object found belongs to this one and is constant like it.
  /// @param id which one.
  /// @param preference receives the preference; left alone when the file does not set it.
  /// @return whether the file sets it.
  bool getPreference(const PreferenceId& id, Preference*& preference) const;

  /// All that the file sets.
  const std::map<PreferenceId, Preference>& all() const { return m_preferences; }

  /// Adds a preference, or replaces it. Not while another thread may read.
  void set(const Preference& preference);

 private:
  std::map<PreferenceId, Preference> m_preferences;
};
