// Ranking and report: the order in which the headends go out, when the last one is kept in front,
// and the text that tells it, character for character.

#include <limits>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/selection/selection_fixture.h"

namespace tests {
namespace {

using doubles::cache;
using doubles::preferences;
using doubles::seams;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

constexpr STATUSCODE SelectionFailure = 0xFE53000F;
constexpr unsigned int Largest = std::numeric_limits<unsigned int>::max();
const char Retained[] = "\nRetained the last server to maximize the user experience.\n";

using Measured = std::vector<std::pair<std::string, unsigned int>>;

std::string selected(const std::string& host) {
  return "\nSelected '" + host + "' as the optimal server.\n";
}

class Ranking : public SelectionTest {
 protected:
  Texts rank(unsigned int reason, const std::string& last, unsigned int improvement,
             const Measured& measured) {
    CHeadendSelection& selection = make(reason);
    member<LastHeadend>(selection) = URL(last);
    member<Settings>(selection).nImprovement = improvement;
    for (const auto& [host, metric] : measured) {
      call<AddHeadendToList>(selection, host, metric);
    }
    return rankAgain();
  }

  Texts rankAgain() {
    Texts list;
    status = call<GetBestHeadendsList>(*run, list);
    return list;
  }

  static std::string report() {
    for (const doubles::LogLine& line : doubles::log().lines()) {
      if (line.function == "logPingResults") {
        return line.message;
      }
    }
    return "no report";
  }

  /// How often this thread holds the results lock whenever the ranking reads the results this way.
  std::vector<int> locksHeldAtEach(doubles::Seams::Reading way) {
    CHeadendSelection& selection = make();
    call<AddHeadendToList>(selection, "gw-a", 1U);
    int held = 0;  // by this thread: there is no other
    std::vector<int> heldAtEach;
    seams().setLockHook([&](const CManualLock* lock, bool taken) {
      if (lock == &member<CacheLock>(selection)) {
        held += taken ? 1 : -1;
      }
    });
    seams().setBeforeReading([&](const CCacheEntry& entry, doubles::Seams::Reading reading) {
      if (&entry == &member<PingResults>(selection) && reading == way) {
        heldAtEach.push_back(held);
      }
    });
    rankAgain();
    seams().setBeforeReading(nullptr);
    seams().setLockHook(nullptr);
    EXPECT_EQ(held, 0);
    return heldAtEach;
  }

  STATUSCODE status = -1;
};

TEST_F(Ranking, OfAConnectionIsByMetricAlone) {
  EXPECT_THAT(rank(Connection, "gw-c", 20, {{"gw-c", 41}, {"gw-b", 46}, {"gw-a", 40}}),
              ElementsAre("gw-a", "gw-c", "gw-b"));
  EXPECT_EQ(status, 0);
  EXPECT_THAT(report(), EndsWith(selected("gw-a")));
}

class OtherReason : public Ranking, public testing::WithParamInterface<unsigned int> {};

TEST_P(OtherReason, NeverRetainsTheLastHeadend) {
  EXPECT_THAT(rank(GetParam(), "gw-b", 1000, {{"gw-b", 46}, {"gw-a", 40}}),
              ElementsAre("gw-a", "gw-b"));
  EXPECT_THAT(report(), EndsWith(selected("gw-a")));
}

INSTANTIATE_TEST_SUITE_P(All, OtherReason, testing::Values(0U, 2U, 3U, 4U, 5U, 6U, Largest));

TEST_F(Ranking, OfAReconnectionKeepsALastHeadendThatIsGoodEnough) {
  EXPECT_THAT(rank(Reconnection, "gw-b", 20, {{"gw-a", 40}, {"gw-b", 46}, {"gw-c", 90}}),
              ElementsAre("gw-b", "gw-a", "gw-c"));
  EXPECT_EQ(status, 0);
  EXPECT_EQ(report(),
            "*** QIB Selection Results ***\n"
            "QIB performed for reconnection attempt. Last server: 'gw-b'\n"
            "\n"
            "Server Address     RTT (ms)\n"
            "gw-a     40\n"
            "gw-b     46\n"
            "gw-c     90\n"
            "\n"
            "Retained the last server to maximize the user experience.\n");
}

TEST_F(Ranking, OfAReconnectionLeavesALastHeadendThatIsTooFar) {
  EXPECT_THAT(rank(Reconnection, "gw-b", 20, {{"gw-a", 40}, {"gw-b", 50}, {"gw-c", 90}}),
              ElementsAre("gw-a", "gw-b", "gw-c"));
  EXPECT_EQ(report(),
            "*** QIB Selection Results ***\n"
            "QIB performed for reconnection attempt. Last server: 'gw-b'\n"
            "\n"
            "Server Address     RTT (ms)\n"
            "gw-a     40\n"
            "gw-b     50\n"
            "gw-c     90\n"
            "\n"
            "Selected 'gw-a' as the optimal server.\n");
}

TEST_F(Ranking, OfAReconnectionWhoseLastHeadendWasNotMeasuredIsByMetric) {
  EXPECT_THAT(rank(Reconnection, "gw-x", 20, {{"gw-b", 46}, {"gw-a", 40}}),
              ElementsAre("gw-a", "gw-b"));
  EXPECT_THAT(report(), EndsWith(selected("gw-a")));
}

TEST_F(Ranking, ALastHeadendThatIsTheBestCountsAsRetained) {
  EXPECT_THAT(rank(Reconnection, "gw-a", 10, {{"gw-b", 46}, {"gw-a", 40}}),
              ElementsAre("gw-a", "gw-b"));
  EXPECT_THAT(report(), EndsWith(Retained));
}

TEST_F(Ranking, WithoutARequiredImprovementTheBestIsNotRetainedButSelected) {
  EXPECT_THAT(rank(Reconnection, "gw-a", 0, {{"gw-b", 46}, {"gw-a", 40}}),
              ElementsAre("gw-a", "gw-b"));
  EXPECT_THAT(report(), EndsWith(selected("gw-a")));
}

TEST_F(Ranking, WithoutARequiredImprovementAWorseLastHeadendStaysInItsPlace) {
  EXPECT_THAT(rank(Reconnection, "gw-b", 0, {{"gw-b", 41}, {"gw-a", 40}}),
              ElementsAre("gw-a", "gw-b"));
  EXPECT_THAT(report(), EndsWith(selected("gw-a")));
}

TEST_F(Ranking, TwoMetricsOf0HaveNoRatioAndNothingIsRetained) {
  EXPECT_THAT(rank(Reconnection, "gw-b", 20, {{"gw-b", 0}, {"gw-c", 5}}),
              ElementsAre("gw-b", "gw-c"));
  EXPECT_THAT(report(), EndsWith(selected("gw-b")));
}

TEST_F(Ranking, OfSeveralMetricsOf0NoneIsRetained) {
  EXPECT_THAT(
      rank(Reconnection, "gw-b", Largest, {{"gw-a", 0}, {"gw-b", 0}, {"gw-c", 5}}),
      testing::AnyOf(ElementsAre("gw-a", "gw-b", "gw-c"), ElementsAre("gw-b", "gw-a", "gw-c")));
  EXPECT_THAT(report(), testing::HasSubstr("as the optimal server."));
}

TEST_F(Ranking, AgainstABestOf0NothingIsRetained) {
  EXPECT_THAT(rank(Reconnection, "gw-b", Largest, {{"gw-a", 0}, {"gw-b", 1}}),
              ElementsAre("gw-a", "gw-b"));
  EXPECT_THAT(report(), EndsWith(selected("gw-a")));
}

struct ThresholdCase {
  unsigned int improvement;
  unsigned int best;
  unsigned int last;
  bool retained;
};

void PrintTo(const ThresholdCase& given, std::ostream* out) {
  *out << given.improvement << " percent, best " << given.best << ", last " << given.last;
}

class Threshold : public Ranking, public testing::WithParamInterface<ThresholdCase> {};

TEST_P(Threshold, IsExceededStrictlyInSinglePrecision) {
  const ThresholdCase& given = GetParam();
  const Texts list = rank(Reconnection, "gw-last", given.improvement,
                          {{"gw-best", given.best}, {"gw-last", given.last}});

  EXPECT_THAT(
      list, given.retained ? ElementsAre("gw-last", "gw-best") : ElementsAre("gw-best", "gw-last"));
  EXPECT_THAT(report(), EndsWith(given.retained ? std::string(Retained) : selected("gw-best")));
}

INSTANTIATE_TEST_SUITE_P(
    Examples, Threshold,
    testing::Values(
        ThresholdCase{20, 40, 48, false}, ThresholdCase{10, 100, 110, false},
        ThresholdCase{20, 40, 46, true}, ThresholdCase{20, 40, 47, true},
        ThresholdCase{20, 40, 50, false}, ThresholdCase{10, 100, 109, true},
        ThresholdCase{100, 10, 20, false}, ThresholdCase{100, 10, 19, true},
        ThresholdCase{1, 100, 101, false}, ThresholdCase{5, 20, 21, false},
        // Exactly at the limit, which rounding to single precision lifts above the ratio.
        ThresholdCase{18, 50, 59, true}, ThresholdCase{43, 100, 143, true},
        // Both metrics become 2^24 in single precision, so the ratio is exactly 1.
        ThresholdCase{0, 16777216, 16777217, false}, ThresholdCase{1, 16777216, 16777217, true},
        // Above 2^24 each conversion rounds by itself, before the division.
        ThresholdCase{43, 19734520, 28220363, false}, ThresholdCase{20, 184156890, 220988275, true},
        // As signed numbers these would be negative.
        ThresholdCase{10, 4000000000U, 4200000000U, true},
        ThresholdCase{10, 2000000000U, 3000000000U, false},
        ThresholdCase{Largest, 1, 42000000, true}, ThresholdCase{2147483648U, 1, 21474836, false}));

TEST_F(Ranking, TheLastHeadendIsComparedWithItsPortByteForByte) {
  EXPECT_THAT(rank(Reconnection, "gw-b:8443", 20, {{"gw-a", 40}, {"gw-b", 41}}),
              ElementsAre("gw-a", "gw-b"));
  EXPECT_THAT(report(), testing::HasSubstr("Last server: 'gw-b:8443'"));
  EXPECT_THAT(report(), EndsWith(selected("gw-a")));
}

TEST_F(Ranking, TheLastHeadendIsComparedWithItsLetterCase) {
  EXPECT_THAT(rank(Reconnection, "GW-B", 20, {{"gw-a", 40}, {"gw-b", 41}}),
              ElementsAre("gw-a", "gw-b"));
}

TEST_F(Ranking, AHostReportedTwiceGoesOutTwice) {
  EXPECT_THAT(rank(Connection, "", 20, {{"gw-a", 40}, {"gw-b", 41}, {"gw-a", 42}}),
              ElementsAre("gw-a", "gw-b", "gw-a"));
}

TEST_F(Ranking, EachOccurrenceOfTheLastHeadendIsTestedByItself) {
  EXPECT_THAT(rank(Reconnection, "gw-b", 20,
                   {{"gw-a", 40}, {"gw-b", 41}, {"gw-b", 47}, {"gw-b", 60}, {"gw-c", 50}}),
              ElementsAre("gw-b", "gw-b", "gw-a", "gw-c", "gw-b"));
  EXPECT_THAT(report(), EndsWith(Retained));
}

TEST_F(Ranking, ExtremeMetricsStandAtTheEnds) {
  EXPECT_THAT(rank(Connection, "", 20, {{"far", Largest}, {"mid", 9999}, {"near", 0}}),
              ElementsAre("near", "mid", "far"));
  EXPECT_THAT(report(), testing::HasSubstr("near     0\nmid     9999\nfar     4294967295\n\n"));
}

TEST_F(Ranking, IsReportedWithoutSeparatorsEvenWhereTheHostGroupsDigits) {
  const GroupedDigits grouped(',');
  rank(Connection, "", 20, {{"far", Largest}, {"mid", 9999}});

  EXPECT_THAT(report(), testing::HasSubstr("\nmid     9999\nfar     4294967295\n\n"));
}

TEST_F(Ranking, EqualMetricsMayStandInAnyOrder) {
  EXPECT_THAT(rank(Connection, "", 20, {{"a", 7}, {"b", 7}, {"c", 7}}),
              UnorderedElementsAre("a", "b", "c"));
}

TEST_F(Ranking, HandsOutMoreResultsThanAClientShows) {
  cache().settings.nMaxResults = 1;
  EXPECT_THAT(rank(Connection, "", 20, {{"a", 1}, {"b", 2}, {"c", 3}}), SizeIs(3));
}

TEST_F(Ranking, AppendsToTheListItIsGiven) {
  CHeadendSelection& selection = make();
  call<AddHeadendToList>(selection, "gw-a", 1U);
  Texts list{"before"};
  EXPECT_EQ(call<GetBestHeadendsList>(selection, list), 0);

  EXPECT_THAT(list, ElementsAre("before", "gw-a"));
}

TEST_F(Ranking, AnEmptyHostIsRefusedWithOneWarning) {
  CHeadendSelection& selection = make();
  call<AddHeadendToList>(selection, "", 5U);

  EXPECT_THAT(recordsOf(member<PingResults>(selection)), IsEmpty());
  EXPECT_THAT(doubles::log().texts(), ElementsAre("addHeadendToList W Empty headend."));
}

TEST_F(Ranking, ResultsAreKeptInTheOrderOfTheirArrival) {
  CHeadendSelection& selection = make();
  for (const unsigned int metric : {30U, 10U, 20U, 10U}) {
    call<AddHeadendToList>(selection, "gw" + std::to_string(metric), metric);
  }

  EXPECT_THAT(recordsOf(call<GetPingResults>(selection)),
              ElementsAre("gw30 30", "gw10 10", "gw20 20", "gw10 10"));
  EXPECT_EQ(&call<GetPingResults>(selection), &member<PingResults>(selection));
}

TEST_F(Ranking, ResultsAreAppendedUnderTheResultsLock) {
  CHeadendSelection& selection = make();
  Texts events;
  seams().setLockHook([&](const CManualLock* lock, bool taken) {
    events.push_back(lock != &member<CacheLock>(selection) ? "other" : taken ? "taken" : "back");
  });
  call<AddHeadendToList>(selection, "gw-a", 1U);
  call<AddHeadendToList>(selection, "", 1U);
  seams().setLockHook(nullptr);

  EXPECT_THAT(events, ElementsAre("taken", "back", "taken", "back"));
}

TEST_F(Ranking, ResultsAreReadUnderTheResultsLock) {
  EXPECT_THAT(locksHeldAtEach(doubles::Seams::Reading::List), ElementsAre(1));
}

TEST_F(Ranking, ResultsAreCopiedForTheCacheUnderTheResultsLock) {
  EXPECT_THAT(locksHeldAtEach(doubles::Seams::Reading::Copy), ElementsAre(1));
}

TEST_F(Ranking, AFreshResultIsStoredUnrankedUnderTheCandidatesKey) {
  preferences().useAddresses({"GW-A", "gw-b:8443"});
  CHeadendSelection& selection = make();
  member<PingResults>(selection).SetTimestamp(77);
  call<AddHeadendToList>(selection, "gw-b:8443", 20U);
  call<AddHeadendToList>(selection, "GW-A", 10U);
  doubles::log().setHook([](const doubles::LogLine& line) {
    EXPECT_EQ(cache().storeCount(), 1U) << "when it is reported: " << line.message;
  });
  EXPECT_THAT(rankAgain(), ElementsAre("GW-A", "gw-b:8443"));

  ASSERT_THAT(cache().stored(), SizeIs(1));
  EXPECT_THAT(recordsOf(cache().stored()[0]), ElementsAre("gw-b:8443 20", "GW-A 10"));
  EXPECT_EQ(cache().stored()[0].GetKnownHeadends(), "gw-b:8443;gw-a;");
  EXPECT_EQ(cache().stored()[0].GetTimestamp(), 77U) << "stamping is the cache's business";
  EXPECT_EQ(member<PingResults>(selection).GetKnownHeadends(), "") << "only the copy has the key";
  EXPECT_THAT(recordsOf(member<PingResults>(selection)), ElementsAre("gw-b:8443 20", "GW-A 10"));
}

TEST_F(Ranking, AResultThatCannotBeStoredIsRankedAllTheSame) {
  cache().failStore(0xFE530011);

  EXPECT_THAT(rank(Connection, "", 20, {{"gw-a", 1}}), ElementsAre("gw-a"));
  EXPECT_EQ(status, 0);
  EXPECT_THAT(doubles::log().texts(), SizeIs(1)) << "the report alone";
}

TEST_F(Ranking, AResultFromTheCacheIsRankedReportedAndNotStoredAgain) {
  CHeadendSelection& selection = make(Reconnection);
  member<FoundInCache>(selection) = true;
  member<LastHeadend>(selection) = URL("gw-b:8443");
  call<AddHeadendToList>(selection, "gw-b:8443", 46U);
  call<AddHeadendToList>(selection, "gw-a", 40U);
  EXPECT_THAT(rankAgain(), ElementsAre("gw-b:8443", "gw-a"));

  EXPECT_THAT(cache().stored(), IsEmpty());
  EXPECT_EQ(report(),
            "*** QIB Selection Results ***\n"
            "QIB performed for reconnection attempt. Last server: 'gw-b:8443'\n"
            "\n"
            "Results obtained from QIB cache. No ping tests were performed.\n"
            "\n"
            "Server Address     RTT (ms)\n"
            "gw-a     40\n"
            "gw-b:8443     46\n"
            "\n"
            "Retained the last server to maximize the user experience.\n");
}

TEST_F(Ranking, WithoutACacheNothingIsStored) {
  CHeadendSelection& selection = make();
  member<Cache>(selection)->releaseInstance();
  member<Cache>(selection) = nullptr;
  call<AddHeadendToList>(selection, "gw-a", 1U);

  EXPECT_THAT(rankAgain(), ElementsAre("gw-a"));
  EXPECT_EQ(status, 0);
  EXPECT_THAT(cache().stored(), IsEmpty());
}

TEST_F(Ranking, WithoutResultsGivesTheLastHeadendAndFails) {
  EXPECT_THAT(rank(Connection, "gw-b:8443", 20, {}), ElementsAre("gw-b:8443"));

  EXPECT_EQ(status, SelectionFailure);
  EXPECT_THAT(cache().stored(), IsEmpty());
  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("getBestHeadendsList I didn't get any QIB results from "
                          "CCacheEntry::GetHeadendList()",
                          "logPingResults I *** QIB Selection Results ***\n"
                          "QIB performed for connection attempt. Last server: 'gw-b:8443'\n"
                          "\n"
                          "Unable to generate search results. Retaining the last server.\n"));
}

TEST_F(Ranking, WithoutResultsAndWithoutALastHeadendGivesAnEmptyName) {
  EXPECT_THAT(rank(Connection, "", 20, {}), ElementsAre(""));
  EXPECT_EQ(status, SelectionFailure);
}

TEST_F(Ranking, WithoutResultsFromTheCacheReportsNoCacheLine) {
  CHeadendSelection& selection = make();
  member<FoundInCache>(selection) = true;
  EXPECT_THAT(rankAgain(), ElementsAre(""));

  EXPECT_EQ(report(),
            "*** QIB Selection Results ***\n"
            "QIB performed for connection attempt. Last server: ''\n"
            "\n"
            "Unable to generate search results. Retaining the last server.\n");
}

TEST_F(Ranking, ResultsThatCannotBeReadGiveTheLastHeadendAndFailWithTheRankingsCode) {
  seams().failHeadendList(0xFE530004);

  EXPECT_THAT(rank(Reconnection, "gw-b", 20, {{"gw-a", 40}}), ElementsAre("gw-b"));
  EXPECT_EQ(status, SelectionFailure);
  EXPECT_THAT(cache().stored(), IsEmpty());
  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("getBestHeadendsList I unable to get QIB results from "
                          "CCacheEntry::GetHeadendList()",
                          "logPingResults I *** QIB Selection Results ***\n"
                          "QIB performed for reconnection attempt. Last server: 'gw-b'\n"
                          "\n"
                          "Unable to generate search results. Retaining the last server.\n"));
}

TEST_F(Ranking, ResultsThatWereReadInPartAreReportedWithTheRetentionLine) {
  seams().failHeadendListAfterFilling(0xFE530004);

  EXPECT_THAT(rank(Connection, "gw-b", 20, {{"gw-c", 50}, {"gw-a", 40}}), ElementsAre("gw-b"));
  EXPECT_EQ(status, SelectionFailure);
  EXPECT_EQ(report(),
            "*** QIB Selection Results ***\n"
            "QIB performed for connection attempt. Last server: 'gw-b'\n"
            "\n"
            "Server Address     RTT (ms)\n"
            "gw-c     50\n"
            "gw-a     40\n"
            "\n"
            "Retained the last server to maximize the user experience.\n");
  seams().failHeadendList(0);
}

TEST_F(Ranking, IsReportedInOneCallWithThePlainFormat) {
  rank(Connection, "", 20, {{"100%s", 1}});

  ASSERT_THAT(doubles::log().lines(), SizeIs(1));
  EXPECT_EQ(doubles::log().lines()[0].format, "%s");
  EXPECT_EQ(doubles::log().lines()[0].severity, 'I');
  EXPECT_THAT(report(), testing::HasSubstr("\n100%s     1\n"));
}

TEST_F(Ranking, TheReportNamesTheFirstRecordWhateverTheLastHeadendIs) {
  CHeadendSelection& selection = make(5);
  member<LastHeadend>(selection) = URL("gw-b");
  std::vector<CHeadendRTT> list{{"gw-a", 0}, {"gw-b", 9999}};
  call<tests::LogPingResults>(selection, list, true);

  EXPECT_EQ(report(),
            "*** QIB Selection Results ***\n"
            "QIB performed for disconnect attempt. Last server: 'gw-b'\n"
            "\n"
            "Server Address     RTT (ms)\n"
            "gw-a     0\n"
            "gw-b     9999\n"
            "\n"
            "Selected 'gw-a' as the optimal server.\n");
}

TEST_F(Ranking, AnEmptyReportHasFourLinesWhateverWasSelected) {
  CHeadendSelection& selection = make(2);
  std::vector<CHeadendRTT> none;
  call<tests::LogPingResults>(selection, none, true);

  EXPECT_EQ(report(),
            "*** QIB Selection Results ***\n"
            "QIB performed for preferences change attempt. Last server: ''\n"
            "\n"
            "Unable to generate search results. Retaining the last server.\n");
}

}  // namespace
}  // namespace tests
