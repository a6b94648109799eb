// The options that say how a selection is made, the same for every command that makes one.

#include "cli/select/SelectionInputs.h"

#include <CLI/CLI.hpp>
#include <vector>

#include "cli/Console.h"
#include "cli/files/FileOptions.h"
#include "cli/show/Reasons.h"

namespace {

void noteMissingCache(const SelectOptions& options, const SelectPlan& plan) {
  if (plan.sources.cacheDirectory.empty() && !options.noCache) {
    Console::complain(
        "warning: neither HOME nor XDG_CACHE_HOME is set to an absolute path, so the selection is "
        "not kept for the next time. Name a directory with --cache-dir, or say --no-cache.");
  }
}

}  // namespace

bool takePlan(const SelectOptions& options, const std::string& command, SelectPlan& plan,
              std::optional<Secret>& password) {
  std::vector<std::string> problems;
  const std::string error = makePlan(options, defaultPaths(), plan, problems);
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
  command
      .add_option("HOST", options.hosts,
                  "Hosts to measure in place of all profiles: names, IPv4 addresses, IPv6 "
                  "addresses in brackets")
      ->option_text("[HOST[:PORT]...]");
  addFileOptions(command, options);
  command
      .add_option(
          "--last", options.last,
          "The headend used last: a host entry in any letter case, or a host of the command line")
      ->option_text("NAME");
}

void addReasonOption(CLI::App& command, SelectOptions& options) {
  command
      .add_option("--reason", options.reason,
                  "Why a headend is wanted: " + reasonNames() +
                      " (or 0 to 5); connection "
                      "unless given")
      ->option_text("NAME|0-5");
}

void addProxyOptions(CLI::App& command, ProxyOptions& options) {
  command
      .add_option(
          "--proxy", options.proxy,
          "Go through this proxy, whatever the preferences say; port 80 unless one is given")
      ->option_text("HOST[:PORT]");
  command.add_flag("--no-proxy", options.noProxy, "Go through none, whatever the preferences say");
  command
      .add_option("--proxy-user", options.user,
                  "User name for a proxy that asks for a login; without a password it is asked for "
                  "on the terminal")
      ->option_text("NAME");
  command
      .add_option("--proxy-password-file", options.passwordFile,
                  "File with the password: a regular file of the user or of root that nobody else "
                  "may read or write")
      ->option_text("FILE");
  command
      .add_option(
          "--proxy-password-fd", options.passwordDescriptor,
          "Descriptor that is open for reading (0, or 3 and above) to take the password from")
      ->option_text("N");
  // Not offered, but tried; the answer says what to do instead.
  constexpr int AnyNumber = 1;
  command
      .add_option_function<std::string>(
          "--proxy-password", [&options](const std::string&) { options.passwordAsArgument = true; },
          "")
      ->expected(0, AnyNumber)
      ->group("");
}

void addCacheOptions(CLI::App& command, SelectOptions& options) {
  command.add_option("--cache-dir", options.cacheDirectory, "Directory of the selection cache")
      ->option_text("DIR");
  command.add_flag("--no-cache", options.noCache, "Measure anew and store nothing");
}

void addLogOptions(CLI::App& command, SelectOptions& options) {
  command
      .add_option("--log-level", options.logLevel,
                  "Least important message that is logged, to standard error unless another "
                  "target is named; info unless given where one is, else there is no log")
      ->option_text("error|warning|info|off");
  command.add_option("--log-file", options.logFile, "Log to a file, rotated at 4 MiB")
      ->option_text("FILE");
  command.add_flag("--syslog", options.syslog, "Log to the system's log");
}
