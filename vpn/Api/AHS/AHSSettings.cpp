// Reads the settings of automatic headend selection. Every number that leaves here is within the
// range that the table of preferences gives, wherever its text came from.

#include "vpn/Api/AHS/AHSSettings.h"

#include <algorithm>
#include <string>

#include "vpn/Api/Preference.h"
#include "vpn/Api/PreferenceMgr.h"
#include "vpn/Common/Logging/AppLog.h"
#include "vpn/include/InstanceSmartPtr.h"
#include "vpn/include/StringUtils.h"

namespace {

constexpr const char* SourceFile = "vpn/Api/AHS/AHSSettings";

struct NumberSetting {
  unsigned int HS_SETTINGS::*field;
  PreferenceId preference;
};

constexpr NumberSetting NumberSettings[] = {
    {&HS_SETTINGS::nResumeTime, SelectionResumeTime},
    {&HS_SETTINGS::nImprovement, SelectionImprovement},
    {&HS_SETTINGS::nClearCache, SelectionClearCache},
    {&HS_SETTINGS::nConnectTimeout, SelectionConnectTimeout},
    {&HS_SETTINGS::nReconnectTimeout, SelectionReconnectTimeout},
    {&HS_SETTINGS::nPingTimeout, SelectionPingTimeout},
    {&HS_SETTINGS::nPingsPerHeadend, SelectionPingsPerHeadend},
    {&HS_SETTINGS::nTestPingTimeout, SelectionTestPingTimeout},
    {&HS_SETTINGS::nMaxResults, SelectionMaxResults},
};

std::string valueInForce(const CInstanceSmartPtr<PreferenceMgr>& preferenceMgr,
                         const PreferenceBase::Definition& definition) {
  std::string value = definition.defaultValue;
  if (!(preferenceMgr == nullptr)) {
    preferenceMgr->getPreferenceValue(definition.id, value);
  }
  return value;
}

unsigned int numberInForce(const CInstanceSmartPtr<PreferenceMgr>& preferenceMgr,
                           const PreferenceBase::Definition& definition) {
  unsigned int number = 0;
  const std::string value = valueInForce(preferenceMgr, definition);
  if (!PreferenceBase::parseNumber(definition, value, number)) {
    CAppLog::LogDebugMessage("GetSettings", SourceFile, __LINE__, Logging::DBG_Warning,
                             "%s is \"%s\", but %s; the default %s is used", definition.name,
                             CStringUtils::printable(value).c_str(),
                             PreferenceBase::findError(definition, value).c_str(),
                             definition.defaultValue);
    PreferenceBase::parseNumber(definition, definition.defaultValue, number);
  }
  return number;
}

/// A shorter time passes before a far headend has answered if the network loses one packet: the
/// kernel sends a SYN again after a second, and the test probe comes first.
constexpr unsigned int LeastConnectTimeoutMs = 3000;

/// Leaves the measurement two thirds of the time, whatever becomes of the test probe.
void divideTime(HS_SETTINGS& settings) {
  if (settings.nConnectTimeout < LeastConnectTimeoutMs) {
    CAppLog::LogDebugMessage("GetSettings", SourceFile, __LINE__, Logging::DBG_Warning,
                             "SelectionConnectTimeout is %u; %u is used, the least that measures",
                             settings.nConnectTimeout, LeastConnectTimeoutMs);
    settings.nConnectTimeout = LeastConnectTimeoutMs;
  }
  constexpr unsigned int ThirdsToSeconds = 3000;
  settings.nTestPingTimeout =
      std::min(settings.nTestPingTimeout, settings.nConnectTimeout / ThirdsToSeconds);
}

}  // namespace

void CAHSSettings::GetSettings(HS_SETTINGS& settings) {
  const CInstanceSmartPtr<PreferenceMgr> preferenceMgr;
  settings.bAHSEnabled =
      valueInForce(preferenceMgr, *PreferenceBase::find(EnableAutomaticServerSelection)) ==
      PreferenceBase::PreferenceEnabled;
  for (const NumberSetting& setting : NumberSettings) {
    settings.*setting.field =
        numberInForce(preferenceMgr, *PreferenceBase::find(setting.preference));
  }
  divideTime(settings);
}
