#pragma once

#include <string>

#include "cli/show/SelectionResult.h"

/// A status in words, a whole sentence.
std::string statusInWords(const SelectionResult& result);

/// A status as it is written for programs: "0xFE530010".
std::string statusAsHex(STATUSCODE status);

/// Why the client library could not be started, a whole sentence and what may be the matter.
std::string libraryProblem(STATUSCODE status);

/// What a selection without success means and what to do next, for standard error; empty after a
/// success.
std::string adviceFor(const SelectionResult& result, const std::string& profilePlaces);
