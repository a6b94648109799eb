#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/TemporaryDirectory.h"
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

/// Runs `body` in a process of its own. @return its exit status, which is what `body` returned.
int inProcess(const std::function<int()>& body);
/// The same as the user "nobody", where root runs the tests.
int asNobody(const std::function<int()>& body);

/// A directory of its own, preferences that keep the cache there, a machine at home, and a list of
/// warnings.
class CacheTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// Starts the preferences anew. @param cacheDirectory empty: nothing is kept between processes.
  void usePreferences(const std::string& cacheDirectory,
                      const std::string& userPreferencesFile = "");

  void endPreferences();

  /// Stores through an acquisition of its own.
  static STATUSCODE store(const std::string& knownHeadends, const Records& records = {{"gw", 7}});
  /// Looks up through an acquisition of its own. @return nothing for a miss.
  static Records find(const std::string& knownHeadends);
  static bool has(const std::string& knownHeadends) { return !find(knownHeadends).empty(); }

  /// The file of a candidate set at home, which may not be there; there has been one.
  std::string fileOf(const std::string& knownHeadends);
  /// Stores a candidate set, as if it was stored and used last so many seconds ago.
  void storeAged(const std::string& knownHeadends, long stored, long used, bool isPartial = false);

  /// As a new process has had none.
  void forgetWarnings();

  static void write(const std::string& path, const std::string& text);
  /// The names in the cache's directory, sorted.
  std::vector<std::string> names() const;

  const TemporaryDirectory m_temporary;
  const std::string m_directory = m_temporary.Path();  // the cache's
  std::vector<std::string> m_warnings;

 private:
  PreferenceMgr* m_preferences = nullptr;
  std::map<std::string, std::string> m_files;  // by candidate set
};

}  // namespace tests
