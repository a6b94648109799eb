#pragma once

#include <map>
#include <optional>
#include <string>

#include "cli/login/Credentials.h"
#include "vpn/Api/PreferenceMgr.h"

/// Proxy options as typed, free of contradictions. An empty optional means that the option was not
/// given.
struct ProxyOptions {
  std::optional<std::string> proxy;
  bool noProxy = false;
  std::optional<std::string> user;
  std::optional<std::string> passwordFile;
  std::optional<std::string> passwordDescriptor;
};

/// The options, checked.
struct ProxyPlan {
  std::map<PreferenceId, std::string> preferences;  ///< set by the options
  Secret user;                                      ///< empty for none
  /// Where to read the password; at most one of these has a value.
  std::optional<std::string> passwordFile;
  std::optional<int> passwordDescriptor;
};

/// How to give a password other than as an argument: a sentence without its full stop.
std::string adviceForPassword();

/// Turns options into a plan; opens and reads nothing. Messages repeat no value that may be a
/// password.
/// @return an empty string, or what is wrong and what to do.
std::string makeProxyPlan(const ProxyOptions& options, ProxyPlan& plan);

/// Reads the password that a plan names, if it names one.
/// @return an empty string, or what is wrong and what to do.
std::string readPassword(const ProxyPlan& plan, std::optional<Secret>& password);
