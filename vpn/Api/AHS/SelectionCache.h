#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "vpn/Api/AHS/AHSSettings.h"
#include "vpn/Api/AHS/CacheEntry.h"
#include "vpn/Api/AHS/StateFile.h"
#include "vpn/include/Locks.h"
#include "vpn/include/StatusCode.h"

class SaxWriterIfc;

/// The process's cache of earlier selections, kept in a file between processes (docs/cache.md).
///
/// A selection is found again for the same candidate set at the same place (the name servers and
/// search domains that the resolver uses) until the clear-cache time of the settings has passed. At
/// most `MaxEntries` selections are kept; the oldest go first. What is wrong with the file costs a
/// warning and never a selection: the cache then works in memory. No operation throws.
///
/// All operations may be called from any thread that holds an acquisition; look-ups and stores wait
/// for one another, for the length of a flush to disk at most.
class CSelectionCache {
 public:
  static constexpr std::size_t MaxEntries = 64;
  /// Largest cache file that is read or written, in bytes.
  static constexpr std::size_t MaxFileSize = std::size_t{16} * 1024 * 1024;

  /// The instance with its acquisition counted, or null when none exists.
  static CSelectionCache* acquireInstance();

  /// Creates the instance on first use, counts the acquisition and stores the instance in `pCache`.
  /// The instance takes the settings and the file's path from the preferences in force then; the
  /// file is first read by a look-up or a store.
  /// @return 0, or HEADENDSELECTION_ERROR_MEMALLOC_FAILED with a null `pCache`.
  static STATUSCODE createSingletonInstance(CSelectionCache*& pCache);

  /// Gives back one acquisition. The last one writes what an earlier store could not, because other
  /// processes were writing, and destroys the instance.
  void releaseInstance();

  /// The selections that are kept, for people: for each its place and whether it is current, then
  /// its entry. Empty when memory is short.
  std::string toString();

  /// Looks a candidate set up at the present place.
  /// @param entry receives results, time stamp and key on a hit; is left alone on a miss.
  /// @return whether there is a current selection.
  bool IsInCache(std::string& key, CCacheEntry& entry);

  /// Stores a selection under its own key at the present place, in place of an older one, and
  /// stamps `entry` with the time of day.
  /// @return 0; HEADENDSELECTION_ERROR_BAD_PARAMETER for an entry without results, which is not
  ///         stored; HEADENDSELECTION_ERROR_CACHE_FAILURE when it is kept in memory but not in the
  ///         file; HEADENDSELECTION_ERROR_UNEXPECTED when the place is unknown and
  ///         HEADENDSELECTION_ERROR_MEMALLOC_FAILED: not stored.
  STATUSCODE AddEntry(CCacheEntry& entry);
  /// The same under a given key, which the stored entry then carries.
  STATUSCODE AddEntry(CCacheEntry& entry, const std::string& key);

  /// The entry that the last hit returned or the last `AddEntry` stored, in this process.
  /// @return false, with `entry` left alone, if there is none.
  bool GetLastUsed(CCacheEntry& entry);

  CSelectionCache(const CSelectionCache&) = delete;
  CSelectionCache& operator=(const CSelectionCache&) = delete;

 private:
  explicit CSelectionCache(STATUSCODE& status);
  ~CSelectionCache();

  /// Takes over what other processes have written since the file was last read.
  STATUSCODE buildCacheFromPrefs() AHS_REQUIRES(m_lock);
  /// Writes the file, with the short patience of a store.
  STATUSCODE updateCache() AHS_REQUIRES(m_lock);
  /// The present place, sorted, so that the order of name servers does not count.
  STATUSCODE calculateKey(std::vector<std::string>& dnsList);
  void storeAttribute(SaxWriterIfc* pWriter, const std::string& name, const std::string& value);
  /// Appends the pieces of `text` between `separators` to `parts`; an empty text has one, empty.
  void splitString(const std::string& text, const std::string& separators,
                   std::vector<std::string>& parts);
  /// Whether an entry answers for a candidate set now.
  bool isCacheCurrent(std::string& key, CCacheEntry& entry) AHS_REQUIRES(m_lock);
  /// Copies the entry of a candidate set at the place in `ml_dnsList`, current or not.
  bool findDnsCacheEntry(std::string& key, CCacheEntry& entry) AHS_REQUIRES(m_lock);

  using Entries = std::map<std::string, CCacheEntry>;

  std::string placeKey(const std::string& knownHeadends) AHS_REQUIRES(m_lock);
  STATUSCODE writeFile(std::chrono::milliseconds patience) AHS_REQUIRES(m_lock);
  bool writeDocument(std::string& document) AHS_REQUIRES(m_lock);
  void writeSelection(SaxWriterIfc& writer, const std::string& key, const CCacheEntry& entry);
  void adopt(Entries&& fromFile) AHS_REQUIRES(m_lock);
  void trim() AHS_REQUIRES(m_lock);
  std::vector<std::string> keysNewestFirst() AHS_REQUIRES(m_lock);
  unsigned long ageOf(const CCacheEntry& entry) const;
  bool isExpired(unsigned long age) const;
  void warnOnce(const char* function, const std::string& problem) AHS_REQUIRES(m_lock);
  void flush();
  bool releaseOnce(bool flushed);

  static CSelectionCache* sm_pInstance AHS_GUARDED_BY(sm_instanceLock);
  static unsigned int sm_uiAcquisitionCount AHS_GUARDED_BY(sm_instanceLock);
  static CManualLock sm_instanceLock;

  // By place and known-headends key.
  Entries m_cache AHS_GUARDED_BY(m_lock);
  HS_SETTINGS m_settings;  // written by the constructor only
  std::vector<std::string> ml_dnsList AHS_GUARDED_BY(m_lock);

  CManualLock m_lock;
  CStateFile m_file AHS_GUARDED_BY(m_lock);
  // Keys in m_cache that this process stored and the file does not have.
  std::set<std::string> m_unsaved AHS_GUARDED_BY(m_lock);
  bool m_fileIsCorrupt AHS_GUARDED_BY(m_lock);
  std::string m_lastProblem AHS_GUARDED_BY(m_lock);  // the one that was warned of last
  std::string m_lastUsedKey AHS_GUARDED_BY(m_lock);
  CCacheEntry m_lastUsed AHS_GUARDED_BY(m_lock);
  // Whether a store is to be tried again. Atomic: releaseInstance asks without m_lock, so that it
  // does not wait for a flush while it holds sm_instanceLock.
  std::atomic<bool> m_storePending;
};
