#pragma once

#include <string>
#include <vector>

#include "vpn/Api/ProfileFile.h"

/// What a look for mistakes has found.
struct CheckResult {
  std::size_t files = 0;        ///< that were read
  std::size_t hostEntries = 0;  ///< without a mistake
  std::vector<FileProblem> problems;
};

/// Looks for mistakes in profiles and preferences files.
/// @param places files of either kind, and directories, whose profiles are also compared with each
///        other.
CheckResult checkFiles(const std::vector<std::string>& places, FileTrust::Check check);

/// The result for a person, and for a program.
std::string checkText(const CheckResult& result);
std::string checkJson(const CheckResult& result);
