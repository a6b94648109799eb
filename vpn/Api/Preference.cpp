// The table of all preferences, the one place that knows their names, defaults and ranges, and the
// preferences that one file sets. A value that `findError` accepts can be used without a check.

#include "vpn/Api/Preference.h"

#include <algorithm>
#include <charconv>

#include "vpn/Common/Utility/URL.h"

// Never freed: threads that are still running while the process ends may compare with them.
const std::string& PreferenceBase::PreferenceEnabled = *new std::string("true");
const std::string& PreferenceBase::ProxyOverride = *new std::string("override");
const std::string& PreferenceBase::ProxySystem = *new std::string("system");
const std::string& PreferenceBase::ProxyNone = *new std::string("none");
const std::string& PreferenceBase::RoundTripNetwork = *new std::string("network");
const std::string& PreferenceBase::RoundTripResponse = *new std::string("response");

namespace {

using Definition = PreferenceBase::Definition;

Definition numberOf(PreferenceId id, const char* name, const char* defaultValue, const char* unit,
                    unsigned int least, unsigned int most) {
  return {id, name, defaultValue, true, unit, least, most, {}};
}

constexpr unsigned int HoursOfAYear = 8760;
constexpr unsigned int TenMinutesMs = 600000;
// A shorter budget passes before one far headend has answered.
constexpr unsigned int LeastBudgetMs = 100;
// The probe counts whole seconds.
constexpr unsigned int OneSecondMs = 1000;
constexpr unsigned int OneMinuteMs = 60000;

// Never freed, as above.
const auto& allDefinitions = *new std::vector<Definition>{
    {.id = ProxySettings,
     .name = "ProxySettings",
     .defaultValue = "system",
     .words = {"system", "none", "override"},
     .isForProfiles = false},
    {.id = ProxyHost, .name = "ProxyHost", .defaultValue = "", .isForProfiles = false},
    {.id = ProxyPort,
     .name = "ProxyPort",
     .defaultValue = "",
     .unit = "",
     .least = 1,
     .most = 65535,
     .isForProfiles = false},
    // The profile's value is compared with "true" by its reader, so any other value means off.
    {.id = EnableAutomaticServerSelection,
     .name = "EnableAutomaticServerSelection",
     .defaultValue = "false",
     .checkedByReader = true,
     .words = {"true", "false"},
     .isForPreferences = false},
    numberOf(SelectionResumeTime, "SelectionResumeTime", "4", "hours", 0, HoursOfAYear),
    numberOf(SelectionImprovement, "SelectionImprovement", "20", "percent", 0, 1000),
    numberOf(SelectionClearCache, "SelectionClearCache", "14", "days", 1, 365),
    numberOf(SelectionConnectTimeout, "SelectionConnectTimeout", "10000", "ms", LeastBudgetMs,
             TenMinutesMs),
    numberOf(SelectionReconnectTimeout, "SelectionReconnectTimeout", "5000", "ms", LeastBudgetMs,
             TenMinutesMs),
    numberOf(SelectionPingTimeout, "SelectionPingTimeout", "2000", "ms", OneSecondMs, OneMinuteMs),
    numberOf(SelectionPingsPerHeadend, "SelectionPingsPerHeadend", "3", "probes", 1, 100),
    numberOf(SelectionTestPingTimeout, "SelectionTestPingTimeout", "5", "seconds", 1, 60),
    numberOf(SelectionMaxResults, "SelectionMaxResults", "100", "results", 1, 100000),
    {.id = RoundTripTime,
     .name = "RoundTripTime",
     .defaultValue = "auto",
     .words = {"auto", "network", "response"}},
    {.id = SilentHeadends,
     .name = "SilentHeadends",
     .defaultValue = "leave",
     .words = {"leave", "wait"}},
    {.id = SelectionNeedsService,
     .name = "SelectionNeedsService",
     .defaultValue = "false",
     .words = {"true", "false"}},
};

std::string allowedNumbers(const Definition& definition) {
  std::string text = "a whole number from " + std::to_string(definition.least) + " to " +
                     std::to_string(definition.most);
  return *definition.unit != '\0' ? text + " (" + definition.unit + ")" : text;
}

std::string allowedWords(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += text.empty() ? "" : &word == &words.back() ? " or " : ", ";
    text += "\"" + word + "\"";
  }
  return text;
}

std::string findHostError(const std::string& value) {
  const std::string error = URL::findError(value);
  if (!error.empty()) {
    return "must be a host name or an address: " + error;
  }
  const URL url(value);
  if (url.getProtocol() != URLPROTOCOL_NONE || !url.getPort().empty() ||
      !url.getLocation().empty() || value.find_first_of(" \t\r\n") != std::string::npos) {
    return "must be a host name or an address alone, without scheme, port, path and blanks";
  }
  return {};
}

const Definition* found(std::vector<Definition>::const_iterator definition) {
  return definition == allDefinitions.end() ? nullptr : &*definition;
}

}  // namespace

std::span<const PreferenceBase::Definition> PreferenceBase::definitions() { return allDefinitions; }

const PreferenceBase::Definition* PreferenceBase::find(const std::string& name) {
  return found(std::ranges::find(allDefinitions, name, &Definition::name));
}

const PreferenceBase::Definition* PreferenceBase::find(PreferenceId id) {
  return found(std::ranges::find(allDefinitions, id, &Definition::id));
}

std::string PreferenceBase::findError(const Definition& definition, const std::string& value) {
  if (value == definition.defaultValue) {
    return {};
  }
  if (definition.unit != nullptr) {
    unsigned int ignored = 0;
    return parseNumber(definition, value, ignored) ? std::string()
                                                   : "must be " + allowedNumbers(definition);
  }
  if (definition.words.empty()) {
    return findHostError(value);
  }
  return std::ranges::count(definition.words, value) != 0
             ? std::string()
             : "must be " + allowedWords(definition.words);
}

bool PreferenceBase::parseNumber(const Definition& definition, const std::string& value,
                                 unsigned int& number) {
  unsigned int parsed = 0;
  const char* const end = value.data() + value.size();
  const std::from_chars_result result = std::from_chars(value.data(), end, parsed);
  if (result.ec != std::errc() || result.ptr != end || parsed < definition.least ||
      parsed > definition.most) {
    return false;
  }
  number = parsed;
  return true;
}

bool PreferenceInfo::getPreference(const PreferenceId& id, Preference*& preference) const {
  const auto found = m_preferences.find(id);
  if (found == m_preferences.end()) {
    return false;
  }
  // The interface has no const here, but a Preference has no operation that changes it.
  preference = const_cast<Preference*>(&found->second);
  return true;
}

void PreferenceInfo::set(const Preference& preference) {
  m_preferences.insert_or_assign(preference.getPreferenceId(), preference);
}
