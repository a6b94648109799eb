// `ahs probe`: one headend in detail. Measures first, like a worker of a selection: probe after
// probe on one thread. Then looks at things that would disturb the measurement.

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>
#include <utility>

#include "cli/AddOption.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/Interruption.h"
#include "cli/Wording.h"
#include "cli/probe/ProbeOptions.h"
#include "cli/probe/ProbeReport.h"
#include "cli/show/SelectionResult.h"
#include "vpn/Api/AHS/Candidates.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/ResolverPlace.h"
#include "vpn/Api/AHS/SelectionRules.h"
#include "vpn/Api/ClientLibrary.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/IP/ProbeTask.h"
#include "vpn/include/InstanceSmartPtr.h"
#include "vpn/include/Locks.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr const char* Command = "ahs probe";

// More probes would tell nothing new, and would burden the headend.
constexpr unsigned int MostProbes = 1000;
// One hour: no person waits longer.
constexpr unsigned int LongestTimeoutSeconds = 3600;

// A worker's reports, and also the bytes on the wire.
constexpr unsigned int Wanted =
    HttpProbe::HTTP_PROBE_RETURN_STATUSCODE | HttpProbe::HTTP_PROBE_RETURN_LAST_ERROR |
    HttpProbe::HTTP_PROBE_RETURN_RTT | HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS |
    HttpProbe::HTTP_PROBE_RETURN_REQUEST;

/// Keeps the report of the last probe. Probing and reading happen on one thread.
class LastReport : public ProbeTask {
 public:
  explicit LastReport(std::shared_ptr<const ProbeWay> way) : m_way(std::move(way)) {}

  void probeEnded(const HttpProbe::Report& report) override { m_report = report; }
  bool socketOpened(int socket, int family) override { return m_way->prepare(socket, family); }
  bool translated(const in_addr& from, in6_addr& to) override { return m_way->translate(from, to); }

  const HttpProbe::Report& report() const { return m_report; }

 private:
  const std::shared_ptr<const ProbeWay> m_way;
  HttpProbe::Report m_report;
};

/// The probes so far and their output. On Ctrl-C another thread prints the summary; no line of a
/// probe follows it.
class Measurement {
 public:
  Measurement(ProbePlan plan, bool isShown) : m_isShown(isShown) {
    m_findings.plan = std::move(plan);
  }

  /// @return the exit status if the output cannot be written, else ExitMeasured.
  int add(EndedProbe probe, HttpProbe::HTTP_PROBE_RESULTS results) {
    const CAutoLockT<CManualLock> guard(m_lock);
    if (!results.tstrRequest.empty()) {
      m_findings.request = std::move(results.tstrRequest);
    }
    if (!results.tstrResponseHeaders.empty()) {
      m_findings.answerHead = std::move(results.tstrResponseHeaders);
    }
    m_findings.probes.push_back(std::move(probe));
    return show(probeLine(m_findings.probes.back(), m_findings.probes.size() - 1));
  }

  int begin() {
    const CAutoLockT<CManualLock> guard(m_lock);
    return show(probeHeading(m_findings.plan));
  }

  int sumUp() {
    const CAutoLockT<CManualLock> guard(m_lock);
    m_isSummedUp = true;
    return show(probeSummary(m_findings));
  }

  /// The caller is about to print everything else, with the verdict.
  void conclude() {
    const CAutoLockT<CManualLock> guard(m_lock);
    m_isConcluded = true;
  }

  /// Prints the missing part when the process is about to end: the summary of the probes, or only
  /// the verdict if the summary is already printed.
  void sumUpInHaste() {
    const CAutoLockT<CManualLock> guard(m_lock);
    const bool isSummedUp = std::exchange(m_isSummedUp, true);
    if (!std::exchange(m_isConcluded, true) && m_isShown && !m_findings.probes.empty()) {
      // Begins a new line after the terminal's ^C.
      const std::string rest =
          "\n" + (isSummedUp ? probeVerdict(m_findings) : probeSummary(m_findings));
      static_cast<void>(Console::writeResult(Wording::wrapped(rest), ExitMeasured));
    }
  }

  ProbeFindings findings() const {
    const CAutoLockT<CManualLock> guard(m_lock);
    return m_findings;
  }

 private:
  int show(const std::string& text) const AHS_REQUIRES(m_lock) {
    return m_isShown ? Console::writeResult(Wording::wrapped(text), ExitMeasured) : ExitMeasured;
  }

  const bool m_isShown;
  mutable CManualLock m_lock;
  bool m_isSummedUp AHS_GUARDED_BY(m_lock) = false;
  bool m_isConcluded AHS_GUARDED_BY(m_lock) = false;
  ProbeFindings m_findings AHS_GUARDED_BY(m_lock);
};

/// @return the same.
int measure(const ProbePlan& plan, const LastReport& watcher, Measurement& measurement) {
  const HttpProbe::KeptConnection connection;
  const PROXY_DATA noProxy;  // a round trip through a proxy would measure the proxy
  auto start = Clock::now();
  auto last = start;
  int written = measurement.begin();
  for (unsigned int i = 0; written == ExitMeasured && i < plan.count; ++i) {
    if (i > 0 && plan.interval.count() > 0) {
      // A selection does not pause.
      const auto pause = Clock::now();
      std::this_thread::sleep_until(last + plan.interval);
      start += Clock::now() - pause;
    }
    last = Clock::now();
    HttpProbe::HTTP_PROBE_RESULTS results;
    const STATUSCODE status = HttpProbe::SendHttpProbe(
        plan.place.first, plan.secure, false, plan.place.second, "",
        static_cast<unsigned int>(plan.timeout.count()), noProxy, Wanted, results);
    const auto elapsed = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    written = measurement.add({watcher.report(), elapsed}, std::move(results));
    if (SelectionRules::worthOfProbe(status) == SelectionRules::ProbeWorth::Unresolved) {
      break;  // no such host
    }
  }
  return written == ExitMeasured ? measurement.sumUp() : written;
}

void takeNameServers(ProbeFindings& findings) {
  std::vector<std::string> place;
  static_cast<void>(readResolverPlace(place));
  for (const std::string& entry : place) {
    const std::size_t blank = entry.find(' ');
    const std::string value = blank == std::string::npos ? "" : entry.substr(blank + 1);
    (entry.starts_with("nameserver ") ? findings.nameServers : findings.searchDomains)
        .push_back(value);
  }
}

/// Finds out what the probes do not tell.
void lookCloser(ProbeFindings& findings) {
  const ProbePlan& plan = findings.plan;
  takeNameServers(findings);
  if (plan.how.kind != ProbeKind::Http) {
    return;  // the rest is of TCP
  }
  const unsigned short port = plan.how.portAt(plan.place.second);
  findings.addresses = checkAddresses(plan.place.first, port, plan.timeout, *plan.way);
  if (std::ranges::any_of(findings.addresses.addresses, &CheckedAddress::isConnected)) {
    findings.tls = inspectTls(plan.place.first, port, plan.timeout);
  }
}

int probe(const ProbePlan& plan, bool isJson) {
  const auto measurement = std::make_shared<Measurement>(plan, !isJson);
  Interruption::setDuties({[measurement] { measurement->sumUpInHaste(); }, {}, {}});
  if (const std::string warning = plan.way->findNat64({plan.place.first}); !warning.empty()) {
    Console::complain(warning);
  }
  const auto watcher = std::make_shared<LastReport>(plan.way);
  const CTask::Scope scope(watcher);
  if (const int written = measure(plan, *watcher, *measurement); written != ExitMeasured) {
    return written;
  }
  ProbeFindings findings = measurement->findings();
  lookCloser(findings);
  measurement->conclude();
  const bool hasMetric = workerViewOf(plan, findings.probes).metricMs.has_value();
  const int exitStatus =
      Console::writeResult(isJson ? probeJson(findings) : Wording::wrapped(probeDetails(findings)),
                           hasMetric ? ExitMeasured : ExitNotMeasured);
  if (const std::string advice = probeAdvice(findings); !advice.empty()) {
    Console::complain(advice);
  }
  return exitStatus;
}

int runProbe(const ProbeOptions& options) {
  FilePlan files;
  std::vector<std::string> problems;
  std::string wrong = makeFilePlan(options.files, defaultPaths(), files, problems);
  if (wrong.empty()) {
    wrong = takeMeasurePreferences(options, {}, files.sources.preferences);
  }
  if (wrong.empty()) {
    wrong = trustCertificates(options);
  }
  if (!wrong.empty()) {
    return Console::complainOfUsage(Command, wrong, problems);
  }
  takeProbeHow(options, files.sources);
  CAppLog::Targets noLog;
  noLog.off = true;
  CClientLibrary::Options libraryOptions{files.sources, noLog, ""};
  STATUSCODE status = 0;
  const CClientLibrary library(libraryOptions, status);
  if (status != 0) {
    Console::complain(libraryProblem(status));
    return ExitUsage;
  }
  ProbePlan plan;
  tellFileProblems();
  plan.measure = roundTripMeasure();
  HS_SETTINGS settings{};
  CAHSSettings::GetSettings(settings);
  const std::string error = makeProbePlan(options, findHostEntries(), settings, plan);
  return error.empty() ? probe(plan, options.json) : Console::complainOfUsage(Command, error);
}

}  // namespace

void addProbeCommand(CLI::App& tool, ChosenCommand& chosen) {
  CLI::App* command = tool.add_subcommand(
      "probe", "Measure one headend and tell everything about it that a selection sees");
  const auto options = std::make_shared<ProbeOptions>();
  addOption(*command, "HOST", "HOST[:PORT]", options->host,
            "The headend: the name of a host entry of the profiles, or a host")
      ->required();
  addMeasureOptions(*command, *options, {MostProbes, LongestTimeoutSeconds});
  addOption(*command, "--interval", "SECONDS", options->intervalSeconds,
            "Time from one probe's start to the next one's")
      ->check(CLI::Range(1U, LongestTimeoutSeconds));
  addFileOptions(*command, options->files);
  command->add_flag("--json", options->json, "Print one JSON object");
  command->footer(
      "Exit status: 0 it has a metric for a selection, 1 it has none, 2 usage or configuration.");
  command->callback([&chosen, options] { chosen = [options] { return runProbe(*options); }; });
}
