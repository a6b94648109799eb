// `ahs probe --json`: one object, versioned by the member "schema". Members may be added under the
// same number; none changes its meaning. Null stands for what did not happen.

#include "cli/Json.h"
#include "cli/probe/ProbeReport.h"
#include "cli/probe/ProbeText.h"
#include "cli/show/ReportJson.h"
#include "vpn/Api/AHS/SelectionRules.h"

namespace {

Json spreadAsJson(const std::optional<Spread>& spread) {
  return spread ? Json{{"minMs", millisecondsAsJson(spread->leastUs)},
                       {"medianMs", millisecondsAsJson(spread->medianUs)},
                       {"maxMs", millisecondsAsJson(spread->mostUs)}}
                : Json(nullptr);
}

Json endedProbeAsJson(const EndedProbe& probe) {
  Json object = probeAsJson(probe.report);
  object["statusName"] = probeStatusName(probe.report.status);
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
    const bool isConnected = address.outcome == "connected";
    addresses.push_back(
        {{"address", address.text},
         {"outcome", address.outcome},
         {"connectMs", millisecondsAsJson(isConnected ? address.took.count() : -1)}});
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
  object["timeoutMs"] = std::chrono::milliseconds(plan.timeout).count();
  object["roundTripTime"] = plan.isResponseMeasured ? "response" : "network";
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
