#pragma once

#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "vpn/Api/AHS/AHSSettings.h"
#include "vpn/Api/AHS/CacheEntry.h"
#include "vpn/include/Locks.h"
#include "vpn/include/StatusCode.h"

class SaxWriterIfc;

/// The process's cache of earlier selections, kept in a file between processes.
///
/// A selection is found again for the same candidate set at the same place (the name servers and
/// search domains that the resolver uses) until the clear-cache time of the settings has passed. At
/// most `MaxEntries` selections are kept; the oldest go first. What is wrong with the file costs a
/// warning and never a selection. All operations may be called from any thread.
class CSelectionCache {
 public:
  static constexpr std::size_t MaxEntries = 64;
  /// Largest cache file that is read, in bytes.
  static constexpr std::size_t MaxFileSize = std::size_t{16} * 1024 * 1024;

  /// The instance with its acquisition counted, or null when none exists.
  static CSelectionCache* acquireInstance();

  /// Creates the instance on first use, counts the acquisition and stores the instance in `pCache`.
  /// @return 0, or HEADENDSELECTION_ERROR_MEMALLOC_FAILED with a null `pCache`.
  static STATUSCODE createSingletonInstance(CSelectionCache*& pCache);

  /// Gives back one acquisition; the last one destroys the instance.
  void releaseInstance();

  /// One line a result, for people.
  std::string toString();

  /// Looks a candidate set up.
  /// @param entry receives results, time stamp and key on a hit; is left alone on a miss.
  /// @return whether there is a current selection.
  bool IsInCache(std::string& key, CCacheEntry& entry);

  /// Stores a selection under its own key, stamped with the time of day, in place of an older one.
  /// @return 0, or why it could not be written to the file (it is then kept in memory).
  STATUSCODE AddEntry(CCacheEntry& entry);
  /// The same under a given key.
  STATUSCODE AddEntry(CCacheEntry& entry, const std::string& key);

  /// The entry that the last hit returned or the last `AddEntry` stored; false if there is none.
  bool GetLastUsed(CCacheEntry& entry);

  CSelectionCache(const CSelectionCache&) = delete;
  CSelectionCache& operator=(const CSelectionCache&) = delete;

 private:
  explicit CSelectionCache(STATUSCODE& status);
  ~CSelectionCache();

  STATUSCODE buildCacheFromPrefs() AHS_REQUIRES(m_lock);
  STATUSCODE updateCache() AHS_REQUIRES(m_lock);
  STATUSCODE calculateKey(std::vector<std::string>& dnsList);
  void storeAttribute(SaxWriterIfc* pWriter, const std::string& name, const std::string& value);
  void splitString(const std::string& text, const std::string& separators,
                   std::vector<std::string>& parts);
  bool isCacheCurrent(std::string& key, CCacheEntry& entry) AHS_REQUIRES(m_lock);
  bool findDnsCacheEntry(std::string& key, CCacheEntry& entry) AHS_REQUIRES(m_lock);

  static CSelectionCache* sm_pInstance AHS_GUARDED_BY(sm_instanceLock);
  static unsigned int sm_uiAcquisitionCount AHS_GUARDED_BY(sm_instanceLock);
  static CManualLock sm_instanceLock;

  CManualLock m_lock;
  std::map<std::string, CCacheEntry> m_cache AHS_GUARDED_BY(m_lock);
  HS_SETTINGS m_settings;  // written by the constructor only
  std::vector<std::string> ml_dnsList AHS_GUARDED_BY(m_lock);
  std::string m_file;  // written by the constructor only; empty: nothing is kept between processes
  std::string m_lastUsedKey AHS_GUARDED_BY(m_lock);
};
