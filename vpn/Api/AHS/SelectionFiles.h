#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "vpn/Api/AHS/CacheEntry.h"

/// The files in which the processes of one user keep their selections (docs/cache.md): one small
/// XML document per selection, all in one directory.
///
/// Nothing is trusted: neither the directory and its parents, nor a file, its size and its text. A
/// file is written under a temporary name and renamed, so a reader sees the old text or the new
/// one. Its time of modification says when its selection was last used.
///
/// Any thread may call these. All but `parse` may wait for the disk. A problem is a sentence for
/// the log; a missing directory or file is none.
namespace SelectionFiles {

/// Files that are kept at most.
constexpr std::size_t MaxFiles = 64;
/// Largest text that is read or written, in bytes.
constexpr std::size_t MaxSize = std::size_t{16} * 1024 * 1024;

/// What a file holds.
struct Selection {
  std::string place;  ///< where it was measured, as one line
  CCacheEntry entry;  ///< with its stamp and its candidate set
  std::chrono::sys_seconds used{};
};

/// A place in one line: its parts sorted, each once, so that their order does not count.
std::string placeText(std::vector<std::string> place);

/// The key of a selection among all: its place, a line feed, its candidate set.
std::string keyOf(const Selection& selection);

/// Reads the file of a selection.
/// @return whether there is one, and it is understood; else `entry` is left alone.
bool read(const std::string& directory, const std::string& key, CCacheEntry& entry,
          std::string& problem);

/// Makes or replaces the file of a selection, and the directory where it is missing; the user alone
/// may use them. Removes the files used longest ago beyond `MaxFiles`.
/// @param text of `selection`. Not written if `parse` does not reproduce the selection.
/// @return whether the new file exists; else the old one is unchanged.
bool write(const std::string& directory, const Selection& selection, const std::string& text,
           std::string& problem);

/// Notes that a selection is used now. Without its file, nothing is noted.
void noteUse(const std::string& directory, const std::string& key);

/// Removes the file of a selection, if there is one.
void remove(const std::string& directory, const std::string& key);

/// All selections that are understood, those used last first.
/// @param problem receives the last problem; the others' selections are there all the same.
std::vector<Selection> list(const std::string& directory, std::string& problem);

/// Removes all selections, also those of former versions of this program.
/// @return how many files were removed. @param problem says why a file is left.
std::size_t clear(const std::string& directory, std::string& problem);

/// Reads a text in time proportional to its size.
/// @return whether it is a selection with at least one result; else `selection` is left alone.
bool parse(const std::string& text, Selection& selection, std::string& problem);

}  // namespace SelectionFiles
