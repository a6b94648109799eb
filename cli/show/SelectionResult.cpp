// A selection as a whole: its headends, its status in words, advice, and the names of the reasons
// (their words joined by hyphens).

#include "cli/show/SelectionResult.h"

#include <curl/curl.h>
#include <stdio.h>

#include <algorithm>

#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/Wording.h"
#include "cli/login/ProxyLogin.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Common/Trust/LegibleText.h"
#include "vpn/include/HttpSession.h"
#include "vpn/include/StringUtils.h"

namespace {

std::string adviceForLogin(const SelectionResult& result) {
  const std::string realm =
      result.extraInfo.empty() ? "" : " for the realm '" + visibleRealm(result.extraInfo) + "'";
  if (result.hadLogin) {
    return "the proxy does not accept the user name and password" + realm +
           ", so no headend was measured. Check both, and whether the proxy is the right one; "
           "--proxy HOST:PORT names another one, --no-proxy none.";
  }
  return "a proxy asks for authentication" +
         (realm.empty() ? " and names no realm for the Basic scheme" : realm) +
         ", so no headend was measured. Give the user name with --proxy-user NAME and the password "
         "with --proxy-password-file FILE (which nobody else may read) or --proxy-password-fd N; "
         "or run the command on a terminal to be asked; or choose another proxy with --proxy "
         "HOST:PORT, or none with --no-proxy.";
}

/// Nothing but the proxy has answered.
bool onlyProxyAnswers(const SelectionResult& result) {
  return result.testProbe && result.testProbe->proxied &&
         result.testProbe->status == HTTP_SESSION_SUCCESS &&
         exitStatusOf(result.status) == ExitNotMeasured;
}

/// What is wrong with the proxy, to follow its name; empty for nothing.
std::string troubleOf(const HttpProbe::Report& probe) {
  switch (probe.status) {
    case HTTP_SESSION_ERROR_CONNECT:
      return probe.transportError == CURLE_COULDNT_RESOLVE_PROXY ? "cannot be found"
                                                                 : "refuses connections";
    case HTTP_SESSION_ERROR_TIMEOUT:
      return probe.connectUs < 0 ? "accepts no connection" : "does not answer";
    case HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE:
      return "does not answer like a proxy";
    case HTTP_SESSION_SUCCESS:
      return isServerError(probe.httpStatus)
                 ? "or the host behind it answers " + std::to_string(probe.httpStatus)
                 : "";
    default:
      return "";
  }
}

/// The words for a failed selection would add nothing; those for any other status say why.
std::string adviceForFailure(const SelectionResult& result) {
  if (onlyProxyAnswers(result)) {
    return proxyInWords(result) +
           " Let this machine connect to the headends itself, or select where it may.";
  }
  const bool wasMeasuring = result.status == HEADENDSELECTION_ERROR_SELECTION_FAILURE;
  const std::string headend = result.results.empty() ? "HOST" : result.results.front().headend;
  const bool isUnresolved = std::ranges::all_of(result.results, [](const HeadendResult& one) {
    return one.outcome == HeadendOutcome::NameNotResolved;
  });
  return "no headend was selected by measurement." +
         (wasMeasuring ? "" : " " + statusInWords(result)) +
         (isUnresolved && !result.results.empty()
              ? " No name was resolved: check the names, and the name server (resolv.conf(5))"
              : " Check the network and the addresses") +
         "; 'ahs probe " + forShell(headend) +
         "' shows what fails there, and 'ahs select --log-level info' each step.";
}

}  // namespace

const HeadendResult* find(const SelectionResult& result, const std::string& headend) {
  const auto found = std::ranges::find(result.results, headend, &HeadendResult::headend);
  return found == result.results.end() ? nullptr : &*found;
}

std::vector<std::size_t> ranksOf(const SelectionResult& result) {
  std::vector<std::size_t> ranks;
  std::optional<unsigned int> before;
  for (const std::string& headend : result.headends) {
    const HeadendResult* const known = find(result, headend);
    const std::optional<unsigned int> metric = known == nullptr ? std::nullopt : known->metricMs;
    ranks.push_back(metric && metric == before ? ranks.back() : ranks.size() + 1);
    before = metric;
  }
  return ranks;
}

const HttpProbe::Report* nearestProbe(const HeadendResult& headend) {
  const HttpProbe::Report* nearest = nullptr;
  for (const HttpProbe::Report& probe : headend.probes) {
    if (SelectionRules::isSample(probe.status) &&
        (nearest == nullptr || probe.rttMs < nearest->rttMs)) {
      nearest = &probe;
    }
  }
  return nearest;
}

std::size_t lostProbes(const HeadendResult& headend) {
  return static_cast<std::size_t>(std::ranges::count_if(
      headend.probes,
      [](const HttpProbe::Report& probe) { return !SelectionRules::isSample(probe.status); }));
}

bool hasNames(const SelectionResult& result) {
  return std::ranges::any_of(result.results, [](const HeadendResult& headend) {
    return !nameBeside(headend.headend, headend.name).empty();
  });
}

std::string titleOf(const HeadendResult& headend) {
  const std::string name = nameBeside(headend.headend, headend.name);
  return headend.headend + (name.empty() ? "" : " (" + name + ")");
}

std::string samplesText(const std::vector<unsigned int>& samplesMs, const char* separator) {
  std::string text;
  for (const unsigned int sample : samplesMs) {
    text += (text.empty() ? "" : separator) + std::to_string(sample);
  }
  return text;
}

int exitStatusOf(STATUSCODE status) {
  switch (status) {
    case HEADENDSELECTION_SUCCESS:
    case HEADENDSELECTION_ERROR_ADDED_TO_CACHE:
      return ExitSelected;
    case HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED:
      return ExitProxyAsks;
    case HEADENDSELECTION_ERROR_NO_HEADENDS:
      return ExitUsage;
    default:
      return ExitNotMeasured;
  }
}

int exitStatusOf(const SelectionResult& result) {
  const int status = exitStatusOf(result.status);
  return status == ExitSelected && result.doubt.isThere() ? ExitNotMeasured : status;
}

std::string doubtName(const SelectionDoubt& doubt) {
  static const char* const names[] = {"",      "no network",  "portal",
                                      "reset", "one address", "inspector"};
  return names[static_cast<std::size_t>(doubt.kind)];
}

std::string doubtInWords(const SelectionDoubt& doubt) {
  const std::string what = Console::inQuotes(doubt.leadsTo);
  switch (doubt.kind) {
    case SelectionDoubt::Kind::None:
      return "";
    case SelectionDoubt::Kind::NoNetwork:
      return "This machine has no network: no route leads anywhere. Connect it and select again.";
    case SelectionDoubt::Kind::Portal:
      return "A captive portal answers in place of the headends" +
             (doubt.leadsTo.empty() ? "" : " and leads to " + what) +
             ". Open a browser, sign in to this network, and select again.";
    case SelectionDoubt::Kind::Reset:
      return "This network ends connections to everywhere itself, even to an address that nobody "
             "has. Open a browser in case it asks for a login, or ask who runs the network which "
             "ports it lets through.";
    case SelectionDoubt::Kind::OneAddress:
      return "The name server of this network leads the headends' names to " +
             Console::visible(doubt.leadsTo) +
             ", where they are not. Open a browser in case the network asks for a login, set "
             "another name server, or name the headends by their addresses.";
    case SelectionDoubt::Kind::Inspector:
      return "All headends show a certificate of one issuer that is not trusted, " + what +
             ": something on this network reads TLS, or the headends have an authority of their "
             "own, whose certificate --cacert FILE names.";
  }
  return "";
}

std::string statusAsHex(STATUSCODE status) {
  char text[32];
  snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(status));
  return text;
}

std::string cacheAgeInWords(const SelectionResult& result) {
  return result.cacheAge
             ? Wording::duration(static_cast<std::size_t>(result.cacheAge->count())) + " ago"
             : "before";
}

std::string statusInWords(const SelectionResult& result) {
  const std::string kept =
      result.headends.empty() ? "" : " The last headend is kept without a measurement.";
  if (exitStatusOf(result.status) == ExitSelected && result.doubt.isThere()) {
    return "Not selected: what was measured may not be the headends.";
  }
  switch (result.status) {
    case HEADENDSELECTION_SUCCESS:
      return "Remembered from " + cacheAgeInWords(result) + "; the first one still answers.";
    case HEADENDSELECTION_ERROR_ADDED_TO_CACHE:
      return "Selected from measurements made now.";
    case HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED:
      return "Nothing was measured: a proxy asks for authentication.";
    case HEADENDSELECTION_ERROR_NO_HEADENDS:
      return "Nothing was measured: no host entry takes part in automatic selection.";
    case HEADENDSELECTION_ERROR_CACHE_FAILURE:
      return "Nothing was measured: there is no selection cache." + kept;
    case HEADENDSELECTION_ERROR_TIMEOUT:
      return "Nothing was measured within the time limit." + kept;
    case HEADENDSELECTION_ERROR_SELECTION_FAILURE:
      return "No headend could be measured." + kept;
    default:
      return "The selection failed." + kept;
  }
}

std::string addressOf(const HeadendResult* headend) {
  const HttpProbe::Report* const probe = headend == nullptr ? nullptr : nearestProbe(*headend);
  return probe == nullptr || headend->headend.find(probe->address) != std::string::npos
             ? ""
             : probe->address;
}

SharedAddress sharedAddressOf(const SelectionResult& result) {
  SharedAddress shared;
  shared.address = result.headends.empty() ? "" : addressOf(find(result, result.headends.front()));
  for (const HeadendResult& headend : result.results) {
    if (!shared.address.empty() && addressOf(&headend) == shared.address) {
      shared.names.insert(CStringUtils::toLower(headend.probes.front().host));
    }
  }
  return shared.names.size() > 1 ? shared : SharedAddress{};
}

std::string sharedInWords(const SelectionResult& result) {
  const SharedAddress shared = sharedAddressOf(result);
  return shared.names.empty()
             ? ""
             : std::to_string(shared.names.size()) + " names lead to " +
                   Console::visible(shared.address) +
                   ", the chosen one too. Unless one gateway has them all, the name server "
                   "misleads: --secure checks who answers.";
}

std::string lossInWords(const SelectionResult& result) {
  constexpr std::size_t Part = 4;
  std::size_t lost = 0;
  std::size_t sent = 0;
  for (const HeadendResult& headend : result.results) {
    if (nearestProbe(headend) != nullptr) {
      lost += lostProbes(headend);
      sent += headend.probes.size();
    }
  }
  return lost * Part <= sent ? ""
                             : std::to_string(lost) + " of " + std::to_string(sent) +
                                   " probes of headends that answer were lost: the network is "
                                   "bad, or limits how many connections open at once. Select "
                                   "again, or name fewer headends.";
}

std::string proxyInWords(const SelectionResult& result) {
  const std::string proxy = "the proxy" + (result.proxy.empty() ? "" : " " + result.proxy);
  if (result.status == HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED) {
    return "";  // the status says it
  }
  if (onlyProxyAnswers(result)) {
    return "only " + proxy +
           " answers: headends are measured directly, and none can be reached so.";
  }
  const std::string trouble =
      result.testProbe && result.testProbe->proxied ? troubleOf(*result.testProbe) : "";
  return trouble.empty()
             ? ""
             : proxy + " " + trouble + ", which took " +
                   Wording::fixed(static_cast<double>(result.testProbe->totalUs) / 1e6, 1) +
                   " s; headends are measured directly.";
}

std::string libraryProblem(STATUSCODE status) {
  return "the client library could not be started: " + std::string(statusCodeName(status)) + " (" +
         statusAsHex(status) + "). The machine may be short of memory or threads.";
}

std::string adviceFor(const SelectionResult& result, const std::string& profilePlaces) {
  if (result.doubt.isThere()) {
    return doubtInWords(result.doubt);
  }
  switch (result.status) {
    case HEADENDSELECTION_SUCCESS:
    case HEADENDSELECTION_ERROR_ADDED_TO_CACHE:
      return "";
    case HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED:
      return adviceForLogin(result);
    case HEADENDSELECTION_ERROR_NO_HEADENDS:
      return "no host entry takes part in automatic selection. In the profiles in " +
             profilePlaces +
             ", set EnableAutomaticServerSelection to true in one that has host entries, or name "
             "hosts on the command line.";
    default:
      return adviceForFailure(result);
  }
}

std::string shortageIn(const SelectionResult& result) {
  const auto isLacking = [](const HeadendResult& headend) { return isShortage(headend.outcome); };
  const auto first = std::ranges::find_if(result.results, isLacking);
  if (first == result.results.end()) {
    return "";
  }
  return std::string(outcomeName(first->outcome)) + ": " +
         std::to_string(std::ranges::count_if(result.results, isLacking)) + " of " +
         std::to_string(result.results.size()) +
         " headends were not measured, and the selection is not remembered. Raise the limit of "
         "open files ('ulimit -n'), processes ('ulimit -u') or memory ('ulimit -v'), or end other "
         "programs.";
}

std::optional<unsigned int> parseReason(const std::string& text) {
  for (unsigned int reason = 0; reason < SelectionRules::ReasonCount; ++reason) {
    if (text == reasonName(reason) || text == std::to_string(reason)) {
      return reason;
    }
  }
  return std::nullopt;
}

std::string reasonName(unsigned int reason) {
  std::string name = SelectionRules::reasonText(reason);
  std::ranges::replace(name, ' ', '-');
  return name;
}

std::vector<std::string> reasonNames() {
  std::vector<std::string> names;
  for (unsigned int reason = 0; reason < SelectionRules::ReasonCount; ++reason) {
    names.push_back(reasonName(reason));
  }
  return names;
}
