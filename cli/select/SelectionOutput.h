#pragma once

#include <string>

#include "cli/select/SelectionResult.h"

/// The result as a person reads it: the selection report, the ordered list, the headends without a
/// result and why, and the status in words. Ends with a line feed.
std::string textOutput(const SelectionResult& result);

/// The result as one JSON object and a line feed; the members are described in docs/cli.md.
std::string jsonOutput(const SelectionResult& result);

/// The first headend and a line feed; nothing when there is none.
std::string quietOutput(const SelectionResult& result);

/// A status in words, a whole sentence.
std::string statusInWords(const SelectionResult& result);

/// A status as it is written for programs: "0xFE530010".
std::string statusAsHex(STATUSCODE status);

/// Why the client library could not be started, a whole sentence and what may be the matter.
std::string libraryProblem(STATUSCODE status);

/// A proxy's realm for a person: what could be taken for something else is shown as its code, and a
/// long one is cut.
std::string visibleRealm(const std::string& realm);

/// What a selection without success means and what to do next, for standard error; empty after a
/// success.
std::string adviceFor(const SelectionResult& result, const std::string& profilePlaces);
