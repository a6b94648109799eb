// The result records: they hold what they are given, in the order it came, and order by metric.

#include <gtest/gtest.h>

#include <algorithm>
#include <type_traits>
#include <vector>

#include "vpn/Api/AHS/CacheEntry.h"
#include "vpn/Api/AHS/HeadendRTT.h"

namespace {

std::vector<unsigned int> metricsOf(const std::vector<CHeadendRTT>& headends) {
  std::vector<unsigned int> metrics;
  for (const CHeadendRTT& headend : headends) {
    metrics.push_back(headend.GetRTT());
  }
  return metrics;
}

static_assert(!std::is_polymorphic_v<CHeadendRTT> && !std::is_polymorphic_v<CCacheEntry>,
              "the records are plain values");

}  // namespace

TEST(HeadendRTT, AFreshRecordNamesNoHeadendAndNoTime) {
  const CHeadendRTT headend;
  EXPECT_EQ(headend.GetHeadend(), "");
  EXPECT_EQ(headend.GetRTT(), 0U);
}

TEST(HeadendRTT, HoldsHostKeyAndMetric) {
  const CHeadendRTT headend("gw-b:8443", 46);
  EXPECT_EQ(headend.GetHeadend(), "gw-b:8443");
  EXPECT_EQ(headend.GetRTT(), 46U);
}

TEST(HeadendRTT, OrdersByMetricAlone) {
  EXPECT_TRUE(CHeadendRTT("z", 1) < CHeadendRTT("a", 2));
  EXPECT_FALSE(CHeadendRTT("a", 2) < CHeadendRTT("z", 1));
}

TEST(HeadendRTT, EqualMetricsAreEquivalentWhateverTheHost) {
  EXPECT_FALSE(CHeadendRTT("a", 5) < CHeadendRTT("b", 5));
  EXPECT_FALSE(CHeadendRTT("b", 5) < CHeadendRTT("a", 5));
}

TEST(HeadendRTT, ComparesMetricsAsUnsignedNumbers) {
  std::vector<CHeadendRTT> headends = {
      {"last", 4294967295U}, {"third", 2147483648U}, {"first", 0}, {"second", 2147483647U}};
  std::sort(headends.begin(), headends.end());
  EXPECT_EQ(metricsOf(headends),
            (std::vector<unsigned int>{0, 2147483647U, 2147483648U, 4294967295U}));
}

TEST(HeadendRTT, SortingManyEqualMetricsKeepsEveryRecord) {
  std::vector<CHeadendRTT> headends;
  for (int i = 0; i < 100; ++i) {
    headends.emplace_back("gw-" + std::to_string(i), i % 2 == 0 ? 5U : 3U);
  }
  std::sort(headends.begin(), headends.end());
  EXPECT_TRUE(std::is_sorted(headends.begin(), headends.end()));
  std::vector<std::string> hosts;
  for (const CHeadendRTT& headend : headends) {
    hosts.push_back(headend.GetHeadend());
  }
  std::sort(hosts.begin(), hosts.end());
  EXPECT_EQ(std::unique(hosts.begin(), hosts.end()), hosts.end());
}

TEST(HeadendRTT, CopiesAreMemberWise) {
  CHeadendRTT original("gw-a", 12);
  const CHeadendRTT copy(original);
  CHeadendRTT assigned;
  assigned = original;
  original = CHeadendRTT("gw-b", 99);
  EXPECT_EQ(copy.GetHeadend(), "gw-a");
  EXPECT_EQ(copy.GetRTT(), 12U);
  EXPECT_EQ(assigned.GetHeadend(), "gw-a");
  EXPECT_EQ(assigned.GetRTT(), 12U);
}

TEST(HeadendRTT, ReadsAsALineOfTheReport) {
  EXPECT_EQ(CHeadendRTT("gw-a", 40).toString(), "gw-a     40");
  EXPECT_EQ(CHeadendRTT("gw\n\x1b[31m", 0).toString(), "gw\\x0a\\x1b[31m     0");
}

TEST(CacheEntry, AFreshEntryGivesAnEmptyListAndSuccess) {
  CCacheEntry entry;
  std::vector<CHeadendRTT> headends;
  EXPECT_EQ(entry.GetHeadendList(headends), 0);
  EXPECT_TRUE(headends.empty());
  EXPECT_EQ(entry.GetListSize(), 0U);
  EXPECT_EQ(entry.GetTimestamp(), 0UL);
  EXPECT_EQ(entry.GetKnownHeadends(), "");
}

TEST(CacheEntry, KeepsResultsInTheOrderTheyWereAdded) {
  CCacheEntry entry;
  entry.AddHeadend(CHeadendRTT("gw-c", 90));
  entry.AddHeadend(CHeadendRTT("gw-a", 40));
  entry.AddHeadend(CHeadendRTT("gw-c", 46));
  std::vector<CHeadendRTT> headends;
  EXPECT_EQ(entry.GetHeadendList(headends), 0);
  EXPECT_EQ(metricsOf(headends), (std::vector<unsigned int>{90, 40, 46}));
  EXPECT_EQ(entry.GetListSize(), 3U);
}

TEST(CacheEntry, HandsOutCopiesOfItsResults) {
  CCacheEntry entry({{"gw-a", 40}});
  std::vector<CHeadendRTT> headends;
  entry.GetHeadendList(headends);
  headends.clear();
  EXPECT_EQ(entry.GetListSize(), 1U);
}

TEST(CacheEntry, ANewListReplacesTheOldOne) {
  CCacheEntry entry({{"gw-a", 40}, {"gw-b", 46}});
  entry.SetHeadendList({{"gw-c", 90}});
  std::vector<CHeadendRTT> headends;
  entry.GetHeadendList(headends);
  EXPECT_EQ(metricsOf(headends), (std::vector<unsigned int>{90}));
}

TEST(CacheEntry, ACopyHasAllThreeFieldsAndALifeOfItsOwn) {
  CCacheEntry original({{"gw-a", 40}});
  original.SetTimestamp(1700000000);
  original.SetKnownHeadends("gw-a;");
  CCacheEntry copy(original);
  CCacheEntry assigned;
  assigned = original;
  copy.SetKnownHeadends("gw-b;");
  copy.AddHeadend(CHeadendRTT("gw-b", 1));
  EXPECT_EQ(copy.GetTimestamp(), 1700000000UL);
  EXPECT_EQ(original.GetKnownHeadends(), "gw-a;");
  EXPECT_EQ(original.GetListSize(), 1U);
  EXPECT_EQ(assigned.GetKnownHeadends(), "gw-a;");
  EXPECT_EQ(assigned.GetTimestamp(), 1700000000UL);
  EXPECT_EQ(assigned.GetListSize(), 1U);
}

TEST(CacheEntry, AssigningAnEntryToItselfChangesNothing) {
  CCacheEntry entry({{"gw-a", 40}});
  const CCacheEntry& same = entry;
  entry = same;
  EXPECT_EQ(entry.GetListSize(), 1U);
}

TEST(CacheEntry, ReadsAsTimeKeyAndOneLineAResult) {
  CCacheEntry entry({{"gw-a", 40}, {"gw-b:8443", 46}});
  entry.SetKnownHeadends("gw-b:8443;gw-a;");
  entry.SetTimestamp(1700000000);
  EXPECT_EQ(entry.toString(),
            "stored 1700000000, candidates gw-b:8443;gw-a;\n  gw-a     40\n  gw-b:8443     46\n");
}
