#pragma once

#include <atomic>
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

  /// Of the whole process.
  struct Factories {
    std::atomic<bool> failToMake{false};  ///< making one, libproxy's object, throws
    std::atomic<unsigned int> made{0};
    std::atomic<unsigned int> misused{0};  ///< asked by more than one thread at once, or freed
    std::atomic<unsigned int> unwiped{0};  ///< lists given back with a character of theirs
  };
  static Factories& factories();
};

}  // namespace tests
