// The lines of the live table.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/show/LiveTable.h"
#include "vpn/include/HttpSession.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

LiveState someState() {
  LiveState state;
  state.answered = 2;
  state.probesEnded = 5;
  state.elapsed = std::chrono::milliseconds(2600);
  state.budget = std::chrono::milliseconds(10000);
  state.rows = {{"far", "", {100, 110}, "waits for answer 3 of 3"},
                {"lost", "", {}, "waits for answer 1 of 3"},
                {"near", "", {26, 25, 30}, ""}};
  return state;
}

SelectionRecord::Track track(const std::vector<STATUSCODE>& statuses) {
  SelectionRecord::Track made;
  made.started = static_cast<unsigned int>(statuses.size());
  for (const STATUSCODE status : statuses) {
    HttpProbe::Report report;
    report.status = status;
    report.rttMs = 10 + static_cast<unsigned int>(made.ended.size());
    made.ended.push_back(report);
  }
  return made;
}

Candidate gateway() { return {"gw", "gw", {"gw", 443}}; }

}  // namespace

TEST(LiveTable, HasAHeadlineAndARowForEachHeadendNearestFirst) {
  EXPECT_THAT(
      liveTable(someState(), 80, 24),
      ElementsAre("Measuring: 2 of 3 answered, 7.4 s left, 5 probes done",
                  "near    25 ms  26 25 30", "far    100 ms  100 110  waits for answer 3 of 3",
                  "lost           waits for answer 1 of 3"));
}

TEST(LiveTable, FitsEveryWidthAndHeight) {
  LiveState state = someState();
  state.rows[0].headend = "gw" + std::string(200, 'x') + ".example.com:8443";
  state.rows[1].name = "M\u00fcnchen \u6771\u4eac";
  for (std::size_t width = 0; width < 100; ++width) {
    for (const std::string& line : liveTable(state, width, 24)) {
      EXPECT_LT(columnsOf(line), std::max<std::size_t>(width, 1)) << width;
    }
  }
  for (std::size_t height = 0; height < 8; ++height) {
    EXPECT_LT(liveTable(state, 80, height).size(), std::max<std::size_t>(height, 2));
  }
}

TEST(LiveTable, ASmallWindowShowsTheNearestCountsTheRestAndCutsNoWordOrNumber) {
  EXPECT_THAT(liveTable(someState(), 22, 24),
              ElementsAre("Measuring: 2 of 3", "near    25 ms  26 25", "far    100 ms  100",
                          StartsWith("lost           waits")));
  EXPECT_THAT(liveTable(someState(), 80, 4),
              ElementsAre(StartsWith("Measuring"), StartsWith("near"), "and 2 more"));
}

TEST(LiveTable, AnAddressLeavesRoomForTheRoundTripAndIsCutInTheMiddle) {
  LiveState state = someState();
  state.rows[0].headend = "gw" + std::string(200, 'x') + ".example.com:8443";
  EXPECT_EQ(liveTable(state, 60, 24)[2],
            "gwxxxxxxxxxxxxxxxxxxxxxx...xxxxxx.example.com:8443   100 ms");
  state.rows = {{"\u6771\u4eac\u6771\u4eac\u6771\u4eac", "", {5}, ""}};
  EXPECT_EQ(liveTable(state, 20, 24)[1], "\u6771\u4eac...\u4eac      5 ms")
      << "each character takes two of the ten columns";
}

TEST(LiveTable, ShowsNamesBesideTheAddressesWhereHalfOfTheWidthHasRoomForBoth) {
  LiveState state = someState();
  state.rows[0].name = "M\u00fcnchen";
  state.rows[2].name = "Bern";
  EXPECT_THAT(liveTable(state, 60, 24),
              ElementsAre(HasSubstr("2 of 3"), "near  Bern       25 ms  26 25 30",
                          "far   M\u00fcnchen   100 ms  100 110  waits for answer 3 of 3",
                          "lost                    waits for answer 1 of 3"));
  EXPECT_THAT(liveTable(state, 27, 24), testing::Contains(StartsWith("near  Bern ")));
  EXPECT_THAT(liveTable(state, 26, 24), Each(Not(HasSubstr("Bern"))));
}

TEST(LiveTable, ShowsControlCharactersOfNamesAsTheirCodesAndNoTimeLeftAfterTheLimit) {
  LiveState state = someState();
  state.rows[0].headend = "\x1b[2J";
  state.rows[0].name = "\x1b[31m";
  state.probesEnded = 1;
  state.elapsed = std::chrono::milliseconds(10400);
  EXPECT_THAT(liveTable(state, 80, 24), Each(Not(HasSubstr("\x1b"))));
  EXPECT_THAT(liveLine(state), HasSubstr("answered, 0.0 s left, 1 probe done"));
}

TEST(LiveRow, TellsWhatAHeadendWaitsForOrWhyItWaitsNoMore) {
  EXPECT_EQ(liveRowOf(gateway(), nullptr, 3).waitsFor, "waits to be measured");
  for (const auto& [statuses, waitsFor] :
       std::vector<std::pair<std::vector<STATUSCODE>, const char*>>{
           {{}, "waits for answer 1 of 3"},
           {{0, HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE}, "waits for answer 3 of 3"},
           {{0, HTTP_SESSION_ERROR_TIMEOUT, 0}, ""},
           {{HTTP_SESSION_ERROR_DNS_RESOLUTION}, "name not resolved"},
           {{HTTP_SESSION_ERROR_CANNOT_CONNECT, HTTP_SESSION_ERROR_CANNOT_CONNECT},
            "cannot connect"}}) {
    const SelectionRecord::Track one = track(statuses);
    EXPECT_EQ(liveRowOf(gateway(), &one, 3).waitsFor, waitsFor);
  }
  const SelectionRecord::Track two = track({0, HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE});
  EXPECT_THAT(liveRowOf(gateway(), &two, 3).samplesMs, ElementsAre(10, 11));
  SelectionRecord::Track tested;
  tested.testing = 1;
  EXPECT_EQ(liveRowOf(gateway(), &tested, 3).waitsFor, "waits for the test of the way there");
  tested.started = 1;
  EXPECT_EQ(liveRowOf(gateway(), &tested, 3).waitsFor, "waits for answer 1 of 3");
}

TEST(LiveRow, HasTheNameOfTheHostEntryWhereItIsNotTheAddress) {
  EXPECT_EQ(liveRowOf(gateway(), nullptr, 3).name, "");
  const LiveRow row = liveRowOf({"Bern", "gw:8443", {"gw", 8443}}, nullptr, 3);
  EXPECT_EQ(row.headend, "gw:8443");
  EXPECT_EQ(row.name, "Bern");
}
