// The options of a selection, shared by all commands that make one, and their checks. Mistakes on
// the command line are found here or by the parser, before anything starts.

#include "cli/select/SelectOptions.h"

#include <arpa/inet.h>

#include <map>
#include <set>

#include "cli/AddOption.h"
#include "cli/Console.h"
#include "cli/Wording.h"
#include "cli/select/HostList.h"
#include "cli/show/SelectionResult.h"
#include "vpn/Api/AHS/Candidates.h"
#include "vpn/Api/ProfileMgr.h"
#include "vpn/Common/Utility/URL.h"
#include "vpn/include/StringUtils.h"

namespace {

/// Equal for all spellings of one place: host, letter case, default port.
Place spotOf(const std::string& host) {
  Place place = candidateOf("", URL(host)).place;
  const std::string address = place.first.substr(0, place.first.find('%'));
  in6_addr binary{};
  char text[INET6_ADDRSTRLEN] = "";
  if (inet_pton(AF_INET6, address.c_str(), &binary) == 1 &&
      inet_ntop(AF_INET6, &binary, text, sizeof text) != nullptr) {
    place.first.replace(0, address.size(), text);
  } else {
    place.first = CStringUtils::toLower(place.first);
  }
  return place;
}

/// The host entries of the profiles, by their names in lower case.
std::map<std::string, GivenHeadend> entriesOf(const FilePlan& plan) {
  std::map<std::string, GivenHeadend> entries;
  ProfileMgr profiles;
  if (plan.sources.trustFiles) {
    profiles.trustFiles();
  }
  profiles.loadDirectory(plan.sources.profileDirectory);
  for (const auto& [name, host] : profiles.getHostProfileMap()) {
    const std::string address = host == nullptr ? "" : host->getHostAddress();
    entries.emplace(CStringUtils::toLower(name),
                    GivenHeadend(name, address.empty() ? name : address,
                                 host == nullptr ? ProbeHow{} : host->getHow()));
  }
  return entries;
}

// Drops repeated places: measuring a headend twice would only burden it.
std::string takeHosts(const std::vector<std::string>& typed, SelectPlan& plan) {
  std::vector<ListedHost> hosts;
  if (std::string error = listHosts(typed, hosts); !error.empty() || hosts.empty()) {
    return error;
  }
  const std::map<std::string, GivenHeadend> entries = entriesOf(plan);
  std::set<Place> seen;
  for (const auto& [text, where] : hosts) {
    const auto entry = entries.find(CStringUtils::toLower(text));
    const GivenHeadend given = entry != entries.end() ? entry->second : Wording::asHost(text);
    if (const std::string error = Wording::hostError(given.address); !error.empty()) {
      return where + error;
    }
    if (seen.insert(spotOf(given.address)).second) {
      plan.sources.headends.push_back(given);
    }
  }
  return "";
}

// The run knows a headend by its address as typed; a person may spell the last headend differently.
std::string findLast(const std::string& last, const std::vector<GivenHeadend>& headends) {
  const Place place = spotOf(Wording::asHost(last));
  for (const GivenHeadend& headend : headends) {
    if (!last.empty() && spotOf(headend.address) == place) {
      return headend.name;
    }
  }
  return last;
}

/// The preferences that -c and --timeout stand for.
std::vector<std::string> limitsOf(const MeasureOptions& options) {
  std::vector<std::string> settings;
  if (options.count) {
    settings.push_back("SelectionPingsPerHeadend=" + std::to_string(*options.count));
  }
  if (options.timeoutSeconds) {
    settings.push_back("SelectionPingTimeout=" + std::to_string(*options.timeoutSeconds) + "000");
  }
  return settings;
}

std::string takeCache(const SelectOptions& options, const DefaultPaths& paths, SelectPlan& plan) {
  if (options.noCache) {
    return "";
  }
  plan.sources.cacheDirectory = options.cacheDirectory.value_or(paths.cacheDirectory);
  const std::string error =
      options.cacheDirectory ? findDirectoryError(*options.cacheDirectory) : "";
  return error.empty() ? ""
                       : "the cache directory " + Console::inQuotes(*options.cacheDirectory) +
                             " cannot be used: " + error +
                             ". Create it, name another one with --cache-dir, or use --no-cache.";
}

const std::map<std::string, Logging::DebugImportance> LogLevels = {
    {"error", Logging::DBG_Error}, {"warning", Logging::DBG_Warning}, {"info", Logging::DBG_Info}};

CAppLog::Targets logOf(const SelectOptions& options) {
  CAppLog::Targets log;
  const std::string level = options.logLevel.value_or("info");
  log.off = level == "off" || !(options.logLevel || options.logFile || options.syslog);
  if (!log.off) {
    log.leastImportant = LogLevels.at(level);
    log.file = options.logFile.value_or("");
    log.syslog = options.syslog;
    log.terminal = !options.logFile && !options.syslog;
  }
  return log;
}

void noteMissingCache(const SelectOptions& options, const SelectPlan& plan) {
  if (plan.sources.cacheDirectory.empty() && !options.noCache) {
    Console::complain(
        "warning: neither HOME nor XDG_CACHE_HOME is set to an absolute path, HOME to one of a "
        "directory that is there, so the selection is not kept for the next time. Name a directory "
        "with --cache-dir, or say --no-cache.");
  }
}

}  // namespace

std::string makePlan(const SelectOptions& options, const DefaultPaths& paths, SelectPlan& plan,
                     std::vector<std::string>& problems) {
  plan.reason = parseReason(options.reason).value_or(0);
  plan.log = logOf(options);
  std::string error = makeProxyPlan(options.proxy, plan.proxy);
  plan.sources.preferences = plan.proxy.preferences;
  plan.secure = options.measure.secure;
  if (error.empty()) {
    error = takeMeasurePreferences(options.measure, limitsOf(options.measure),
                                   plan.sources.preferences);
  }
  if (error.empty()) {
    error = plan.way->take(options.measure);
  }
  if (error.empty()) {
    error = makeFilePlan(options, paths, plan, problems);
  }
  if (error.empty()) {
    error = takeHosts(options.hosts, plan);
  }
  takeProbeHow(options.measure, plan.sources);
  plan.isFresh = options.fresh;
  if (options.maxAge) {
    plan.maxAge = std::chrono::seconds(*options.maxAge);
  }
  plan.last = findLast(options.last.value_or(""), plan.sources.headends);
  return error.empty() ? takeCache(options, paths, plan) : error;
}

bool takePlan(const SelectOptions& options, const std::string& command, SelectPlan& plan,
              std::optional<Secret>& password) {
  std::vector<std::string> problems;
  std::string error = makePlan(options, defaultPaths(), plan, problems);
  if (error.empty()) {
    error = trustCertificates(options.measure);
  }
  if (!error.empty()) {
    Console::complainOfUsage(command, error, problems);
    return false;
  }
  noteMissingCache(options, plan);
  const std::string passwordError = readPassword(plan.proxy, password);
  if (!passwordError.empty()) {
    Console::complainOfUsage(command, passwordError);
    return false;
  }
  return true;
}

void addHostOptions(CLI::App& command, SelectOptions& options) {
  addOption(command, "HOST", "[HOST[:PORT]...]", options.hosts,
            "Hosts, or names of host entries, to measure in place of all profiles; @FILE and - "
            "(standard input) stand for "
            "those there, one a line");
  addFileOptions(command, options);
  addOption(
      command, "--last", "NAME", options.last,
      "The headend used last: a host entry in any letter case, or a host of the command line");
  constexpr MeasureLimits OfPreferences{100, 60};
  addMeasureOptions(command, options.measure, OfPreferences);
}

void addReasonOption(CLI::App& command, SelectOptions& options) {
  const std::string names = Wording::joined(reasonNames());
  addOption(command, "--reason", "NAME|0-5", options.reason,
            "Why a headend is wanted: " + names + " (or 0 to 5); connection unless given")
      ->check([](const std::string& text) {
        return parseReason(text) ? "" : Wording::errorAmong(text, reasonNames());
      });
}

void addProxyOptions(CLI::App& command, ProxyOptions& options) {
  CLI::Option* const proxy = addOption(
      command, "--proxy", "HOST[:PORT]", options.proxy,
      "Proxy of the test probe, whatever the preferences say; port 80 unless one is given");
  CLI::Option* const user = addOption(
      command, "--proxy-user", "NAME", options.user,
      "User name for a proxy that asks for a login; a missing password is asked for on the "
      "terminal");
  CLI::Option* const file = addOption(
      command, "--proxy-password-file", "FILE", options.passwordFile,
      "File with the password: a regular file of the user or of root that nobody else may read or "
      "write");
  CLI::Option* const descriptor = addOption(
      command, "--proxy-password-fd", "N", options.passwordDescriptor,
      "Descriptor that is open for reading (0, or 3 and above) to take the password from");
  command
      .add_flag("--no-proxy", options.noProxy,
                "No proxy for the test probe, whatever the preferences say")
      ->excludes(proxy, user, file, descriptor);
  file->needs(user)->excludes(descriptor);
  descriptor->needs(user);
  // Hidden: people try this option, and the answer says what to do instead.
  constexpr int AnyNumber = 1;
  command
      .add_option_function<std::string>(
          "--proxy-password",
          [](const std::string&) {
            throw CLI::ParseError(adviceForPassword(), CLI::ExitCodes::InvalidError);
          },
          "")
      ->expected(0, AnyNumber)
      ->group("");
}

void addCacheOptions(CLI::App& command, SelectOptions& options) {
  CLI::Option* const directory = addOption(command, "--cache-dir", "DIR", options.cacheDirectory,
                                           "Directory of the selection cache");
  CLI::Option* const fresh =
      command.add_flag("--fresh", options.fresh, "Measure anew, and remember that");
  CLI::Option* const age =
      addOption(command, "--max-age", "SECONDS", options.maxAge,
                "Measure anew unless a selection of at most this age is remembered")
          ->excludes(fresh);
  command.add_flag("--no-cache", options.noCache, "Measure anew and store nothing")
      ->excludes(directory, fresh, age);
}

void addLogOptions(CLI::App& command, SelectOptions& options) {
  addOption(command, "--log-level", "error|warning|info|off", options.logLevel,
            "Log what is at least as important, to standard error unless --log-file or --syslog is "
            "given; default: info with those two, else off")
      ->check(oneOf({"error", "warning", "info", "off"}));
  addOption(command, "--log-file", "FILE", options.logFile, "Log to a file, rotated at 4 MiB");
  command.add_flag("--syslog", options.syslog, "Log to the system's log");
}
