// The selection cache. The file is the truth, the map in memory a copy of it plus what this process
// could not write yet: every look-up and every store first takes over what others have written, and
// a store reads, changes and replaces the file under a lock between processes, so that none loses
// another's entry. Failure of the file, of memory or of the clock makes a miss, never more.

#include "vpn/Api/AHS/SelectionCache.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <utility>

#include "vpn/Api/AHS/CacheDocument.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/ResolverPlace.h"
#include "vpn/Api/PreferenceMgr.h"
#include "vpn/Api/SaxWriterIfc.h"
#include "vpn/Common/Logging/AppLog.h"
#include "vpn/include/InstanceSmartPtr.h"
#include "vpn/include/StringUtils.h"

namespace {

constexpr const char* SourceFile = "vpn/Api/AHS/SelectionCache";

/// How long a store waits for other processes: it happens before the client is called back, so it
/// may cost what a person does not notice.
constexpr std::chrono::milliseconds StorePatience{50};
/// How long the last release waits: the client has its result by then, and ten processes that end
/// at once on a disk that takes 100 ms a flush are all served in this time.
constexpr std::chrono::milliseconds ReleasePatience{2000};

constexpr unsigned long SecondsPerDay = 24UL * 60 * 60;
/// The age of an entry from the future: older than all others.
constexpr unsigned long BeyondAge = std::numeric_limits<unsigned long>::max();

/// Longest problem in the log; it holds a path, which has at most 4096 characters.
constexpr std::size_t MaxProblemLength = 4400;

/// Size of a document without its text, and of one selection's and one headend's tags, rounded up.
constexpr std::size_t DocumentOverhead = 256;
constexpr std::size_t SelectionOverhead = 128;
constexpr std::size_t HeadendOverhead = 64;

static_assert(CacheDocument::MaxEntries == CSelectionCache::MaxEntries,
              "what is kept is what can be read");

unsigned long secondsNow() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch).count();
  return seconds > 0 ? static_cast<unsigned long>(seconds) : 0;
}

std::string configuredFile() {
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  return preferences == nullptr ? "" : preferences->getCacheFile();
}

/// An upper bound of the entry's size in a document; beyond every limit for one that a reader would
/// refuse.
std::size_t writtenSize(const std::string& key, const CCacheEntry& entry) {
  constexpr std::size_t TooLarge = CSelectionCache::MaxFileSize + 1;
  std::vector<CHeadendRTT> headends;
  entry.GetHeadendList(headends);
  if (headends.size() > CacheDocument::MaxRecords) {
    return TooLarge;
  }
  // The key holds the place and the candidate set.
  std::size_t size = SelectionOverhead + CacheDocument::writtenSize(key);
  for (const CHeadendRTT& headend : headends) {
    const std::string name = headend.GetHeadend();
    if (name.empty() || name.size() > CacheDocument::MaxHeadendLength) {
      return TooLarge;
    }
    size += HeadendOverhead + CacheDocument::writtenSize(name);
  }
  return size;
}

}  // namespace

CSelectionCache* CSelectionCache::sm_pInstance = nullptr;
unsigned int CSelectionCache::sm_uiAcquisitionCount = 0;
// A late thread may still release after the end of main: destroying this lock gives nothing back,
// so it stays usable.
CManualLock CSelectionCache::sm_instanceLock;

CSelectionCache* CSelectionCache::acquireInstance() {
  const CAutoLockT<CManualLock> lock(sm_instanceLock);
  if (sm_pInstance != nullptr) {
    ++sm_uiAcquisitionCount;
  }
  return sm_pInstance;
}

STATUSCODE CSelectionCache::createSingletonInstance(CSelectionCache*& pCache) {
  pCache = nullptr;
  const CAutoLockT<CManualLock> lock(sm_instanceLock);
  if (sm_pInstance == nullptr) {
    try {
      STATUSCODE status = HEADENDSELECTION_ERROR_UNEXPECTED;
      sm_pInstance = new CSelectionCache(status);
      if (status != HEADENDSELECTION_SUCCESS) {
        delete sm_pInstance;
        sm_pInstance = nullptr;
        return status;
      }
    } catch (const std::exception&) {
      return HEADENDSELECTION_ERROR_MEMALLOC_FAILED;
    }
  }
  ++sm_uiAcquisitionCount;
  pCache = sm_pInstance;
  return HEADENDSELECTION_SUCCESS;
}

void CSelectionCache::releaseInstance() {
  // Written before the acquisition is given back and without the lock, which nobody shall wait for
  // as long as a disk takes. Others may come and go meanwhile, so who is last is asked again.
  bool flushed = false;
  while (!releaseOnce(flushed)) {
    flush();
    flushed = true;
  }
}

/// Gives one acquisition back; the last one destroys the instance.
/// @return false, with nothing given back, when it is the last one and a store is still to be
/// tried.
bool CSelectionCache::releaseOnce(bool flushed) {
  CSelectionCache* pEnded = nullptr;
  {
    const CAutoLockT<CManualLock> lock(sm_instanceLock);
    if (sm_uiAcquisitionCount == 1 && !flushed && m_storePending.load()) {
      return false;
    }
    if (sm_uiAcquisitionCount == 0 || --sm_uiAcquisitionCount > 0) {
      return true;
    }
    std::swap(pEnded, sm_pInstance);
  }
  delete pEnded;
  return true;
}

CSelectionCache::CSelectionCache(STATUSCODE& status)
    : m_settings(),
      m_file(configuredFile(), MaxFileSize),
      m_fileIsCorrupt(false),
      m_storePending(false) {
  CAHSSettings::GetSettings(m_settings);
  status = HEADENDSELECTION_SUCCESS;
}

CSelectionCache::~CSelectionCache() = default;

std::string CSelectionCache::toString() {
  const CAutoLockT<CManualLock> lock(m_lock);
  try {
    buildCacheFromPrefs();
    std::string text;
    for (const std::string& key : keysNewestFirst()) {
      const CCacheEntry& entry = m_cache[key];
      std::vector<std::string> parts;
      splitString(key, CacheDocument::KeySeparator, parts);
      text += "at " + CStringUtils::printable(parts.front()) +
              (isExpired(ageOf(entry)) ? ", out of date: " : ", current: ") + entry.toString();
    }
    return text;
  } catch (const std::exception&) {
    m_file.forget();
    return std::string();
  }
}

bool CSelectionCache::IsInCache(std::string& key, CCacheEntry& entry) {
  const CAutoLockT<CManualLock> lock(m_lock);
  try {
    buildCacheFromPrefs();
    CCacheEntry found;
    if (calculateKey(ml_dnsList) != HEADENDSELECTION_SUCCESS || !findDnsCacheEntry(key, found) ||
        !isCacheCurrent(key, found)) {
      return false;
    }
    std::string usedKey = placeKey(key);
    m_lastUsed = found;
    entry = found;
    m_lastUsedKey.swap(usedKey);
    return true;
  } catch (const std::exception&) {
    m_file.forget();  // it may have been read, but not taken over
    CAppLog::LogReturnCode("IsInCache", SourceFile, __LINE__, Logging::DBG_Warning,
                           "CSelectionCache::buildCacheFromPrefs",
                           HEADENDSELECTION_ERROR_MEMALLOC_FAILED, 0, nullptr);
    return false;
  }
}

STATUSCODE CSelectionCache::AddEntry(CCacheEntry& entry) {
  try {
    return AddEntry(entry, entry.GetKnownHeadends());
  } catch (const std::exception&) {
    return HEADENDSELECTION_ERROR_MEMALLOC_FAILED;
  }
}

STATUSCODE CSelectionCache::AddEntry(CCacheEntry& entry, const std::string& key) {
  if (entry.GetListSize() == 0) {
    return HEADENDSELECTION_ERROR_BAD_PARAMETER;
  }
  const CAutoLockT<CManualLock> lock(m_lock);
  try {
    const STATUSCODE status = calculateKey(ml_dnsList);
    if (status != HEADENDSELECTION_SUCCESS) {
      return status;
    }
    entry.SetTimestamp(secondsNow());
    CCacheEntry stored(entry);
    stored.SetKnownHeadends(key);
    const std::string mapKey = placeKey(key);
    std::string usedKey(mapKey);
    m_unsaved.insert(mapKey);
    m_cache.insert_or_assign(mapKey, stored);
    m_lastUsed = stored;
    m_lastUsedKey.swap(usedKey);
    return updateCache();
  } catch (const std::exception&) {
    m_file.forget();
    CAppLog::LogReturnCode("AddEntry", SourceFile, __LINE__, Logging::DBG_Warning,
                           "CSelectionCache::updateCache", HEADENDSELECTION_ERROR_MEMALLOC_FAILED,
                           0, nullptr);
    return HEADENDSELECTION_ERROR_MEMALLOC_FAILED;
  }
}

bool CSelectionCache::GetLastUsed(CCacheEntry& entry) {
  const CAutoLockT<CManualLock> lock(m_lock);
  try {
    if (m_lastUsedKey.empty()) {
      return false;
    }
    entry = m_lastUsed;
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

STATUSCODE CSelectionCache::buildCacheFromPrefs() {
  if (!m_file.isSet()) {
    return HEADENDSELECTION_SUCCESS;
  }
  std::string text;
  std::string problem;
  switch (m_file.read(text, problem)) {
    case CStateFile::Content::Unchanged:
      return HEADENDSELECTION_SUCCESS;
    case CStateFile::Content::Refused:
      warnOnce("buildCacheFromPrefs", problem + "; the selection cache is kept in memory only");
      return HEADENDSELECTION_ERROR_CACHE_FAILURE;
    case CStateFile::Content::Missing:
      m_fileIsCorrupt = false;
      adopt(Entries());
      return HEADENDSELECTION_SUCCESS;
    case CStateFile::Content::Read:
      break;
  }
  Entries fromFile;
  problem = CacheDocument::parse(text, fromFile);
  m_fileIsCorrupt = !problem.empty();
  if (m_fileIsCorrupt) {
    warnOnce("buildCacheFromPrefs",
             m_file.path() + " is no selection cache and is ignored: " + problem);
  }
  adopt(std::move(fromFile));
  return HEADENDSELECTION_SUCCESS;
}

STATUSCODE CSelectionCache::updateCache() { return writeFile(StorePatience); }

STATUSCODE CSelectionCache::calculateKey(std::vector<std::string>& dnsList) {
  std::vector<std::string> place;
  if (!readResolverPlace(place)) {
    CAppLog::LogReturnCode("calculateKey", SourceFile, __LINE__, Logging::DBG_Warning,
                           "readResolverPlace", HEADENDSELECTION_ERROR_UNEXPECTED, 0, nullptr);
    return HEADENDSELECTION_ERROR_UNEXPECTED;
  }
  std::sort(place.begin(), place.end());
  place.erase(std::unique(place.begin(), place.end()), place.end());
  dnsList.swap(place);
  return HEADENDSELECTION_SUCCESS;
}

void CSelectionCache::storeAttribute(SaxWriterIfc* pWriter, const std::string& name,
                                     const std::string& value) {
  pWriter->addAttribute(name, value);
}

void CSelectionCache::splitString(const std::string& text, const std::string& separators,
                                  std::vector<std::string>& parts) {
  std::size_t begin = 0;
  for (;;) {
    const std::size_t end = text.find_first_of(separators, begin);
    parts.push_back(text.substr(begin, end - begin));
    if (end == std::string::npos) {
      return;
    }
    begin = end + 1;
  }
}

bool CSelectionCache::isCacheCurrent(std::string& key, CCacheEntry& entry) {
  return entry.GetKnownHeadends() == key && entry.GetListSize() > 0 && !isExpired(ageOf(entry));
}

bool CSelectionCache::findDnsCacheEntry(std::string& key, CCacheEntry& entry) {
  const auto found = m_cache.find(placeKey(key));
  if (found == m_cache.end()) {
    return false;
  }
  entry = found->second;
  return true;
}

/// The key in the map of a candidate set at the place in `ml_dnsList`.
std::string CSelectionCache::placeKey(const std::string& knownHeadends) {
  std::string place;
  for (const std::string& part : ml_dnsList) {
    place += (place.empty() ? "" : " ") + part;
  }
  return CacheDocument::selectionKey(place, knownHeadends);
}

/// Brings the file up to date with the map: under the lock between processes it takes over what
/// others have written, and replaces the file by the whole.
STATUSCODE CSelectionCache::writeFile(std::chrono::milliseconds patience) {
  if (!m_file.isSet()) {
    trim();
    return HEADENDSELECTION_SUCCESS;
  }
  m_storePending.store(true);
  std::string problem;
  {
    CStateFile::Lock fileLock(m_file, patience);
    const bool busy = fileLock.state() == CStateFile::Locking::Busy;
    if (fileLock.state() != CStateFile::Locking::Held) {
      trim();
      if (!busy || patience == ReleasePatience) {
        warnOnce("updateCache", "selection not kept in the cache file: " + fileLock.problem());
      }
      return HEADENDSELECTION_ERROR_CACHE_FAILURE;
    }
    const STATUSCODE status = buildCacheFromPrefs();
    trim();
    if (status != HEADENDSELECTION_SUCCESS) {
      return status;
    }
    std::string document;
    if (!writeDocument(document)) {
      return HEADENDSELECTION_ERROR_CACHE_FAILURE;
    }
    if (m_fileIsCorrupt) {
      m_file.keepAside();
    }
    if (!m_file.replace(document, problem)) {
      warnOnce("updateCache", "selection not kept in the cache file: " + problem);
      return HEADENDSELECTION_ERROR_CACHE_FAILURE;
    }
    m_fileIsCorrupt = false;
    m_unsaved.clear();
    m_storePending.store(false);
  }
  // The new file is in place for everyone; that it also outlives a power failure now need not keep
  // other processes waiting.
  if (!m_file.syncDirectory(problem)) {
    warnOnce("updateCache", problem);
  }
  return HEADENDSELECTION_SUCCESS;
}

/// Writes the selections, newest first, as far as they fit into the file; the rest is older.
/// @return false when the newest alone does not fit or memory is short.
bool CSelectionCache::writeDocument(std::string& document) {
  CSaxMemoryWriter writer;
  writer.startElement(CacheDocument::RootName);
  storeAttribute(&writer, CacheDocument::VersionAttribute, CacheDocument::Version);
  std::size_t size = DocumentOverhead;
  for (const std::string& key : keysNewestFirst()) {
    const CCacheEntry& entry = m_cache[key];
    const std::size_t entrySize = writtenSize(key, entry);
    if (size + entrySize <= MaxFileSize) {
      writeSelection(writer, key, entry);
      size += entrySize;
    } else if (key == m_lastUsedKey) {
      warnOnce("updateCache", "a selection of " + std::to_string(entry.GetListSize()) +
                                  " headends is too large for the cache file");
      m_storePending.store(false);  // it will not get smaller
      return false;
    }
  }
  if (!writer.finish(document)) {
    warnOnce("updateCache", "the cache file's text could not be built");
    return false;
  }
  return true;
}

void CSelectionCache::writeSelection(SaxWriterIfc& writer, const std::string& key,
                                     const CCacheEntry& entry) {
  std::vector<std::string> parts;
  splitString(key, CacheDocument::KeySeparator, parts);
  writer.startElement(CacheDocument::SelectionName);
  storeAttribute(&writer, CacheDocument::PlaceAttribute, parts.front());
  storeAttribute(&writer, CacheDocument::KnownHeadendsAttribute,
                 CacheDocument::encode(entry.GetKnownHeadends()));
  storeAttribute(&writer, CacheDocument::StoredAttribute, std::to_string(entry.GetTimestamp()));
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

/// Makes the map what the file holds, plus what this process has not written yet; where both have
/// an entry the newer one stays. Changes nothing when memory is short.
void CSelectionCache::adopt(Entries&& fromFile) {
  std::set<std::string> unsaved;
  for (const std::string& key : m_unsaved) {
    const auto mine = m_cache.find(key);
    const auto theirs = fromFile.find(key);
    if (mine == m_cache.end() ||
        (theirs != fromFile.end() && ageOf(theirs->second) < ageOf(mine->second))) {
      continue;
    }
    fromFile[key] = mine->second;
    unsaved.insert(key);
  }
  m_cache.swap(fromFile);
  m_unsaved.swap(unsaved);
}

/// Drops what is out of date and, beyond the number of entries that are kept, the oldest. Entries
/// from the future stay while there is room: if the clock is what is wrong, they will be right
/// again.
void CSelectionCache::trim() {
  std::size_t kept = 0;
  for (const std::string& key : keysNewestFirst()) {
    const unsigned long age = ageOf(m_cache[key]);
    const bool isOld = isExpired(age) && age != BeyondAge && key != m_lastUsedKey;
    if (isOld || kept == MaxEntries) {
      m_cache.erase(key);
      m_unsaved.erase(key);
    } else {
      ++kept;
    }
  }
}

/// The keys of all entries: the one used last, then by age. Stamps count seconds, so an entry just
/// stored is not always younger than the others.
std::vector<std::string> CSelectionCache::keysNewestFirst() {
  std::vector<std::string> keys;
  std::vector<std::pair<unsigned long, std::string>> others;
  for (const auto& [key, entry] : m_cache) {
    if (key == m_lastUsedKey) {
      keys.push_back(key);
    } else {
      others.emplace_back(ageOf(entry), key);
    }
  }
  std::sort(others.begin(), others.end());
  for (auto& other : others) {
    keys.push_back(std::move(other.second));
  }
  return keys;
}

/// Seconds since the entry was stored, `BeyondAge` for one from the future: after the clock went
/// backwards nobody can say how old it is.
unsigned long CSelectionCache::ageOf(const CCacheEntry& entry) const {
  const unsigned long now = secondsNow();
  return entry.GetTimestamp() > now ? BeyondAge : now - entry.GetTimestamp();
}

bool CSelectionCache::isExpired(unsigned long age) const {
  return m_settings.nClearCache == 0 || age > m_settings.nClearCache * SecondsPerDay;
}

/// Warns of a problem unless it is the one warned of last: a file that stays wrong is met again at
/// every look-up and every store.
void CSelectionCache::warnOnce(const char* function, const std::string& problem) {
  if (problem == m_lastProblem) {
    return;
  }
  m_lastProblem = problem;
  CAppLog::LogDebugMessage(function, SourceFile, __LINE__, Logging::DBG_Warning, "%s",
                           CStringUtils::printable(problem, MaxProblemLength).c_str());
}

void CSelectionCache::flush() {
  const CAutoLockT<CManualLock> lock(m_lock);
  try {
    writeFile(ReleasePatience);
  } catch (const std::exception&) {
    CAppLog::LogReturnCode("releaseInstance", SourceFile, __LINE__, Logging::DBG_Warning,
                           "CSelectionCache::updateCache", HEADENDSELECTION_ERROR_MEMALLOC_FAILED,
                           0, nullptr);
  }
}
