#pragma once

#include <set>
#include <string>

#include "cli/files/FilePlan.h"

namespace CLI {
class App;
}

/// Adds the options that say where profiles and preferences are: --profiles, --preferences,
/// --global-preferences, --trust-profiles.
void addFileOptions(CLI::App& command, FileOptions& options);

/// Says on standard error what is wrong in the files that the process has read: a profile that is
/// skipped in silence is missed.
/// @param told what has been told before and is not told again; grows by what is told now. Null
///        where there is no before.
void tellFileProblems(std::set<std::string>* told = nullptr);

/// Whether the preferences of the process let a round trip be the time to the gateway's answer.
bool isResponseMeasured();

/// The process's profiles and preferences for the length of a scope.
class LoadedFiles {
 public:
  /// Reads the files that the options name, and tells on standard error what is wrong in them.
  /// @param command for messages: "ahs profile list".
  LoadedFiles(const FileOptions& options, const std::string& command);
  ~LoadedFiles();
  LoadedFiles(const LoadedFiles&) = delete;
  LoadedFiles& operator=(const LoadedFiles&) = delete;

  /// Whether there is a preference manager; what is in the way has been told otherwise.
  bool areThere() const { return m_isLoaded; }
  /// Where profiles were looked for.
  const std::string& profilePlaces() const { return m_plan.profilePlaces; }

 private:
  FilePlan m_plan;
  bool m_isLoaded = false;
};
