#pragma once

#include <atomic>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "vpn/Api/AHS/AHSSettings.h"
#include "vpn/Api/AHS/CacheEntry.h"
#include "vpn/Api/AHS/SelectionFiles.h"
#include "vpn/include/Locks.h"
#include "vpn/include/StatusCode.h"

class SaxWriterIfc;

/// The process's cache of earlier selections, kept in a directory between processes: docs/cache.md
/// says what is found again, how many are kept, and what is wrong with a file.
///
/// A store keeps its selection in memory; the next `releaseInstance` of any holder writes the file.
/// The process holds an acquisition too, so the run's release, which writes, is never the last. A
/// selection that cannot be written stays in memory until the last release. A look-up reads the
/// selection's file; the younger of file and memory answers, and the older never replaces it.
///
/// All operations may be called from any thread that holds an acquisition. None throws but
/// `toString`, for want of memory.
class CSelectionCache {
 public:
  /// The instance with its acquisition counted, or null when none exists.
  static CSelectionCache* acquireInstance();

  /// Creates the instance on first use, counts the acquisition and stores the instance in `pCache`.
  /// The instance takes the settings and the directory from the preferences in force then.
  /// @return 0, or HEADENDSELECTION_ERROR_MEMALLOC_FAILED with a null `pCache`.
  static STATUSCODE createSingletonInstance(CSelectionCache*& pCache);

  /// Writes the selections that the directory lacks, as long as the disk takes, and gives back one
  /// acquisition. The last one destroys the instance.
  void releaseInstance();

  /// The selections that the directory lacks, for people: place and entry of each.
  std::string toString();

  /// Looks a candidate set up at the present place; waits for the disk to read one file. For a
  /// thread that works for a selection (`SelectionRecord`), it connects to the headend that the
  /// selection would hand out, for three of its round trips or half a second at most: if that one
  /// is dead, the entry goes, and there is no hit. The selection notes the entry that is found, and
  /// may ask to find none, or none that is old.
  /// @param key the candidate set; left alone.
  /// @param entry receives results, time stamp and key on a hit; is left alone on a miss.
  /// @return whether there is a current selection.
  bool IsInCache(std::string& key, CCacheEntry& entry);

  /// Stores a selection under its own key at the present place, in place of an older one, and
  /// stamps `entry` with the time of day. Waits for no disk.
  /// @return 0; HEADENDSELECTION_ERROR_BAD_PARAMETER for an entry without results;
  ///         HEADENDSELECTION_ERROR_CACHE_FAILURE when the selection that the thread works for was
  ///         cancelled or began at another place, or when this machine has lacked anything since
  ///         the entry was made; HEADENDSELECTION_ERROR_UNEXPECTED when the place is unknown;
  ///         HEADENDSELECTION_ERROR_MEMALLOC_FAILED. Nothing is stored unless it is 0.
  STATUSCODE AddEntry(CCacheEntry& entry);
  /// The same under a given key, which the stored entry then carries.
  STATUSCODE AddEntry(CCacheEntry& entry, const std::string& key);

  /// Where the machine is, and the preferences that change the figures, unless they are defaults:
  /// "SelectionPingsPerHeadend=5".
  /// @return false when the place is unknown, or there are no preferences.
  static bool findPlace(std::vector<std::string>& place);

  CSelectionCache(const CSelectionCache&) = delete;
  CSelectionCache& operator=(const CSelectionCache&) = delete;

 private:
  explicit CSelectionCache(STATUSCODE& status);
  ~CSelectionCache() = default;

  STATUSCODE buildCacheFromPrefs();
  STATUSCODE updateCache();
  /// Where the machine is, and how the probes of the selection leave it.
  STATUSCODE calculateKey(std::vector<std::string>& dnsList);
  static void storeAttribute(SaxWriterIfc* pWriter, const std::string& name,
                             const std::string& value);
  /// Appends the pieces of `text` between `separators` to `parts`; an empty text has one, empty.
  static void splitString(const std::string& text, const std::string& separators,
                          std::vector<std::string>& parts);
  bool findYoungest(const std::vector<std::string>& place, std::string& key, CCacheEntry& entry);
  void forget(const std::string& selectionKey);
  bool isCacheCurrent(std::string& key, CCacheEntry& entry);
  /// Copies the entry in memory of a candidate set at the place in `ml_dnsList`, current or not.
  bool findDnsCacheEntry(std::string& key, CCacheEntry& entry) AHS_REQUIRES(m_lock);

  static void warnOnce(const char* function, const std::string& problem);
  bool readFile(const std::string& selectionKey, CCacheEntry& entry) const;
  bool writeFile(const SelectionFiles::Selection& selection);
  static std::string documentOf(const SelectionFiles::Selection& selection);

  static CSelectionCache* sm_pInstance AHS_GUARDED_BY(sm_instanceLock);
  static unsigned int sm_uiAcquisitionCount AHS_GUARDED_BY(sm_instanceLock);
  static CManualLock sm_instanceLock;
  static std::atomic_flag sm_hasWarned;

  // What the directory does not have, by place and known-headends key (`SelectionFiles::keyOf`).
  std::map<std::string, CCacheEntry> m_cache AHS_GUARDED_BY(m_lock);
  HS_SETTINGS m_settings;              // written by the constructor only, and so are the next two
  std::string m_directory;             // empty for none
  std::vector<std::string> m_figures;  // of the key, where the preferences are gone
  std::vector<std::string> ml_dnsList AHS_GUARDED_BY(m_lock);  // the last place
  std::set<std::string> m_used AHS_GUARDED_BY(m_lock);         // keys of uses to be noted there

  // One writer at a time, so that the younger of two stores is written last. Taken before m_lock,
  // and by no look-up and no store.
  CManualLock m_writerLock;
  CManualLock m_lock;
};
