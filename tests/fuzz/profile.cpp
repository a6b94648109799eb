// Profile files. Whatever the bytes, what is accepted can be used as it stands, what is not is told
// with file, line and column, and reading the same bytes again gives the same.

#include <string>

#include "tests/fuzz/problems.h"
#include "tests/fuzz/require.h"
#include "vpn/Api/ProfileFile.h"
#include "vpn/Common/Utility/URL.h"

namespace {

using tests::isLegible;
using tests::requireReading;
using tests::textOf;

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
  const tests::Reading reading = requireReading(
      ConfigurationKind::Profile, "<profile version=\"1\"><hosts><host name=\"" +
                                      asAttribute(name) + "\" address=\"gw\"/></hosts></profile>");
  const bool isPlain = tests::isPrintableAscii(name) && name.size() <= MaxHostNameLength &&
                       name.find_first_not_of(' ') != std::string::npos;
  REQUIRE(!isPlain || (reading.contents.hosts.size() == 1 && reading.problems.empty()));
  REQUIRE(reading.contents.hosts.empty() || reading.contents.hosts[0].name == name);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = textOf(data, size);
  const tests::Reading reading = requireReading(ConfigurationKind::Profile, text);
  requireUsable(reading.contents);
  REQUIRE(reading.usable || reading.contents.hosts.empty());
  requireFaithful(text.substr(0, 2 * MaxHostNameLength));
  return 0;
}
