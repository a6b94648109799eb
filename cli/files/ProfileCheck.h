#pragma once

#include <optional>
#include <string>
#include <vector>

#include "vpn/Api/PreferenceMgr.h"
#include "vpn/Api/ProfileFile.h"

/// What a look for mistakes has found.
struct CheckResult {
  std::size_t files = 0;        ///< that were read
  std::size_t hostEntries = 0;  ///< without a mistake
  std::size_t takingPart = 0;   ///< of these, in automatic selection
  std::vector<FileProblem> problems;
  std::vector<std::string> missing;  ///< places that were looked at and are not there
  std::vector<std::string> places;   ///< places that were looked at and are there
};

/// Whether there is anything of that name. A FIFO or a device is for the reader to refuse, which
/// takes no look at its contents.
bool isThere(const std::string& place);

/// Looks for mistakes in profiles and preferences files.
/// @param places files of either kind, and directories, whose profiles are also compared with each
///        other.
CheckResult checkFiles(const std::vector<std::string>& places, FileTrust::Check check);

/// Looks for mistakes in what a selection would read, with all that a selection tells of it.
/// @return nothing when memory is short.
std::optional<CheckResult> checkSources(const PreferenceMgr::Sources& sources);

/// The result for a person, and for a program.
std::string checkText(const CheckResult& result);
std::string checkJson(const CheckResult& result);
