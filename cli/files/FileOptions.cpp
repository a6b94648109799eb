// The files of a person: the options that name them, and a look into them without a selection.

#include "cli/files/FileOptions.h"

#include <CLI/CLI.hpp>

#include "cli/Console.h"
#include "vpn/include/InstanceSmartPtr.h"

void addFileOptions(CLI::App& command, FileOptions& options) {
  command.add_option("--profiles", options.profiles, "Directory of the profiles (*.xml)")
      ->option_text("DIR");
  command.add_option("--preferences", options.preferences, "The user's preferences file")
      ->option_text("FILE");
  command
      .add_option("--global-preferences", options.globalPreferences,
                  "The machine's preferences file")
      ->option_text("FILE");
  command.add_flag("--trust-profiles", options.trustProfiles,
                   "Read profiles and preferences whoever could have written them; otherwise one "
                   "that another user could have written is refused");
}

void tellFileProblems(std::set<std::string>* told) {
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  if (preferences == nullptr) {
    return;
  }
  for (const FileProblem& problem : preferences->getProblems()) {
    const std::string text = problem.toString();
    if (told == nullptr || told->insert(text).second) {
      Console::note(Console::visible(text));
    }
  }
}

bool isResponseMeasured() {
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  std::string measure;
  return preferences != nullptr && preferences->getPreferenceValue(RoundTripTime, measure) == 0 &&
         measure == PreferenceBase::RoundTripResponse;
}

LoadedFiles::LoadedFiles(const FileOptions& options, const std::string& command) {
  std::vector<std::string> problems;
  const std::string error = makeFilePlan(options, defaultPaths(), m_plan, problems);
  if (!error.empty()) {
    Console::complainOfUsage(command, error, problems);
    return;
  }
  m_isLoaded = PreferenceMgr::createInstance(m_plan.sources) == PREFERENCEMGR_SUCCESS;
  if (!m_isLoaded) {
    Console::complain("the files cannot be read: the machine is short of memory.");
    return;
  }
  tellFileProblems();
}

LoadedFiles::~LoadedFiles() {
  if (m_isLoaded) {
    // One acquisition is the creation's, the other this look-up's own.
    PreferenceMgr* const manager = PreferenceMgr::acquireInstance();
    manager->releaseInstance();
    manager->releaseInstance();
  }
}
