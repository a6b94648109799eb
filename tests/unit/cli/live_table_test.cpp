// The lines of the live table.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/show/LiveTable.h"
#include "vpn/include/HttpSession.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
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

LiveLook look(std::size_t width, std::size_t height = 24) { return {width, height, false, false}; }

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
  EXPECT_THAT(liveTable(someState(), look(80)),
              ElementsAre("Measuring: 2 of 3 headends answered, 5 probes done, 7.4 s left",
                          "near  ####                  25 ms  26 25 30",
                          "far   ##################   100 ms  100 110  waits for answer 3 of 3",
                          "lost                               waits for answer 1 of 3"));
}

TEST(LiveTable, DrawsBlocksAndColoursWhereTheTerminalHasThem) {
  const std::vector<std::string> lines = liveTable(someState(), {80, 24, true, true});
  EXPECT_EQ(lines[0],
            "Measuring: \x1b[1m2 of 3\x1b[0m headends answered, 5 probes done, 7.4 s left");
  EXPECT_THAT(lines[1], StartsWith("near  \x1b[32m\u2588\u2588\u2588\u2588\x1b[0m  "));
}

TEST(LiveTable, FitsEveryWidth) {
  for (std::size_t width = 0; width < 100; ++width) {
    for (const std::string& line : liveTable(someState(), look(width))) {
      EXPECT_LT(line.size(), std::max<std::size_t>(width, 1)) << width;
    }
  }
}

TEST(LiveTable, LeavesTheBarOutInANarrowWindow) {
  EXPECT_THAT(liveTable(someState(), look(24)),
              ElementsAre("2 of 3 answered, 7.4 s ", "near    25 ms  26 25 30",
                          "far    100 ms  100 110 ", "lost           waits fo"));
}

TEST(LiveTable, FitsEveryHeightAndCountsTheRest) {
  for (std::size_t height = 0; height < 8; ++height) {
    EXPECT_LT(liveTable(someState(), look(80, height)).size(), std::max<std::size_t>(height, 2));
  }
  const std::vector<std::string> lines = liveTable(someState(), look(80, 4));
  ASSERT_THAT(lines, SizeIs(3));
  EXPECT_THAT(lines[1], StartsWith("near"));
  EXPECT_EQ(lines[2], "and 2 more");
}

TEST(LiveTable, AnAddressLeavesRoomForTheRoundTripAndIsCutInTheMiddle) {
  LiveState state = someState();
  state.rows[0].headend = "gw" + std::string(200, 'x') + ".example.com:8443";
  for (std::size_t width = 0; width < 100; ++width) {
    for (const std::string& line : liveTable(state, look(width))) {
      EXPECT_LT(line.size(), std::max<std::size_t>(width, 1)) << width;
    }
  }
  EXPECT_EQ(liveTable(state, look(60))[2],
            "gwxxxxxxxxxxxxxxxxxxxxxx...xxxxxx.example.com:8443   100 ms");
  EXPECT_THAT(liveTable(state, look(14))[2], StartsWith("gwxxx...:8443"))
      << "alone where there is room for nothing else";
}

TEST(LiveTable, ANarrowWindowShowsWholeAddressesAndTheTimeLeft) {
  LiveState state = someState();
  state.rows = {{"127.0.0.1:21201", "", {100, 110}, "waits for answer 3 of 3"},
                {"127.0.0.1:21202", "", {}, "waits for answer 1 of 3"}};
  EXPECT_THAT(liveTable(state, look(40)),
              ElementsAre("2 of 2 answered, 7.4 s left", "127.0.0.1:21201   100 ms  100 110  wait",
                          "127.0.0.1:21202           waits for ans"));
  EXPECT_THAT(liveTable(state, look(30)),
              ElementsAre("2 of 2 answered, 7.4 s left", "127.0.0.1:21201   100 ms  100",
                          "127.0.0.1:21202           wai"));
}

TEST(LiveTable, ShowsNamesBesideTheAddressesWhereHalfOfTheWidthHasRoomForBoth) {
  LiveState state = someState();
  state.rows[0].name = "M\u00fcnchen";
  state.rows[2].name = "Bern";
  // One column is left free: a letter of the name may take two.
  EXPECT_THAT(liveTable(state, look(60)),
              ElementsAre(HasSubstr("2 of 3"), "near  Bern     ##             25 ms  26 25 30",
                          "far   M\u00fcnchen  ###########   100 ms  100 110  waits for an",
                          HasSubstr("lost                                 waits for answer 1 of")));
  EXPECT_THAT(liveTable(state, look(28)), testing::Contains(StartsWith("near  Bern ")));
  EXPECT_THAT(liveTable(state, look(27)), Each(Not(HasSubstr("Bern"))));
}

TEST(LiveTable, ShowsControlCharactersOfNamesAsTheirCodes) {
  LiveState state = someState();
  state.rows[0].headend = "\x1b[2J";
  state.rows[0].name = "\x1b[31m";
  EXPECT_THAT(liveTable(state, look(80)), Each(Not(HasSubstr("\x1b"))));
}

TEST(LiveTable, CutsNamesBetweenCharacters) {
  LiveState state = someState();
  state.rows = {{"\u6771\u4eac\u6771\u4eac\u6771\u4eac", "", {5}, ""}};
  // Ten columns of nineteen are left for the name: each character may take two.
  EXPECT_THAT(liveTable(state, look(20))[1], StartsWith("\u6771\u4eac...\u4eac "));
}

TEST(LiveTable, OneProbeIsOneProbe) {
  LiveState state = someState();
  state.probesEnded = 1;
  EXPECT_THAT(liveLine(state), HasSubstr("answered, 1 probe done,"));
}

TEST(LiveTable, NoTimeIsLeftAfterTheLimit) {
  LiveState state = someState();
  state.elapsed = std::chrono::milliseconds(10400);
  EXPECT_THAT(liveLine(state), HasSubstr("0.0 s left"));
}

TEST(LiveRow, TellsWhatAHeadendWaitsFor) {
  EXPECT_EQ(liveRowOf(gateway(), nullptr, 3).waitsFor, "waits to be measured");
  const SelectionRecord::Track none = track({});
  EXPECT_EQ(liveRowOf(gateway(), &none, 3).waitsFor, "waits for answer 1 of 3");
  const SelectionRecord::Track two = track({0, HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE});
  EXPECT_EQ(liveRowOf(gateway(), &two, 3).waitsFor, "waits for answer 3 of 3");
  EXPECT_THAT(liveRowOf(gateway(), &two, 3).samplesMs, ElementsAre(10, 11));
}

TEST(LiveRow, HasTheNameOfTheHostEntryWhereItIsNotTheAddress) {
  EXPECT_EQ(liveRowOf(gateway(), nullptr, 3).name, "");
  const LiveRow row = liveRowOf({"Bern", "gw:8443", {"gw", 8443}}, nullptr, 3);
  EXPECT_EQ(row.headend, "gw:8443");
  EXPECT_EQ(row.name, "Bern");
}

TEST(LiveRow, OfAHeadendThatIsDoneWaitsForNothing) {
  const SelectionRecord::Track done = track({0, HTTP_SESSION_ERROR_TIMEOUT, 0});
  EXPECT_THAT(liveRowOf(gateway(), &done, 3).waitsFor, IsEmpty());
}

TEST(LiveRow, TellsThatTheWayIsTested) {
  SelectionRecord::Track tested;
  tested.testing = 1;
  EXPECT_EQ(liveRowOf(gateway(), &tested, 3).waitsFor, "waits for the test of the way there");
  tested.started = 1;
  EXPECT_EQ(liveRowOf(gateway(), &tested, 3).waitsFor, "waits for answer 1 of 3");
}

TEST(LiveRow, TellsWhyNoMoreProbesAreSent) {
  const SelectionRecord::Track unknown = track({HTTP_SESSION_ERROR_DNS_RESOLUTION});
  EXPECT_EQ(liveRowOf(gateway(), &unknown, 3).waitsFor, "name not resolved");
  const SelectionRecord::Track closed =
      track({HTTP_SESSION_ERROR_CANNOT_CONNECT, HTTP_SESSION_ERROR_CANNOT_CONNECT});
  EXPECT_EQ(liveRowOf(gateway(), &closed, 3).waitsFor, "cannot connect");
}
