// `ahs preferences show`: the value of every preference that a selection would use, where it comes
// from, and which values it overrides.

#include <CLI/CLI.hpp>
#include <map>
#include <memory>

#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/Json.h"
#include "cli/Table.h"
#include "cli/files/FileOptions.h"
#include "vpn/include/InstanceSmartPtr.h"

namespace {

using Setting = PreferenceMgr::Setting;

/// One preference as a selection sees it.
struct Effective {
  const PreferenceBase::Definition* definition;
  std::string value;
  std::vector<Setting> settings;  // the one in force first, the default last
  bool isReplaced;                // the value is invalid, so the default is used
};

std::vector<Effective> findEffective() {
  std::vector<Effective> all;
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  for (const PreferenceBase::Definition& definition : PreferenceBase::definitions()) {
    if (definition.id == EnableAutomaticServerSelection) {
      continue;  // each profile has its own value
    }
    std::vector<Setting> settings = preferences->getSettings(definition.id);
    const std::string& counting = settings.front().value;
    const bool isReplaced = !PreferenceBase::findError(definition, counting).empty();
    all.push_back({&definition, isReplaced ? definition.defaultValue : counting,
                   std::move(settings), isReplaced});
  }
  return all;
}

const char* originName(Setting::Origin origin) {
  static const std::map<Setting::Origin, const char*> names = {
      {Setting::Origin::Caller, "command line"},
      {Setting::Origin::Profile, "profile"},
      {Setting::Origin::User, "user"},
      {Setting::Origin::Global, "global"},
      {Setting::Origin::Default, "default"}};
  return names.at(origin);
}

std::string placeOf(const Setting& setting) {
  return setting.file.empty() ? originName(setting.origin)
                              : setting.file + ":" + std::to_string(setting.line);
}

std::string fromText(const Effective& effective) {
  const Setting& counting = effective.settings.front();
  if (effective.isReplaced) {
    return "default; \"" + counting.value + "\" in " + placeOf(counting) + " is not allowed";
  }
  return placeOf(counting);
}

std::string overridesText(const Effective& effective) {
  std::string text;
  for (std::size_t i = 1; i < effective.settings.size(); ++i) {
    const Setting& setting = effective.settings[i];
    text += (text.empty() ? "\"" : ", \"") + setting.value + "\" " + placeOf(setting);
  }
  return text;
}

std::string showText(const std::vector<Effective>& all) {
  std::vector<std::vector<std::string>> rows;
  rows.reserve(all.size());
  for (const Effective& effective : all) {
    rows.push_back({effective.definition->name, "\"" + effective.value + "\"", fromText(effective),
                    overridesText(effective)});
  }
  return tableText({"PREFERENCE", "VALUE", "FROM", "GOES BEFORE"}, rows) +
         "EnableAutomaticServerSelection is each profile's own; 'ahs profile list' shows it.\n";
}

Json settingAsJson(const Setting& setting) {
  const bool hasFile = !setting.file.empty();
  return {{"value", setting.value},
          {"from", originName(setting.origin)},
          {"file", hasFile ? Json(setting.file) : Json(nullptr)},
          {"line", hasFile ? Json(setting.line) : Json(nullptr)},
          {"profile",
           setting.origin == Setting::Origin::Profile ? Json(setting.profile) : Json(nullptr)}};
}

std::string showJson(const std::vector<Effective>& all) {
  Json object = newJson();
  object["preferences"] = Json::array();
  for (const Effective& effective : all) {
    Json settings = Json::array();
    for (const Setting& setting : effective.settings) {
      settings.push_back(settingAsJson(setting));
    }
    object["preferences"].push_back({{"name", effective.definition->name},
                                     {"value", effective.value},
                                     {"isDefaultBecauseNotAllowed", effective.isReplaced},
                                     {"settings", settings}});
  }
  return jsonText(object);
}

int runShow(const FileOptions& options) {
  const LoadedFiles files(options, "ahs preferences show");
  if (!files.areThere()) {
    return ExitUsage;
  }
  const std::vector<Effective> all = findEffective();
  return Console::writeResult(options.json ? showJson(all) : showText(all), ExitNoMistakes);
}

}  // namespace

void addPreferencesCommand(CLI::App& tool, ChosenCommand& chosen) {
  CLI::App* preferences = tool.add_subcommand("preferences", "Show the preferences in force");
  preferences->require_subcommand(1);
  CLI::App* command = preferences->add_subcommand(
      "show", "Print the value of every preference, where it comes from, and what it goes before");
  const auto options = std::make_shared<FileOptions>();
  addFileOptions(*command, *options);
  command->add_flag("--json", options->json, "Print one JSON object");
  command->footer("Exit status: 0 printed, 2 usage.");
  command->callback([&chosen, options] { chosen = [options] { return runShow(*options); }; });
}
