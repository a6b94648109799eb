// What `ahs probe` prints for a person. Texts from a headend or a name server are made visible and
// cut, by the caller or here.

#include "cli/probe/ProbeReport.h"

#include <stdio.h>

#include <algorithm>
#include <sstream>

#include "cli/Console.h"
#include "cli/Json.h"
#include "cli/Wording.h"
#include "cli/show/SelectionOutput.h"
#include "cli/show/SelectionResult.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/Api/AHS/SelectionRules.h"
#include "vpn/Api/ConfigurationText.h"
#include "vpn/Api/Preference.h"
#include "vpn/include/HttpSession.h"

namespace {

constexpr std::size_t MostLines = 20;
constexpr std::size_t MostLineBytes = 200;

std::string exactMs(long long microseconds) {
  return Wording::fixed(static_cast<double>(microseconds) / 1000, 3);
}

/// The lines of a request's or an answer's head, visible. Cuts long lines and long heads.
std::vector<std::string> headLines(const std::string& head) {
  std::vector<std::string> lines;
  std::istringstream stream(head);
  for (std::string line; lines.size() < MostLines && std::getline(stream, line);) {
    if (line.ends_with('\r')) {
      line.pop_back();
    }
    if (line.empty()) {
      break;
    }
    lines.push_back(ConfigurationText::oneLine(line, MostLineBytes));
  }
  return lines;
}

/// The name of a probe's status: "HTTP_SESSION_SUCCESS".
std::string statusName(STATUSCODE status) {
  // Every module's success has the value 0; here it is the probe's.
  return status == HTTP_SESSION_SUCCESS ? "HTTP_SESSION_SUCCESS" : statusCodeName(status);
}

/// Percentage of probes without a sample, rounded; 0 only for none, 100 only for all.
unsigned int lossPercent(std::size_t sent, std::size_t samples) {
  constexpr unsigned int Hundred = 100;
  if (sent == 0 || samples == sent) {
    return 0;
  }
  const auto rounded = static_cast<unsigned int>(((sent - samples) * Hundred + sent / 2) / sent);
  return samples == 0 ? Hundred : std::clamp(rounded, 1U, Hundred - 1);
}

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
      text += std::string(text.empty() ? "" : ", ") + what + " " + exactMs(time);
    }
  };
  add("network", report.networkRttUs);
  add("response", report.responseRttUs);
  add("connected", report.connectUs);
  add("TLS", report.tlsUs);
  if (text.empty()) {
    add("ended", report.totalUs);
  }
  return text + " ms" + (report.reused ? ", reused" : "");
}

std::string spreadInWords(const char* label, const std::optional<Spread>& spread) {
  return !spread ? ""
                 : label + ("  min " + exactMs(spread->leastUs)) + ", median " +
                       exactMs(spread->medianUs) + ", max " + exactMs(spread->mostUs) + " ms\n";
}

// ---- Addresses and TLS ------------------------------------------------------------------------

/// The address of the last probe that connected; empty if none did.
std::string usedAddressOf(const ProbeFindings& findings) {
  const auto used = std::find_if(findings.probes.rbegin(), findings.probes.rend(),
                                 [](const EndedProbe& p) { return !p.report.address.empty(); });
  return used == findings.probes.rend() ? "" : used->report.address;
}

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
            (address.isConnected() ? " in " + exactMs(address.took.count()) + " ms" : "") +
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

bool isDatagram(const ProbePlan& plan) { return plan.how.kind != ProbeKind::Http; }

std::string_view kindOf(const ProbePlan& plan) {
  return ProbeKindNames[static_cast<std::size_t>(plan.how.kind)];
}

std::string askedInWords(const ProbePlan& plan) {
  const std::string port = std::to_string(plan.how.portAt(plan.place.second));
  const std::string what = isDatagram(plan) ? std::string(kindOf(plan)) + " over UDP"
                           : plan.secure    ? "HTTPS"
                                            : "plain HTTP";
  return what + (plan.how.port == 0 && !isDatagram(plan) ? "" : " at port " + port);
}

std::string measureInWords(const ProbePlan& plan) {
  if (isDatagram(plan)) {
    return "A sample is the time from a packet to its answer, by the kernel's clock.";
  }
  return plan.measure == PreferenceBase::RoundTripResponse
             ? "A sample is the response time (preference RoundTripTime)."
             : "A sample is the network's round trip, the smallest on its connection so far "
               "(preference RoundTripTime)" +
                   std::string(plan.measure == PreferenceBase::RoundTripNetwork
                                   ? "."
                                   : ", unless it was acknowledged before it can have come.");
}

std::string schemeInWords(const ProbePlan& plan) {
  if (isDatagram(plan)) {
    return "A gateway that answers no stranger (tls-auth, tls-crypt, WireGuard) has no metric: "
           "name a TCP port beside it with --probe http --probe-port PORT.";
  }
  return plan.secure
             ? "Probes over TLS are those of a selection with a login at a proxy; any other "
               "sends plain HTTP."
             : "Without a login at a proxy a selection sends plain HTTP, to a TLS server "
               "too, whose refusal comes from as far away as any other answer. --secure "
               "probes over TLS.";
}

// ---- Advice -----------------------------------------------------------------------------------

std::string adviceForName(const ProbeFindings& findings) {
  const std::string& problem = findings.addresses.problem;
  if (isAddressLiteral(findings.plan.place.first)) {
    return Console::visible(hostAndPort(findings.plan.place)) +
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
  for (const auto& [outcome, words] :
       {std::pair("needs a zone",
                  " Every network has such an address: add %25 and the name of the interface that "
                  "leads there, as in [fe80::7%25eth0]."),
        std::pair("refused",
                  " A machine refuses: nothing listens on that port there. Check the port."),
        std::pair("unreachable",
                  " This machine has no way to an address. Check its network and routes."),
        std::pair("timed out",
                  " An address is silent. A firewall may drop what is sent, or the machine is "
                  "off.")}) {
    advice += isThere(outcome) ? words : "";
  }
  return advice.empty() ? "Check the network of this machine." : advice.substr(1);
}

// ---- For programs ------------------------------------------------------------------------------

Json spreadAsJson(const std::optional<Spread>& spread) {
  return spread ? Json{{"minMs", millisecondsAsJson(spread->leastUs)},
                       {"medianMs", millisecondsAsJson(spread->medianUs)},
                       {"maxMs", millisecondsAsJson(spread->mostUs)}}
                : Json(nullptr);
}

Json endedProbeAsJson(const EndedProbe& probe) {
  Json object = probeAsJson(probe.report);
  object["statusName"] = statusName(probe.report.status);
  object["transportError"] = probe.report.transportError;
  return object;
}

Json summaryAsJson(const std::vector<EndedProbe>& probes) {
  const std::vector<unsigned int> samples = samplesOf(probes);
  const std::size_t sent = probes.size();
  return {{"probes", sent},
          {"samples", samples.size()},
          {"lossPercent", lossPercent(sent, samples.size())},
          {"network", spreadAsJson(spreadOf(probes, &HttpProbe::Report::networkRttUs))},
          {"response", spreadAsJson(spreadOf(probes, &HttpProbe::Report::responseRttUs))},
          {"metricMs", samples.empty() ? Json(nullptr)
                                       : Json(SelectionRules::metricOfSamples(
                                             samples, static_cast<unsigned int>(sent)))}};
}

Json selectionAsJson(const ProbePlan& plan, const WorkerView& view) {
  return {{"probes", view.probes},
          {"probesPerHeadend", plan.selectionCount},
          {"samplesMs", view.samplesMs},
          {"metricMs", orNull(view.metricMs)},
          {"outcome", outcomeName(view.outcome)},
          {"words", view.why}};
}

Json addressesAsJson(const AddressCheck& check) {
  Json addresses = Json::array();
  for (const CheckedAddress& address : check.addresses) {
    addresses.push_back(
        {{"address", address.text},
         {"outcome", address.outcome},
         {"connectMs", millisecondsAsJson(address.isConnected() ? address.took.count() : -1)}});
  }
  return addresses;
}

Json certificateAsJson(const CertificateSummary& certificate) {
  return {{"subject", certificate.subject},        {"issuer", certificate.issuer},
          {"validFrom", certificate.validFrom},    {"validUntil", certificate.validUntil},
          {"daysLeft", certificate.daysLeft},      {"names", certificate.names},
          {"moreNames", certificate.moreNames},    {"key", certificate.key},
          {"trusted", certificate.doubts.empty()}, {"doubts", certificate.doubts}};
}

Json tlsAsJson(const std::optional<TlsInspection>& tls) {
  if (!tls) {
    return nullptr;
  }
  return {{"address", tls->address},
          {"speaksTls", tls->speaksTls},
          {"problem", orNull(tls->problem)},
          {"version", orNull(tls->version)},
          {"cipher", orNull(tls->cipher)},
          {"asksForClientCertificate", tls->asksForClientCertificate},
          {"certificate", tls->certificate ? certificateAsJson(*tls->certificate) : Json(nullptr)}};
}

}  // namespace

std::string probeHeading(const ProbePlan& plan) {
  const std::string entry = plan.entry.empty()
                                ? ""
                                : " (host entry '" + Console::visible(plan.entry) +
                                      "' of the profile '" + Console::visible(plan.profile) + "')";
  return "Probing " + Console::visible(hostAndPort(plan.place)) + entry + ": " +
         Wording::counted(plan.count, "probe") + " of " + askedInWords(plan) + ", each " +
         std::to_string(plan.timeout.count()) + " s at most\n";
}

std::string probeLine(const EndedProbe& probe, std::size_t index) {
  const HttpProbe::Report& report = probe.report;
  const std::string worth =
      SelectionRules::isSample(report.status) ? std::to_string(report.rttMs) + " ms" : "no sample";
  char number[32];
  snprintf(number, sizeof number, "%4zu. ", index + 1);
  return number + worth + "  " + answerInWords(report) + "  " + timesInWords(report) +
         (report.status == HTTP_SESSION_SUCCESS
              ? ""
              : "  " + statusName(report.status) + " (" + statusAsHex(report.status) + ")") +
         "\n";
}

std::string probeSummary(const ProbeFindings& findings) {
  const std::size_t sent = findings.probes.size();
  const std::vector<unsigned int> samples = samplesOf(findings.probes);
  std::string text =
      Wording::counted(sent, "probe") + ", " + std::to_string(samples.size()) + " with a sample, " +
      std::to_string(sent - samples.size()) + " without (" +
      std::to_string(lossPercent(sent, samples.size())) + " %)\n" +
      spreadInWords("  network ", spreadOf(findings.probes, &HttpProbe::Report::networkRttUs)) +
      spreadInWords("  response", spreadOf(findings.probes, &HttpProbe::Report::responseRttUs));
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
  return isDatagram(findings.plan)
             ? probeVerdict(findings)
             : addressesInWords(findings) + tlsInWords(findings) + requestInWords(findings) +
                   answerInWords(findings) + probeVerdict(findings);
}

std::string probeAdvice(const ProbeFindings& findings) {
  const WorkerView view = workerViewOf(findings.plan, findings.probes);
  if (view.metricMs) {
    return "";
  }
  const std::string where = Console::visible(hostAndPort(findings.plan.place));
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
  if (view.outcome == HeadendOutcome::CannotConnect && isDatagram(findings.plan)) {
    return where + " refuses: nothing listens there at UDP port " +
           std::to_string(findings.plan.how.portAt(findings.plan.place.second)) +
           ". Check --probe and the port.";
  }
  if (view.outcome == HeadendOutcome::CannotConnect) {
    return "no connection to " + where + " could be made. " +
           adviceForAddresses(findings.addresses);
  }
  if (isSilent) {
    return where + " does not answer within " + std::to_string(findings.plan.timeout.count()) +
           " s. A firewall may drop what is sent, the machine may be off, or another program may "
           "listen on the port" +
           (isDatagram(findings.plan) ? ", or the gateway answers no stranger" : "") +
           ". --timeout SECONDS waits longer.";
  }
  return where + " would have no metric in a selection. " + view.why;
}

std::string probeJson(const ProbeFindings& findings) {
  const ProbePlan& plan = findings.plan;
  Json probes = Json::array();
  for (const EndedProbe& probe : findings.probes) {
    probes.push_back(endedProbeAsJson(probe));
  }
  const std::vector<std::string> answer = headLines(findings.answerHead);
  Json object = newJson();
  object["headend"] = plan.headend;
  object["port"] = plan.place.second;
  object["hostEntry"] = orNull(plan.entry);
  object["profile"] = orNull(plan.profile);
  object["takesPart"] = plan.entry.empty() ? Json(nullptr) : Json(plan.leftOut.empty());
  object["secure"] = plan.secure;
  object["probe"] = kindOf(plan);
  object["probePort"] = plan.how.portAt(plan.place.second);
  object["timeoutMs"] = std::chrono::milliseconds(plan.timeout).count();
  object["roundTripTime"] = plan.measure;
  object["probes"] = probes;
  object["summary"] = summaryAsJson(findings.probes);
  object["selection"] = selectionAsJson(plan, workerViewOf(plan, findings.probes));
  object["nameServers"] = findings.nameServers;
  object["searchDomains"] = findings.searchDomains;
  object["resolverProblem"] = orNull(findings.addresses.problem);
  object["addresses"] = addressesAsJson(findings.addresses);
  object["moreAddresses"] = findings.addresses.leftOut;
  object["tls"] = tlsAsJson(findings.tls);
  object["request"] = headLines(findings.request);
  object["answer"] = answer.empty() ? Json(nullptr) : Json(answer.front());
  return jsonText(object);
}
