// What tests of the command share: gateways on the loopback interface, where the network takes no
// time, so that distances are made by answers that come late, and a user who measures those.

#include "tests/integration/command_test.h"

#include <algorithm>
#include <filesystem>

namespace tests {

Gateway::Gateway(std::chrono::milliseconds delay, const std::string& answer)
    : m_delay(delay), m_server([this, answer](Connection& connection) {
        connection.readHead();
        connection.wait(m_delay);
        connection.send(answer);
        connection.drain();
      }) {}

void expectLegible(const std::string& text) {
  EXPECT_TRUE(std::ranges::none_of(text, [](char c) {
    return (static_cast<unsigned char>(c) < ' ' && c != '\n') || c == 127;
  })) << text;
}

nlohmann::json resultOf(const nlohmann::json& object, const std::string& headend) {
  for (const nlohmann::json& result : object.value("results", nlohmann::json::array())) {
    if (result.at("headend") == headend) {
      return result;
    }
  }
  ADD_FAILURE() << headend << " is missing in " << object.dump();
  return {{"outcome", ""}, {"metricMs", nullptr}, {"probes", nlohmann::json::array()}};
}

CommandTest::CommandTest()
    : home(m_directory.Path()),
      environment({"HOME=" + home, "TERM=xterm", "PATH=/usr/sbin:/usr/bin:/sbin:/bin"}) {
  writePreferences("");
}

void CommandTest::writeFile(const std::string& name, const std::string& text) const {
  const std::filesystem::path file = home + "/" + name;
  std::filesystem::create_directories(file.parent_path());
  static_cast<void>(m_directory.Write(name, text));
  // Whatever the umask, nobody else may have written it.
  using std::filesystem::perms;
  for (std::filesystem::path place = file; place != home; place = place.parent_path()) {
    std::filesystem::permissions(place, perms::group_write | perms::others_write,
                                 std::filesystem::perm_options::remove);
  }
}

void CommandTest::writePreferences(const std::string& more) const {
  writeFile(".config/ahs/preferences.xml",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<preferences version=\"1\">\n" +
                preference("RoundTripTime", "response") + more + "</preferences>\n");
}

void CommandTest::writeProfile(const std::string& enabled, const std::string& hosts) const {
  writeFile(".config/ahs/profiles/office.xml",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<profile version=\"1\">\n<preferences>\n"
            "<preference name=\"EnableAutomaticServerSelection\" value=\"" +
                enabled + "\" user-controllable=\"false\"/>\n</preferences>\n<hosts>\n" + hosts +
                "</hosts>\n</profile>\n");
}

std::string CommandTest::preference(const std::string& name, const std::string& value) {
  return "  <preference name=\"" + name + "\" value=\"" + value + "\"/>\n";
}

std::string CommandTest::host(const std::string& name, const std::string& address) {
  return "<host name=\"" + name + "\" address=\"" + address + "\"/>\n";
}

Outcome CommandTest::run(const std::vector<std::string>& arguments) const {
  return Program(arguments, environment).finish();
}

nlohmann::json CommandTest::runJson(std::vector<std::string> arguments, int exitStatus) const {
  arguments.emplace_back("--json");
  const Outcome outcome = run(arguments);
  EXPECT_EQ(outcome.exitStatus, exitStatus) << outcome.err;
  return nlohmann::json::parse(outcome.out, nullptr, false);
}

}  // namespace tests
