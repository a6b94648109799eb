// How headends are measured, for all commands that measure. Most of these options are another
// spelling of a preference.

#include "cli/files/MeasureOptions.h"

#include <algorithm>

#include "cli/AddOption.h"
#include "cli/Console.h"
#include "cli/Wording.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/Trust/Environment.h"
#include "vpn/Common/Utility/NearestName.h"

namespace {

std::vector<std::string> roundTrips() { return PreferenceBase::find(RoundTripTime)->words; }

std::string unknownName(const std::string& name) {
  std::vector<std::string> names;
  for (const PreferenceBase::Definition& definition : PreferenceBase::definitions()) {
    names.emplace_back(definition.name);
  }
  const std::string* const meant = nearestName(name, names);
  return "there is no preference " + Console::inQuotes(name) +
         (meant != nullptr ? "; did you mean '" + *meant + "'?"
                           : "; 'ahs preferences show' lists them.");
}

std::string takePreference(const std::string& text,
                           std::map<PreferenceId, std::string>& preferences) {
  const std::size_t end = text.find('=');
  if (end == std::string::npos) {
    return "--set takes NAME=VALUE, as in '--set SelectionPingTimeout=3000'.";
  }
  const std::string name = text.substr(0, end);
  const std::string value = text.substr(end + 1);
  const PreferenceBase::Definition* const definition = PreferenceBase::find(name);
  if (definition == nullptr) {
    return unknownName(name);
  }
  if (!definition->isForPreferences) {
    return name + " is set by profiles alone.";
  }
  if (const std::string error = PreferenceBase::findError(*definition, value); !error.empty()) {
    return name + " " + error + ".";
  }
  return preferences.emplace(definition->id, value).second
             ? ""
             : name + " is given twice; give it once, by its own option or by --set.";
}

}  // namespace

void addMeasureOptions(CLI::App& command, MeasureOptions& options, MeasureLimits most) {
  constexpr unsigned int Least = 1;
  addOption(command, "-c,--count", "N", options.count,
            "Probes to each headend; SelectionPingsPerHeadend unless given")
      ->check(CLI::Range(Least, most.count));
  addOption(command, "--timeout", "SECONDS", options.timeoutSeconds,
            "Time limit of one probe; SelectionPingTimeout unless given")
      ->check(CLI::Range(Least, most.timeoutSeconds));
  addOption(command, "--rtt", Wording::joined(roundTrips(), "|"), options.roundTrip,
            "What a round trip is; RoundTripTime unless given")
      ->check(oneOf(roundTrips()));
  addOption(command, "--set", "NAME=VALUE", options.settings,
            "A preference, before those of files; may be repeated")
      ->allow_extra_args(false);  // hosts may follow
  command.add_flag("--secure", options.secure, "Probe over TLS, as with a login at a proxy");
  addOption(command, "--cacert", "FILE", options.certificates,
            "Also trust the certificates (PEM) of FILE; $SSL_CERT_FILE unless given");
  const std::vector<std::string> kinds(ProbeKindNames.begin(), ProbeKindNames.end());
  addOption(command, "--probe", Wording::joined(kinds, "|"), options.probe,
            "What gateways are asked, over UDP but for http; what host entries say unless given")
      ->check(oneOf(kinds));
  addOption(command, "--probe-port", "PORT", options.probePort,
            "Where gateways are asked; at their own ports unless given")
      ->check(CLI::Range(1, 65535));
  CLI::Option* const four = command.add_flag("-4", options.onlyIPv4, "Probe over IPv4 alone");
  command.add_flag("-6", options.onlyIPv6, "Probe over IPv6 alone, and IPv4 addresses by NAT64")
      ->excludes(four);
  addOption(command, "--interface", "NAME", options.interface,
            "Network interface that probes leave by");
  addOption(command, "--source", "ADDRESS", options.source, "Address that probes come from");
}

void takeProbeHow(const MeasureOptions& options, PreferenceMgr::Sources& sources) {
  sources.probeKind = options.probe ? probeKindOf(*options.probe) : std::nullopt;
  sources.probePort = options.probePort;
}

std::string takeMeasurePreferences(const MeasureOptions& options,
                                   const std::vector<std::string>& more,
                                   std::map<PreferenceId, std::string>& preferences) {
  std::vector<std::string> all = options.settings;
  all.insert(all.end(), more.begin(), more.end());
  if (options.roundTrip) {
    all.push_back("RoundTripTime=" + *options.roundTrip);
  }
  std::string error;
  for (auto setting = all.begin(); error.empty() && setting != all.end(); ++setting) {
    error = takePreference(*setting, preferences);
  }
  return error;
}

std::string trustCertificates(const MeasureOptions& options) {
  const char* const ofEnvironment = Environment::get("SSL_CERT_FILE");
  if (!options.certificates && ofEnvironment == nullptr) {
    return "";
  }
  const std::string file = options.certificates.value_or(ofEnvironment ? ofEnvironment : "");
  const std::string problem = HttpProbe::setTrustFile(file);
  // Others than us heed the variable too; it may be meant for them.
  const bool counts = options.certificates || options.secure;
  return problem.empty() || !counts
             ? ""
             : "the certificates of " + std::string(options.certificates ? "" : "SSL_CERT_FILE, ") +
                   Console::inQuotes(file) + ", cannot be used: " + Console::visible(problem);
}
