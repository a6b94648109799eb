#pragma once

/// @file
/// Reading one profile or preferences file.

#include <cstddef>
#include <string>
#include <vector>

#include "vpn/Api/ConfigurationFormat.h"
#include "vpn/Api/Preference.h"
#include "vpn/Common/IP/ProbeKind.h"
#include "vpn/Common/Trust/FileTrust.h"
#include "vpn/Common/Utility/URL.h"

/// Something wrong in a file, in words that help to mend it.
struct FileProblem {
  std::string file;         ///< its path
  unsigned int line = 0;    ///< from 1; 0: the file as a whole
  unsigned int column = 0;  ///< from 1, in characters; a tab is one
  std::string text;         ///< what was found and what is allowed
  bool endsList = false;    ///< no problem itself: says that there are more, which are not listed

  /// "file:line:column: text" in one line, "file: text" for the file as a whole.
  std::string toString() const;
};

/// What a profile or a preferences file says.
struct ProfileFile {
  /// A host entry.
  struct Host {
    std::string name;         ///< as a person picks it, 1 to 255 bytes
    std::string address;      ///< empty when the entry gives none
    unsigned int line = 0;    ///< of its tag's beginning
    unsigned int column = 0;  ///< the same
    URL url{};                ///< the address, else the name; empty for an entry that is left out
    std::string reason{};     ///< why it is left out, as a phrase
    ProbeHow how{};           ///< it is probed
  };
  PreferenceInfo preferences;  ///< what it sets
  std::vector<Host> hosts;     ///< in the order of the file
  std::vector<Host> leftOut;   ///< what could be read of those with a mistake, which is reported;
                               ///< the first `MaxProblemsPerFile`
};

/// Largest profile or preferences file, in bytes: ten thousand host entries take one.
constexpr std::size_t MaxConfigurationFileSize = std::size_t{8} * 1024 * 1024;

/// Most host entries that are taken from one profile. A run has a thread for each of them, so far
/// more than a machine can measure.
constexpr std::size_t MaxHostsPerFile = 100000;

/// Most problems that are told of one file, besides the one for which it is skipped; the last of
/// them says that there are more.
constexpr std::size_t MaxProblemsPerFile = 100;

/// Reads a profile or a preferences file (see docs/profiles.md). The file is not trusted: only a
/// regular file that nobody else could have written is read, up to `MaxConfigurationFileSize` bytes
/// of UTF-8; a document type is refused, so no entity is ever expanded and nothing outside the file
/// is fetched; time and memory grow with the size alone. Any thread may call it.
/// @param path the file, or a link to it.
/// @param kind what the file has to be; Unknown: whichever its outermost element names.
/// @param contents receives what the file says; left alone when the file cannot be used.
/// @param problems receives what is wrong, appended.
/// @param check `Waived`: whoever could have written the file.
/// @return whether the file can be used (a wrong entry or preference is left out and reported, and
///         the rest is used).
bool readConfigurationFile(const std::string& path, ConfigurationKind kind, ProfileFile& contents,
                           std::vector<FileProblem>& problems,
                           FileTrust::Check check = FileTrust::Check::Strict);
