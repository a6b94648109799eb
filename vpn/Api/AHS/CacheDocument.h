#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "vpn/Api/AHS/CacheEntry.h"

/// The text form of the selection cache (docs/cache.md): how it is read, and the two encodings that
/// reader and writer share. Pure functions that any thread may call.
namespace CacheDocument {

/// Selections in one document.
constexpr std::size_t MaxEntries = 64;
/// Results in one selection; more gateways than any profile directory may name.
constexpr std::size_t MaxRecords = 100000;
/// Characters of one headend in the document: a host name has at most 253 and a port 6, each of
/// which may take four characters there.
constexpr std::size_t MaxHeadendLength = 2048;

/// Element and attribute names.
/// @{
constexpr const char* RootName = "selectionCache";
constexpr const char* SelectionName = "selection";
constexpr const char* HeadendName = "headend";
constexpr const char* VersionAttribute = "version";
constexpr const char* PlaceAttribute = "place";
constexpr const char* KnownHeadendsAttribute = "knownHeadends";
constexpr const char* StoredAttribute = "stored";
constexpr const char* UsedAttribute = "used";
constexpr const char* NameAttribute = "name";
constexpr const char* MetricAttribute = "rtt";
/// @}
/// The version that is written. Version 1, which has no `used`, is read as well.
constexpr unsigned int Version = 2;

/// Selections by their keys.
using Entries = std::map<std::string, CCacheEntry>;
/// When a selection was used last, in seconds since 1970-01-01 00:00 UTC, by its key. One that has
/// not been used since it was stored has no such time.
using Uses = std::map<std::string, unsigned long>;

/// What a document holds. Every use is that of an entry.
struct Contents {
  Entries entries;  ///< the selections
  Uses uses;        ///< when some of them were used last
};

/// What a text is.
enum class Form {
  Right,
  Newer,  ///< a document of a later version, which is not for this program to touch
  Wrong,
};

/// The key of a selection among all: the candidate set `knownHeadends`, measured at `place`.
std::string selectionKey(const std::string& place, const std::string& knownHeadends);
/// Stands between place and candidate set in a selection key; a place has none.
constexpr const char* KeySeparator = "\n";

/// `text` as it stands in an attribute: blanks, control characters, the backslash and bytes above
/// 126 as `\xNN`. Any text can be written this way, whatever its encoding.
std::string encode(const std::string& text);
/// Undoes `encode`. @return false when `text` is not something that `encode` gives.
bool decode(std::string_view text, std::string& decoded);

/// An upper bound of the characters that `encode`d text takes in an attribute.
std::size_t writtenSize(const std::string& text);

/// A place as a key and a document have it: its parts (`readResolverPlace`) sorted, each once, one
/// blank apart. So the order of name servers does not count.
std::string placeText(std::vector<std::string> place);

/// Reads a document that may come from anyone. Document type declarations and with them entities
/// are refused; sizes, counts and numbers are checked.
/// @param text the whole document.
/// @param contents is left alone unless the text is right.
/// @param problem receives what is wrong, with the line, or which version it is.
Form parse(const std::string& text, Contents& contents, std::string& problem);

}  // namespace CacheDocument
