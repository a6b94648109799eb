#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "vpn/Api/Preference.h"
#include "vpn/Api/PreferenceMgr.h"

namespace CLI {
class App;
}

/// How headends are measured, as typed. An empty optional means that the option was not given.
struct MeasureOptions {
  std::optional<unsigned int> count;
  std::optional<unsigned int> timeoutSeconds;
  std::optional<std::string> roundTrip;
  std::vector<std::string> settings;  ///< each "NAME=VALUE"
  bool secure = false;
  std::optional<std::string> certificates;
  bool onlyIPv4 = false;
  bool onlyIPv6 = false;
  std::optional<std::string> probe;
  std::optional<unsigned short> probePort;
  std::optional<std::string> interface;
  std::optional<std::string> source;
};

/// The limits of probes that an option may ask for.
struct MeasureLimits {
  unsigned int count;
  unsigned int timeoutSeconds;
};

/// Adds -c, --timeout, --rtt, --set, --secure, --cacert, --probe, --probe-port, -4, -6, --interface
/// and --source.
void addMeasureOptions(CLI::App& command, MeasureOptions& options, MeasureLimits most);

/// Takes --probe and --probe-port.
void takeProbeHow(const MeasureOptions& options, PreferenceMgr::Sources& sources);

/// Adds the preferences that --rtt and --set name, and `more` like them.
/// @return an empty string, or what is wrong and what to do.
std::string takeMeasurePreferences(const MeasureOptions& options,
                                   const std::vector<std::string>& more,
                                   std::map<PreferenceId, std::string>& preferences);

/// Makes probes trust the certificates that the options or SSL_CERT_FILE name, from now on.
/// @return an empty string, or what is wrong and what to do.
std::string trustCertificates(const MeasureOptions& options);
