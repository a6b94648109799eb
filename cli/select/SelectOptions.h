#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/files/FileOptions.h"
#include "cli/files/MeasureOptions.h"
#include "cli/files/ProbeWay.h"
#include "cli/login/Credentials.h"
#include "cli/login/ProxyOptions.h"
#include "vpn/Common/Logging/AppLog.h"

namespace CLI {
class App;
}

/// Options of a selection as typed. An empty optional means that the option was not given.
struct SelectOptions : FileOptions {
  std::vector<std::string> hosts;
  std::optional<std::string> cacheDirectory;
  std::optional<std::string> last;
  std::string reason = "connection";
  std::optional<std::string> logLevel;
  std::optional<std::string> logFile;
  std::optional<std::string> html;
  std::optional<std::string> svg;
  bool noCache = false;
  bool fresh = false;
  std::optional<unsigned int> maxAge;
  bool quiet = false;
  bool csv = false;
  bool tsv = false;
  /// Set by commands that need the others no more once the first headend is decided.
  bool untilDecided = false;
  bool explain = false;
  bool syslog = false;
  ProxyOptions proxy;
  MeasureOptions measure;
};

/// Each adds options of a selection to a command: hosts, files, the last headend and the
/// measurement; the reason;
/// the proxy; the cache; the log.
void addHostOptions(CLI::App& command, SelectOptions& options);
void addReasonOption(CLI::App& command, SelectOptions& options);
void addProxyOptions(CLI::App& command, ProxyOptions& options);
void addCacheOptions(CLI::App& command, SelectOptions& options);
void addLogOptions(CLI::App& command, SelectOptions& options);

/// A selection's inputs, checked and complete.
struct SelectPlan : FilePlan {
  CAppLog::Targets log;
  unsigned int reason = 0;
  std::string last;
  /// Measures whatever is remembered, and remembers that.
  bool isFresh = false;
  std::optional<std::chrono::seconds> maxAge = {};
  /// `sources` holds the proxy too.
  ProxyPlan proxy;
  std::shared_ptr<ProbeWay> way = std::make_shared<ProbeWay>();
  bool secure = false;  ///< headends are measured over TLS
};

/// Turns options into a plan. Named files must exist; of these, only preferences files are read,
/// and must be well formed, because a person who names a file means it.
/// @param problems receives the mistakes in a preferences file, as "file:line: text".
/// @return an empty string, or what is wrong and what to do.
std::string makePlan(const SelectOptions& options, const DefaultPaths& paths, SelectPlan& plan,
                     std::vector<std::string>& problems);

/// Like `makePlan`; also prints what is wrong on standard error, and reads the password that the
/// options name.
/// @param command as a person calls it, for messages: "ahs select".
/// @return whether the plan can be carried out.
bool takePlan(const SelectOptions& options, const std::string& command, SelectPlan& plan,
              std::optional<Secret>& password);
