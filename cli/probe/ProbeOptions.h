#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "cli/files/FileOptions.h"
#include "vpn/Api/AHS/AHSSettings.h"
#include "vpn/Api/AHS/Candidates.h"

/// The options of `ahs probe` as a person typed them; an optional without a value was not given.
struct ProbeOptions {
  std::string host;
  std::optional<unsigned int> count;
  std::optional<unsigned int> timeoutSeconds;
  bool secure = false;
  bool json = false;
  FileOptions files;  ///< the places of profiles and preferences alone
};

/// What is probed, and how: checked and complete.
struct ProbePlan {
  std::string headend;  ///< host, or host ":" port
  Place place;
  std::string entry;    ///< the host entry whose address that is; empty for a host
  std::string profile;  ///< of the host entry
  std::string
      leftOut;  ///< why the host entry takes no part in automatic selection; empty if it does
  bool secure = false;
  unsigned int count = 0;
  std::chrono::seconds timeout{0};              ///< of one probe
  unsigned int selectionCount = 0;              ///< probes that a selection sends
  std::chrono::seconds selectionTimeout{0};     ///< of one probe of a selection
  std::chrono::milliseconds selectionLimit{0};  ///< time limit of a selection
  bool isResponseMeasured = false;              ///< a sample is the time to the headend's answer
};

/// Turns options into a plan. The host may be the name of a host entry, in any letter case, which
/// goes before a host of that name.
/// @param settings in force: what the options leave open.
/// @return an empty string, or what is wrong and what to do.
std::string makeProbePlan(const ProbeOptions& options, const std::vector<HostEntry>& entries,
                          const HS_SETTINGS& settings, ProbePlan& plan);
