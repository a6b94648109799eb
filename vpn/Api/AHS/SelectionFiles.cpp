// The files of the selection cache. A file is complete before it has its name and is never changed
// in place, so readers and writers need no lock. Nothing is flushed: after a power failure a file
// is old, new or unreadable, which costs a measurement. A temporary file of a killed process counts
// as a file, and is removed when 64 others were used after it.

#include "vpn/Api/AHS/SelectionFiles.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <system_error>
#include <utility>

#include "vpn/Api/ConfigurationBytes.h"
#include "vpn/Api/XmlDocument.h"
#include "vpn/Common/Trust/FileTrust.h"
#include "vpn/include/StringUtils.h"

namespace {

namespace fs = std::filesystem;
using ConfigurationBytes::readRegularFile;
using FileTrust::Check;
using SelectionFiles::Selection;

/// The last second of the year 9999.
constexpr unsigned long MaxTimestamp = 253402300799UL;

template <class NumberT>
bool takeNumber(const std::string& text, NumberT& number) {
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

/// Reads the text of one file. Used once.
class SelectionReader : private XmlDocument {
 public:
  bool read(const std::string& text, Selection& selection, std::string& problem);

 private:
  void start(const std::string& name, const Attributes& attributes) override {
    require(take(name, attributes));
  }
  void end() override {}
  void text(const std::string& found) override { require(CStringUtils::trimmed(found).empty()); }
  void refused(Place place, const std::string& /*reason*/) override { m_line = place.line; }

  bool take(const std::string& element, const Attributes& attributes);
  void require(bool isAllowed) {
    if (!isAllowed) {
      refuse(placeOfTag(), "");
    }
  }

  Selection m_found;
  std::string m_candidates;
  unsigned int m_line = 1;  // what is wrong stands there
};

bool SelectionReader::read(const std::string& text, Selection& selection, std::string& problem) {
  if (!XmlDocument::read(text) || m_found.entry.GetListSize() == 0) {
    problem = "is no selection of the cache, see line " + std::to_string(m_line);
    return false;
  }
  m_found.entry.SetKnownHeadends(m_candidates);
  std::swap(selection, m_found);
  return true;
}

/// @return whether the element belongs where it stands.
bool SelectionReader::take(const std::string& element, const Attributes& attributes) {
  if (depth() == 1) {
    unsigned long stored = 0;
    const bool isStamped = takeNumber(valueOf(attributes, "stored"), stored);
    const std::string* const partial = find(attributes, "partial");
    m_found.place = valueOf(attributes, "place");
    m_found.entry.SetTimestamp(stored);
    m_found.entry.setPartial(partial != nullptr);
    return element == "selection" && attributes.size() == (partial != nullptr ? 3 : 2) &&
           isStamped && stored > 0 && stored <= MaxTimestamp &&
           find(attributes, "place") != nullptr && (partial == nullptr || *partial == "true");
  }
  const std::string& name = valueOf(attributes, "name");
  if (name.empty() || depth() != 2) {
    return false;
  }
  if (element == "candidate") {
    m_candidates.append(name).append(1, ';');
    return attributes.size() == 1;
  }
  std::uint32_t metric = 0;
  const bool isMeasured = takeNumber(valueOf(attributes, "rtt"), metric);
  m_found.entry.AddHeadend(CHeadendRTT(name, metric));
  return element == "result" && attributes.size() == 2 && isMeasured;
}

/// The file of a selection. Selections with the same name replace each other; readers check the
/// text. FNV-1a, 64 bits (RFC 9923): the same in every build, and no secret depends on it.
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

/// Opens the directory if it may be used. @param isMade makes it if it is missing.
FileTrust::Descriptor open(const std::string& directory, bool isMade, std::string& problem) {
  FileTrust::Descriptor opened;
  FileTrust::Refusal refusal;
  const bool isOpen = (!isMade || FileTrust::makeDirectory(directory, refusal)) &&
                      FileTrust::openDirectory(directory, Check::Private, opened, refusal);
  if (!isOpen && (isMade || (refusal.error != ENOENT && refusal.error != ENOTDIR))) {
    problem = "the directory " + directory + " " + refusal.text;
  }
  return opened;
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

/// A file of ours and the time of its last use; a time in the future counts as never.
using UsedFile = std::pair<std::chrono::sys_time<fs::file_time_type::duration>, fs::path>;

/// The files of selections, and those of former versions; those used last first.
std::vector<UsedFile> filesIn(const std::string& directory, std::string& problem) {
  std::vector<UsedFile> files;
  FileTrust::visitNames(open(directory, false, problem), [&](const std::string& name) {
    if (name.starts_with("selection-") || name.starts_with("selections.xml")) {
      const fs::path file = fs::path(directory) / name;
      std::error_code missing;
      const auto used = fs::file_time_type::clock::to_sys(fs::last_write_time(file, missing));
      const bool isPast = !missing && used <= std::chrono::system_clock::now();
      files.emplace_back(isPast ? used : decltype(used){}, file);
    }
    return true;
  });
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
  if (open(directory, false, problem).get() < 0 || !readSelection(file, found, problem) ||
      keyOf(found) != key) {
    return false;
  }
  std::swap(entry, found.entry);
  return true;
}

bool SelectionFiles::write(const std::string& directory, const Selection& selection,
                           const std::string& text, std::string& problem) {
  const fs::path file = fileOf(directory, keyOf(selection));
  if (selection.entry.GetTimestamp() == 0) {
    problem = "the clock stands before 1970, so nobody could say how old a selection is";
    return false;
  }
  Selection again;
  if (text.size() > MaxSize || !parse(text, again, problem) || again.place != selection.place ||
      again.entry.toString() != selection.entry.toString()) {
    problem = "it is too large for a file, or its names are no text";
    return false;
  }
  const FileTrust::Place place{open(directory, true, problem), file.filename().string(),
                               file.string()};
  if (place.directory.get() < 0) {
    return false;
  }
  errno = FileTrust::replaceFile(place, text, S_IRUSR | S_IWUSR);
  if (errno != 0) {
    problem = failure("cannot write ", file);
    return false;
  }
  const std::vector<UsedFile> files = filesIn(directory, problem);
  for (std::size_t i = MaxFiles; i < files.size(); ++i) {
    unlink(files[i].second.c_str());
  }
  return true;
}

void SelectionFiles::noteUse(const std::string& directory, const std::string& key) {
  utimensat(AT_FDCWD, fileOf(directory, key).c_str(), nullptr, AT_SYMLINK_NOFOLLOW);
}

void SelectionFiles::remove(const std::string& directory, const std::string& key) {
  unlink(fileOf(directory, key).c_str());
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
  // A processing instruction, except those allowed at the beginning.
  if (problem.empty() &&
      (text.find("<!") != std::string::npos || text.find("<?", 1) != std::string::npos)) {
    problem = "has a declaration, a comment or an instruction";
  }
  return problem.empty() && SelectionReader().read(text, selection, problem);
}
