#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "vpn/Api/AHS/AHSSettings.h"
#include "vpn/Api/AHS/CacheDocument.h"
#include "vpn/Api/AHS/CacheEntry.h"
#include "vpn/Api/AHS/CacheWriter.h"
#include "vpn/Api/AHS/StateFile.h"
#include "vpn/include/Locks.h"
#include "vpn/include/StatusCode.h"

class SaxWriterIfc;

/// The process's cache of earlier selections, kept in a file between processes (docs/cache.md).
///
/// A selection is found again for the same candidate set at the same place (the name servers and
/// search domains that the resolver uses) until the clear-cache time of the settings has passed. At
/// most `MaxEntries` selections are kept; those that were used longest ago go first. What is wrong
/// with the file costs a warning and never a selection: the cache then works in memory. No
/// operation throws. The selection that the calling thread works for (`SelectionRecord`) notes the
/// entry that a look-up has found or a store was given. The way that its probes leave the machine
/// belongs to the place, and it may ask that no selection be found.
///
/// All operations may be called from any thread that holds an acquisition. The file is written on a
/// thread of the cache's own, so that a slow disk holds nobody up for longer than is said here.
class CSelectionCache {
 public:
  /// Selections that are kept at most.
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

  /// Gives back one acquisition. The last one waits as `WaitForStores` does and destroys the
  /// instance.
  void releaseInstance();

  /// Waits until what has been stored is in the file, after one more attempt where the last one has
  /// failed; for 2.5 seconds at most. A disk that takes longer is left to itself: the file follows
  /// when it can, unless the process ends. The record of a mere use is waited for 50 ms at most.
  /// @return 0, or HEADENDSELECTION_ERROR_CACHE_FAILURE when the file does not have all of it.
  STATUSCODE WaitForStores();

  /// The selections that are kept, for people: for each its place and whether it is current, then
  /// its entry. Empty when memory is short.
  std::string toString();

  /// Looks a candidate set up at the present place. A hit counts as a use of the selection; where
  /// the file's record of that is old, it is renewed in the background.
  /// @param key the candidate set; left alone.
  /// @param entry receives results, time stamp and key on a hit; is left alone on a miss.
  /// @return whether there is a current selection.
  bool IsInCache(std::string& key, CCacheEntry& entry);

  /// Stores a selection under its own key at the present place, in place of an older one, and
  /// stamps `entry` with the time of day. Waits 50 ms at most for the file.
  /// @return 0; HEADENDSELECTION_ERROR_BAD_PARAMETER for an entry without results, which is not
  ///         stored; HEADENDSELECTION_ERROR_CACHE_FAILURE when it is kept in memory but not, or not
  ///         yet, in the file, or when the selection that the thread works for was cancelled and
  ///         nothing is stored; HEADENDSELECTION_ERROR_UNEXPECTED when the place is unknown and
  ///         HEADENDSELECTION_ERROR_MEMALLOC_FAILED: not stored.
  STATUSCODE AddEntry(CCacheEntry& entry);
  /// The same under a given key, which the stored entry then carries.
  STATUSCODE AddEntry(CCacheEntry& entry, const std::string& key);

  CSelectionCache(const CSelectionCache&) = delete;
  CSelectionCache& operator=(const CSelectionCache&) = delete;

 private:
  explicit CSelectionCache(STATUSCODE& status);
  ~CSelectionCache();

  using Entries = CacheDocument::Entries;
  using Uses = CacheDocument::Uses;
  using Contents = CacheDocument::Contents;

  /// What stands in the file.
  enum class Found {
    Unchanged,   ///< what it held at the last reading
    Nothing,     ///< there is no file
    Selections,  ///< it was read
    Wrong,       ///< it is no cache; it is kept aside and replaced
    Newer,       ///< a later version's; left alone
    Refused,     ///< not to be trusted or not to be read; left alone
  };

  /// What a job of the writer knows: all that the file may not have.
  struct Batch {
    std::string path;
    Contents mine;  // entries that were stored, and uses of any
    std::string latest;
    unsigned int clearCache = 0;
  };

  /// Takes over what other processes have written since the file was last read.
  STATUSCODE buildCacheFromPrefs() AHS_REQUIRES(m_lock);
  /// Has the file brought up to date with the map, in the background.
  STATUSCODE updateCache() AHS_REQUIRES(m_lock);
  /// The present place, sorted, so that the order of name servers does not count.
  STATUSCODE calculateKey(std::vector<std::string>& dnsList);
  static void storeAttribute(SaxWriterIfc* pWriter, const std::string& name,
                             const std::string& value);
  /// Appends the pieces of `text` between `separators` to `parts`; an empty text has one, empty.
  static void splitString(const std::string& text, const std::string& separators,
                          std::vector<std::string>& parts);
  /// Whether an entry answers for a candidate set now.
  bool isCacheCurrent(std::string& key, CCacheEntry& entry) AHS_REQUIRES(m_lock);
  /// Copies the entry of a candidate set at the place in `ml_dnsList`, current or not.
  bool findDnsCacheEntry(std::string& key, CCacheEntry& entry) AHS_REQUIRES(m_lock);

  std::string placeKey(const std::string& knownHeadends) AHS_REQUIRES(m_lock);
  void noteUse(const std::string& key, const CCacheEntry& entry) AHS_REQUIRES(m_lock);
  STATUSCODE store(CCacheEntry& entry, const std::string& key, CCacheWriter::Ticket& ticket,
                   unsigned long& number);
  Batch makeBatch() AHS_REQUIRES(m_lock);
  void adopt(Contents&& fromFile) AHS_REQUIRES(m_lock);
  void keepWithinLimits() AHS_REQUIRES(m_lock);
  void settle() AHS_REQUIRES(m_lock);
  bool hasUnsaved() AHS_REQUIRES(m_lock);
  void warnOnce(const char* function, const std::string& problem) AHS_REQUIRES(m_lock);
  std::chrono::milliseconds startFlush(CCacheWriter::Ticket& ticket);
  STATUSCODE endFlush(bool isEnded);
  bool releaseOnce(bool flushed);

  // The file's part (SelectionCacheFile.cpp). These run on the writer's thread, which may outlive
  // the instance.
  static CCacheWriter::Outcome writeFile(const Batch& batch);
  static CCacheWriter::Outcome writeOnce(const Batch& batch, bool& isLockLost);
  /// @param problem says what is wrong, as a sentence for the log; empty if nothing is.
  static Found readFile(CStateFile& file, Contents& contents, std::string& problem);
  static Found understand(const CStateFile& file, CStateFile::Content content,
                          const std::string& text, Contents& contents, std::string& problem);
  static bool writeDocument(const Contents& contents, const std::string& latest,
                            std::string& document);
  static void writeSelection(SaxWriterIfc& writer, const std::string& key, const CCacheEntry& entry,
                             unsigned long use);
  static std::size_t writtenSize(const std::string& key, const CCacheEntry& entry);
  static void merge(Contents& contents, const Contents& mine);
  static void trim(Entries& entries, Uses& uses, const std::string& latest,
                   unsigned int clearCache);
  static std::vector<std::string> keysByUse(const Entries& entries, const Uses& uses,
                                            const std::string& latest);

  static CSelectionCache* sm_pInstance AHS_GUARDED_BY(sm_instanceLock);
  static unsigned int sm_uiAcquisitionCount AHS_GUARDED_BY(sm_instanceLock);
  static CManualLock sm_instanceLock;

  // By place and known-headends key.
  Entries m_cache AHS_GUARDED_BY(m_lock);
  HS_SETTINGS m_settings;  // written by the constructor only
  std::vector<std::string> ml_dnsList AHS_GUARDED_BY(m_lock);

  CManualLock m_lock;
  CStateFile m_file AHS_GUARDED_BY(m_lock);
  CCacheWriter m_writer AHS_GUARDED_BY(m_lock);
  // By the keys of m_cache: the last use, and the one on record in the file.
  Uses m_uses AHS_GUARDED_BY(m_lock);
  Uses m_recorded AHS_GUARDED_BY(m_lock);
  // Keys in m_cache that this process stored and the file may not have, with the number that the
  // store got; a job of the same or a larger number has it.
  std::map<std::string, unsigned long> m_unsaved AHS_GUARDED_BY(m_lock);
  unsigned long m_number AHS_GUARDED_BY(m_lock);
  std::string m_lastProblem AHS_GUARDED_BY(m_lock);  // the one that was logged last
  bool m_hasWarned AHS_GUARDED_BY(m_lock);
  std::string m_lastUsedKey AHS_GUARDED_BY(m_lock);
  // Whether there is something to wait for. Atomic: releaseInstance asks without m_lock, so that it
  // does not wait for a parse while it holds sm_instanceLock.
  std::atomic<bool> m_storePending;
};
