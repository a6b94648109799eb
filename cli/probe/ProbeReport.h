#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "cli/probe/AddressCheck.h"
#include "cli/probe/ProbeOptions.h"
#include "cli/probe/TlsInspection.h"
#include "cli/probe/WorkerView.h"

/// Everything that was found out about one headend.
struct ProbeFindings {
  ProbePlan plan;
  std::vector<EndedProbe> probes;
  std::string request;     ///< the head of the last request as it was sent; empty if none was
  std::string answerHead;  ///< of the last answer that had one, as it came
  AddressCheck addresses;
  std::optional<TlsInspection> tls;        ///< none: no address takes connections
  std::vector<std::string> nameServers;    ///< where names are asked for
  std::vector<std::string> searchDomains;  ///< that are tried behind a name
};

/// The parts of what a person reads, whole lines each: what is about to be probed; one probe,
/// counted from 0; the sum of all probes; what a selection would make of them; what else was found,
/// and then the same.
std::string probeHeading(const ProbePlan& plan);
std::string probeLine(const EndedProbe& probe, std::size_t index);
std::string probeSummary(const ProbeFindings& findings);
std::string probeVerdict(const ProbeFindings& findings);
std::string probeDetails(const ProbeFindings& findings);

/// All of it as one JSON object and a line feed; the members are described in docs/cli.md.
std::string probeJson(const ProbeFindings& findings);

/// For standard error: why it would have no metric in a selection, and what to do. Empty if it
/// would.
std::string probeAdvice(const ProbeFindings& findings);
