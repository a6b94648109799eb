#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/files/FileOptions.h"
#include "cli/files/MeasureOptions.h"
#include "cli/files/ProbeWay.h"
#include "vpn/Api/AHS/AHSSettings.h"
#include "vpn/Api/AHS/Candidates.h"

/// Options of `ahs probe` as typed. An empty optional means that the option was not given.
struct ProbeOptions : MeasureOptions {
  std::string host;
  unsigned int intervalSeconds = 0;
  bool json = false;
  FileOptions files;  ///< the places of profiles and preferences alone
};

/// What to probe and how, checked and complete.
struct ProbePlan {
  std::string headend;  ///< host, or host ":" port
  Place place;
  std::string entry;    ///< its host entry; empty for a host
  std::string profile;  ///< of the host entry
  std::string
      leftOut;  ///< why the host entry takes no part in automatic selection; empty if it does
  std::shared_ptr<ProbeWay> way = std::make_shared<ProbeWay>();
  bool secure = false;
  ProbeHow how;
  unsigned int count = 0;
  std::chrono::seconds timeout{0};              ///< of one probe
  std::chrono::seconds interval{0};             ///< from one probe's start to the next one's
  unsigned int selectionCount = 0;              ///< probes that a selection sends
  std::chrono::seconds selectionTimeout{0};     ///< of one probe of a selection
  std::chrono::milliseconds selectionLimit{0};  ///< time limit of a selection
  std::string measure = "auto";                 ///< which round trip a sample is
};

/// Turns options into a plan. The name of a host entry, in any letter case, takes precedence over a
/// host of the same name.
/// @param settings preferences in force, for options that were not given.
/// @return an empty string, or what is wrong and what to do.
std::string makeProbePlan(const ProbeOptions& options, const std::vector<HostEntry>& entries,
                          const HS_SETTINGS& settings, ProbePlan& plan);
