#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "vpn/Api/AHS/CacheEntry.h"
#include "vpn/Api/AHS/SelectionCache.h"

class PreferenceMgr;

namespace tests {

using Records = std::vector<std::pair<std::string, unsigned int>>;

CCacheEntry entryOf(const std::string& knownHeadends, const Records& records);
Records recordsOf(const CCacheEntry& entry);

/// One acquisition of the cache for the length of a scope, as a run holds it.
class CacheHold {
 public:
  CacheHold();
  ~CacheHold();
  CacheHold(const CacheHold&) = delete;
  CacheHold& operator=(const CacheHold&) = delete;
  CSelectionCache* operator->() const { return m_cache; }

 private:
  CSelectionCache* m_cache;
};

/// Stores, waiting for the disk however long it takes. @return what became of it in the end.
STATUSCODE keep(const CacheHold& cache, CCacheEntry& entry);

/// Whether the cache has a thread of its own now.
bool hasWriter();

/// Waits until the cache's own threads have ended: ThreadSanitizer lets a child of fork have
/// threads only if the parent had none.
void waitForWriters();

/// Runs `body` in a process of its own. @return its exit status, which is what `body` returned.
int inProcess(const std::function<int()>& body);

/// A directory of its own, preferences that keep the cache there, a machine at home, and a count of
/// warnings.
class CacheTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// Starts the preferences anew. @param cacheFile empty: nothing is kept between processes.
  void usePreferences(const std::string& cacheFile, const std::string& userPreferencesFile = "");

  /// Stores through an acquisition of its own.
  static STATUSCODE store(const std::string& knownHeadends, const Records& records);
  /// Looks up through an acquisition of its own, and waits until that is on record.
  static bool find(const std::string& knownHeadends, Records& records);
  static bool has(const std::string& knownHeadends);

  static std::string read(const std::string& path);
  static void write(const std::string& path, const std::string& text);
  static bool exists(const std::string& path);
  /// A cache file with one selection, "gw-a;" at home, that was stored `age` seconds ago.
  void writeSelection(long age) const;

  std::string m_directory;
  std::string m_file;
  std::vector<std::string> m_warnings;

 private:
  PreferenceMgr* m_preferences = nullptr;
};

}  // namespace tests
