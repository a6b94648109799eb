// The selection cache. No lock that a look-up or a store takes is held while the disk is waited
// for. Failure of a file, of memory or of the clock makes a miss, never more.

#include "vpn/Api/AHS/SelectionCache.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/NetworkPlace.h"
#include "vpn/Api/AHS/SelectionDoubt.h"
#include "vpn/Api/AHS/SelectionFiles.h"
#include "vpn/Api/AHS/SelectionKey.h"
#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/Api/AHS/SelectionRules.h"
#include "vpn/Api/PreferenceMgr.h"
#include "vpn/Api/SaxWriterIfc.h"
#include "vpn/Common/IP/ConnectionTrial.h"
#include "vpn/Common/IP/ProbeSettings.h"
#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Utility/MonotonicClock.h"
#include "vpn/Common/Utility/URL.h"
#include "vpn/include/InstanceSmartPtr.h"
#include "vpn/include/StringUtils.h"

namespace {

constexpr const char* SourceFile = "vpn/Api/AHS/SelectionCache";

/// Longest problem in the log; it holds a path, which has at most 4096 characters.
constexpr std::size_t MaxProblemLength = 4400;

/// A file may say anything.
constexpr unsigned int MostMetric = 9999;

STATUSCODE shortage(const char* function) {
  CAppLog::LogReturnCode(function, SourceFile, __LINE__, Logging::DBG_Warning, "operator new",
                         HEADENDSELECTION_ERROR_MEMALLOC_FAILED, 0, nullptr);
  return HEADENDSELECTION_ERROR_MEMALLOC_FAILED;
}

bool isOlder(const CCacheEntry& entry, std::chrono::seconds most) {
  const auto age = SelectionTimes::ageOf(entry);
  return !age || *age > most;
}

/// Whether a candidate is missing in what was measured, or has had too little time.
bool isPartial(const CCacheEntry& entry, const std::string& key, const SelectionRecord* record) {
  const std::size_t candidates = SelectionKey::candidatesOf(key).size();
  HS_SETTINGS settings{};
  CAHSSettings::GetSettings(settings);
  return entry.GetListSize() < candidates ||
         (record != nullptr &&
          record->progress().probesEnded < candidates * settings.nPingsPerHeadend);
}

/// The result that a run hands out first: sorted like its own, so that ties fall alike.
CHeadendRTT firstOf(const CCacheEntry& entry, const SelectionRecord::Terms& terms,
                    unsigned int improvementPercent) {
  std::vector<const CHeadendRTT*> ranked;
  for (const CHeadendRTT& result : entry.headends()) {
    ranked.push_back(&result);
  }
  std::sort(ranked.begin(), ranked.end(),
            [](const CHeadendRTT* a, const CHeadendRTT* b) { return *a < *b; });
  const unsigned int best = ranked.front()->GetRTT();
  const auto retained = std::ranges::find_if(ranked, [&](const CHeadendRTT* result) {
    return result->headend() == terms.last &&
           SelectionRules::retentionOf(result->GetRTT(), best, improvementPercent).isRetained;
  });
  const bool isKept =
      terms.reason == SelectionRules::ReasonReconnection && retained != ranked.end();
  return isKept ? **retained : *ranked.front();
}

/// Whether a place that nobody has (RFC 5737) takes connections as soon as the winner has.
/// No network stands before a winner on this machine.
bool takesAll(const std::string& winner, unsigned short port, std::chrono::milliseconds elapsed) {
  constexpr std::chrono::milliseconds Grace(20);
  return !winner.starts_with("127.") &&
         tryConnection("198.51.100.251", port, elapsed * 2 + Grace) == ConnectionTrial::Stands;
}

/// Connects to the remembered winner. Nobody is told of a gateway that is gone, or for which
/// something nearer, such as a captive portal, answers by now.
bool isWinnerDead(const CCacheEntry& entry, const SelectionRecord::Terms& terms,
                  unsigned int improvementPercent) {
  using std::chrono::milliseconds;
  constexpr milliseconds LeastPatience(500);
  constexpr int RoundTrips = 3;
  const CHeadendRTT first = firstOf(entry, terms, improvementPercent);
  const URL url(first.GetHeadend());
  const auto port = static_cast<unsigned short>(SelectionRules::portOf(url));
  const milliseconds metric(std::min(first.GetRTT(), MostMetric));
  const auto start = MonotonicClock::now();
  auto outcome = tryConnection(url.getHost(), port, std::max(metric * RoundTrips, LeastPatience));
  const auto elapsed = std::chrono::duration_cast<milliseconds>(MonotonicClock::now() - start);
  if (outcome == ConnectionTrial::Stands && elapsed * 2 < metric &&
      takesAll(url.getHost(), port, elapsed)) {
    outcome = ConnectionTrial::Dead;
  }
  if (outcome == ConnectionTrial::Dead) {
    CAppLog::LogDebugMessage(
        "IsInCache", SourceFile, __LINE__, Logging::DBG_Info,
        "%s is remembered and does not answer, or all do: the headends are measured anew",
        CStringUtils::printable(first.GetHeadend()).c_str());
  }
  return outcome == ConnectionTrial::Dead;
}

/// The preferences that change the figures, and what is asked for, as words of a place.
std::vector<std::string> figuresOf(PreferenceMgr& preferences) {
  std::vector<std::string> words;
  if (const std::string word = ProbeSettings::howsWord(); !word.empty()) {
    words.push_back(word);
  }
  for (const PreferenceId id :
       {RoundTripTime, SelectionNeedsService, SelectionPingsPerHeadend, SelectionPingTimeout}) {
    const PreferenceBase::Definition& definition = *PreferenceBase::find(id);
    std::string value;
    if (preferences.getPreferenceValue(id, value) == 0 && value != definition.defaultValue) {
      words.push_back(definition.name + ("=" + CStringUtils::printable(value)));
    }
  }
  return words;
}

void append(std::vector<std::string>& words, const std::vector<std::string>& more) {
  words.insert(words.end(), more.begin(), more.end());
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
    m_figures = figuresOf(*preferences);
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
    const SelectionRecord::Terms terms =
        record != nullptr ? record->terms() : SelectionRecord::Terms();
    std::vector<std::string> place;
    const bool isKnown = calculateKey(place) == 0;
    if (record != nullptr) {
      record->notePlace(isKnown ? SelectionFiles::placeText(place) : "");
    }
    if (terms.measuresNow || !isKnown) {
      return false;
    }
    std::string known = SelectionKey::canonical(key);
    CCacheEntry found;
    if (!findYoungest(place, known, found) || (terms.maxAge && isOlder(found, *terms.maxAge))) {
      return false;
    }
    SelectionKey::respell(found, key, terms.headends);
    const std::string selectionKey = SelectionFiles::placeText(place) + '\n' + known;
    if (record != nullptr && isWinnerDead(found, terms, m_settings.nImprovement)) {
      forget(selectionKey);
      return false;
    }
    if (!m_directory.empty()) {
      const CAutoLockT<CManualLock> lock(m_lock);
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

/// Finds the younger one of file and memory, if it is current.
bool CSelectionCache::findYoungest(const std::vector<std::string>& place, std::string& key,
                                   CCacheEntry& entry) {
  CCacheEntry found;
  const bool isInFile =
      readFile(SelectionFiles::placeText(place) + '\n' + key, found) && isCacheCurrent(key, found);
  const CAutoLockT<CManualLock> lock(m_lock);
  ml_dnsList = place;
  CCacheEntry own;
  const bool isOwn = findDnsCacheEntry(key, own) && isCacheCurrent(key, own) &&
                     !(isInFile && found.GetTimestamp() > own.GetTimestamp());
  std::swap(entry, isOwn ? own : found);
  return isOwn || isInFile;
}

void CSelectionCache::forget(const std::string& selectionKey) {
  if (!m_directory.empty()) {
    SelectionFiles::remove(m_directory, selectionKey);
  }
  const CAutoLockT<CManualLock> lock(m_lock);
  m_cache.erase(selectionKey);
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
    // Something else may have answered in their place.
    if (record != nullptr && doubtOf(record->tracks(), record->baits()).isThere()) {
      return HEADENDSELECTION_ERROR_CACHE_FAILURE;
    }
    std::vector<std::string> place;
    const STATUSCODE status = calculateKey(place);
    if (status != HEADENDSELECTION_SUCCESS) {
      return status;
    }
    // What was measured elsewhere says nothing of this network.
    const std::string before = record != nullptr ? record->place() : "";
    if (!before.empty() && before != SelectionFiles::placeText(place)) {
      return HEADENDSELECTION_ERROR_CACHE_FAILURE;
    }
    entry.SetTimestamp(SelectionTimes::now());
    entry.setPartial(isPartial(entry, key, record.get()));
    const std::string known = SelectionKey::canonical(key);
    CCacheEntry stored(entry);
    stored.SetKnownHeadends(known);
    const CAutoLockT<CManualLock> lock(m_lock);
    m_cache.insert_or_assign(SelectionFiles::placeText(place) + '\n' + known, stored);
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

bool CSelectionCache::findPlace(std::vector<std::string>& place) {
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  if (!readNetworkPlace(place) || preferences == nullptr) {
    return false;
  }
  append(place, figuresOf(*preferences));
  return true;
}

STATUSCODE CSelectionCache::calculateKey(std::vector<std::string>& dnsList) {
  if (!readNetworkPlace(dnsList)) {
    CAppLog::LogReturnCode("calculateKey", SourceFile, __LINE__, Logging::DBG_Info,
                           "readNetworkPlace", HEADENDSELECTION_ERROR_UNEXPECTED, 0, nullptr);
    return HEADENDSELECTION_ERROR_UNEXPECTED;
  }
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  append(dnsList, preferences != nullptr ? figuresOf(*preferences) : m_figures);
  if (const auto record = SelectionRecord::current(); record != nullptr) {
    append(dnsList, record->terms().way);
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
  if (selection.entry.isPartial()) {
    storeAttribute(&writer, "partial", "true");
  }
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
