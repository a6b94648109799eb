// The selection cache. No lock that a look-up or a store takes is held while the disk is waited
// for. Failure of a file, of memory or of the clock makes a miss, never more.

#include "vpn/Api/AHS/SelectionCache.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/ResolverPlace.h"
#include "vpn/Api/AHS/SelectionFiles.h"
#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/Api/PreferenceMgr.h"
#include "vpn/Api/SaxWriterIfc.h"
#include "vpn/Common/Logging/AppLog.h"
#include "vpn/include/InstanceSmartPtr.h"
#include "vpn/include/StringUtils.h"

namespace {

constexpr const char* SourceFile = "vpn/Api/AHS/SelectionCache";

/// Longest problem in the log; it holds a path, which has at most 4096 characters.
constexpr std::size_t MaxProblemLength = 4400;

STATUSCODE shortage(const char* function) {
  CAppLog::LogReturnCode(function, SourceFile, __LINE__, Logging::DBG_Warning, "operator new",
                         HEADENDSELECTION_ERROR_MEMALLOC_FAILED, 0, nullptr);
  return HEADENDSELECTION_ERROR_MEMALLOC_FAILED;
}

}  // namespace

CSelectionCache* CSelectionCache::sm_pInstance = nullptr;
unsigned int CSelectionCache::sm_uiAcquisitionCount = 0;
// Destroying this lock frees nothing, so a late thread may still release after the end of main.
CManualLock CSelectionCache::sm_instanceLock;
std::atomic_flag CSelectionCache::sm_hasWarned;

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
    } catch (const std::exception&) {
      return HEADENDSELECTION_ERROR_MEMALLOC_FAILED;
    }
  }
  ++sm_uiAcquisitionCount;
  pCache = sm_pInstance;
  return HEADENDSELECTION_SUCCESS;
}

void CSelectionCache::releaseInstance() {
  static_cast<void>(updateCache());
  CSelectionCache* pEnded = nullptr;
  {
    const CAutoLockT<CManualLock> lock(sm_instanceLock);
    if (sm_uiAcquisitionCount == 0 || --sm_uiAcquisitionCount > 0) {
      return;
    }
    std::swap(pEnded, sm_pInstance);
  }
  delete pEnded;
}

CSelectionCache::CSelectionCache(STATUSCODE& status) : m_settings() {
  status = buildCacheFromPrefs();
}

STATUSCODE CSelectionCache::buildCacheFromPrefs() {
  CAHSSettings::GetSettings(m_settings);
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  if (preferences != nullptr) {
    m_directory = preferences->getCacheDirectory();
  }
  return HEADENDSELECTION_SUCCESS;
}

std::string CSelectionCache::toString() {
  const CAutoLockT<CManualLock> lock(m_lock);
  std::string text;
  for (const auto& [key, entry] : m_cache) {
    text +=
        "at " + CStringUtils::printable(key.substr(0, key.find('\n'))) + ": " + entry.toString();
  }
  return text;
}

bool CSelectionCache::IsInCache(std::string& key, CCacheEntry& entry) {
  try {
    const auto record = SelectionRecord::current();
    std::vector<std::string> place;
    if ((record != nullptr && record->terms().measuresNow) || calculateKey(place) != 0) {
      return false;
    }
    const std::string selectionKey = SelectionFiles::placeText(place) + '\n' + key;
    CCacheEntry found;
    const bool isInFile = readFile(selectionKey, found) && isCacheCurrent(key, found);
    const CAutoLockT<CManualLock> lock(m_lock);
    ml_dnsList.swap(place);
    CCacheEntry own;
    if (findDnsCacheEntry(key, own) && isCacheCurrent(key, own) &&
        !(isInFile && found.GetTimestamp() > own.GetTimestamp())) {
      std::swap(found, own);
    } else if (!isInFile) {
      return false;
    }
    if (!m_directory.empty()) {
      m_used.insert(selectionKey);
    }
    if (record != nullptr) {
      record->noteEntry(found);
    }
    std::swap(entry, found);
    return true;
  } catch (const std::exception&) {
    static_cast<void>(shortage("IsInCache"));
    return false;
  }
}

STATUSCODE CSelectionCache::AddEntry(CCacheEntry& entry) {
  try {
    return AddEntry(entry, entry.GetKnownHeadends());
  } catch (const std::exception&) {
    return shortage("AddEntry");
  }
}

STATUSCODE CSelectionCache::AddEntry(CCacheEntry& entry, const std::string& key) {
  if (entry.GetListSize() == 0) {
    return HEADENDSELECTION_ERROR_BAD_PARAMETER;
  }
  try {
    const auto record = SelectionRecord::current();
    if (record != nullptr) {
      record->noteEntry(entry);
    }
    // Some headends may not have been measured, and the nearest may be among them.
    if ((record != nullptr && record->wasDropped()) || entry.isFromShortage()) {
      return HEADENDSELECTION_ERROR_CACHE_FAILURE;
    }
    std::vector<std::string> place;
    const STATUSCODE status = calculateKey(place);
    if (status != HEADENDSELECTION_SUCCESS) {
      return status;
    }
    entry.SetTimestamp(SelectionTimes::now());
    CCacheEntry stored(entry);
    stored.SetKnownHeadends(key);
    const CAutoLockT<CManualLock> lock(m_lock);
    m_cache.insert_or_assign(SelectionFiles::placeText(place) + '\n' + key, stored);
    ml_dnsList.swap(place);
    if (m_cache.size() > SelectionFiles::MaxFiles) {
      const auto stamp = [](const auto& item) { return item.second.GetTimestamp(); };
      m_cache.erase(std::ranges::min_element(m_cache, {}, stamp));
    }
    return HEADENDSELECTION_SUCCESS;
  } catch (const std::exception&) {
    return shortage("AddEntry");
  }
}

STATUSCODE CSelectionCache::updateCache() {
  if (m_directory.empty()) {
    return HEADENDSELECTION_SUCCESS;
  }
  try {
    const CAutoLockT<CManualLock> turn(m_writerLock);
    std::map<std::string, CCacheEntry> unwritten;
    std::set<std::string> used;
    {
      const CAutoLockT<CManualLock> lock(m_lock);
      unwritten = m_cache;
      used.swap(m_used);
    }
    for (const auto& [key, entry] : unwritten) {
      const bool isWritten = writeFile({key.substr(0, key.find('\n')), entry, {}});
      const CAutoLockT<CManualLock> lock(m_lock);
      const auto found = m_cache.find(key);
      // A selection that was stored meanwhile stays until its owner releases.
      if (isWritten && found != m_cache.end() && found->second.toString() == entry.toString()) {
        m_cache.erase(found);
      }
    }
    for (const std::string& key : used) {
      SelectionFiles::noteUse(m_directory, key);
    }
    return HEADENDSELECTION_SUCCESS;
  } catch (const std::exception&) {
    return shortage("updateCache");
  }
}

STATUSCODE CSelectionCache::calculateKey(std::vector<std::string>& dnsList) {
  if (!readResolverPlace(dnsList)) {
    CAppLog::LogReturnCode("calculateKey", SourceFile, __LINE__, Logging::DBG_Warning,
                           "readResolverPlace", HEADENDSELECTION_ERROR_UNEXPECTED, 0, nullptr);
    return HEADENDSELECTION_ERROR_UNEXPECTED;
  }
  if (const auto record = SelectionRecord::current(); record != nullptr) {
    const SelectionRecord::Terms terms = record->terms();
    dnsList.insert(dnsList.end(), terms.way.begin(), terms.way.end());
  }
  return HEADENDSELECTION_SUCCESS;
}

void CSelectionCache::storeAttribute(SaxWriterIfc* pWriter, const std::string& name,
                                     const std::string& value) {
  pWriter->addAttribute(name, value);
}

void CSelectionCache::splitString(const std::string& text, const std::string& separators,
                                  std::vector<std::string>& parts) {
  std::size_t end = 0;
  for (std::size_t begin = 0; end != std::string::npos; begin = end + 1) {
    end = text.find_first_of(separators, begin);
    parts.push_back(text.substr(begin, end - begin));
  }
}

bool CSelectionCache::isCacheCurrent(std::string& key, CCacheEntry& entry) {
  return entry.GetKnownHeadends() == key &&
         !SelectionTimes::isExpired(entry, m_settings.nClearCache);
}

bool CSelectionCache::findDnsCacheEntry(std::string& key, CCacheEntry& entry) {
  const auto found = m_cache.find(SelectionFiles::placeText(ml_dnsList) + '\n' + key);
  if (found == m_cache.end()) {
    return false;
  }
  entry = found->second;
  return true;
}

/// Warns of the first problem only: a wrong file is met at every look-up, and a problem of the
/// directory concerns all files.
void CSelectionCache::warnOnce(const char* function, const std::string& problem) {
  if (!problem.empty() && !sm_hasWarned.test_and_set()) {
    CAppLog::LogDebugMessage(
        function, SourceFile, __LINE__, Logging::DBG_Warning, "%s",
        CStringUtils::printable("the selection cache: " + problem, MaxProblemLength).c_str());
  }
}

bool CSelectionCache::readFile(const std::string& selectionKey, CCacheEntry& entry) const {
  std::string problem;
  const bool isThere =
      !m_directory.empty() && SelectionFiles::read(m_directory, selectionKey, entry, problem);
  warnOnce("IsInCache", problem);
  return isThere;
}

/// Writes the file of a selection, unless the file holds a younger one. @return whether `selection`
/// is the younger one now.
bool CSelectionCache::writeFile(const SelectionFiles::Selection& selection) {
  CCacheEntry theirs;
  std::string key = selection.entry.GetKnownHeadends();
  if (readFile(SelectionFiles::keyOf(selection), theirs) && isCacheCurrent(key, theirs) &&
      theirs.GetTimestamp() > selection.entry.GetTimestamp()) {
    return true;
  }
  std::string problem;
  const bool isWritten =
      SelectionFiles::write(m_directory, selection, documentOf(selection), problem);
  warnOnce("releaseInstance", problem.empty() ? "" : "kept in memory only: " + problem);
  return isWritten;
}

/// The text of a selection's file; empty when it cannot be built.
std::string CSelectionCache::documentOf(const SelectionFiles::Selection& selection) {
  SaxWriterIfc writer;
  writer.startElement("selection");
  storeAttribute(&writer, "place", selection.place);
  storeAttribute(&writer, "stored", std::to_string(selection.entry.GetTimestamp()));
  std::vector<std::string> candidates;
  splitString(selection.entry.GetKnownHeadends(), ";", candidates);
  candidates.pop_back();  // each ends with a semicolon
  for (const std::string& candidate : candidates) {
    writer.startElement("candidate");
    storeAttribute(&writer, "name", candidate);
    writer.endElement();
  }
  std::vector<CHeadendRTT> results;
  static_cast<void>(selection.entry.GetHeadendList(results));
  for (const CHeadendRTT& result : results) {
    writer.startElement("result");
    storeAttribute(&writer, "name", result.GetHeadend());
    storeAttribute(&writer, "rtt", std::to_string(result.GetRTT()));
    writer.endElement();
  }
  std::string document;
  return writer.finish(document) ? document : std::string();
}
