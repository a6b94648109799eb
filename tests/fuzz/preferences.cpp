// Preferences files. Whatever the bytes, as the user's file, the machine's or both: every setting
// that a selection reads is within its range, and a proxy that is taken is a host and a port.

#include <string>

#include "tests/fuzz/problems.h"
#include "tests/fuzz/require.h"
#include "vpn/Api/AHS/AHSSettings.h"
#include "vpn/Api/PreferenceMgr.h"
#include "vpn/Common/Utility/URL.h"

namespace {

std::string valueOf(const PreferenceInfo& preferences, PreferenceId id) {
  Preference* preference = nullptr;
  return preferences.getPreference(id, preference) ? preference->getPreferenceValue() : "unset";
}

void requireOnlyRightValues(const PreferenceInfo& preferences) {
  for (const auto& [id, preference] : preferences.all()) {
    const PreferenceBase::Definition& definition = *PreferenceBase::find(id);
    REQUIRE(id != EnableAutomaticServerSelection);
    REQUIRE(!preference.isUserControllable());
    REQUIRE(definition.checkedByReader ||
            PreferenceBase::findError(definition, preference.getPreferenceValue()).empty());
  }
}

void requireProxy(PreferenceMgr& manager) {
  UserPreferences* global = nullptr;
  REQUIRE(manager.getParsedPreferenceFile(Global, global) == PREFERENCEMGR_SUCCESS);
  const std::string host = global->getProxyHost();
  const std::string port = global->getProxyPort();
  const URL url(host);
  REQUIRE(host.empty() || !url.getHost().empty());
  REQUIRE(url.getPort().empty() && url.getLocation().empty());
  REQUIRE(port.empty() || URL("h:" + port).getHost() == "h");
}

struct Range {
  unsigned int HS_SETTINGS::*field;
  unsigned int least;
  unsigned int most;
};

// As the documentation has them.
constexpr Range Ranges[] = {
    {&HS_SETTINGS::nResumeTime, 0, 8760},
    {&HS_SETTINGS::nImprovement, 0, 1000},
    {&HS_SETTINGS::nClearCache, 1, 365},
    {&HS_SETTINGS::nConnectTimeout, 3000, 600000},
    {&HS_SETTINGS::nReconnectTimeout, 100, 600000},
    {&HS_SETTINGS::nPingTimeout, 1000, 60000},
    {&HS_SETTINGS::nPingsPerHeadend, 1, 100},
    {&HS_SETTINGS::nTestPingTimeout, 1, 60},
    {&HS_SETTINGS::nMaxResults, 1, 100000},
};

void requireSettingsWithinRange() {
  HS_SETTINGS settings{};
  CAHSSettings::GetSettings(settings);
  REQUIRE(!settings.bAHSEnabled);
  for (const Range& range : Ranges) {
    REQUIRE(settings.*range.field >= range.least);
    REQUIRE(settings.*range.field <= range.most);
  }
}

/// The manager of the process with the file in both places.
void requireRightManager(const std::string& file, const PreferenceInfo& preferences) {
  PreferenceMgr::Sources sources;
  sources.trustFiles = true;
  sources.userPreferencesFile = file;
  sources.globalPreferencesFile = file;
  REQUIRE(PreferenceMgr::createInstance(sources) == PREFERENCEMGR_SUCCESS);
  PreferenceMgr* const manager = PreferenceMgr::acquireInstance();
  requireSettingsWithinRange();
  requireProxy(*manager);
  for (const PreferenceBase::Definition& definition : PreferenceBase::definitions()) {
    std::string value;
    REQUIRE(manager->getPreferenceValue(definition.id, value) == PREFERENCEMGR_SUCCESS);
    const std::string found = valueOf(preferences, definition.id);
    REQUIRE(value == (found == "unset" ? definition.defaultValue : found));
  }
  manager->releaseInstance();
  manager->releaseInstance();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const tests::Reading reading =
      tests::requireReading(ConfigurationKind::Preferences, tests::textOf(data, size));
  requireOnlyRightValues(reading.contents.preferences);
  requireRightManager(reading.file, reading.contents.preferences);
  return 0;
}
