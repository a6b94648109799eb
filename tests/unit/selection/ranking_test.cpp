// Ranking and report: the order of delivery, when the last headend stays first, and the report's
// exact text.

#include <limits>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/selection/selection_fixture.h"

namespace tests {
namespace {

using testing::EndsWith;

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

  STATUSCODE status = -1;
};

struct Order {
  unsigned int reason = Reconnection;
  const char* last = "";
  unsigned int improvement = 20;
  const char* measured = "";  ///< "host metric host metric"
  Texts list = {};
  bool isRetained = false;
};

Measured measuredFrom(const std::string& text) {
  std::istringstream words(text);
  Measured result;
  for (std::pair<std::string, unsigned int> one; words >> one.first >> one.second;) {
    result.push_back(one);
  }
  return result;
}

class TheOrder : public Ranking, public testing::WithParamInterface<Row<Order>> {};

TEST_P(TheOrder, IsHandedOutAndTold) {
  const Order& order = GetParam().is;
  EXPECT_EQ(rank(order.reason, order.last, order.improvement, measuredFrom(order.measured)),
            order.list);
  EXPECT_EQ(status, 0);
  EXPECT_THAT(report(),
              EndsWith(order.isRetained ? std::string(Retained) : selected(order.list.front())));
}

INSTANTIATE_TEST_SUITE_P(
    Of, TheOrder,
    testing::ValuesIn(Rows<Order>{
        {"AConnectionIsByMetricAlone",
         {Connection, "gw-c", 20, "gw-c 41 gw-b 46 gw-a 40", {"gw-a", "gw-c", "gw-b"}}},
        {"AReconnectionKeepsALastHeadendThatIsGoodEnough",
         {Reconnection, "gw-b", 20, "gw-a 40 gw-b 46 gw-c 90", {"gw-b", "gw-a", "gw-c"}, true}},
        {"AReconnectionLeavesALastHeadendThatIsTooFarAndNamesTheFirst",
         {Reconnection, "gw-b", 20, "gw-a 40 gw-b 50 gw-c 90", {"gw-a", "gw-b", "gw-c"}}},
        {"AReconnectionWhoseLastHeadendWasNotMeasuredIsByMetric",
         {Reconnection, "gw-x", 20, "gw-b 46 gw-a 40", {"gw-a", "gw-b"}}},
        {"ALastHeadendThatIsTheBestCountsAsRetained",
         {Reconnection, "gw-a", 10, "gw-b 46 gw-a 40", {"gw-a", "gw-b"}, true}},
        {"NoRequiredImprovementSelectsTheBestThoughItWasTheLast",
         {Reconnection, "gw-a", 0, "gw-b 46 gw-a 40", {"gw-a", "gw-b"}}},
        {"NoRequiredImprovementLeavesAWorseLastHeadendInItsPlace",
         {Reconnection, "gw-b", 0, "gw-b 41 gw-a 40", {"gw-a", "gw-b"}}},
        {"ALastHeadendOf0ThatIsTheBestHasNoRatioAndIsNotRetained",
         {Reconnection, "gw-b", 20, "gw-b 0 gw-c 5", {"gw-b", "gw-c"}}},
        {"ABestOf0RetainsNothing",
         {Reconnection, "gw-b", Largest, "gw-a 0 gw-b 1", {"gw-a", "gw-b"}}},
        {"TheLastHeadendIsComparedWithItsPort",
         {Reconnection, "gw-b:8443", 20, "gw-a 40 gw-b 41", {"gw-a", "gw-b"}}},
        {"TheLastHeadendIsComparedWithItsLetterCase",
         {Reconnection, "GW-B", 20, "gw-a 40 gw-b 41", {"gw-a", "gw-b"}}},
        {"AHostReportedTwiceGoesOutTwice",
         {Reconnection, "", 20, "gw-a 40 gw-b 41 gw-a 42", {"gw-a", "gw-b", "gw-a"}}},
        {"EachOccurrenceOfTheLastHeadendIsTestedByItself",
         {Reconnection,
          "gw-b",
          20,
          "gw-a 40 gw-b 41 gw-b 47 gw-b 60 gw-c 50",
          {"gw-b", "gw-b", "gw-a", "gw-c", "gw-b"},
          true}},
    }),
    nameOfRow);

TEST_F(Ranking, OfAnyOtherReasonNeverRetainsTheLastHeadend) {
  for (const unsigned int reason : {0U, 2U, 3U, 4U, 5U, 6U, Largest}) {
    EXPECT_THAT(rank(reason, "gw-b", 1000, {{"gw-b", 46}, {"gw-a", 40}}),
                ElementsAre("gw-a", "gw-b"));
    EXPECT_THAT(report(), EndsWith(selected("gw-a")));
    destroy();
  }
}

TEST_F(Ranking, RetainsBelowTheThresholdWhichIsExceededStrictlyInSinglePrecision) {
  struct Threshold {
    unsigned int improvement, best, last;
    bool isRetained;
  };
  for (const Threshold& is :
       {// The first two are ties, which retain nothing.
        Threshold{20, 40, 48, false}, Threshold{10, 100, 110, false}, Threshold{20, 40, 46, true},
        Threshold{20, 40, 47, true}, Threshold{20, 40, 50, false}, Threshold{10, 100, 109, true},
        Threshold{100, 10, 20, false}, Threshold{100, 10, 19, true}, Threshold{1, 100, 101, false},
        Threshold{5, 20, 21, false},
        // Exactly at the limit, which single precision rounds to a value above the ratio.
        Threshold{18, 50, 59, true}, Threshold{43, 100, 143, true},
        // Both metrics become 2^24 in single precision, so the ratio is exactly 1.
        Threshold{0, 16777216, 16777217, false}, Threshold{1, 16777216, 16777217, true},
        // Above 2^24 each conversion rounds separately, before the division.
        Threshold{43, 19734520, 28220363, false}, Threshold{20, 184156890, 220988275, true},
        // These would be negative as signed numbers.
        Threshold{10, 4000000000U, 4200000000U, true},
        Threshold{10, 2000000000U, 3000000000U, false}, Threshold{Largest, 1, 42000000, true},
        Threshold{2147483648U, 1, 21474836, false}}) {
    SCOPED_TRACE(std::to_string(is.improvement) + " percent, best " + std::to_string(is.best) +
                 ", last " + std::to_string(is.last));
    doubles::log().reset();
    EXPECT_THAT(
        rank(Reconnection, "gw-last", is.improvement, {{"gw-best", is.best}, {"gw-last", is.last}}),
        is.isRetained ? ElementsAre("gw-last", "gw-best") : ElementsAre("gw-best", "gw-last"));
    EXPECT_THAT(report(), EndsWith(is.isRetained ? std::string(Retained) : selected("gw-best")));
    destroy();
  }
}

TEST_F(Ranking, ExtremeMetricsStandAtTheEndsAndNoneIsLeftOutThoughAClientShowsFewer) {
  cache().settings.nMaxResults = 1;
  EXPECT_THAT(rank(Connection, "", 20, {{"far", Largest}, {"mid", 9999}, {"near", 0}}),
              ElementsAre("near", "mid", "far"));
  EXPECT_THAT(report(), testing::HasSubstr("near     0\nmid     9999\nfar     4294967295\n\n"));
}

TEST_F(Ranking, EqualMetricsMayStandInAnyOrder) {
  EXPECT_THAT(rank(Connection, "", 20, {{"a", 7}, {"b", 7}, {"c", 7}}),
              testing::UnorderedElementsAre("a", "b", "c"));
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

  EXPECT_THAT(recordsOf(call<GetPingResults>(selection)), IsEmpty());
  EXPECT_THAT(doubles::log().texts(), ElementsAre("addHeadendToList W Empty headend."));
}

TEST_F(Ranking, ResultsAreAppendedAndReadUnderTheResultsLock) {
  CHeadendSelection& selection = make();
  int held = 0;  // by this thread: there is no other
  Texts events;
  seams().onLock.set([&](const CManualLock* lock, bool taken) {
    EXPECT_EQ(lock, &member<CacheLock>(selection));
    held += taken ? 1 : -1;
    events.emplace_back(taken ? "taken" : "given back");
  });
  call<AddHeadendToList>(selection, "gw-a", 1U);
  call<AddHeadendToList>(selection, "", 1U);
  EXPECT_THAT(events, ElementsAre("taken", "given back", "taken", "given back"));

  std::vector<std::pair<doubles::Seams::Reading, int>> readings;
  seams().beforeReading.set([&](const CCacheEntry& entry, doubles::Seams::Reading reading) {
    if (&entry == &member<PingResults>(selection)) {
      readings.emplace_back(reading, held);
    }
  });
  rankAgain();
  seams().beforeReading.set(nullptr);
  seams().onLock.set(nullptr);

  EXPECT_THAT(readings, ElementsAre(std::pair(doubles::Seams::Reading::List, 1),
                                    std::pair(doubles::Seams::Reading::Copy, 1)));
  EXPECT_EQ(held, 0);
}

TEST_F(Ranking, AFreshResultIsStoredUnrankedUnderTheCandidatesKeyBeforeItIsReported) {
  CHeadendSelection& selection = makeFor({"GW-A", "gw-b:8443"});
  member<PingResults>(selection).SetTimestamp(77);
  call<AddHeadendToList>(selection, "gw-b:8443", 20U);
  call<AddHeadendToList>(selection, "GW-A", 10U);
  cache().storeStatus = SomeFailure;
  doubles::log().setHook([](const doubles::LogLine& line) {
    EXPECT_EQ(cache().stored().size(), 1U) << "when it is reported: " << line.message;
  });
  EXPECT_THAT(rankAgain(), ElementsAre("GW-A", "gw-b:8443"));

  EXPECT_EQ(status, 0) << "whatever the cache makes of it";
  ASSERT_THAT(doubles::log().lines(), SizeIs(1)) << "the report alone";
  EXPECT_EQ(doubles::log().lines()[0].format, "%s");
  ASSERT_THAT(cache().stored(), SizeIs(1));
  EXPECT_THAT(recordsOf(cache().stored()[0]), ElementsAre("gw-b:8443 20", "GW-A 10"));
  EXPECT_EQ(cache().stored()[0].GetKnownHeadends(), "gw-b:8443;gw-a;");
  EXPECT_EQ(cache().stored()[0].GetTimestamp(), 77U) << "stamping is the cache's business";
  EXPECT_EQ(member<PingResults>(selection).GetKnownHeadends(), "") << "only the copy has the key";
}

TEST_F(Ranking, AResultFromTheCacheIsRankedReportedAndNotStoredAgain) {
  CHeadendSelection& selection = make(Reconnection);
  member<FoundInCache>(selection) = true;
  member<LastHeadend>(selection) = URL("gw-b:8443");
  call<AddHeadendToList>(selection, "gw-b:8443", 46U);
  call<AddHeadendToList>(selection, "gw-a", 40U);
  EXPECT_THAT(rankAgain(), ElementsAre("gw-b:8443", "gw-a"));

  EXPECT_THAT(cache().stored(), IsEmpty());
  EXPECT_THAT(report(),
              testing::HasSubstr("'gw-b:8443'\n\nResults obtained from QIB cache. No ping "
                                 "tests were performed.\n\nServer Address"));
  EXPECT_THAT(report(), EndsWith(Retained));
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

struct Failure {
  Measured measured = {{"gw-c", 50}, {"gw-a", 40}};
  long listStatus = SomeFailure;
  bool fillsList = false;
  bool isCached = false;
  std::string last = "gw-b:8443";
  std::string reported = "Unable to generate search results. Retaining the last server.\n";
  std::string line = "unable to get";
};

class AFailedRanking : public Ranking, public testing::WithParamInterface<Row<Failure>> {};

TEST_P(AFailedRanking, GivesTheLastHeadendAloneAndStoresNothing) {
  const Failure& failure = GetParam().is;
  CHeadendSelection& selection = make(Reconnection);
  member<FoundInCache>(selection) = failure.isCached;
  member<LastHeadend>(selection) = URL(failure.last);
  member<PingResults>(selection) = entryOf(failure.measured);
  seams().fillsList = failure.fillsList;
  seams().listStatus = failure.listStatus;
  EXPECT_THAT(rankAgain(), ElementsAre(failure.last));
  seams().listStatus = 0;

  EXPECT_EQ(status, SelectionFailure);
  EXPECT_THAT(cache().stored(), IsEmpty());
  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("getBestHeadendsList I " + failure.line +
                              " QIB results from CCacheEntry::GetHeadendList()",
                          "logPingResults I *** QIB Selection Results ***\n"
                          "QIB performed for reconnection attempt. Last server: '" +
                              failure.last + "'\n\n" + failure.reported));
}

INSTANTIATE_TEST_SUITE_P(
    For, AFailedRanking,
    testing::ValuesIn(Rows<Failure>{
        {"WantOfResultsReportsFourLines",
         {.measured = {}, .listStatus = 0, .line = "didn't get any"}},
        {"WantOfResultsAndOfALastHeadendGivesAnEmptyName",
         {.measured = {}, .listStatus = 0, .last = "", .line = "didn't get any"}},
        {"WantOfResultsFromTheCacheReportsNoCacheLine",
         {.measured = {}, .listStatus = 0, .isCached = true, .line = "didn't get any"}},
        {"ResultsThatCannotBeRead", {}},
        {"ResultsThatWereReadInPartReportsThemWithTheRetentionLine",
         {.fillsList = true,
          .reported = "Server Address     RTT (ms)\ngw-c     50\ngw-a     40\n\n"
                      "Retained the last server to maximize the user experience.\n"}},
    }),
    nameOfRow);

}  // namespace
}  // namespace tests
