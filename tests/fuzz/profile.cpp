// Profile files. Whatever the bytes, what is accepted can be used as it stands, what is not is told
// with file, line and column, and reading the same bytes again gives the same.

#include <string>
#include <vector>

#include "tests/fuzz/problems.h"
#include "tests/fuzz/require.h"
#include "vpn/Api/ProfileFile.h"
#include "vpn/Common/Utility/URL.h"

namespace {

using tests::isLegible;
using tests::textOf;

struct Reading {
  std::string file;
  bool usable = false;
  ProfileFile profile;
  std::vector<FileProblem> problems;
};

Reading read(const std::string& text) {
  Reading reading;
  reading.file = tests::fileOf(text);
  reading.usable = readConfigurationFile(reading.file, ConfigurationKind::Profile, reading.profile,
                                         reading.problems, FileTrust::Check::Waived);
  return reading;
}

std::string addressOf(const ProfileFile::Host& host) {
  return host.address.empty() ? host.name : host.address;
}

void requireUsable(const ProfileFile& profile) {
  REQUIRE(profile.hosts.size() <= MaxHostsPerFile);
  for (const ProfileFile::Host& host : profile.hosts) {
    REQUIRE(isLegible(host.name));
    REQUIRE(host.name.find_first_not_of(' ') != std::string::npos);
    REQUIRE(host.name.size() <= MaxHostNameLength);
    REQUIRE(URL::findError(addressOf(host)).empty());
    REQUIRE(!host.url.getHostAndPort(false).empty());
    REQUIRE(host.url.getHostAndPort(false) == URL(addressOf(host)).getHostAndPort(false));
  }
  for (const auto& [id, preference] : profile.preferences.all()) {
    const PreferenceBase::Definition& definition = *PreferenceBase::find(id);
    REQUIRE(id != ProxySettings && id != ProxyHost && id != ProxyPort);
    REQUIRE(definition.checkedByReader ||
            PreferenceBase::findError(definition, preference.getPreferenceValue()).empty());
  }
}

bool sameHosts(const ProfileFile& a, const ProfileFile& b) {
  bool same = a.hosts.size() == b.hosts.size();
  for (std::size_t i = 0; same && i < a.hosts.size(); ++i) {
    same = a.hosts[i].name == b.hosts[i].name && a.hosts[i].address == b.hosts[i].address &&
           a.hosts[i].line == b.hosts[i].line && a.hosts[i].column == b.hosts[i].column;
  }
  return same;
}

std::string asAttribute(const std::string& text) {
  std::string result;
  for (const char c : text) {
    const bool isPlain = static_cast<unsigned char>(c) > '>' || c == ' ';
    result +=
        isPlain ? std::string(1, c) : "&#" + std::to_string(static_cast<unsigned char>(c)) + ";";
  }
  return result;
}

/// A name is taken as it was written, or not at all.
void requireFaithful(const std::string& name) {
  const Reading reading = read("<profile version=\"1\"><hosts><host name=\"" + asAttribute(name) +
                               "\" address=\"gw\"/></hosts></profile>");
  const bool isPlain = tests::isPrintableAscii(name) && name.size() <= MaxHostNameLength &&
                       name.find_first_not_of(' ') != std::string::npos;
  REQUIRE(!isPlain || (reading.profile.hosts.size() == 1 && reading.problems.empty()));
  REQUIRE(reading.profile.hosts.empty() || reading.profile.hosts[0].name == name);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = textOf(data, size);
  const Reading reading = read(text);
  requireUsable(reading.profile);
  tests::requireHelpfulProblems(reading.problems, reading.file, text);
  REQUIRE(reading.usable || !reading.problems.empty());
  REQUIRE(reading.usable || reading.profile.hosts.empty());
  const Reading again = read(text);
  REQUIRE(again.usable == reading.usable);
  REQUIRE(sameHosts(again.profile, reading.profile));
  REQUIRE(tests::sameProblems(again.problems, reading.problems));
  requireFaithful(text.substr(0, 2 * MaxHostNameLength));
  return 0;
}
