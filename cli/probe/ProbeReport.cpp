// What `ahs probe` tells a person. Whatever a headend or a name server has a say in is made visible
// and cut before it gets here or as it is put in.

#include "cli/probe/ProbeReport.h"

#include <stdio.h>

#include <algorithm>

#include "cli/Console.h"
#include "cli/Wording.h"
#include "cli/probe/ProbeText.h"
#include "cli/show/SelectionResult.h"
#include "cli/show/StatusWords.h"
#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/Api/AHS/SelectionRules.h"

namespace {

std::string exactMs(long long microseconds) {
  constexpr double MicrosecondsPerMillisecond = 1000.0;
  char text[64];
  snprintf(text, sizeof text, "%.3f",
           static_cast<double>(microseconds) / MicrosecondsPerMillisecond);
  return text;
}

std::string place(const ProbePlan& plan) { return Console::visible(candidateWithPort(plan)); }

// ---- The probes -------------------------------------------------------------------------------

std::string answerInWords(const HttpProbe::Report& report) {
  const SelectionRecord::Track track{1, {report}};
  const std::string outcome =
      outcomeName(outcomeOf(&track, SelectionRules::isSample(report.status), false));
  return report.httpStatus == 0 ? outcome : outcome + ", HTTP " + std::to_string(report.httpStatus);
}

std::string timesInWords(const HttpProbe::Report& report) {
  std::string text;
  const auto add = [&text](const char* what, long long time) {
    if (time >= 0) {
      text += std::string(text.empty() ? "" : ", ") + what + " " + exactMs(time) + " ms";
    }
  };
  add("network", report.networkRttUs);
  add("response", report.responseRttUs);
  add("connected after", report.connectUs);
  add("TLS after", report.tlsUs);
  if (text.empty()) {
    add("ended after", report.totalUs);
  }
  return report.reused ? text + ", same connection" : text;
}

void addSpread(const char* what, const std::optional<Spread>& spread, std::string& text) {
  if (spread) {
    char line[200];
    snprintf(line, sizeof line, "  %-9s min %s, median %s, max %s ms\n", what,
             exactMs(spread->leastUs).c_str(), exactMs(spread->medianUs).c_str(),
             exactMs(spread->mostUs).c_str());
    text += line;
  }
}

// ---- Addresses and TLS ------------------------------------------------------------------------

std::string addressesInWords(const ProbeFindings& findings) {
  const AddressCheck& check = findings.addresses;
  if (!check.problem.empty()) {
    return "Addresses: none: " + check.problem + "\n";
  }
  std::size_t width = 0;
  for (const CheckedAddress& address : check.addresses) {
    width = std::max(width, address.text.size());
  }
  const std::string used = usedAddressOf(findings);
  std::string text = "Addresses, each tried once after the probes:\n";
  for (const CheckedAddress& address : check.addresses) {
    text += "  " + Console::visible(address.text) +
            std::string(width - address.text.size() + 2, ' ') + address.outcome +
            (address.outcome == "connected" ? " in " + exactMs(address.took.count()) + " ms" : "") +
            (isSameAddress(address, used) ? "; the probes went there" : "") + "\n";
  }
  if (check.leftOut > 0) {
    text += "  and " + std::to_string(check.leftOut) + " more, not tried\n";
  }
  return text;
}

std::string daysInWords(const CertificateSummary& certificate) {
  if (!certificate.isExpired) {
    return Wording::counted(static_cast<std::size_t>(certificate.daysLeft), "day") + " left";
  }
  const auto days = static_cast<std::size_t>(-certificate.daysLeft - 1);
  return days == 0 ? "expired less than a day ago"
                   : "expired " + Wording::counted(days, "day") + " ago";
}

std::string certificateInWords(const CertificateSummary& certificate) {
  std::string names = certificate.names.empty() ? "none" : Wording::joined(certificate.names);
  if (certificate.moreNames > 0) {
    names += ", and " + std::to_string(certificate.moreNames) + " more";
  }
  return "  subject:  " + certificate.subject + "\n  issuer:   " + certificate.issuer +
         "\n  valid:    " + certificate.validFrom + " to " + certificate.validUntil + ", " +
         daysInWords(certificate) + "\n  names:    " + names + "\n  key:      " + certificate.key +
         "\n  trusted:  " +
         (certificate.doubts.empty() ? "yes" : "no: " + Wording::joined(certificate.doubts, "; ")) +
         "\n";
}

std::string tlsInWords(const ProbeFindings& findings) {
  if (!findings.tls) {
    return "TLS: not tried, no address takes connections\n";
  }
  const TlsInspection& tls = *findings.tls;
  const std::string handshake = "a handshake of its own after the probes";
  std::string text =
      tls.problem.empty()
          ? "TLS (" + handshake + "): " + tls.version + ", " + tls.cipher + "\n"
          : "TLS (" + handshake + "): " + Console::visible(tls.address) + " " + tls.problem + "\n";
  if (tls.certificate) {
    text += certificateInWords(*tls.certificate);
  }
  return text + (tls.asksForClientCertificate ? "  asks for a client certificate\n" : "");
}

// ---- Request and answer -----------------------------------------------------------------------

std::string requestInWords(const ProbeFindings& findings) {
  if (findings.request.empty()) {
    return "Request: none was sent\n";
  }
  std::string text = "Request, as it was sent:\n";
  for (const std::string& line : headLines(findings.request)) {
    text += "  " + line + "\n";
  }
  return text;
}

std::string answerInWords(const ProbeFindings& findings) {
  const std::vector<std::string> lines = headLines(findings.answerHead);
  return lines.empty() ? "" : "Answer: " + lines.front() + "\n";
}

// ---- The selection ----------------------------------------------------------------------------

std::string measureInWords(const ProbePlan& plan) {
  return plan.isResponseMeasured ? "A sample is the response time (preference RoundTripTime)."
                                 : "A sample is the network's round trip, the smallest on its "
                                   "connection so far (preference "
                                   "RoundTripTime).";
}

std::string schemeInWords(const ProbePlan& plan) {
  return plan.secure
             ? "Probes over TLS are those of a selection with a login at a proxy; any other "
               "sends plain HTTP."
             : "Without a login at a proxy a selection sends plain HTTP, to a TLS server "
               "too, whose refusal\n  comes from as far away as any other answer. --secure "
               "probes over TLS.";
}

// ---- Advice -----------------------------------------------------------------------------------

std::string adviceForName(const ProbeFindings& findings) {
  const std::string& problem = findings.addresses.problem;
  if (isAddressLiteral(findings.plan.place.first)) {
    return place(findings.plan) +
           " cannot be reached. Check the address; the zone of an IPv6 address is the name of an "
           "interface, as in [fe80::7%25eth0].";
  }
  const std::string domains = Wording::joined(findings.searchDomains);
  return "the name '" + Console::visible(findings.plan.place.first) +
         "' is not resolved: " + (problem.empty() ? "it was not a moment ago" : problem) +
         ". Name servers: " +
         (findings.nameServers.empty() ? "none are set" : Wording::joined(findings.nameServers)) +
         (domains.empty() ? "" : "; search domains: " + domains) +
         ". Check the spelling, and the network that these name servers belong to.";
}

std::string adviceForAddresses(const AddressCheck& check) {
  const auto isThere = [&check](const char* outcome) {
    return std::any_of(check.addresses.begin(), check.addresses.end(),
                       [outcome](const CheckedAddress& a) { return a.outcome == outcome; });
  };
  if (isThere("connected")) {
    return "An address takes connections now: try again.";
  }
  if (!check.problem.empty()) {
    return "The address check found none: " + check.problem + ".";
  }
  std::string advice;
  if (isThere("needs a zone")) {
    advice +=
        " Every network has such an address: add %25 and the name of the interface that leads "
        "there, as in [fe80::7%25eth0].";
  }
  if (isThere("refused")) {
    advice += " A machine refuses: nothing listens on that port there. Check the port.";
  }
  if (isThere("unreachable")) {
    advice += " This machine has no way to an address. Check its network and routes.";
  }
  if (isThere("timed out")) {
    advice += " An address is silent. A firewall may drop what is sent, or the machine is off.";
  }
  return advice.empty() ? "Check the network of this machine." : advice.substr(1);
}

}  // namespace

std::string usedAddressOf(const ProbeFindings& findings) {
  const auto used = std::find_if(findings.probes.rbegin(), findings.probes.rend(),
                                 [](const EndedProbe& p) { return !p.report.address.empty(); });
  return used == findings.probes.rend() ? "" : used->report.address;
}

std::string probeHeading(const ProbePlan& plan) {
  const std::string entry = plan.entry.empty()
                                ? ""
                                : " (host entry '" + Console::visible(plan.entry) +
                                      "' of the profile '" + Console::visible(plan.profile) + "')";
  return "Probing " + place(plan) + entry + ": " + Wording::counted(plan.count, "probe") + " of " +
         (plan.secure ? "HTTPS" : "plain HTTP") + ", each " + std::to_string(plan.timeout.count()) +
         " s at most\n";
}

std::string probeLine(const EndedProbe& probe, std::size_t index) {
  const HttpProbe::Report& report = probe.report;
  const std::string worth =
      SelectionRules::isSample(report.status) ? std::to_string(report.rttMs) + " ms" : "no sample";
  char number[32];
  snprintf(number, sizeof number, "%4zu. ", index + 1);
  return number + worth + "  " + answerInWords(report) + "  " + timesInWords(report) + "  " +
         probeStatusName(report.status) + " (" + statusAsHex(report.status) + ")\n";
}

std::string probeSummary(const ProbeFindings& findings) {
  const std::size_t sent = findings.probes.size();
  const std::vector<unsigned int> samples = samplesOf(findings.probes);
  std::string text = Wording::counted(sent, "probe") + ", " + std::to_string(samples.size()) +
                     " with a sample, " + std::to_string(sent - samples.size()) + " without (" +
                     std::to_string(lossPercent(sent, samples.size())) + " %)\n";
  addSpread("network", spreadOf(findings.probes, &HttpProbe::Report::networkRttUs), text);
  addSpread("response", spreadOf(findings.probes, &HttpProbe::Report::responseRttUs), text);
  if (!samples.empty()) {
    text +=
        "  metric    " +
        std::to_string(SelectionRules::metricOfSamples(samples, static_cast<unsigned int>(sent))) +
        " ms of all samples\n";
  }
  return text;
}

std::string probeVerdict(const ProbeFindings& findings) {
  const WorkerView view = workerViewOf(findings.plan, findings.probes);
  const bool takesPart = findings.plan.leftOut.empty();
  return "In a selection of " + Wording::counted(findings.plan.selectionCount, "probe") +
         " a headend (SelectionPingsPerHeadend), " + (takesPart ? "" : "if it took part, ") +
         "judged by " +
         (view.probes == 1 ? "the first:" : "the first " + std::to_string(view.probes) + ":") +
         "\n  samples:  " + (view.samplesMs.empty() ? "none" : samplesText(view.samplesMs, " ")) +
         "\n  metric:   " + (view.metricMs ? std::to_string(*view.metricMs) + " ms" : "none") +
         "\n  outcome:  " + outcomeName(view.outcome) + "\n  " + view.why + "\n  " +
         measureInWords(findings.plan) + "\n  " + schemeInWords(findings.plan) + "\n" +
         (takesPart ? ""
                    : "  But the host entry takes no part in a selection: " +
                          Console::visible(findings.plan.leftOut) + ".\n");
}

std::string probeDetails(const ProbeFindings& findings) {
  return addressesInWords(findings) + tlsInWords(findings) + requestInWords(findings) +
         answerInWords(findings) + probeVerdict(findings);
}

std::string probeAdvice(const ProbeFindings& findings) {
  const WorkerView view = workerViewOf(findings.plan, findings.probes);
  if (view.metricMs) {
    return "";
  }
  const std::string where = place(findings.plan);
  const bool isSilent = view.outcome == HeadendOutcome::TimedOut;
  if (isSilent && view.lateAnswers > 0) {
    return where + " answers, but not within the " +
           std::to_string(findings.plan.selectionTimeout.count()) +
           " s that a selection waits. The preference SelectionPingTimeout makes it wait longer.";
  }
  if (view.outcome == HeadendOutcome::NameNotResolved ||
      (isSilent && !findings.addresses.problem.empty())) {
    return adviceForName(findings);
  }
  if (view.outcome == HeadendOutcome::CannotConnect) {
    return "no connection to " + where + " could be made. " +
           adviceForAddresses(findings.addresses);
  }
  if (isSilent) {
    return where + " does not answer within " + std::to_string(findings.plan.timeout.count()) +
           " s. A firewall may drop what is sent, the machine may be off, or another program may "
           "listen on the port. --timeout SECONDS waits longer.";
  }
  return where + " would have no metric in a selection. " + view.why;
}
