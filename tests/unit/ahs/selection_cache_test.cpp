// Hits and misses: what must be the same for a cached selection to answer, and for how long.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/ahs/cache_fixture.h"
#include "tests/unit/ahs/resolver_double.h"
#include "vpn/Api/AHS/CacheDocument.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/SelectionRecord.h"

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

namespace tests {
namespace {

constexpr long Day = 24L * 60 * 60;

constexpr long Hour = 60L * 60;

class SelectionCache : public CacheTest {
 protected:
  /// When a selection was stored and used last, in seconds ago; 0: not used since.
  struct Ages {
    long stored;
    long used;
  };

  /// A cache file that is full of selections at home: these, and others of a minute ago.
  void writeSelections(const std::vector<std::pair<std::string, Ages>>& selections) const {
    std::string text;
    const auto add = [&text, now = std::time(nullptr)](const std::string& key, const Ages& ages) {
      text += "<selection place=\"nameserver 192.0.2.1 search home.test\" knownHeadends=\"" +
              CacheDocument::encode(key) + "\" stored=\"" + std::to_string(now - ages.stored) +
              "\"" + (ages.used == 0 ? "" : " used=\"" + std::to_string(now - ages.used) + "\"") +
              "><headend name=\"gw\" rtt=\"7\"/></selection>";
    };
    for (const auto& [key, ages] : selections) {
      add(key, ages);
    }
    for (std::size_t i = selections.size(); i < CSelectionCache::MaxEntries; ++i) {
      add("filler " + std::to_string(i), {60, 0});
    }
    write(m_file, "<selectionCache version=\"2\">" + text + "</selectionCache>");
  }

  /// The stamp of the first selection of a document.
  static std::string stampIn(const std::string& document) {
    const std::string before = "stored=\"";
    const std::size_t begin = document.find(before) + before.size();
    return document.substr(begin, document.find('"', begin) - begin);
  }
};

}  // namespace

TEST_F(SelectionCache, AnEmptyCacheMissesAndLeavesTheEntryAlone) {
  const CacheHold cache;
  std::string key = "gw-a;";
  CCacheEntry entry = entryOf("mine", {{"gw-x", 1}});
  entry.SetTimestamp(77);
  EXPECT_FALSE(cache->IsInCache(key, entry));
  EXPECT_EQ(entry.GetKnownHeadends(), "mine");
  EXPECT_EQ(entry.GetTimestamp(), 77UL);
  EXPECT_EQ(recordsOf(entry), (Records{{"gw-x", 1}}));
  EXPECT_EQ(key, "gw-a;");
}

TEST_F(SelectionCache, AHitGivesRecordsInArrivalOrderWithStampAndKey) {
  const CacheHold cache;
  CCacheEntry stored = entryOf("gw-b;gw-a;", {{"gw-b", 46}, {"gw-a", 40}});
  const auto before = static_cast<unsigned long>(std::time(nullptr));
  ASSERT_EQ(keep(cache, stored), 0);
  std::string key = "gw-b;gw-a;";
  CCacheEntry entry = entryOf("", {{"gw-x", 1}});
  ASSERT_TRUE(cache->IsInCache(key, entry));
  EXPECT_EQ(recordsOf(entry), (Records{{"gw-b", 46}, {"gw-a", 40}}));
  EXPECT_EQ(entry.GetKnownHeadends(), "gw-b;gw-a;");
  EXPECT_GE(entry.GetTimestamp(), before);
  EXPECT_LE(entry.GetTimestamp(), static_cast<unsigned long>(std::time(nullptr)));
  EXPECT_EQ(stored.GetTimestamp(), entry.GetTimestamp());
}

TEST_F(SelectionCache, OtherCandidatesMiss) {
  EXPECT_EQ(store("gw-a;", {{"gw-a", 40}}), 0);
  EXPECT_FALSE(has("gw-b;gw-a;"));
  EXPECT_FALSE(has(""));
  EXPECT_FALSE(has("GW-A;"));
  EXPECT_TRUE(has("gw-a;"));
}

TEST_F(SelectionCache, ANewSelectionReplacesTheOlderOneOfItsKey) {
  store("gw-a;", {{"gw-a", 40}});
  store("gw-a;", {{"gw-a", 12}});
  Records records;
  ASSERT_TRUE(find("gw-a;", records));
  EXPECT_EQ(records, (Records{{"gw-a", 12}}));
}

TEST_F(SelectionCache, ANewSelectionReplacesTheOlderOneWithinOneInstanceToo) {
  usePreferences("");
  const CacheHold cache;
  store("gw-a;", {{"gw-a", 40}});
  store("gw-a;", {{"gw-a", 12}});
  Records records;
  ASSERT_TRUE(find("gw-a;", records));
  EXPECT_EQ(records, (Records{{"gw-a", 12}}));
}

TEST_F(SelectionCache, ASelectionStoredUnderAGivenKeyIsFoundUnderThat) {
  {
    const CacheHold cache;
    CCacheEntry entry = entryOf("its own;", {{"gw-a", 40}});
    cache->AddEntry(entry, "given;");
    ASSERT_EQ(cache->WaitForStores(), 0);
    EXPECT_EQ(entry.GetKnownHeadends(), "its own;");
  }
  EXPECT_TRUE(has("given;"));
  EXPECT_FALSE(has("its own;"));
}

TEST_F(SelectionCache, ASelectionWithoutResultsIsNotStored) {
  EXPECT_EQ(store("gw-a;", {}), HEADENDSELECTION_ERROR_BAD_PARAMETER);
  EXPECT_FALSE(has("gw-a;"));
  EXPECT_FALSE(exists(m_file));
}

TEST_F(SelectionCache, AnotherPlaceMissesAndComingBackHits) {
  store("gw-a;", {{"gw-a", 40}});
  setResolverPlace({"nameserver 198.51.100.1"});
  EXPECT_FALSE(has("gw-a;"));
  store("gw-a;", {{"gw-a", 9}});
  setResolverPlace({"nameserver 192.0.2.1", "search home.test"});
  Records records;
  ASSERT_TRUE(find("gw-a;", records));
  EXPECT_EQ(records, (Records{{"gw-a", 40}}));
}

TEST_F(SelectionCache, AMoveIsNoticedWithinOneInstance) {
  const CacheHold cache;
  CCacheEntry entry = entryOf("gw-a;", {{"gw-a", 40}});
  keep(cache, entry);
  std::string key = "gw-a;";
  setResolverPlace({"nameserver 198.51.100.1"});
  EXPECT_FALSE(cache->IsInCache(key, entry));
  setResolverPlace({"nameserver 192.0.2.1", "search home.test"});
  EXPECT_TRUE(cache->IsInCache(key, entry));
}

TEST_F(SelectionCache, TheSearchDomainsArePartOfThePlace) {
  store("gw-a;", {{"gw-a", 40}});
  setResolverPlace({"nameserver 192.0.2.1", "search work.test"});
  EXPECT_FALSE(has("gw-a;"));
}

TEST_F(SelectionCache, TheOrderOfNameServersIsNoPartOfThePlace) {
  setResolverPlace({"nameserver 192.0.2.1", "nameserver 192.0.2.2"});
  store("gw-a;", {{"gw-a", 40}});
  setResolverPlace({"nameserver 192.0.2.2", "nameserver 192.0.2.1", "nameserver 192.0.2.1"});
  EXPECT_TRUE(has("gw-a;"));
}

TEST_F(SelectionCache, AnUnknownPlaceMissesAndStoresNothing) {
  store("gw-a;", {{"gw-a", 40}});
  breakResolver();
  EXPECT_FALSE(has("gw-a;"));
  EXPECT_EQ(store("gw-b;", {{"gw-b", 40}}), HEADENDSELECTION_ERROR_UNEXPECTED);
  setResolverPlace({"nameserver 192.0.2.1", "search home.test"});
  EXPECT_TRUE(has("gw-a;"));
  EXPECT_FALSE(has("gw-b;"));
}

TEST_F(SelectionCache, ASelectionCountsForFourteenDaysByDefault) {
  writeSelection(14 * Day - 60);
  EXPECT_TRUE(has("gw-a;"));
  writeSelection(14 * Day + 60);
  EXPECT_FALSE(has("gw-a;"));
}

TEST_F(SelectionCache, TheClearCacheTimeIsThatOfThePreferences) {
  const std::string preferences = m_directory + "/preferences.xml";
  write(preferences,
        "<preferences version=\"1\"><preference name=\"SelectionClearCache\" "
        "value=\"2\"/></preferences>");
  usePreferences(m_file, preferences);
  ASSERT_TRUE(m_warnings.empty()) << m_warnings.front();
  writeSelection(2 * Day - 60);
  EXPECT_TRUE(has("gw-a;"));
  writeSelection(2 * Day + 60);
  EXPECT_FALSE(has("gw-a;"));
}

TEST_F(SelectionCache, ASelectionFromTheFutureIsOldNotEternal) {
  writeSelection(-60);
  EXPECT_FALSE(has("gw-a;"));
}

TEST_F(SelectionCache, ASelectionFromTheFutureIsReplacedByAFreshOne) {
  writeSelection(-365 * Day);
  EXPECT_EQ(store("gw-a;", {{"gw-a", 40}}), 0);
  Records records;
  ASSERT_TRUE(find("gw-a;", records));
  EXPECT_EQ(records, (Records{{"gw-a", 40}}));
}

TEST_F(SelectionCache, ASelectionOutOfDateLeavesTheFileAtTheNextStore) {
  writeSelection(15 * Day);
  store("gw-b;", {{"gw-b", 40}});
  EXPECT_EQ(read(m_file).find("gw-a"), std::string::npos);
}

TEST_F(SelectionCache, KeepsTheNewestSelectionsAndNoMoreThanItsLimit) {
  writeSelection(60);
  for (unsigned int i = 0; i < CSelectionCache::MaxEntries - 1; ++i) {
    ASSERT_EQ(store(std::to_string(i) + ";", {{"gw", i}}), 0);
  }
  EXPECT_TRUE(has("gw-a;"));
  store("one more;", {{"gw", 1}});
  EXPECT_FALSE(has("gw-a;"));
  EXPECT_TRUE(has("one more;"));
  EXPECT_TRUE(has("0;"));
}

TEST_F(SelectionCache, TheLimitHoldsInMemoryToo) {
  usePreferences("");
  const CacheHold cache;
  for (unsigned int i = 0; i < CSelectionCache::MaxEntries + 6; ++i) {
    CCacheEntry entry = entryOf(std::to_string(i) + ";", {{"gw", i}});
    ASSERT_EQ(keep(cache, entry), 0);
    std::string key = entry.GetKnownHeadends();
    EXPECT_TRUE(cache->IsInCache(key, entry)) << "the selection just stored went first";
  }
  unsigned int found = 0;
  for (unsigned int i = 0; i < CSelectionCache::MaxEntries + 6; ++i) {
    std::string key = std::to_string(i) + ";";
    CCacheEntry entry;
    found += cache->IsInCache(key, entry) ? 1 : 0;
  }
  EXPECT_EQ(found, CSelectionCache::MaxEntries);
}

TEST_F(SelectionCache, AnySelectionFromTheFutureGoesBeforeARightOne) {
  writeSelection(-Day);
  for (unsigned int i = 0; i < CSelectionCache::MaxEntries; ++i) {
    ASSERT_EQ(store(std::to_string(i) + ";", {{"gw", i}}), 0);
  }
  EXPECT_TRUE(has("0;"));
  EXPECT_EQ(read(m_file).find("gw-a;"), std::string::npos);
}

TEST_F(SelectionCache, TheSelectionsUsedLongestAgoGoFirst) {
  writeSelections({{"oldest but used;", {10 * Day, Hour}}, {"younger;", {Day, 0}}});
  EXPECT_EQ(store("one more;", {{"gw", 1}}), 0);
  EXPECT_TRUE(has("oldest but used;"));
  EXPECT_FALSE(has("younger;"));
}

TEST_F(SelectionCache, AHitIsAUse) {
  writeSelections({{"oldest;", {10 * Day, 0}}, {"younger;", {Day, 0}}});
  EXPECT_TRUE(has("oldest;"));
  EXPECT_EQ(store("one more;", {{"gw", 1}}), 0);
  EXPECT_TRUE(has("oldest;"));
  EXPECT_FALSE(has("younger;"));
}

TEST_F(SelectionCache, AHitLeavesTheStampThatDecidesExpiry) {
  writeSelection(13 * Day);
  const std::string stamp = stampIn(read(m_file));
  EXPECT_TRUE(has("gw-a;"));
  EXPECT_EQ(stampIn(read(m_file)), stamp);
  EXPECT_THAT(read(m_file), HasSubstr(" used=\""));
}

TEST_F(SelectionCache, AUseDoesNotKeepASelectionThatIsOutOfDate) {
  writeSelections({{"old;", {15 * Day, 60}}});
  EXPECT_FALSE(has("old;"));
  EXPECT_EQ(store("one more;", {{"gw", 1}}), 0);
  EXPECT_THAT(read(m_file), Not(HasSubstr("old;")));
}

TEST_F(SelectionCache, AHitCostsNoWriteWhileAUseOfTheSameHourIsOnRecord) {
  writeSelections({{"just stored;", {Hour / 2, 0}}, {"just used;", {Day, Hour / 2}}});
  const std::string before = read(m_file);
  EXPECT_TRUE(has("just stored;"));
  EXPECT_TRUE(has("just used;"));
  EXPECT_EQ(read(m_file), before);
  EXPECT_FALSE(exists(m_file + ".lock"));
}

TEST_F(SelectionCache, UsesThatAreNotOnRecordGoThereWithTheNextStore) {
  writeSelections({{"used;", {Hour / 2, 0}}});
  const CacheHold cache;
  std::string key = "used;";
  CCacheEntry entry;
  ASSERT_TRUE(cache->IsInCache(key, entry));
  ASSERT_THAT(read(m_file), Not(HasSubstr(" used=\"")));
  CCacheEntry other = entryOf("other;", {{"gw", 1}});
  ASSERT_EQ(keep(cache, other), 0);
  EXPECT_THAT(read(m_file), ContainsRegex("knownHeadends=\"used;\" stored=\"[0-9]+\" used=\""));
}

TEST_F(SelectionCache, AUseOrAStampFromTheFutureKeepsNoSelection) {
  writeSelections({{"wrong clock;", {10 * Day, -Day}}, {"right;", {9 * Day, 0}}});
  EXPECT_EQ(store("one more;", {{"gw", 1}}), 0);
  EXPECT_FALSE(has("wrong clock;"));
  EXPECT_TRUE(has("right;"));
}

TEST_F(SelectionCache, TellsTheSelectionOfTheThreadWhichEntryItUsedOrStored) {
  const CacheHold cache;
  CCacheEntry first = entryOf("first;", {{"gw-1", 1}});
  CCacheEntry second = entryOf("second;", {{"gw-2", 2}});
  const auto record = std::make_shared<SelectionRecord>();
  const auto other = std::make_shared<SelectionRecord>();
  {
    const CTask::Scope scope(record);
    keep(cache, first);
  }
  EXPECT_EQ(recordsOf(record->entry()), (Records{{"gw-1", 1}}));
  {
    const CTask::Scope scope(other);
    keep(cache, second);
    std::string key = "missing;";
    CCacheEntry found;
    EXPECT_FALSE(cache->IsInCache(key, found));
    EXPECT_EQ(other->entry().GetKnownHeadends(), "second;");
    key = "first;";
    ASSERT_TRUE(cache->IsInCache(key, found));
    EXPECT_EQ(other->entry().GetKnownHeadends(), "first;");
  }
  EXPECT_EQ(record->entry().GetKnownHeadends(), "first;") << "each selection has its own";
}

TEST_F(SelectionCache, DoesNotKeepWhatACancelledSelectionHasMeasured) {
  const CacheHold cache;
  const auto record = std::make_shared<SelectionRecord>();
  const CTask::Scope scope(record);
  record->Cancel();
  CCacheEntry partial = entryOf("key;", {{"gw-1", 1}});
  EXPECT_EQ(cache->AddEntry(partial), HEADENDSELECTION_ERROR_CACHE_FAILURE);
  std::string key = "key;";
  CCacheEntry found;
  EXPECT_FALSE(cache->IsInCache(key, found));
}

TEST_F(SelectionCache, ReadsAsPlaceStateAndEntry) {
  const CacheHold cache;
  EXPECT_EQ(cache->toString(), "");
  CCacheEntry entry = entryOf("gw-a;", {{"gw-a", 40}});
  keep(cache, entry);
  EXPECT_EQ(cache->toString(),
            "at nameserver 192.0.2.1 search home.test, current: " + entry.toString());
}

TEST_F(SelectionCache, SaysWhatIsOutOfDate) {
  writeSelection(15 * Day);
  const CacheHold cache;
  EXPECT_THAT(cache->toString(), HasSubstr("search home.test, out of date: stored "));
}

TEST_F(SelectionCache, WithoutPreferencesItWorksInMemory) {
  usePreferences("");
  const CacheHold cache;
  CCacheEntry entry = entryOf("gw-a;", {{"gw-a", 40}});
  EXPECT_EQ(keep(cache, entry), 0);
  std::string key = "gw-a;";
  EXPECT_TRUE(cache->IsInCache(key, entry));
  EXPECT_TRUE(m_warnings.empty());
}

TEST_F(SelectionCache, TheInstanceLivesAsLongAsAnAcquisition) {
  EXPECT_EQ(CSelectionCache::acquireInstance(), nullptr);
  CSelectionCache* first = nullptr;
  CSelectionCache* second = nullptr;
  ASSERT_EQ(CSelectionCache::createSingletonInstance(first), 0);
  ASSERT_EQ(CSelectionCache::createSingletonInstance(second), 0);
  EXPECT_EQ(first, second);
  first->releaseInstance();
  EXPECT_EQ(CSelectionCache::acquireInstance(), second);
  second->releaseInstance();
  second->releaseInstance();
  EXPECT_EQ(CSelectionCache::acquireInstance(), nullptr);
}

TEST_F(SelectionCache, ThreadsMayCreateUseAndReleaseItAtOnce) {
  std::vector<std::thread> threads;
  for (unsigned int i = 0; i < 8; ++i) {
    threads.emplace_back([i] {
      for (unsigned int round = 0; round < 10; ++round) {
        const std::string key = std::to_string(i) + ";";
        store(key, {{"gw", round}});  // while another one's store is not in the file it may say so
        Records records;
        ASSERT_TRUE(find(key, records));
        ASSERT_EQ(records, (Records{{"gw", round}}));
        const CacheHold cache;
        cache->toString();
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (unsigned int i = 0; i < 8; ++i) {
    EXPECT_TRUE(has(std::to_string(i) + ";"));
  }
}

TEST_F(SelectionCache, ThreadsMayCountAcquisitionsAtOnce) {
  usePreferences("");
  std::vector<std::thread> threads;
  for (unsigned int i = 0; i < 8; ++i) {
    threads.emplace_back([] {
      for (unsigned int round = 0; round < 500; ++round) {
        const CacheHold first;
        CSelectionCache* second = CSelectionCache::acquireInstance();
        ASSERT_NE(second, nullptr);
        second->releaseInstance();
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace tests
