// When to stop waiting for a host that says nothing. What others have shown of the network tells
// how long an answer takes at most; a host that is alive answers one of several attempts in that
// time.

#include "vpn/Common/IP/ConnectPatience.h"

#include <algorithm>

namespace {

using std::chrono::milliseconds;

// The way is tested for a proxy's sake. Without one the probe can go.
constexpr milliseconds TestPatience{300};

// The kernel then repeats an attempt (RFC 6298). The second one beside it is younger, so the answer
// to the repetition has some time too.
constexpr milliseconds LeastPatience{1000};
constexpr milliseconds LeastSilence{300};
constexpr milliseconds LeastSecondPatience{150};
constexpr milliseconds Leeway{25};

}  // namespace

milliseconds ConnectPatience::silenceOf(milliseconds nearest) {
  return std::max(LeastSilence, 2 * nearest);
}

milliseconds ConnectPatience::silenceOfMany(milliseconds slowest) {
  return LeastPatience + 2 * slowest;
}

milliseconds ConnectPatience::nextLook(milliseconds waited) const {
  milliseconds next = waited < firstLook ? firstLook : waited + NextLook;
  for (const milliseconds due : {again, giveUp}) {
    next = due > waited ? std::min(next, due) : next;
  }
  return next;
}

ConnectPatience ConnectPatience::of(const Known& known) {
  ConnectPatience patience;
  if (known.testsWay) {
    patience.stand = TestPatience;
    return patience;
  }
  if (!known.othersAnswered || known.manyWereLate) {
    return patience;
  }
  // What others show later makes all of these longer, unless the nearest is farther than that.
  if (known.nearest <= FirstLook) {
    patience.firstLook = silenceOf(known.nearest);
  }
  // What is alive would have to lose three attempts, the last of which gets as much time as the
  // slowest answer takes twice.
  if (known.wasSilent) {
    patience.giveUp = std::max(LeastSecondPatience, 2 * known.slowest);
    return patience;
  }
  // An answer to the second attempt comes before the silence counts, if it comes from a host that
  // is the nearest; most that are farther have answered the first.
  patience.again =
      std::max(known.nearest, silenceOf(known.nearest) - known.nearest * 5 / 4 - Leeway);
  patience.giveUp = std::max(known.manyAreSilent ? silenceOfMany(known.slowest) : LeastPatience,
                             3 * known.slowest);
  return patience;
}
