#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "cli/probe/AddressCheck.h"
#include "cli/probe/ProbeOptions.h"
#include "cli/probe/TlsInspection.h"
#include "cli/probe/WorkerView.h"

/// Everything found out about one headend.
struct ProbeFindings {
  ProbePlan plan;
  std::vector<EndedProbe> probes;
  std::string request;     ///< the head of the last request as it was sent; empty if none was
  std::string answerHead;  ///< of the last answer that had a head, as received
  AddressCheck addresses;
  std::optional<TlsInspection> tls;        ///< none: no address takes connections
  std::vector<std::string> nameServers;    ///< asked for names
  std::vector<std::string> searchDomains;  ///< appended to a name
};

/// Parts of the text for a person, in whole lines: what will be probed; one probe, counted from 0;
/// the summary of all probes; what a selection would make of them; the rest followed by that.
std::string probeHeading(const ProbePlan& plan);
std::string probeLine(const EndedProbe& probe, std::size_t index);
std::string probeSummary(const ProbeFindings& findings);
std::string probeVerdict(const ProbeFindings& findings);
std::string probeDetails(const ProbeFindings& findings);

/// All of it as one JSON object and a line feed; docs/cli.md describes the members.
std::string probeJson(const ProbeFindings& findings);

/// For standard error: why the headend would have no metric in a selection, and what to do. Empty
/// if it would have one.
std::string probeAdvice(const ProbeFindings& findings);
