// Whether something on the way answers in place of the headends. Honest headends of one kind answer
// alike: their sameness alone proves nothing. What proves it is an answer of the same kind from a
// place where nobody is, or that all lead to one stranger over one distance.

#include "vpn/Api/AHS/SelectionDoubt.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <optional>
#include <vector>

#include "vpn/Api/AHS/SelectionRules.h"
#include "vpn/include/HttpSession.h"
#include "vpn/include/StringUtils.h"

namespace {

using Kind = SelectionDoubt::Kind;
using Report = HttpProbe::Report;
using Tracks = std::map<Place, SelectionRecord::Track>;

/// RFC 6585: only what stands between client and server answers so.
constexpr unsigned int NetworkAuthenticationRequired = 511;

/// Two times of one box differ by less: a busy machine's delay, and half as much again.
constexpr long long SpreadUs = 5'000;

/// A place that has answered: its last answer, and the shortest way to it.
struct Answer {
  Place place;
  const Report* last;
  long long leastUs;
};
using Answers = std::vector<Answer>;

bool isName(const std::string& host) {
  in6_addr address{};
  const std::string lower = CStringUtils::toLower(host);
  return inet_pton(AF_INET, host.c_str(), &address) != 1 && host.find(':') == std::string::npos &&
         lower != "localhost" && !lower.ends_with(".localhost");
}

Answers answersOf(const Tracks& tracks) {
  Answers answers;
  for (const auto& [place, track] : tracks) {
    Answer answer{place, nullptr, -1};
    for (const Report& report : track.ended) {
      if (SelectionRules::isSample(report.status)) {
        answer.last = &report;
        const long long wayUs = report.networkRttUs >= 0 ? report.networkRttUs : report.connectUs;
        answer.leastUs = answer.leastUs < 0 ? wayUs : std::min(answer.leastUs, wayUs);
      }
    }
    if (answer.last != nullptr) {
      answers.push_back(answer);
    }
  }
  return answers;
}

/// Whether two hosts may be one organisation's: the last two labels are the same.
bool areRelated(const std::string& one, const std::string& other) {
  const auto domain = [](const std::string& host) {
    const std::size_t last = host.rfind('.');
    const std::size_t start =
        !isName(host) || last == std::string::npos ? last : host.rfind('.', last - 1);
    return CStringUtils::toLower(
        !isName(host) || start == std::string::npos ? host : host.substr(start + 1));
  };
  return domain(one) == domain(other);
}

bool areEquallyFar(const Answers& answers) {
  const auto [least, most] = std::ranges::minmax_element(answers, {}, &Answer::leastUs);
  return most->leastUs <= least->leastUs + least->leastUs / 2 + SpreadUs;
}

bool areSeveralHosts(const Answers& answers) {
  return std::ranges::any_of(answers, [&](const Answer& answer) {
    return answer.place.first != answers.front().place.first;
  });
}

template <class Rule>
SelectionDoubt doubtAbout(Kind kind, const std::string& leadsTo, const Answers& answers,
                          Rule rule) {
  SelectionDoubt doubt{Kind::None, leadsTo, {}};
  for (const Answer& answer : answers) {
    if (rule(answer)) {
      doubt.kind = kind;
      doubt.places.insert(answer.place);
    }
  }
  return doubt;
}

/// What nothing that was sent came back from.
SelectionDoubt doubtWithoutAnswer(const Tracks& tracks, const SelectionRecord::Baits& baits) {
  bool isUnreachable = baits.address && baits.address->systemError == ENETUNREACH;
  bool isRefused = baits.address && baits.address->systemError == ECONNREFUSED;
  bool hasEnded = false;
  for (const auto& [place, track] : tracks) {
    for (const Report& report : track.ended) {
      hasEnded = true;
      isUnreachable = isUnreachable && (report.systemError == ENETUNREACH ||
                                        report.status == HTTP_SESSION_ERROR_DNS_RESOLUTION);
      isRefused = isRefused && report.systemError == ECONNREFUSED;
    }
  }
  return {!hasEnded       ? Kind::None
          : isUnreachable ? Kind::NoNetwork
          : isRefused     ? Kind::Reset
                          : Kind::None,
          "",
          {}};
}

/// Names that lead to this machine, or where the name leads that nobody has.
SelectionDoubt doubtAboutNames(const Tracks& tracks, const SelectionRecord::Baits& baits) {
  const std::string lie = baits.name ? baits.name->address : "";
  SelectionDoubt doubt;
  for (const auto& [place, track] : tracks) {
    for (const Report& report : track.ended) {
      if (isName(place.first) &&
          (report.toThisMachine || (!lie.empty() && report.address == lie))) {
        doubt.kind = Kind::OneAddress;
        doubt.leadsTo = report.toThisMachine ? "this machine" : lie;
        doubt.places.insert(place);
      }
    }
  }
  return doubt;
}

/// Places that answer as the place does where nobody is.
SelectionDoubt doubtByBait(const Answers& answers, const Report& bait) {
  const Kind kind = bait.status == HTTP_SESSION_SUCCESS                       ? Kind::Portal
                    : bait.status == HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE ? Kind::Inspector
                                                                              : Kind::Reset;
  const std::string& leadsTo = kind == Kind::Inspector ? bait.issuer : bait.redirectHost;
  return doubtAbout(kind, leadsTo, answers, [&](const Answer& answer) {
    const Report& report = *answer.last;
    // What ends connections itself does so at once; an accelerator waits for the far side.
    const bool isAtOnce = report.responseRttUs <= 2 * bait.responseRttUs + 4 * SpreadUs;
    return report.status == bait.status && report.httpStatus == bait.httpStatus &&
           report.redirectHost == bait.redirectHost && report.issuer == bait.issuer &&
           (kind != Kind::Reset || isAtOnce);
  });
}

/// All lead to one stranger, or one stranger vouches for all.
SelectionDoubt doubtByStranger(const Answers& answers) {
  const Report& first = *answers.front().last;
  const auto isSame = [&](std::string Report::*what) {
    return !(first.*what).empty() && std::ranges::all_of(answers, [&](const Answer& answer) {
      return answer.last->*what == first.*what;
    });
  };
  const bool isForeign = std::ranges::none_of(answers, [&](const Answer& answer) {
    return areRelated(answer.place.first, first.redirectHost);
  });
  const auto all = [](const Answer&) { return true; };
  if (!areSeveralHosts(answers) || !areEquallyFar(answers)) {
    return {};
  }
  return isSame(&Report::redirectHost) && isForeign
             ? doubtAbout(Kind::Portal, first.redirectHost, answers, all)
         : isSame(&Report::issuer) ? doubtAbout(Kind::Inspector, first.issuer, answers, all)
                                   : SelectionDoubt{};
}

}  // namespace

SelectionDoubt doubtOf(const Tracks& tracks, const SelectionRecord::Baits& baits) {
  SelectionDoubt doubt = doubtAboutNames(tracks, baits);
  const Answers answers = answersOf(tracks);
  if (doubt.isThere()) {
    return doubt;
  }
  if (answers.empty()) {
    return doubtWithoutAnswer(tracks, baits);
  }
  doubt = doubtAbout(Kind::Portal, "", answers, [](const Answer& answer) {
    return answer.last->httpStatus == NetworkAuthenticationRequired;
  });
  if (!doubt.isThere() && baits.address && SelectionRules::isSample(baits.address->status)) {
    doubt = doubtByBait(answers, *baits.address);
  }
  return doubt.isThere() ? doubt : doubtByStranger(answers);
}
