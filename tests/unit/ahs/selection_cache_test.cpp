// Look-ups and stores of the cache: what must match for a selection to be found, for how long,
// which selections are kept, and who is told.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/ahs/cache_fixture.h"
#include "tests/unit/ahs/network_double.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/Common/Utility/Shortage.h"

using ::testing::SizeIs;

namespace tests {
namespace {

constexpr long Day = 24L * 60 * 60;

class SelectionCache : public CacheTest {
 protected:
  /// Fills the directory with selections used a minute ago.
  void fillUp() {
    for (std::size_t i = names().size(); i < SelectionFiles::MaxFiles; ++i) {
      storeAged("filler " + std::to_string(i) + ";", 60, 60);
    }
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
  for (const std::string& directory : {m_directory, std::string()}) {
    usePreferences(directory);
    const CacheHold cache;
    const auto before = static_cast<unsigned long>(std::time(nullptr));
    ASSERT_EQ(store("gw-b;gw-a;", {{"gw-b:8443", 4294967295U}, {"gw-a", 0}}), 0);
    std::string key = "gw-b;gw-a;";
    CCacheEntry entry = entryOf("", {{"gw-x", 1}});
    ASSERT_TRUE(cache->IsInCache(key, entry));
    EXPECT_EQ(recordsOf(entry), (Records{{"gw-b:8443", 4294967295U}, {"gw-a", 0}}));
    EXPECT_EQ(entry.GetKnownHeadends(), "gw-b;gw-a;");
    EXPECT_GE(entry.GetTimestamp(), before);
    EXPECT_LE(entry.GetTimestamp(), before + 5 * 60) << "time(2) lags behind the stamp's clock";
  }
}

TEST_F(SelectionCache, OtherCandidatesMiss) {
  EXPECT_EQ(store("gw-a;"), 0);
  EXPECT_FALSE(has("gw-b;gw-a;"));
  EXPECT_FALSE(has(""));
  EXPECT_TRUE(has("gw-a;"));
}

TEST_F(SelectionCache, OrderAndSpellingOfTheSameCandidatesDoNotMatterAndAHitHasTheAskersSpelling) {
  const Records measured{{"[::1]", 9}, {"GW-b:443", 7}, {"gw-a:8443", 8}};
  EXPECT_EQ(store("gw-a:8443;gw-b:443;[::1];", measured), 0);
  EXPECT_EQ(find("[::1]:443;gw-b;gw-b:443;gw-a:8443;"),
            (Records{{"[::1]:443", 9}, {"gw-b", 7}, {"gw-a:8443", 8}}));
  EXPECT_FALSE(has("gw-a;gw-b;[::1];"));
  const auto record = std::make_shared<SelectionRecord>();
  record->setTerms({.headends = {"Gw-A:8443", "gw-B", "[::1]"}});
  const CTask::Scope scope(record);
  EXPECT_EQ(find("[::1];gw-b;gw-a:8443;"), (Records{{"[::1]", 9}, {"gw-B", 7}, {"Gw-A:8443", 8}}));
}

TEST_F(SelectionCache, APreferenceThatChangesTheFiguresIsPartOfThePlace) {
  EXPECT_EQ(store("gw-a;"), 0);
  const std::string preferences = m_temporary.Path() + "/preferences.xml";
  for (const auto& [name, value, isHit] : {std::tuple("RoundTripTime", "response", false),
                                           {"SelectionPingsPerHeadend", "1", false},
                                           {"SelectionNeedsService", "true", false},
                                           {"SelectionPingTimeout", "5000", false},
                                           {"SelectionImprovement", "5", true}}) {
    write(preferences, std::string("<preferences version=\"1\"><preference name=\"") + name +
                           "\" value=\"" + value + "\"/></preferences>");
    usePreferences(m_directory, preferences);
    EXPECT_EQ(has("gw-a;"), isHit) << name;
  }
}

TEST_F(SelectionCache, ASelectionThatLacksACandidateOrProbesIsRememberedForTenMinutes) {
  HttpProbe::Report report;
  report.host = "gw";
  report.port = 443;
  for (const auto& [probes, key, isPartial] :
       {std::tuple(3, "gw;", false), {6, "gw;lost;", true}, {2, "late;", true}}) {
    const auto record = std::make_shared<SelectionRecord>();
    for (int i = 0; i < probes; ++i) {
      record->probeEnded(report);
    }
    const CTask::Scope scope(record);
    const std::string text = readFile(fileOf(key));
    EXPECT_EQ(text.find(" partial=\"true\"") != std::string::npos, isPartial) << key;
    for (const long age : {590, 610}) {
      storeAged(key, age, 0, isPartial);
      EXPECT_EQ(has(key), !isPartial || age == 590) << key;
    }
  }
}

TEST_F(SelectionCache, ASelectionOlderThanTheAskerWantsMisses) {
  storeAged("gw;", 100, 0);
  const auto record = std::make_shared<SelectionRecord>();
  const CTask::Scope scope(record);
  for (const auto& [most, isHit] : {std::pair(90, false), {110, true}}) {
    record->setTerms({.maxAge = std::chrono::seconds(most)});
    EXPECT_EQ(has("gw;"), isHit) << most;
  }
}

TEST_F(SelectionCache, ASelectionWhoseFirstHeadendIsDeadIsForgotten) {
  const Records measured{{"near:8443", 10}, {"last", 11}, {"far", 90}};
  for (const std::string& directory : {m_directory, std::string()}) {
    usePreferences(directory);
    const CacheHold cache;
    for (const unsigned int reason : {0U, 1U}) {
      const std::string first = reason == 1 ? "last:443" : "near:8443";
      const auto record = std::make_shared<SelectionRecord>();
      record->setTerms({.reason = reason, .last = "last"});
      EXPECT_EQ(store("far;last;near:8443;", measured), 0);
      const CTask::Scope scope(record);
      setDead("far:443");
      EXPECT_TRUE(has("far;last;near:8443;"));
      EXPECT_EQ(takeTrials(), std::vector<std::string>{first});
      setDead(first);
      EXPECT_FALSE(has("far;last;near:8443;"));
      setDead("");
      EXPECT_FALSE(has("far;last;near:8443;")) << "it is gone";
      EXPECT_THAT(takeTrials(), SizeIs(0));
    }
  }
}

TEST_F(SelectionCache, ANewSelectionReplacesTheOlderOneOfItsKey) {
  for (const std::string& directory : {m_directory, std::string()}) {
    usePreferences(directory);
    const CacheHold cache;
    for (const unsigned int metric : {40U, 12U}) {
      store("gw-a;", {{"gw-a", metric}});
      EXPECT_EQ(find("gw-a;"), (Records{{"gw-a", metric}}));
    }
  }
}

TEST_F(SelectionCache, ASelectionStoredUnderAGivenKeyIsFoundUnderThat) {
  {
    const CacheHold cache;
    CCacheEntry entry = entryOf("its own;", {{"gw-a", 40}});
    cache->AddEntry(entry, "given;");
    EXPECT_EQ(entry.GetKnownHeadends(), "its own;");
  }
  EXPECT_TRUE(has("given;"));
  EXPECT_FALSE(has("its own;"));
}

TEST_F(SelectionCache, ASelectionWithoutResultsIsNotStored) {
  EXPECT_EQ(store("gw-a;", {}), HEADENDSELECTION_ERROR_BAD_PARAMETER);
  EXPECT_FALSE(has("gw-a;"));
  EXPECT_THAT(names(), SizeIs(0));
}

TEST_F(SelectionCache, AnotherPlaceMissesAndComingBackHits) {
  const CacheHold cache;
  store("gw-a;", {{"gw-a", 40}});
  for (const std::vector<std::string>& place :
       {std::vector<std::string>{"nameserver 198.51.100.1", "search home.test"},
        std::vector<std::string>{"nameserver 192.0.2.1", "search work.test"}}) {
    setNetworkPlace(place);
    EXPECT_FALSE(has("gw-a;"));
    store("gw-a;", {{"gw-a", 9}});
  }
  setNetworkPlace({"nameserver 192.0.2.1", "search home.test"});
  EXPECT_EQ(find("gw-a;"), (Records{{"gw-a", 40}}));
}

TEST_F(SelectionCache, TheOrderOfNameServersIsNoPartOfThePlace) {
  setNetworkPlace({"nameserver 192.0.2.1", "nameserver 192.0.2.2"});
  store("gw-a;");
  setNetworkPlace({"nameserver 192.0.2.2", "nameserver 192.0.2.1", "nameserver 192.0.2.1"});
  EXPECT_TRUE(has("gw-a;"));
}

TEST_F(SelectionCache, AnUnknownPlaceMissesAndStoresNothing) {
  store("gw-a;");
  setNetworkPlace({});
  EXPECT_FALSE(has("gw-a;"));
  EXPECT_EQ(store("gw-b;"), HEADENDSELECTION_ERROR_UNEXPECTED);
  setNetworkPlace({"nameserver 192.0.2.1", "search home.test"});
  EXPECT_TRUE(has("gw-a;"));
  EXPECT_FALSE(has("gw-b;"));
}

TEST_F(SelectionCache, ASelectionCountsForTheClearCacheTimeOfThePreferencesOrFourteenDays) {
  const std::string preferences = m_directory + "/preferences.xml";
  write(preferences,
        "<preferences version=\"1\"><preference name=\"SelectionClearCache\" "
        "value=\"2\"/></preferences>");
  for (const auto& [file, days] : {std::pair(std::string(), 14), std::pair(preferences, 2)}) {
    usePreferences(m_directory, file);
    storeAged("gw-a;", days * Day - 60, 0);
    EXPECT_TRUE(has("gw-a;"));
    storeAged("gw-a;", days * Day + 60, 0);
    EXPECT_FALSE(has("gw-a;"));
  }
  EXPECT_THAT(m_warnings, SizeIs(0));
}

TEST_F(SelectionCache, ASelectionFromTheFutureIsOldAndGivesWayToAFreshOne) {
  storeAged("gw-a;", -365 * Day, 0);
  EXPECT_FALSE(has("gw-a;"));
  EXPECT_EQ(store("gw-a;", {{"gw-a", 40}}), 0);
  EXPECT_EQ(find("gw-a;"), (Records{{"gw-a", 40}}));
}

TEST_F(SelectionCache, TheSelectionUsedLongestAgoGoesFirstAndAHitIsAUseThatLeavesTheStamp) {
  storeAged("oldest but used;", 10 * Day, 10 * Day);
  storeAged("younger;", Day, Day);
  fillUp();
  const std::string text = readFile(fileOf("oldest but used;"));
  EXPECT_TRUE(has("oldest but used;"));
  EXPECT_EQ(store("one more;"), 0);
  EXPECT_TRUE(has("one more;"));
  EXPECT_TRUE(has("oldest but used;"));
  EXPECT_FALSE(has("younger;"));
  EXPECT_EQ(readFile(fileOf("oldest but used;")), text);
  EXPECT_THAT(names(), SizeIs(SelectionFiles::MaxFiles));
}

TEST_F(SelectionCache, AUseInTheFutureKeepsNoSelection) {
  storeAged("wrong clock;", 10 * Day, -Day);
  storeAged("right;", 9 * Day, 9 * Day);
  fillUp();
  EXPECT_EQ(store("one more;"), 0);
  EXPECT_FALSE(has("wrong clock;"));
  EXPECT_TRUE(has("right;"));
}

TEST_F(SelectionCache, InMemoryTheSelectionsStoredLongestAgoGoFirst) {
  usePreferences("");
  const CacheHold cache;
  std::size_t found = 0;
  for (std::size_t i = 0; i < SelectionFiles::MaxFiles + 6; ++i) {
    store(std::to_string(i) + ";");
  }
  for (std::size_t i = 0; i < SelectionFiles::MaxFiles + 6; ++i) {
    found += has(std::to_string(i) + ";") ? 1 : 0;
  }
  EXPECT_EQ(found, SelectionFiles::MaxFiles);
}

TEST_F(SelectionCache, TellsTheSelectionOfTheThreadWhichEntryItUsedOrStored) {
  const CacheHold cache;
  const auto record = std::make_shared<SelectionRecord>();
  const auto other = std::make_shared<SelectionRecord>();
  {
    const CTask::Scope scope(record);
    store("first;", {{"gw-1", 1}});
  }
  EXPECT_EQ(recordsOf(record->entry()), (Records{{"gw-1", 1}}));
  {
    const CTask::Scope scope(other);
    store("second;");
    EXPECT_FALSE(has("missing;"));
    EXPECT_EQ(other->entry().GetKnownHeadends(), "second;");
    EXPECT_TRUE(has("first;"));
    EXPECT_EQ(other->entry().GetKnownHeadends(), "first;");
  }
  EXPECT_EQ(record->entry().GetKnownHeadends(), "first;") << "each selection has its own";
}

TEST_F(SelectionCache, DoesNotKeepWhatACancelledSelectionHasMeasured) {
  const auto record = std::make_shared<SelectionRecord>();
  const CTask::Scope scope(record);
  record->cancel();
  EXPECT_EQ(store("gw-a;"), HEADENDSELECTION_ERROR_CACHE_FAILURE);
  EXPECT_FALSE(has("gw-a;"));
}

TEST_F(SelectionCache, DoesNotKeepWhatWasMeasuredWhileThePlaceChanged) {
  const auto record = std::make_shared<SelectionRecord>();
  const CTask::Scope scope(record);
  for (const bool measuresNow : {false, true}) {
    record->setTerms({.measuresNow = measuresNow});
    setNetworkPlace({"nameserver 192.0.2.1"});
    EXPECT_FALSE(has("gw;"));
    setNetworkPlace({"nameserver 192.0.2.2"});
    EXPECT_EQ(store("gw;"), HEADENDSELECTION_ERROR_CACHE_FAILURE);
  }
  setNetworkPlace({});  // the router's link address is not known yet
  EXPECT_FALSE(has("gw;"));
  setNetworkPlace({"nameserver 192.0.2.2"});
  EXPECT_EQ(store("gw;"), HEADENDSELECTION_SUCCESS);
}

TEST_F(SelectionCache, KeepsWhatWasMeasuredUntilTheDecision) {
  const auto record = std::make_shared<SelectionRecord>();
  const CTask::Scope scope(record);
  record->cutShort();
  EXPECT_EQ(store("gw-a;"), HEADENDSELECTION_SUCCESS);
  EXPECT_TRUE(has("gw-a;"));
}

TEST_F(SelectionCache, DoesNotKeepWhatWasMeasuredWhileThisMachineLackedSomething) {
  const CacheHold cache;
  CCacheEntry before = entryOf("gw-a;", {{"gw-a", 40}});
  Shortages::note(Shortage::Descriptors);
  CCacheEntry copy(before);
  EXPECT_EQ(cache->AddEntry(copy), HEADENDSELECTION_ERROR_CACHE_FAILURE);
  EXPECT_FALSE(has("gw-a;"));
  EXPECT_EQ(store("gw-a;"), HEADENDSELECTION_SUCCESS);
}

TEST_F(SelectionCache, ReadsAsPlaceAndEntryOfWhatTheDirectoryDoesNotHave) {
  const CacheHold cache;
  CCacheEntry entry = entryOf("gw-a;", {{"gw-a", 40}});
  cache->AddEntry(entry);
  EXPECT_EQ(cache->toString(), "at nameserver 192.0.2.1 search home.test: " + entry.toString());
  EXPECT_TRUE(has("gw-a;"));  // a release
  EXPECT_EQ(cache->toString(), "");
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
        ASSERT_EQ(store(key, {{"gw", round}}), 0);
        ASSERT_EQ(find(key), (Records{{"gw", round}}));
        const CacheHold cache;
        cache->toString();
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace tests
