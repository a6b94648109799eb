// The files of the selection cache. A file is complete before it has its name and is never changed
// in place, so readers and writers need no lock; of two processes that write one name the later
// wins. Nothing is flushed: after a power failure a file is the old one, the new one, or not
// understood, which costs a measurement. What a killed process leaves under a temporary name counts
// as a file, which goes when 64 others were used after it.
//
// The directory and what leads to it are looked at first; nobody but the user and root can change
// them afterwards.

#include "vpn/Api/AHS/SelectionFiles.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <libxml/xmlreader.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <new>
#include <string_view>
#include <system_error>
#include <utility>

#include "vpn/Api/ConfigurationBytes.h"
#include "vpn/Api/FileTrust.h"
#include "vpn/Api/XmlScope.h"

namespace {

namespace fs = std::filesystem;
using ConfigurationBytes::readRegularFile;
using FileTrust::Check;
using SelectionFiles::Selection;

/// The last second of the year 9999.
constexpr unsigned long MaxTimestamp = 253402300799UL;

/// Takes the value of an attribute of the present element. @return whether there is one.
bool takeText(xmlTextReader& reader, const char* name, std::string& text) {
  const std::unique_ptr<xmlChar, void (*)(void*)> value(
      xmlTextReaderGetAttribute(&reader, reinterpret_cast<const xmlChar*>(name)),
      [](void* allocated) { xmlFree(allocated); });
  text = value == nullptr ? "" : reinterpret_cast<const char*>(value.get());
  return value != nullptr;
}

template <class NumberT>
bool takeNumber(xmlTextReader& reader, const char* name, NumberT& number) {
  std::string text;
  takeText(reader, name, text);
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

/// @param candidates is appended to. @return whether the element belongs where it stands.
bool takeElement(xmlTextReader& reader, Selection& selection, std::string& candidates) {
  const auto* const tag = reinterpret_cast<const char*>(xmlTextReaderConstName(&reader));
  const std::string_view element(tag != nullptr ? tag : "");
  const int attributes = xmlTextReaderAttributeCount(&reader);
  if (xmlTextReaderDepth(&reader) == 0) {
    unsigned long stored = 0;
    const bool isStamped = takeNumber(reader, "stored", stored);
    selection.entry.SetTimestamp(stored);
    return element == "selection" && attributes == 2 && isStamped && stored > 0 &&
           stored <= MaxTimestamp && takeText(reader, "place", selection.place);
  }
  std::string name;
  takeText(reader, "name", name);
  if (element == "candidate") {
    candidates += name + ";";
    return attributes == 1 && !name.empty() && xmlTextReaderDepth(&reader) == 1;
  }
  std::uint32_t metric = 0;
  const bool isMeasured = takeNumber(reader, "rtt", metric);
  selection.entry.AddHeadend(CHeadendRTT(name, metric));
  return element == "result" && attributes == 2 && !name.empty() && isMeasured &&
         xmlTextReaderDepth(&reader) == 1;
}

/// @return whether the node belongs where it stands.
bool takeNode(xmlTextReader& reader, Selection& selection, std::string& candidates) {
  const int type = xmlTextReaderNodeType(&reader);
  return type == XML_READER_TYPE_ELEMENT ? takeElement(reader, selection, candidates)
                                         : type == XML_READER_TYPE_END_ELEMENT ||
                                               type == XML_READER_TYPE_SIGNIFICANT_WHITESPACE;
}

/// The file of a selection. Two that share a name replace each other's; a reader tells them apart
/// by the text. FNV-1a, 64 bits (RFC 9923): the same in every build, and no secret depends on it.
fs::path fileOf(const std::string& directory, const std::string& key) {
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const char c : key) {
    hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  }
  return fs::path(directory) / ("selection-" + std::to_string(hash) + ".xml");
}

std::string failure(const char* what, const fs::path& path) {
  return what + path.string() + ": " + std::generic_category().message(errno);
}

/// Whether the directory is there and may be used. @param isMade makes it if it is missing.
bool isUsable(const std::string& directory, bool isMade, std::string& problem) {
  FileTrust::Descriptor opened;
  FileTrust::Refusal refusal;
  const bool isOpen = (!isMade || FileTrust::makeDirectory(directory, refusal)) &&
                      FileTrust::openDirectory(directory, Check::Private, opened, refusal);
  if (!isOpen && (isMade || (refusal.error != ENOENT && refusal.error != ENOTDIR))) {
    problem = "the directory " + directory + " " + refusal.text;
  }
  return isOpen;
}

bool readSelection(const fs::path& file, Selection& selection, std::string& problem) {
  struct stat status {};
  if (lstat(file.c_str(), &status) != 0 && errno == ENOENT) {
    return false;
  }
  std::string text;
  // Root's files are trusted elsewhere, and so are links; here nobody else has put any.
  std::string wrong = S_ISREG(status.st_mode) && status.st_uid == geteuid()
                          ? readRegularFile(file, SelectionFiles::MaxSize, Check::Private, text)
                          : "is not a regular file of the user's own";
  const bool isRead = wrong.empty() && SelectionFiles::parse(text, selection, wrong);
  problem = isRead ? problem : file.string() + " " + wrong;
  return isRead;
}

/// A file of ours and when it was used last; a use of the future counts for nothing.
using UsedFile = std::pair<std::chrono::sys_time<fs::file_time_type::duration>, fs::path>;

/// The files of selections, and the one that former versions kept all selections in with what stood
/// beside it; those used last first. None in a directory that may not be used.
std::vector<UsedFile> filesIn(const std::string& directory, std::string& problem) {
  std::vector<UsedFile> files;
  const bool isThere = isUsable(directory, false, problem);
  // Not std::filesystem::directory_iterator: where memory is short, it ends the process.
  const std::unique_ptr<DIR, int (*)(DIR*)> opened(isThere ? opendir(directory.c_str()) : nullptr,
                                                   &closedir);
  while (const dirent* const item = opened == nullptr ? nullptr : readdir(opened.get())) {
    const std::string name = item->d_name;
    if (name.starts_with("selection-") || name.starts_with("selections.xml")) {
      const fs::path file = fs::path(directory) / name;
      std::error_code missing;
      const auto used = fs::file_time_type::clock::to_sys(fs::last_write_time(file, missing));
      const bool isPast = !missing && used <= std::chrono::system_clock::now();
      files.emplace_back(isPast ? used : decltype(used){}, file);
    }
  }
  std::ranges::sort(files, std::ranges::greater());
  return files;
}

}  // namespace

std::string SelectionFiles::placeText(std::vector<std::string> place) {
  std::sort(place.begin(), place.end());
  place.erase(std::unique(place.begin(), place.end()), place.end());
  std::string text;
  for (const std::string& part : place) {
    text += (text.empty() ? "" : " ") + part;
  }
  return text;
}

std::string SelectionFiles::keyOf(const Selection& selection) {
  return selection.place + '\n' + selection.entry.GetKnownHeadends();
}

bool SelectionFiles::read(const std::string& directory, const std::string& key, CCacheEntry& entry,
                          std::string& problem) {
  const fs::path file = fileOf(directory, key);
  Selection found;
  if (!isUsable(directory, false, problem) || !readSelection(file, found, problem) ||
      keyOf(found) != key) {
    return false;
  }
  std::swap(entry, found.entry);
  return true;
}

bool SelectionFiles::write(const std::string& directory, const Selection& selection,
                           const std::string& text, std::string& problem) {
  const fs::path file = fileOf(directory, keyOf(selection));
  Selection again;
  if (text.size() > MaxSize || !parse(text, again, problem) || again.place != selection.place ||
      again.entry.toString() != selection.entry.toString()) {
    problem = "it is too large for a file, or its names are no text";
    return false;
  }
  if (!isUsable(directory, true, problem)) {
    return false;
  }
  std::string temporary = file.string() + ".new-XXXXXX";
  FileTrust::Descriptor opened(mkostemp(temporary.data(), O_CLOEXEC));  // mode 0600
  std::FILE* const stream = opened.get() < 0 ? nullptr : fdopen(opened.get(), "w");
  const bool isComplete = stream != nullptr && opened.release() >= 0 &&
                          fwrite(text.data(), 1, text.size(), stream) == text.size();
  // A file system may report a full disk as late as at the closing.
  if (stream == nullptr || fclose(stream) != 0 || !isComplete ||
      rename(temporary.c_str(), file.c_str()) != 0) {
    problem = failure("cannot write ", file);
    unlink(temporary.c_str());
    return false;
  }
  const std::vector<UsedFile> files = filesIn(directory, problem);
  for (std::size_t i = MaxFiles; i < files.size(); ++i) {
    unlink(files[i].second.c_str());
  }
  return true;
}

void SelectionFiles::noteUse(const std::string& directory, const std::string& key) {
  // A use that cannot be noted is not worth a word.
  utimensat(AT_FDCWD, fileOf(directory, key).c_str(), nullptr, AT_SYMLINK_NOFOLLOW);
}

std::vector<Selection> SelectionFiles::list(const std::string& directory, std::string& problem) {
  std::vector<Selection> selections;
  for (const auto& [used, file] : filesIn(directory, problem)) {
    Selection selection;
    const bool isOurs = file.filename().string().starts_with("selection-");
    if (isOurs && file.extension() == ".xml" && readSelection(file, selection, problem)) {
      selection.used = std::chrono::floor<std::chrono::seconds>(used);
      selections.push_back(std::move(selection));
    }
  }
  return selections;
}

std::size_t SelectionFiles::clear(const std::string& directory, std::string& problem) {
  std::size_t removed = 0;
  for (const auto& item : filesIn(directory, problem)) {
    const bool isGone = unlink(item.second.c_str()) == 0;
    removed += isGone ? 1 : 0;
    problem = isGone ? problem : failure("cannot remove ", item.second);
  }
  return removed;
}

bool SelectionFiles::parse(const std::string& text, Selection& selection, std::string& problem) {
  problem = ConfigurationBytes::findByteProblem(text).text;
  if (problem.empty() && text.find("<!") != std::string::npos) {
    problem = "has a declaration or a comment";
  }
  if (!problem.empty()) {
    return false;
  }
  // IGNORE_ENC: the bytes are UTF-8, whatever they say of themselves; in another encoding they
  // could hide a declaration.
  constexpr int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING |
                          XML_PARSE_HUGE | XML_PARSE_IGNORE_ENC;
  const CXmlScope library;
  const std::unique_ptr<xmlTextReader, decltype(&xmlFreeTextReader)> reader(
      xmlReaderForMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, options),
      &xmlFreeTextReader);
  if (reader == nullptr) {
    throw std::bad_alloc();
  }
  Selection found;
  std::string candidates;
  int more = xmlTextReaderRead(reader.get());
  while (more == 1 && takeNode(*reader, found, candidates)) {
    more = xmlTextReaderRead(reader.get());
  }
  if (more != 0 || found.entry.GetListSize() == 0) {
    problem = "is no selection of the cache, see line " +
              std::to_string(xmlTextReaderGetParserLineNumber(reader.get()));
    return false;
  }
  found.entry.SetKnownHeadends(candidates);
  std::swap(selection, found);
  return true;
}
