#pragma once

#include <functional>
#include <string>
#include <vector>

namespace tests {

/// libproxy in a test's hands: a program that links this asks the test and never the machine.
/// Without a script there is no proxy. Any thread may call anything.
class ProxySettingsDouble {
 public:
  /// Answers one question. What it throws goes through libproxy's interface.
  using Script = std::function<std::vector<std::string>(const std::string& url)>;

  /// Thrown by a script: libproxy gives no list.
  struct NoList {};

  /// Installs the script for the time of the object; there is one at a time.
  explicit ProxySettingsDouble(Script script);
  ~ProxySettingsDouble();
  ProxySettingsDouble(const ProxySettingsDouble&) = delete;
  ProxySettingsDouble& operator=(const ProxySettingsDouble&) = delete;

  /// The URLs that were asked for while it has been installed.
  static std::vector<std::string> Asked();

  /// Whether making a factory, libproxy's object, throws from now on.
  static void FailToMake(bool fail);
  /// Factories made by the process.
  static unsigned int Made();
  /// Factories in which more than one thread has asked at once; those freed.
  static unsigned int Misused();
  /// Lists given back that still held a character of theirs.
  static unsigned int GivenBackUnwiped();
};

}  // namespace tests
