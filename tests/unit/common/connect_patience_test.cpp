// How long to wait for a host that says nothing.

#include <gtest/gtest.h>

#include "vpn/Common/IP/ConnectPatience.h"

using std::chrono::milliseconds;

TEST(ConnectPatience, ComesFromWhatOthersHaveShown) {
  constexpr int Endless = static_cast<int>(ConnectPatience::Endless.count());
  struct {
    bool testsWay, wasSilent, othersAnswered;
    int nearest, slowest;
    int stand, again, giveUp;
  } const cases[] = {
      {false, false, false, 0, 0, Endless, Endless, Endless},
      {false, true, false, 0, 0, Endless, Endless, Endless},
      {true, false, true, 5, 9, 300, Endless, Endless},
      {false, false, true, 0, 0, Endless, 275, 1000},
      {false, false, true, 20, 200, Endless, 250, 1000},
      {false, false, true, 200, 500, Endless, 200, 1500},
      {false, true, true, 20, 50, Endless, Endless, 150},
      {false, true, true, 20, 200, Endless, Endless, 400},
  };
  for (const auto& each : cases) {
    const ConnectPatience patience =
        ConnectPatience::of({each.testsWay, each.wasSilent, each.othersAnswered,
                             milliseconds(each.nearest), milliseconds(each.slowest)});
    EXPECT_EQ(patience.stand.count(), each.stand) << &each - cases;
    EXPECT_EQ(patience.again.count(), each.again) << &each - cases;
    EXPECT_EQ(patience.giveUp.count(), each.giveUp) << &each - cases;
  }
}

TEST(ConnectPatience, IsLongerWhereManyAreSilentAndEndlessWhereSuchHaveAnswered) {
  ConnectPatience::Known known;
  known.othersAnswered = true;
  known.slowest = milliseconds(200);
  known.manyAreSilent = true;
  EXPECT_EQ(ConnectPatience::of(known).giveUp, milliseconds(1400));
  known.manyWereLate = true;
  EXPECT_EQ(ConnectPatience::of(known).giveUp, ConnectPatience::Endless);
}
