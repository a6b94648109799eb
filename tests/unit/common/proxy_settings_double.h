#pragma once

#include <functional>
#include <string>
#include <vector>

namespace tests {

/// The system's proxy settings in a test's hands: a program that links this asks the test and never
/// the machine. Without a script there is no proxy. Any thread may call anything.
class ProxySettingsDouble {
 public:
  /// Answers one question. What it throws means that the settings could not be asked.
  using Script = std::function<std::vector<std::string>(const std::string& url)>;

  /// Thrown by a script: no answer comes within the limit.
  struct Late {};

  /// Installs the script for the time of the object; there is one at a time.
  explicit ProxySettingsDouble(Script script);
  ~ProxySettingsDouble();
  ProxySettingsDouble(const ProxySettingsDouble&) = delete;
  ProxySettingsDouble& operator=(const ProxySettingsDouble&) = delete;

  /// The URLs that were asked for while it has been installed.
  static std::vector<std::string> Asked();
};

}  // namespace tests
