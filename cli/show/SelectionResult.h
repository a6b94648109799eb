#pragma once

#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "vpn/Api/AHS/HeadendResult.h"
#include "vpn/Api/AHS/SelectionDoubt.h"
#include "vpn/Api/AHS/SelectionRules.h"
#include "vpn/include/StatusCode.h"

/// Everything that is printed about one selection.
struct SelectionResult {
  unsigned int reason = 0;
  STATUSCODE status = 0;
  /// As delivered, best first; where nothing was measured, at most the headend used last.
  std::vector<std::string> headends;
  std::string extraInfo;
  bool fromCache = false;
  bool hadLogin = false;                ///< the run had credentials for the proxy
  std::string last;                     ///< the headend used last, as in `headends`; empty for none
  unsigned int improvementPercent = 0;  ///< how much better another one must be
  std::string measure = "auto";         ///< which round trip metrics are: `RoundTripTime`
  std::optional<std::chrono::seconds> cacheAge;  ///< since the cached measurement, if it is known
  std::chrono::seconds cacheLife{0};             ///< how long it may be used
  std::chrono::milliseconds elapsed{0};
  std::optional<HttpProbe::Report> testProbe;  ///< if one was sent
  std::string proxy;                           ///< host and port of its proxy, if they are known
  std::optional<SelectionRecord::Decided> decided;  ///< before the end; nothing if it never was
  SelectionDoubt doubt;  ///< why the chosen headend may be none, or why none was measured
  /// The delivered headends in their order, then the other candidates in theirs.
  std::vector<HeadendResult> results;
};

/// The result of a headend; null if it is no candidate.
const HeadendResult* find(const SelectionResult& result, const std::string& headend);

/// The rank of each delivered headend, from 1; neighbours with equal metrics have the same.
std::vector<std::size_t> ranksOf(const SelectionResult& result);

/// The probe with the smallest round trip; null if no probe has one.
const HttpProbe::Report* nearestProbe(const HeadendResult& headend);

/// The address that was measured; empty if the headend names it, or has no answer.
std::string addressOf(const HeadendResult* headend);

/// How many probes had no answer.
std::size_t lostProbes(const HeadendResult& headend);

/// Whether any headend has a name besides its address.
bool hasNames(const SelectionResult& result);

/// A headend for a person: "gw-ams.example.com:8443 (Amsterdam)", or the address alone without a
/// name. May hold anything: the caller must make it visible.
std::string titleOf(const HeadendResult& headend);

/// Samples in decimal, in their order.
std::string samplesText(const std::vector<unsigned int>& samplesMs, const char* separator);

/// The exit status for a selection's status.
int exitStatusOf(STATUSCODE status);

/// When a remembered selection was measured: "3 minutes ago".
std::string cacheAgeInWords(const SelectionResult& result);

/// The same, but not "selected" if what was measured may not be the headends.
int exitStatusOf(const SelectionResult& result);

/// The doubt and what to do, as sentences; empty for none.
std::string doubtInWords(const SelectionDoubt& doubt);

/// The kind of doubt, one word for programs; empty for none.
std::string doubtName(const SelectionDoubt& doubt);

/// A status in words, a whole sentence.
std::string statusInWords(const SelectionResult& result);

/// Names of different headends that lead to the chosen one's address.
struct SharedAddress {
  std::string address;
  std::set<std::string> names;  ///< with the chosen one's; empty if no other leads there
};
SharedAddress sharedAddressOf(const SelectionResult& result);

/// That, and what it may mean: sentences; empty for none.
std::string sharedInWords(const SelectionResult& result);

/// That over a quarter of the probes of headends which answer were lost: sentences; empty if not.
std::string lossInWords(const SelectionResult& result);

/// What was wrong with the proxy of the test probe, what it cost, and what it means: whole
/// sentences; empty if nothing was.
std::string proxyInWords(const SelectionResult& result);

/// A status for programs: "0xFE530010".
std::string statusAsHex(STATUSCODE status);

/// Why the client library could not start, and a likely cause, as whole sentences.
std::string libraryProblem(STATUSCODE status);

/// For standard error: what a failed selection means and what to do; empty after a success.
std::string adviceFor(const SelectionResult& result, const std::string& profilePlaces);

/// For standard error: how many headends this machine could not measure for want of something, and
/// what to do; empty if there are none.
std::string shortageIn(const SelectionResult& result);

using SelectionRules::ReasonProxyAuthentication;
using SelectionRules::ReasonReconnection;

/// The reason code of a name ("reconnection") or of a digit from 0 to 5.
std::optional<unsigned int> parseReason(const std::string& text);

/// The name of a reason code, which `parseReason` accepts; "unknown" for any other number.
std::string reasonName(unsigned int reason);

/// All names of reasons.
std::vector<std::string> reasonNames();
