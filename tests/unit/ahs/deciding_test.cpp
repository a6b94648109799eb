// When a selection is decided, and for whom.

#include "vpn/Api/AHS/Deciding.h"

#include <gtest/gtest.h>

namespace {

using Deciding::Standing;
using std::chrono::milliseconds;

const MonotonicClock::time_point Now{std::chrono::hours(1)};

Standing finished(unsigned int ms, std::size_t as = 0) { return {true, ms, as, {}}; }
Standing failed() { return {true, {}, 0, {}}; }
/// Still out; has shown this much.
Standing out(unsigned int ms) { return {false, ms, 0, {}}; }
Standing silentFor(int ms) { return {false, {}, 0, Now - milliseconds(ms)}; }
const Standing Unknown;

constexpr int Open = -1;

std::optional<std::size_t> winnerOf(const std::vector<Standing>& all, const Deciding::Rules& rules,
                                    std::size_t rival) {
  std::optional<std::size_t> best;
  for (std::size_t i = 0; i < all.size(); ++i) {
    best = Deciding::betterOf(all, best, i);
  }
  return best ? Deciding::winnerOf(all, rules, Now, *best, rival) : best;
}

}  // namespace

TEST(Deciding, NobodyWhoIsOutMayWin) {
  Standing late = silentFor(5000);
  late.ms = 9;
  const struct {
    std::vector<Standing> all;
    int winner;
  } cases[] = {
      {{}, Open},
      {{failed()}, Open},
      {{out(20)}, Open},
      {{finished(20)}, 0},
      {{finished(20), Unknown}, Open},
      {{finished(20), failed(), finished(10)}, 2},
      {{finished(20, 1), finished(20, 0)}, 1},
      // Near the best one's metric the next sample decides.
      {{finished(20), out(19)}, Open},
      {{finished(20), out(25)}, Open},
      {{finished(20), out(26)}, 0},
      {{finished(200), out(250)}, Open},
      {{out(251), finished(200)}, 1},
      {{finished(20), out(40), out(20)}, Open},
      // A silent one may be as near as the best one whose answers take a while.
      {{finished(20), silentFor(299)}, Open},
      {{finished(20), silentFor(300)}, 0},
      {{finished(200), silentFor(399)}, Open},
      {{finished(200), silentFor(400)}, 0},
      {{finished(20), late}, Open},
      {{silentFor(5000)}, Open},
  };
  for (const auto& each : cases) {
    const auto winner = winnerOf(each.all, {}, each.all.size() / 2);
    EXPECT_EQ(winner ? static_cast<int>(*winner) : Open, each.winner) << &each - cases;
  }
}

TEST(Deciding, SilenceCountsLaterWhereManyAreSilent) {
  const Deciding::Rules rules{{}, 0, milliseconds(1200)};
  EXPECT_FALSE(winnerOf({finished(20), silentFor(1199)}, rules, 0));
  EXPECT_TRUE(winnerOf({finished(20), silentFor(1200)}, rules, 0));
}

TEST(Deciding, AReconnectionWaitsForTheLastHeadendAndMayKeepIt) {
  const struct {
    std::vector<Standing> all;  // the first is the last headend
    int winner;
  } cases[] = {
      {{out(500), finished(20)}, Open},       {{Unknown, finished(20)}, Open},
      {{silentFor(299), finished(20)}, Open}, {{silentFor(300), finished(20)}, 1},
      {{failed(), finished(20)}, 1},          {{finished(29), finished(20)}, 0},
      {{finished(30), finished(20)}, 1},      {{finished(29), finished(20), out(21)}, Open},
      {{finished(10), silentFor(300)}, 0},
  };
  for (const auto& each : cases) {
    const auto winner = winnerOf(each.all, {0, 50}, each.all.size() / 2);
    EXPECT_EQ(winner ? static_cast<int>(*winner) : Open, each.winner) << &each - cases;
  }
}
