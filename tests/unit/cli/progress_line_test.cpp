// The text of the progress line.

#include <gtest/gtest.h>

#include "cli/ProgressLine.h"

namespace {

ProgressState someProgress() {
  ProgressState state;
  state.headends = 9;
  state.answered = 3;
  state.probesEnded = 12;
  state.elapsed = std::chrono::milliseconds(2600);
  state.budget = std::chrono::milliseconds(10000);
  return state;
}

}  // namespace

TEST(ProgressLine, TellsHeadendsProbesAndTimeLeft) {
  EXPECT_EQ(progressText(someProgress(), 80, false),
            "Measuring: 3 of 9 headends answered, 12 probes done, 7.4 s left");
}

TEST(ProgressLine, AColouredLineHasTheSameText) {
  EXPECT_EQ(progressText(someProgress(), 80, true),
            "Measuring: \x1b[1m3 of 9\x1b[0m headends answered, 12 probes done, 7.4 s left");
}

TEST(ProgressLine, IsCutBeforeANarrowTerminalWrapsIt) {
  EXPECT_EQ(progressText(someProgress(), 20, true), "Measuring: 3 of 9 h");
  EXPECT_EQ(progressText(someProgress(), 1, true), "");
  EXPECT_EQ(progressText(someProgress(), 0, true), "");
}

TEST(ProgressLine, OneProbeIsOneProbe) {
  ProgressState state = someProgress();
  state.probesEnded = 1;
  EXPECT_NE(progressText(state, 80, false).find("answered, 1 probe done,"), std::string::npos);
}

TEST(ProgressLine, NoTimeIsLeftAfterTheLimit) {
  ProgressState state = someProgress();
  state.elapsed = std::chrono::milliseconds(10400);
  EXPECT_NE(progressText(state, 80, false).find("0.0 s left"), std::string::npos);
}
