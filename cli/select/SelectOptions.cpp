// From typed options to a checked plan. Everything that a person can get wrong on the command line
// is found here, before anything is started, so that a wrong option never costs a measurement.

#include "cli/select/SelectOptions.h"

#include <set>

#include "cli/Console.h"
#include "cli/show/Reasons.h"
#include "vpn/Common/Utility/URL.h"
#include "vpn/include/StringUtils.h"

namespace {

// A headend measured twice would only keep itself busy, so a name that comes again is dropped.
std::string takeHosts(const std::vector<std::string>& hosts, std::vector<GivenHeadend>& headends) {
  std::set<std::string> seen;
  for (const std::string& host : hosts) {
    const std::string error = host.empty() ? "it is empty." : URL::findError(host);
    if (!error.empty()) {
      return "the host " + Console::inQuotes(host) + " cannot be used: " + error +
             " A host is a name, an IPv4 address or an IPv6 address in brackets, with an optional "
             "port: gw.example.com, 192.0.2.7:8443, [2001:db8::7].";
    }
    if (seen.insert(CStringUtils::toLower(URL(host).getHostAndPort(false))).second) {
      headends.emplace_back(host);
    }
  }
  return "";
}

// The run knows a headend by the name of its entry, which is the address as it was typed; a person
// may name the last one in another spelling of the same place.
std::string findLast(const std::string& last, const std::vector<GivenHeadend>& headends) {
  const std::string place = CStringUtils::toLower(URL(last).getHostAndPort(false));
  for (const GivenHeadend& headend : headends) {
    if (CStringUtils::toLower(URL(headend.address).getHostAndPort(false)) == place) {
      return headend.name;
    }
  }
  return last;
}

std::string takeCache(const SelectOptions& options, const DefaultPaths& paths, SelectPlan& plan) {
  if (options.noCache) {
    return options.cacheDirectory ? "--cache-dir and --no-cache exclude each other: leave one out."
                                  : "";
  }
  std::string directory = paths.cacheDirectory;
  if (options.cacheDirectory) {
    directory = *options.cacheDirectory;
    const std::string error = findDirectoryError(directory);
    if (!error.empty()) {
      return "the cache directory " + Console::inQuotes(directory) + " cannot be used: " + error +
             ". Create it, name another one with --cache-dir, or use --no-cache.";
    }
  }
  plan.sources.cacheDirectory = directory;
  return "";
}

std::string takeLog(const SelectOptions& options, CAppLog::Targets& log) {
  const std::string level = options.logLevel.value_or("info");
  if (level == "error") {
    log.leastImportant = Logging::DBG_Error;
  } else if (level == "warning") {
    log.leastImportant = Logging::DBG_Warning;
  } else if (level == "info") {
    log.leastImportant = Logging::DBG_Info;
  } else if (level != "off") {
    return "there is no log level " + Console::inQuotes(level) +
           ". Use error, warning, info or off.";
  }
  if (options.logFile && options.logFile->empty()) {
    return "--log-file needs the name of a file.";
  }
  log.file = options.logFile.value_or("");
  log.syslog = options.syslog;
  log.terminal = options.logLevel && log.file.empty() && !log.syslog && level != "off";
  log.off = level == "off" || (log.file.empty() && !log.syslog && !log.terminal);
  if (log.off) {
    log.file.clear();
    log.syslog = false;
  }
  return "";
}

}  // namespace

std::string makePlan(const SelectOptions& options, const DefaultPaths& paths, SelectPlan& plan,
                     std::vector<std::string>& problems) {
  if (options.json && options.quiet) {
    return "--json and --quiet exclude each other: leave one out.";
  }
  if (options.explain && (options.json || options.quiet)) {
    return std::string("--explain and ") + (options.json ? "--json" : "--quiet") +
           " exclude each other: leave one out" +
           (options.json ? "; the JSON object holds the decision in any case." : ".");
  }
  for (const auto& [option, file] : {std::pair("--html", options.html), {"--svg", options.svg}}) {
    if (file && file->empty()) {
      return std::string(option) + " needs the name of a file.";
    }
  }
  const std::optional<unsigned int> reason = parseReason(options.reason.value_or("connection"));
  if (!reason) {
    return "there is no reason " + Console::inQuotes(*options.reason) + ". Use one of " +
           reasonNames() + ", or its number from 0 to 5.";
  }
  plan.reason = *reason;
  std::string error = takeLog(options, plan.log);
  if (error.empty()) {
    error = makeProxyPlan(options.proxy, plan.proxy);
    plan.sources.preferences = plan.proxy.preferences;
  }
  if (error.empty()) {
    error = takeHosts(options.hosts, plan.sources.headends);
  }
  plan.last = findLast(options.last.value_or(""), plan.sources.headends);
  if (error.empty()) {
    error = takeCache(options, paths, plan);
  }
  return error.empty() ? makeFilePlan(options, paths, plan, problems) : error;
}
