// Facts about the build, and versions of the libraries: those of the headers at compile time, and
// those of the running libraries where they tell and differ.

#include "cli/BuildFacts.h"

#include <curl/curl.h>
#include <libxml/xmlversion.h>
#include <openssl/crypto.h>
#include <openssl/opensslv.h>
#include <spdlog/version.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "cli/BuildCommit.h"
#include "cli/Json.h"

namespace {

// The version of both file formats. The schemas allow only this one.
constexpr int ProfileVersion = 1;

struct Library {
  std::string name;
  std::string built;
  std::optional<std::string> running;  // empty if the library does not tell
  std::string with;                    // its back end, if it has a choice
};

std::string dotted(int major, int minor, int patch) {
  return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch);
}

std::vector<Library> libraries() {
  const curl_version_info_data* const curl = curl_version_info(CURLVERSION_NOW);
  return {
      {"libcurl", LIBCURL_VERSION, curl->version,
       curl->ssl_version != nullptr ? curl->ssl_version : ""},
      {"OpenSSL", OPENSSL_VERSION_STR, OpenSSL_version(OPENSSL_VERSION_STRING), ""},
      {"libxml2", LIBXML_DOTTED_VERSION, std::nullopt, ""},
      {"spdlog", dotted(SPDLOG_VER_MAJOR, SPDLOG_VER_MINOR, SPDLOG_VER_PATCH), std::nullopt, ""},
      {"libproxy", AHS_LIBPROXY_VERSION, std::nullopt, ""},
  };
}

std::string compiler() {
#if defined(__clang__)
  return "clang " + dotted(__clang_major__, __clang_minor__, __clang_patchlevel__);
#else
  return "g++ " + dotted(__GNUC__, __GNUC_MINOR__, __GNUC_PATCHLEVEL__);
#endif
}

std::string standardLibrary() {
  return "libstdc++ " + std::to_string(_GLIBCXX_RELEASE) + " (" + std::to_string(__GLIBCXX__) + ")";
}

std::string orNone(const char* text) { return *text == '\0' ? "none" : text; }

std::string line(std::string name, const std::string& value) {
  constexpr std::size_t ColumnWidth = 12;
  name += ":";
  name.resize(std::max(name.size() + 1, ColumnWidth), ' ');
  return name + value + "\n";
}

std::string describe(const Library& library) {
  std::string text = library.built;
  if (library.running && *library.running != library.built) {
    text += ", running with " + *library.running;
  }
  return library.with.empty() ? text : text + " (" + library.with + ")";
}

}  // namespace

std::string BuildFacts::asText() {
  std::string text = "ahs " AHS_VERSION "\n";
  const std::string commit = AHS_BUILD_COMMIT;
  if (!commit.empty()) {
    text += line("commit", commit);
  }
  text += line("build", orNone(AHS_BUILD_TYPE));
  text += line("compiler", compiler() + ", " + standardLibrary());
  text += line("sanitizer", orNone(AHS_SANITIZER));
  for (const Library& library : libraries()) {
    text += line(library.name, describe(library));
  }
  return text + line("formats", "profile and preferences " + std::to_string(ProfileVersion) +
                                    ", JSON " + std::to_string(JsonSchema));
}

std::string BuildFacts::asJson() {
  Json facts = newJson();
  facts["version"] = AHS_VERSION;
  facts["commit"] = orNull(AHS_BUILD_COMMIT);
  facts["buildType"] = AHS_BUILD_TYPE;
  facts["compiler"] = compiler();
  facts["standardLibrary"] = standardLibrary();
  facts["sanitizer"] = orNull(AHS_SANITIZER);
  facts["libraries"] = Json::array();
  for (const Library& library : libraries()) {
    facts["libraries"].push_back({{"name", library.name},
                                  {"built", library.built},
                                  {"running", orNull(library.running)},
                                  {"with", orNull(library.with)}});
  }
  facts["formats"] = {{"profile", ProfileVersion}, {"json", JsonSchema}};
  return jsonText(facts);
}
