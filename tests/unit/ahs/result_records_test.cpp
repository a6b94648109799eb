// The result records: they hold what they are given, in the order it came, and order by metric.

#include <gtest/gtest.h>

#include <algorithm>
#include <type_traits>
#include <vector>

#include "vpn/Api/AHS/CacheEntry.h"
#include "vpn/Api/AHS/HeadendRTT.h"

namespace {

using Metrics = std::vector<unsigned int>;

Metrics metricsOf(const std::vector<CHeadendRTT>& headends) {
  Metrics metrics;
  for (const CHeadendRTT& headend : headends) {
    metrics.push_back(headend.GetRTT());
  }
  return metrics;
}

Metrics metricsOf(const CCacheEntry& entry) {
  std::vector<CHeadendRTT> headends;
  EXPECT_EQ(entry.GetHeadendList(headends), 0);
  EXPECT_EQ(entry.GetListSize(), headends.size());
  return metricsOf(headends);
}

static_assert(!std::is_polymorphic_v<CHeadendRTT> && !std::is_polymorphic_v<CCacheEntry>,
              "the records are plain values");

}  // namespace

TEST(HeadendRTT, HoldsHostKeyAndMetricAndReadsAsALineOfTheReport) {
  EXPECT_EQ(CHeadendRTT().GetHeadend(), "");
  EXPECT_EQ(CHeadendRTT().GetRTT(), 0U);
  EXPECT_EQ(CHeadendRTT("gw-b:8443", 46).GetHeadend(), "gw-b:8443");
  EXPECT_EQ(CHeadendRTT("gw-b:8443", 46).GetRTT(), 46U);
  EXPECT_EQ(CHeadendRTT("gw-a", 40).toString(), "gw-a     40");
  EXPECT_EQ(CHeadendRTT("gw\n\x1b[31m", 0).toString(), "gw\\x0a\\x1b[31m     0");
}

TEST(HeadendRTT, EqualMetricsAreEquivalentWhateverTheHost) {
  EXPECT_FALSE(CHeadendRTT("a", 5) < CHeadendRTT("b", 5));
  EXPECT_FALSE(CHeadendRTT("b", 5) < CHeadendRTT("a", 5));
}

TEST(HeadendRTT, AMetricOfZeroSortsFirstAndTheLargestUnsignedLast) {
  std::vector<CHeadendRTT> headends = {
      {"last", 4294967295U}, {"third", 2147483648U}, {"first", 0}, {"second", 2147483647U}};
  std::sort(headends.begin(), headends.end());
  EXPECT_EQ(metricsOf(headends), (Metrics{0, 2147483647U, 2147483648U, 4294967295U}));
}

TEST(CacheEntry, AFreshEntryGivesAnEmptyListAndSuccess) {
  const CCacheEntry entry;
  EXPECT_EQ(metricsOf(entry), Metrics{});
  EXPECT_EQ(entry.GetTimestamp(), 0UL);
  EXPECT_EQ(entry.GetKnownHeadends(), "");
}

TEST(CacheEntry, KeepsResultsInTheOrderTheyWereAddedUntilANewListReplacesThem) {
  CCacheEntry entry({{"gw-c", 90}});
  entry.AddHeadend(CHeadendRTT("gw-a", 40));
  entry.AddHeadend(CHeadendRTT("gw-c", 46));
  EXPECT_EQ(metricsOf(entry), (Metrics{90, 40, 46}));
  entry.SetHeadendList({{"gw-c", 91}});
  EXPECT_EQ(metricsOf(entry), Metrics{91});
}

TEST(CacheEntry, ACopyHasAllThreeFieldsAndALifeOfItsOwn) {
  CCacheEntry original({{"gw-a", 40}, {"gw-b:8443", 46}});
  original.SetTimestamp(1700000000);
  original.SetKnownHeadends("gw-b:8443;gw-a;");
  const std::string text =
      "stored 1700000000, candidates gw-b:8443;gw-a;\n  gw-a     40\n  gw-b:8443     46\n";
  CCacheEntry copy(original);
  CCacheEntry assigned;
  assigned = original;
  EXPECT_EQ(copy.toString(), text);
  copy.SetKnownHeadends("gw-b;");
  copy.AddHeadend(CHeadendRTT("gw-b", 1));
  const CCacheEntry& same = original;
  original = same;
  EXPECT_EQ(original.toString(), text);
  EXPECT_EQ(assigned.toString(), text);
}
