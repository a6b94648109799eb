#pragma once

#include <map>
#include <optional>
#include <string>

#include "cli/login/Credentials.h"
#include "vpn/Api/PreferenceMgr.h"

/// The options about the proxy as a person typed them, without a contradiction; an optional without
/// a value was not given.
struct ProxyOptions {
  std::optional<std::string> proxy;
  bool noProxy = false;
  std::optional<std::string> user;
  std::optional<std::string> passwordFile;
  std::optional<std::string> passwordDescriptor;
};

/// The same, checked.
struct ProxyPlan {
  std::map<PreferenceId, std::string> preferences;  ///< what the options choose; empty for nothing
  Secret user;                                      ///< empty for none
  /// Where the password is to be read; at most one has a value.
  std::optional<std::string> passwordFile;
  std::optional<int> passwordDescriptor;
};

/// What to do instead of giving a password as an argument, a sentence without its full stop.
std::string adviceForPassword();

/// Turns options into a plan; opens and reads nothing. What may hold a password is not repeated in
/// a message.
/// @return an empty string, or what is wrong and what to do.
std::string makeProxyPlan(const ProxyOptions& options, ProxyPlan& plan);

/// Reads the password that a plan names, if it names one.
/// @return an empty string, or what is wrong and what to do.
std::string readPassword(const ProxyPlan& plan, std::optional<Secret>& password);
