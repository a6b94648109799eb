// The selection cache. The file is the truth, the map in memory a copy of it plus what this process
// has stored since: every look-up first takes over what others have written, and what is stored is
// handed to the writer, whose job is the file (SelectionCacheFile.cpp). The lock of the cache is
// never held while the disk is written. Failure of the file, of memory or of the clock makes a
// miss, never more.

#include "vpn/Api/AHS/SelectionCache.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <utility>

#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/ResolverPlace.h"
#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/Api/AHS/SelectionTimes.h"
#include "vpn/Api/PreferenceMgr.h"
#include "vpn/Api/SaxWriterIfc.h"
#include "vpn/Common/Logging/AppLog.h"
#include "vpn/include/InstanceSmartPtr.h"
#include "vpn/include/StringUtils.h"

namespace {

constexpr const char* SourceFile = "vpn/Api/AHS/SelectionCache";

/// How long a store waits for the file: it happens before the client is called back, so it may cost
/// what a person does not notice. An ordinary disk is done by then.
constexpr std::chrono::milliseconds StorePatience{50};
/// How long the last release waits: the client has its result by then. Longer than a job waits for
/// other processes.
constexpr std::chrono::milliseconds ReleasePatience{2500};
/// How long it waits when a use is all that is to be put on record, which may be lost.
constexpr std::chrono::milliseconds UsePatience{50};

/// How old the file's record of a use may be, in seconds. A use that is found on record costs no
/// write, so that someone who selects all day costs the disk one an hour; the price is that those
/// used longest ago are told apart to the hour.
constexpr unsigned long UseGranularity = 60UL * 60;

/// The number of a store that is kept in memory only: no job ever has it.
constexpr unsigned long MemoryOnly = std::numeric_limits<unsigned long>::max();

/// Longest problem in the log; it holds a path, which has at most 4096 characters.
constexpr std::size_t MaxProblemLength = 4400;

std::string configuredFile() {
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  return preferences == nullptr ? "" : preferences->getCacheFile();
}

unsigned long useOf(const CacheDocument::Uses& uses, const std::string& key) {
  const auto found = uses.find(key);
  return found == uses.end() ? 0 : found->second;
}

void logShortage(const char* function, const char* call) {
  CAppLog::LogReturnCode(function, SourceFile, __LINE__, Logging::DBG_Warning, call,
                         HEADENDSELECTION_ERROR_MEMALLOC_FAILED, 0, nullptr);
}

/// What the selection that this thread works for asks for.
SelectionRecord::Terms termsOfSelection() {
  const auto record = SelectionRecord::Current();
  return record != nullptr ? record->terms() : SelectionRecord::Terms();
}

/// Whoever is cancelled has measured some of the headends, and the nearest may not be among them.
bool isOfCancelledSelection() {
  const auto record = SelectionRecord::Current();
  return record != nullptr && record->IsCancelled();
}

/// Without memory for the note, the selection is told without its metrics.
void noteForSelection(const CCacheEntry& entry) {
  try {
    if (const auto record = SelectionRecord::Current(); record != nullptr) {
      record->NoteEntry(entry);
    }
  } catch (const std::exception&) {
    logShortage("noteForSelection", "SelectionRecord::NoteEntry");
  }
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
  // Waited for before the acquisition is given back and without the lock, which nobody shall wait
  // for as long as a disk takes. Others may come and go meanwhile, so who is last is asked again.
  bool flushed = false;
  while (!releaseOnce(flushed)) {
    WaitForStores();
    flushed = true;
  }
}

STATUSCODE CSelectionCache::WaitForStores() {
  const auto start = std::chrono::steady_clock::now();
  CCacheWriter::Ticket ticket;
  const std::chrono::milliseconds patience = startFlush(ticket);
  return endFlush(ticket.WaitUntil(start + patience));
}

/// @param ticket receives the job to wait for; one is begun when a store is not in the file.
/// @return how long it is worth waiting for.
std::chrono::milliseconds CSelectionCache::startFlush(CCacheWriter::Ticket& ticket) {
  const CAutoLockT<CManualLock> lock(m_lock);
  settle();
  try {
    if (!m_writer.IsBusy() && hasUnsaved() && updateCache() != HEADENDSELECTION_SUCCESS) {
      warnOnce("releaseInstance", "selection not kept in the cache file: there is no thread");
    }
    ticket = m_writer.Last();
  } catch (const std::exception&) {
    logShortage("releaseInstance", "CSelectionCache::updateCache");
  }
  return hasUnsaved() ? ReleasePatience : UsePatience;
}

STATUSCODE CSelectionCache::endFlush(bool isEnded) {
  const CAutoLockT<CManualLock> lock(m_lock);
  settle();
  try {
    if (!isEnded && hasUnsaved()) {
      warnOnce("releaseInstance",
               "selection not kept in the cache file so far: the disk takes its time");
    }
  } catch (const std::exception&) {
    logShortage("releaseInstance", "CSelectionCache::updateCache");
  }
  return m_unsaved.empty() ? HEADENDSELECTION_SUCCESS : HEADENDSELECTION_ERROR_CACHE_FAILURE;
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
      m_number(0),
      m_hasWarned(false),
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
    for (const std::string& key : keysByUse(m_cache, m_uses, m_lastUsedKey)) {
      const CCacheEntry& entry = m_cache[key];
      std::vector<std::string> parts;
      splitString(key, CacheDocument::KeySeparator, parts);
      const bool isOld = SelectionTimes::isExpired(entry, m_settings.nClearCache);
      text += "at " + CStringUtils::printable(parts.front()) +
              (isOld ? ", out of date: " : ", current: ") + entry.toString();
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
    if (termsOfSelection().measuresNow) {
      return false;
    }
    buildCacheFromPrefs();
    CCacheEntry found;
    if (calculateKey(ml_dnsList) != HEADENDSELECTION_SUCCESS || !findDnsCacheEntry(key, found) ||
        !isCacheCurrent(key, found)) {
      return false;
    }
    std::string usedKey = placeKey(key);
    noteUse(usedKey, found);
    noteForSelection(found);
    entry.Swap(found);
    m_lastUsedKey.swap(usedKey);
    return true;
  } catch (const std::exception&) {
    m_file.forget();  // it may have been read, but not taken over
    logShortage("IsInCache", "CSelectionCache::buildCacheFromPrefs");
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
  const auto deadline = std::chrono::steady_clock::now() + StorePatience;
  CCacheWriter::Ticket ticket;
  unsigned long number = 0;
  noteForSelection(entry);
  if (isOfCancelledSelection()) {
    return HEADENDSELECTION_ERROR_CACHE_FAILURE;
  }
  const STATUSCODE status = store(entry, key, ticket, number);
  if (status != HEADENDSELECTION_SUCCESS) {
    return status;
  }
  static_cast<void>(ticket.WaitUntil(deadline));
  const CAutoLockT<CManualLock> lock(m_lock);
  settle();
  const bool isUnsaved = std::any_of(m_unsaved.begin(), m_unsaved.end(),
                                     [number](const auto& item) { return item.second == number; });
  return isUnsaved ? HEADENDSELECTION_ERROR_CACHE_FAILURE : HEADENDSELECTION_SUCCESS;
}

/// Puts a selection into the map and hands the writing over.
/// @param number receives the store's.
STATUSCODE CSelectionCache::store(CCacheEntry& entry, const std::string& key,
                                  CCacheWriter::Ticket& ticket, unsigned long& number) {
  const CAutoLockT<CManualLock> lock(m_lock);
  try {
    const STATUSCODE status = calculateKey(ml_dnsList);
    if (status != HEADENDSELECTION_SUCCESS) {
      return status;
    }
    entry.SetTimestamp(SelectionTimes::now());
    CCacheEntry stored(entry);
    stored.SetKnownHeadends(key);
    const std::string mapKey = placeKey(key);
    std::string usedKey(mapKey);
    const bool fits = !m_file.isSet() || writtenSize(mapKey, stored) <= MaxFileSize;
    number = fits ? ++m_number : MemoryOnly;
    m_unsaved[mapKey] = number;
    m_cache.insert_or_assign(mapKey, stored);
    m_uses.erase(mapKey);  // its stamp is its last use
    m_lastUsedKey.swap(usedKey);
    keepWithinLimits();
    if (!fits) {
      warnOnce("updateCache", "a selection of " + std::to_string(stored.GetListSize()) +
                                  " headends is too large for the cache file");
      return HEADENDSELECTION_ERROR_CACHE_FAILURE;
    }
    const STATUSCODE handedOver = updateCache();
    ticket = m_writer.Last();
    return handedOver;
  } catch (const std::exception&) {
    logShortage("AddEntry", "CSelectionCache::updateCache");
    return HEADENDSELECTION_ERROR_MEMALLOC_FAILED;
  }
}

STATUSCODE CSelectionCache::buildCacheFromPrefs() {
  if (!m_file.isSet()) {
    return HEADENDSELECTION_SUCCESS;
  }
  Contents fromFile;
  std::string problem;
  switch (readFile(m_file, fromFile, problem)) {
    case Found::Unchanged:
      return HEADENDSELECTION_SUCCESS;
    case Found::Refused:
      warnOnce("buildCacheFromPrefs", problem);
      return HEADENDSELECTION_ERROR_CACHE_FAILURE;
    case Found::Wrong:
    case Found::Newer:
      warnOnce("buildCacheFromPrefs", problem);
      break;
    case Found::Nothing:
    case Found::Selections:
      break;
  }
  adopt(std::move(fromFile));
  return HEADENDSELECTION_SUCCESS;
}

STATUSCODE CSelectionCache::updateCache() {
  if (!m_file.isSet()) {
    m_unsaved.clear();
    return HEADENDSELECTION_SUCCESS;
  }
  m_storePending.store(true);
  auto batch = std::make_shared<const Batch>(makeBatch());
  const bool isHandedOver =
      m_writer.Submit(++m_number, [batch = std::move(batch)] { return writeFile(*batch); });
  return isHandedOver ? HEADENDSELECTION_SUCCESS : HEADENDSELECTION_ERROR_CACHE_FAILURE;
}

CSelectionCache::Batch CSelectionCache::makeBatch() {
  Batch batch;
  batch.path = m_file.path();
  for (const auto& [key, number] : m_unsaved) {
    if (number != MemoryOnly) {
      batch.mine.entries.emplace(key, m_cache[key]);
    }
  }
  batch.mine.uses = m_uses;
  batch.latest = m_lastUsedKey;
  batch.clearCache = m_settings.nClearCache;
  return batch;
}

/// Takes note of what has become of the job that ended last. Without memory for a word about it,
/// nothing is said.
void CSelectionCache::settle() {
  CCacheWriter::Outcome outcome;
  if (!m_writer.Take(outcome)) {
    return;
  }
  // What is not on record but a use, nobody misses.
  const bool isOfAStore = hasUnsaved();
  const bool isWritten = outcome.status == HEADENDSELECTION_SUCCESS;
  if (isWritten) {
    std::erase_if(m_unsaved,
                  [&outcome](const auto& item) { return item.second <= outcome.number; });
  }
  m_storePending.store(hasUnsaved() || m_writer.IsBusy());
  if (outcome.status == HEADENDSELECTION_ERROR_MEMALLOC_FAILED) {
    logShortage("updateCache", "CSelectionCache::writeFile");
  } else if (!outcome.problem.empty() && isOfAStore) {
    try {
      warnOnce("updateCache", outcome.problem);
    } catch (const std::exception&) {
      logShortage("updateCache", "CSelectionCache::warnOnce");
    }
  } else if (isWritten) {
    m_hasWarned = false;
    m_lastProblem.clear();
  }
}

/// Whether something that was stored may not be in the file, although it fits.
bool CSelectionCache::hasUnsaved() {
  return std::any_of(m_unsaved.begin(), m_unsaved.end(),
                     [](const auto& item) { return item.second != MemoryOnly; });
}

STATUSCODE CSelectionCache::calculateKey(std::vector<std::string>& dnsList) {
  std::vector<std::string> place;
  if (!readResolverPlace(place)) {
    CAppLog::LogReturnCode("calculateKey", SourceFile, __LINE__, Logging::DBG_Warning,
                           "readResolverPlace", HEADENDSELECTION_ERROR_UNEXPECTED, 0, nullptr);
    return HEADENDSELECTION_ERROR_UNEXPECTED;
  }
  const SelectionRecord::Terms terms = termsOfSelection();
  place.insert(place.end(), terms.way.begin(), terms.way.end());
  std::sort(place.begin(), place.end());
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
  return entry.GetKnownHeadends() == key && entry.GetListSize() > 0 &&
         !SelectionTimes::isExpired(entry, m_settings.nClearCache);
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
  return CacheDocument::selectionKey(CacheDocument::placeText(ml_dnsList), knownHeadends);
}

/// Counts a hit as a use, and has it put on record unless one of late is.
void CSelectionCache::noteUse(const std::string& key, const CCacheEntry& entry) {
  const unsigned long now = SelectionTimes::now();
  m_uses[key] = now;
  const unsigned long onRecord = SelectionTimes::lastUse(entry, useOf(m_recorded, key), now);
  if (m_file.isSet() && !m_unsaved.contains(key) && now - onRecord >= UseGranularity &&
      !m_writer.IsBusy()) {
    static_cast<void>(updateCache());
  }
}

/// Makes the map what the file holds, plus what this process has stored and the file may not have;
/// where both have an entry the newer one stays. Changes nothing when memory is short.
void CSelectionCache::adopt(Contents&& fromFile) {
  Contents mine;
  std::map<std::string, unsigned long> unsaved;
  for (const auto& [key, number] : m_unsaved) {
    const auto own = m_cache.find(key);
    const auto theirs = fromFile.entries.find(key);
    if (own == m_cache.end() ||
        (theirs != fromFile.entries.end() &&
         SelectionTimes::ageOf(theirs->second) < SelectionTimes::ageOf(own->second))) {
      continue;
    }
    mine.entries.emplace(key, own->second);
    unsaved.emplace(key, number);
  }
  mine.uses = m_uses;
  Uses recorded = fromFile.uses;
  merge(fromFile, mine);
  m_cache.swap(fromFile.entries);
  m_uses.swap(fromFile.uses);
  m_recorded.swap(recorded);
  m_unsaved.swap(unsaved);
}

void CSelectionCache::keepWithinLimits() {
  trim(m_cache, m_uses, m_lastUsedKey, m_settings.nClearCache);
  std::erase_if(m_unsaved, [this](const auto& item)
                               AHS_REQUIRES(m_lock) { return !m_cache.contains(item.first); });
}

/// Warns of a problem. One warning is enough until a store has succeeded: what else is found wrong
/// is logged as information, and what was logged last not at all, for a file that stays wrong is
/// met again at every look-up and every store.
void CSelectionCache::warnOnce(const char* function, const std::string& problem) {
  if (problem == m_lastProblem) {
    return;
  }
  m_lastProblem = problem;
  CAppLog::LogDebugMessage(function, SourceFile, __LINE__,
                           m_hasWarned ? Logging::DBG_Info : Logging::DBG_Warning, "%s",
                           CStringUtils::printable(problem, MaxProblemLength).c_str());
  m_hasWarned = true;
}
