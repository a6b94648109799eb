// Ranking against a second, slow and literal reading of the same rules, on random inputs. Ties may
// stand in any order: the order that the report shows is checked to be a sorted permutation of the
// input, and the retention rule is then replayed on just that order.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/selection/selection_fixture.h"

namespace tests {
namespace {

using Record = std::pair<std::string, unsigned int>;

constexpr int Cases = 5000;
constexpr unsigned int DefaultSeed = 20240607;

/// AHS_TEST_SEED repeats a run that failed with another seed.
unsigned int seed() {
  const char* const given = std::getenv("AHS_TEST_SEED");
  return given != nullptr ? static_cast<unsigned int>(std::strtoul(given, nullptr, 10))
                          : DefaultSeed;
}

/// Everything that decides a ranking.
struct Situation {
  unsigned int reason = 0;
  unsigned int improvement = 0;
  std::string last;
  bool foundInCache = false;
  std::vector<Record> results;

  std::string toString() const {
    std::ostringstream text;
    text << "reason " << reason << ", improvement " << improvement << ", last '" << last
         << "', cached " << foundInCache << ", results";
    for (const auto& [host, metric] : results) {
      text << ' ' << host << '=' << metric;
    }
    return text.str();
  }
};

class Dice {
 public:
  explicit Dice(unsigned int start) : m_engine(start) {}

  unsigned int below(unsigned int limit) { return any() % limit; }

  template <class Choices>
  auto oneOf(const Choices& choices) {
    return choices[below(static_cast<unsigned int>(choices.size()))];
  }

  unsigned int any() { return static_cast<unsigned int>(m_engine()); }

  /// Numbers near the edges of every rule, near each other, and anywhere.
  unsigned int metric() {
    static const std::vector<unsigned int> edges{
        0,     0,        1,        2,   99,          9998,        9999,
        10000, 16777216, 16777217, 100, 4000000000U, 4294967295U, 2147483648U};
    switch (below(4)) {
      case 0:
        return oneOf(edges);
      case 1:
        return any();
      default:
        return 40 + below(20);
    }
  }

 private:
  std::mt19937 m_engine;
};

Situation randomSituation(Dice& dice) {
  static const Texts hosts{"gw-a", "gw-b", "gw-b:8443", "gw-c", "10.0.0.5:443", "[2001:db8::1]"};
  static const std::vector<unsigned int> improvements{0,  1,  5,  10,  18,
                                                      20, 43, 50, 100, 4294967295U};
  Situation situation;
  situation.reason = dice.below(3) != 0 ? 1 : dice.below(7);
  situation.improvement = dice.below(8) == 0 ? dice.any() : dice.oneOf(improvements);
  situation.last = dice.below(6) == 0 ? "" : dice.oneOf(hosts);
  situation.foundInCache = dice.below(4) == 0;
  const unsigned int count = dice.below(10);
  for (unsigned int i = 0; i < count; ++i) {
    situation.results.emplace_back(dice.oneOf(hosts), dice.metric());
  }
  // Many cases exactly at the limit, where rounding decides.
  if (!situation.results.empty() && dice.below(3) == 0) {
    const std::uint64_t best = 1 + dice.below(2000);
    const std::uint64_t limit = best * (100 + dice.below(60)) / 100;
    situation.results.emplace_back("gw-best", static_cast<unsigned int>(best));
    situation.results.emplace_back(situation.last.empty() ? "gw-a" : situation.last,
                                   static_cast<unsigned int>(limit));
    situation.improvement = static_cast<unsigned int>(limit * 100 / best - 100);
  }
  return situation;
}

/// The records between the report's header and its closing line.
std::vector<Record> recordsOfReport(const std::string& report) {
  const std::string header = "Server Address     RTT (ms)\n";
  std::vector<Record> records;
  const std::size_t start = report.find(header);
  if (start == std::string::npos) {
    return records;
  }
  std::istringstream lines(report.substr(start + header.size()));
  for (std::string line; std::getline(lines, line) && !line.empty();) {
    const std::size_t gap = line.find("     ");
    records.emplace_back(line.substr(0, gap),
                         static_cast<unsigned int>(std::stoul(line.substr(gap + 5))));
  }
  return records;
}

/// Whether a last headend at `last` is kept before a best one at `best`, one rounding at a time.
bool isKept(unsigned int best, unsigned int last, unsigned int improvement) {
  const volatile float lastAsFloat = static_cast<float>(last);
  const volatile float bestAsFloat = static_cast<float>(best);
  // 0/0 is not a number and x/0 is infinite; neither lies below any threshold.
  if (best == 0) {
    return false;
  }
  const volatile float ratio = lastAsFloat / bestAsFloat;
  const volatile float percent = static_cast<float>(improvement);
  const volatile float fraction = percent / 100.0F;
  const volatile float threshold = fraction + 1.0F;
  return threshold > ratio;
}

/// The order in which ranked records go out, and whether the best was selected.
std::pair<Texts, bool> expectedOrder(const Situation& situation,
                                     const std::vector<Record>& ranked) {
  Texts kept;
  Texts rest;
  for (const auto& [host, metric] : ranked) {
    const bool isLast = situation.reason == 1 && host == situation.last;
    if (isLast && isKept(ranked.front().second, metric, situation.improvement)) {
      kept.push_back(host);
    } else {
      rest.push_back(host);
    }
  }
  Texts order(kept.rbegin(), kept.rend());
  order.insert(order.end(), rest.begin(), rest.end());
  return {order, kept.empty()};
}

class RandomRanking : public SelectionTest {
 protected:
  RandomRanking() { make(); }

  void arrange(const Situation& situation) {
    doubles::log().reset();
    cache().entries.set({});
    member<Reason>(*run) = situation.reason;
    member<Settings>(*run).nImprovement = situation.improvement;
    member<LastHeadend>(*run) = URL(situation.last);
    member<FoundInCache>(*run) = situation.foundInCache;
    member<PingResults>(*run) = entryOf(situation.results);
  }

  void check(const Situation& situation) {
    Texts list;
    const STATUSCODE status = call<GetBestHeadendsList>(*run, list);
    const std::string report = doubles::log().lines().back().message;
    const std::size_t stored = cache().stored().size();

    if (situation.results.empty()) {
      EXPECT_EQ(status, 0xFE53000F);
      EXPECT_EQ(list, Texts{situation.last});
      EXPECT_EQ(stored, 0U);
      return;
    }
    EXPECT_EQ(status, 0);
    EXPECT_EQ(stored, situation.foundInCache ? 0U : 1U);

    const std::vector<Record> ranked = recordsOfReport(report);
    EXPECT_TRUE(std::is_permutation(ranked.begin(), ranked.end(), situation.results.begin(),
                                    situation.results.end()));
    EXPECT_TRUE(std::is_sorted(ranked.begin(), ranked.end(),
                               [](const auto& a, const auto& b) { return a.second < b.second; }));
    ASSERT_FALSE(ranked.empty());
    const auto [order, selectedBest] = expectedOrder(situation, ranked);
    EXPECT_EQ(list, order);
    const std::string closing =
        selectedBest ? "Selected '" + ranked.front().first + "' as the optimal server.\n"
                     : "Retained the last server to maximize the user experience.\n";
    EXPECT_THAT(report, testing::EndsWith("\n\n" + closing));
  }
};

TEST_F(RandomRanking, AgreesWithALiteralReadingOfTheRules) {
  const unsigned int start = seed();
  Dice dice(start);
  for (int i = 0; i < Cases && !HasFailure(); ++i) {
    const Situation situation = randomSituation(dice);
    SCOPED_TRACE("seed " + std::to_string(start) + ", case " + std::to_string(i) + ": " +
                 situation.toString());
    arrange(situation);
    check(situation);
  }
}

}  // namespace
}  // namespace tests
