#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "vpn/Api/AHS/Candidates.h"
#include "vpn/Api/AHS/HeadendRTT.h"
#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/Common/IP/HttpProbe.h"

/// What became of a headend. Names and order stay the same from version to version.
enum class HeadendOutcome {
  // With a metric:
  Answered,
  UntrustedCertificate,
  ClientCertificateWanted,
  NotHttp,
  Failed,  ///< an answer of another kind
  FromCache,
  // Without:
  CannotConnect,
  TimedOut,
  NameNotResolved,
  NoAnswerInTime,  ///< its first probe was out when the selection ended
  NotFinishedInTime,
  NotProbed,
  NotInCache,
  // This machine lacked what a probe takes:
  LackOfDescriptors,
  LackOfThreads,
  LackOfMemory,
};

/// The outcome in a few words, such as "cannot connect".
const char* outcomeName(HeadendOutcome outcome);

/// What one probe that ended says of its headend.
HeadendOutcome outcomeOf(const HttpProbe::Report& probe);

/// Whether the outcome says nothing of the headend.
bool isShortage(HeadendOutcome outcome);

/// What became of a headend whose probes are `track`; null when there were none.
/// @param shortage what this machine lacked during the selection.
HeadendOutcome outcomeOf(const SelectionRecord::Track* track, bool hasMetric, bool fromCache,
                         Shortage shortage = Shortage::None);

/// What a selection found out about one headend.
struct HeadendResult {
  std::string headend;                   ///< host, or host ":" port
  std::string name;                      ///< of its host entry, the first where there are several
  std::optional<unsigned int> metricMs;  ///< none: the headend has no result in this selection
  std::vector<unsigned int> samplesMs;   ///< measured now, in the order in which they came
  HeadendOutcome outcome = HeadendOutcome::NotProbed;
  std::vector<HttpProbe::Report> probes;  ///< all of this selection, also those without an answer

  /// The HTTP status of its last answer with one; 0 without any.
  unsigned int httpStatus() const;
};

bool isServerError(unsigned int httpStatus);

/// The outcome in words; of a headend that answers with a server's error, which error:
/// "answers 503".
std::string outcomeInWords(HeadendOutcome outcome, unsigned int httpStatus);
std::string outcomeInWords(const HeadendResult& result);

/// Puts together what is known of each headend: those delivered in their order, then the other
/// candidates in theirs. A headend that gave no answer is never left out.
/// @param measured the records of the run, empty for a run that failed.
/// @param shortage what this machine lacked meanwhile: why a headend was not probed.
std::vector<HeadendResult> collectResults(const std::vector<std::string>& headends,
                                          const std::vector<Candidate>& candidates,
                                          const std::map<Place, SelectionRecord::Track>& tracks,
                                          const std::vector<CHeadendRTT>& measured, bool fromCache,
                                          Shortage shortage = Shortage::None);
