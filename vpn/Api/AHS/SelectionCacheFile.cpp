// The selection cache's part that deals with the file: reading it, and the writer's job. Under the
// lock between processes a job reads what others have written, adds what is this process's own, and
// replaces the file by the whole, so that none loses another's entry. It touches nothing of the
// instance, which may be gone by then.

#include <algorithm>
#include <utility>

#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Api/AHS/SelectionTimes.h"
#include "vpn/Api/SaxWriterIfc.h"

namespace {

/// How long a job waits for other processes: ten that end at once on a disk that takes 100 ms a
/// flush are all served in this time.
constexpr std::chrono::milliseconds LockPatience{2000};

/// How often a job begins when the lock is removed under it. Whoever cleans up does it now and
/// then.
constexpr int WriteAttempts = 5;

constexpr const char* InMemoryOnly = "; the selection cache is kept in memory only";
constexpr const char* NotKept = "selection not kept in the cache file: ";

/// Size of a document without its text, and of one selection's and one headend's tags, rounded up.
constexpr std::size_t DocumentOverhead = 256;
constexpr std::size_t SelectionOverhead = 160;
constexpr std::size_t HeadendOverhead = 64;

static_assert(CacheDocument::MaxEntries == CSelectionCache::MaxEntries,
              "what is kept is what can be read");

}  // namespace

CSelectionCache::Found CSelectionCache::readFile(CStateFile& file, Contents& contents,
                                                 std::string& problem) {
  std::string text;
  const CStateFile::Content content = file.read(text, problem);
  return understand(file, content, text, contents, problem);
}

/// What a text is that has been read, or why there is none.
CSelectionCache::Found CSelectionCache::understand(const CStateFile& file,
                                                   CStateFile::Content content,
                                                   const std::string& text, Contents& contents,
                                                   std::string& problem) {
  switch (content) {
    case CStateFile::Content::Unchanged:
      return Found::Unchanged;
    case CStateFile::Content::Refused:
      problem += InMemoryOnly;
      return Found::Refused;
    case CStateFile::Content::Missing:
      return Found::Nothing;
    case CStateFile::Content::Read:
      break;
  }
  std::string wrong;
  switch (CacheDocument::parse(text, contents, wrong)) {
    case CacheDocument::Form::Right:
      return Found::Selections;
    case CacheDocument::Form::Newer:
      problem = file.path() + " is left alone, " + wrong + InMemoryOnly;
      return Found::Newer;
    case CacheDocument::Form::Wrong:
      break;
  }
  problem = file.path() + " is no selection cache and is ignored: " + wrong;
  return Found::Wrong;
}

CCacheWriter::Outcome CSelectionCache::writeFile(const Batch& batch) {
  CCacheWriter::Outcome outcome;
  bool isLockLost = true;
  for (int i = 0; i < WriteAttempts && isLockLost; ++i) {
    outcome = writeOnce(batch, isLockLost);
  }
  return outcome;
}

/// @param isLockLost receives whether another process may have written at the same time, so that
/// all has to be read again.
CCacheWriter::Outcome CSelectionCache::writeOnce(const Batch& batch, bool& isLockLost) {
  isLockLost = false;
  CCacheWriter::Outcome outcome;
  outcome.status = HEADENDSELECTION_ERROR_CACHE_FAILURE;
  CStateFile file(batch.path, MaxFileSize);
  CStateFile::Lock fileLock(file, LockPatience);
  if (fileLock.state() != CStateFile::Locking::Held) {
    outcome.problem = NotKept + fileLock.problem();
    return outcome;
  }
  Contents contents;
  std::string text;
  const CStateFile::Content content = file.read(fileLock, text, outcome.problem);
  const Found found = understand(file, content, text, contents, outcome.problem);
  if (found == Found::Refused || found == Found::Newer) {
    return outcome;
  }
  if (found != Found::Selections && batch.mine.entries.empty()) {
    outcome.status = HEADENDSELECTION_SUCCESS;  // what was used has been cleared
    return outcome;
  }
  merge(contents, batch.mine);
  trim(contents.entries, contents.uses, batch.latest, batch.clearCache);
  std::string document;
  if (!writeDocument(contents, batch.latest, document)) {
    outcome.problem = std::string(NotKept) + "its text could not be built";
    return outcome;
  }
  if (found == Found::Wrong) {
    file.keepAside(fileLock);
  }
  std::string problem;
  switch (file.replace(fileLock, document, problem)) {
    case CStateFile::Replacing::Failed:
      outcome.problem = NotKept + problem;
      return outcome;
    case CStateFile::Replacing::LockLost:
      isLockLost = true;
      outcome.problem = NotKept + batch.path + " is locked by nobody for long";
      return outcome;
    case CStateFile::Replacing::Done:
      break;
  }
  // The new file is in place for everyone; that it also outlives a power failure now need not keep
  // other processes waiting.
  fileLock.release();
  outcome.status = HEADENDSELECTION_SUCCESS;
  if (!file.syncDirectory(fileLock, problem)) {
    outcome.problem = problem;
  }
  return outcome;
}

/// Adds what is this process's own; where both have an entry the newer one stays, and the later of
/// two uses.
void CSelectionCache::merge(Contents& contents, const Contents& mine) {
  const unsigned long now = SelectionTimes::now();
  for (const auto& [key, entry] : mine.entries) {
    const auto theirs = contents.entries.find(key);
    if (theirs == contents.entries.end()) {
      contents.entries.emplace(key, entry);
    } else if (SelectionTimes::ageOf(theirs->second) >= SelectionTimes::ageOf(entry)) {
      theirs->second = entry;
    }
  }
  for (const auto& [key, use] : mine.uses) {
    if (contents.entries.contains(key)) {
      unsigned long& last = contents.uses.try_emplace(key, 0).first->second;
      last = SelectionTimes::laterUse(last, use, now);
    }
  }
}

/// Drops what is out of date and, beyond the number of entries that are kept, those that were used
/// longest ago. Entries from the future stay while there is room: if the clock is what is wrong,
/// they will be right again.
void CSelectionCache::trim(Entries& entries, Uses& uses, const std::string& latest,
                           unsigned int clearCache) {
  std::size_t kept = 0;
  for (const std::string& key : keysByUse(entries, uses, latest)) {
    const CCacheEntry& entry = entries[key];
    const bool isOld = SelectionTimes::isExpired(entry, clearCache) &&
                       SelectionTimes::ageOf(entry) != SelectionTimes::BeyondAge && key != latest;
    if (isOld || kept == MaxEntries) {
      entries.erase(key);
      uses.erase(key);
    } else {
      ++kept;
    }
  }
}

/// The keys of all entries: `latest`, then the others by their last use. Times count seconds, so an
/// entry just stored is not always ahead of the others.
std::vector<std::string> CSelectionCache::keysByUse(const Entries& entries, const Uses& uses,
                                                    const std::string& latest) {
  const unsigned long now = SelectionTimes::now();
  std::vector<std::string> keys;
  std::vector<std::pair<unsigned long, std::string>> others;
  for (const auto& [key, entry] : entries) {
    if (key == latest) {
      keys.push_back(key);
      continue;
    }
    const auto use = uses.find(key);
    others.emplace_back(SelectionTimes::lastUse(entry, use == uses.end() ? 0 : use->second, now),
                        key);
  }
  std::sort(others.begin(), others.end(),
            [](const auto& a, const auto& b) { return a.first > b.first; });
  for (auto& other : others) {
    keys.push_back(std::move(other.second));
  }
  return keys;
}

/// An upper bound of a document's size that holds this entry alone; beyond every limit for one that
/// a reader would refuse.
std::size_t CSelectionCache::writtenSize(const std::string& key, const CCacheEntry& entry) {
  constexpr std::size_t TooLarge = MaxFileSize + 1;
  std::vector<CHeadendRTT> headends;
  entry.GetHeadendList(headends);
  if (headends.size() > CacheDocument::MaxRecords) {
    return TooLarge;
  }
  // The key holds the place and the candidate set.
  std::size_t size = DocumentOverhead + SelectionOverhead + CacheDocument::writtenSize(key);
  for (const CHeadendRTT& headend : headends) {
    const std::string name = headend.GetHeadend();
    if (name.empty() || name.size() > CacheDocument::MaxHeadendLength) {
      return TooLarge;
    }
    size += HeadendOverhead + CacheDocument::writtenSize(name);
  }
  return size;
}

/// Writes the selections, those used last first, as far as they fit into the file.
/// @return false when memory is short.
bool CSelectionCache::writeDocument(const Contents& contents, const std::string& latest,
                                    std::string& document) {
  CSaxMemoryWriter writer;
  writer.startElement(CacheDocument::RootName);
  storeAttribute(&writer, CacheDocument::VersionAttribute, std::to_string(CacheDocument::Version));
  std::size_t size = 0;
  for (const std::string& key : keysByUse(contents.entries, contents.uses, latest)) {
    const CCacheEntry& entry = contents.entries.at(key);
    const std::size_t entrySize = writtenSize(key, entry);
    if (size + entrySize <= MaxFileSize) {
      const auto use = contents.uses.find(key);
      writeSelection(writer, key, entry, use == contents.uses.end() ? 0 : use->second);
      size += entrySize;
    }
  }
  return writer.finish(document);
}

/// @param use 0 for none.
void CSelectionCache::writeSelection(SaxWriterIfc& writer, const std::string& key,
                                     const CCacheEntry& entry, unsigned long use) {
  std::vector<std::string> parts;
  splitString(key, CacheDocument::KeySeparator, parts);
  writer.startElement(CacheDocument::SelectionName);
  storeAttribute(&writer, CacheDocument::PlaceAttribute, parts.front());
  storeAttribute(&writer, CacheDocument::KnownHeadendsAttribute,
                 CacheDocument::encode(entry.GetKnownHeadends()));
  storeAttribute(&writer, CacheDocument::StoredAttribute, std::to_string(entry.GetTimestamp()));
  if (use != 0) {
    storeAttribute(&writer, CacheDocument::UsedAttribute, std::to_string(use));
  }
  std::vector<CHeadendRTT> headends;
  entry.GetHeadendList(headends);
  for (const CHeadendRTT& headend : headends) {
    writer.startElement(CacheDocument::HeadendName);
    storeAttribute(&writer, CacheDocument::NameAttribute,
                   CacheDocument::encode(headend.GetHeadend()));
    storeAttribute(&writer, CacheDocument::MetricAttribute, std::to_string(headend.GetRTT()));
    writer.endElement();
  }
  writer.endElement();
}
