#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/integration/running_program.h"
#include "tests/support/LoopbackSockets.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryDirectory.h"

namespace tests {

// Far enough apart to be told apart on a busy machine.
constexpr std::chrono::milliseconds Near{5};
constexpr std::chrono::milliseconds Far{300};

/// What a gateway answers unless it is told otherwise.
inline constexpr const char* Welcome =
    "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";

/// What a proxy answers that asks for a login.
inline constexpr const char* Challenge =
    "HTTP/1.1 407 Proxy Authentication Required\r\n"
    "Proxy-Authenticate: Basic realm=\"Scripted\"\r\nContent-Length: 0\r\nConnection: "
    "close\r\n\r\n";

/// A gateway on 127.0.0.1 that answers each request with the same text after a delay.
class Gateway {
 public:
  explicit Gateway(std::chrono::milliseconds delay, const std::string& answer = Welcome);

  std::string port() const { return std::to_string(m_server.port()); }
  std::string address() const { return "127.0.0.1:" + port(); }
  unsigned int requests() const { return m_server.accepted(); }

  /// Answers to requests that come from now on are as late as this. Any thread may call it.
  void setDelay(std::chrono::milliseconds delay) { m_delay = delay; }

 private:
  std::atomic<std::chrono::milliseconds> m_delay;
  ScriptedServer m_server;
};

/// That a text of several lines holds nothing that a terminal would obey.
void expectLegible(const std::string& text);

/// What a selection's object tells of a headend.
nlohmann::json resultOf(const nlohmann::json& object, const std::string& headend);

/// A user with a home directory of his own and preferences that make delays count.
class CommandTest : public testing::Test {
 protected:
  CommandTest();

  void writeFile(const std::string& name, const std::string& text) const;
  void writePreferences(const std::string& more) const;
  void writeProfile(const std::string& enabled, const std::string& hosts) const;
  static std::string preference(const std::string& name, const std::string& value);
  static std::string host(const std::string& name, const std::string& address);

  Outcome run(const std::vector<std::string>& arguments) const;
  /// The same with --json. @return the object, discarded if it is none.
  nlohmann::json runJson(std::vector<std::string> arguments, int exitStatus) const;

 private:
  const TemporaryDirectory m_directory;

 protected:
  const std::string home;
  std::vector<std::string> environment;
};

}  // namespace tests
