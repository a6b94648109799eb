// Checks what clients hand in before anything uses it. A refusal names the argument.

#include "capi/Arguments.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <map>

#include "vpn/Api/ConfigurationText.h"
#include "vpn/Api/ProxyChoice.h"
#include "vpn/Api/ProxyProviders.h"
#include "vpn/Common/Utility/URL.h"
#include "vpn/include/StringUtils.h"

namespace {

/// No structure of any version is larger; a size beyond it was never set.
constexpr std::size_t LargestStructure = 4096;

std::string textOf(const char* text) { return text == nullptr ? std::string() : text; }

std::string quoted(const std::string& text) { return "\"" + CStringUtils::printable(text) + "\""; }

std::string element(const char* array, std::size_t index) {
  return std::string(array) + "[" + std::to_string(index) + "]";
}

/// What the structures of version 1.0 had; clients of that version must keep working.
constexpr std::size_t LeastOptions = offsetof(ahs_options, log_context) + sizeof(void*);
constexpr std::size_t LeastRequest = offsetof(ahs_request, progress_context) + sizeof(void*);

/// Copies a structure. An earlier version's is shorter: the missing members stay as they are. A
/// later version's is longer, and accepted if the members unknown here are all zero.
template <typename Structure>
std::string takeStructure(const Structure* given, std::size_t least, Structure& copy,
                          const std::string& name) {
  if (given == nullptr) {
    return "";
  }
  const std::size_t size = given->size;
  if (size < least || size > LargestStructure) {
    return name + ".size is " + std::to_string(size) + ", but this structure has " +
           std::to_string(sizeof copy) + " bytes: begin with its _INIT macro";
  }
  const auto* const bytes = reinterpret_cast<const unsigned char*>(given);
  const std::size_t known = std::min(size, sizeof copy);
  if (std::any_of(bytes + known, bytes + size, [](unsigned char byte) { return byte != 0; })) {
    return name + ".size is larger than this version of the library, " AHS_VERSION
                  ", knows, and what it does not know is set: leave it out, or install a later one";
  }
  std::memcpy(&copy, given, known);
  return "";
}

std::string takeHeadends(const ahs_options& options, std::vector<GivenHeadend>& headends) {
  if (options.headends == nullptr && options.headend_count != 0) {
    return "options.headends is null, but headend_count is not 0";
  }
  std::map<std::string, std::size_t> names;
  for (std::size_t i = 0; i < options.headend_count; ++i) {
    const ahs_headend& given = options.headends[i];
    const std::string where = element("options.headends", i);
    if (given.address == nullptr) {
      return where + ".address is null";
    }
    const std::string address = given.address;
    const std::string error = URL::findError(address);
    if (!error.empty()) {
      return where + ".address " + quoted(address) + " is no address: " + error +
             " An address is host, host:port or a URL, an IPv6 address in brackets";
    }
    const std::string name = given.name == nullptr ? address : given.name;
    if (name.empty()) {
      return where + ".name is empty: null stands for the address";
    }
    if (ConfigurationText::oneLine(name, MaxHostNameLength) != name) {
      return where + ".name " + quoted(name) + " is longer than " +
             std::to_string(MaxHostNameLength) + " bytes, has control characters, or is not UTF-8";
    }
    const auto [known, isNew] = names.emplace(CStringUtils::toLower(name), i);
    if (!isNew) {
      return where + ": " + element("options.headends", known->second) + " has the name " +
             quoted(name) + " already; names are unique in any letter case";
    }
    headends.emplace_back(name, address);
  }
  return "";
}

std::string takePreferences(const ahs_options& options,
                            std::map<PreferenceId, std::string>& preferences) {
  if (options.preferences == nullptr && options.preference_count != 0) {
    return "options.preferences is null, but preference_count is not 0";
  }
  for (std::size_t i = 0; i < options.preference_count; ++i) {
    const ahs_preference& given = options.preferences[i];
    const std::string where = element("options.preferences", i);
    if (given.name == nullptr) {
      return where + ".name is null";
    }
    const PreferenceBase::Definition* definition = PreferenceBase::find(std::string(given.name));
    if (definition == nullptr) {
      return where + ": there is no preference " + quoted(given.name);
    }
    if (definition->id == EnableAutomaticServerSelection) {
      return where + ": " + given.name +
             " is each profile's own; headends that are given by code take part in any case";
    }
    const std::string error = given.value == nullptr
                                  ? "null is no value"
                                  : PreferenceBase::findError(*definition, given.value);
    if (!error.empty()) {
      return where + ": " + given.name + " is " + quoted(textOf(given.value)) + ", but " + error;
    }
    if (!preferences.emplace(definition->id, given.value).second) {
      return where + ": " + given.name + " is set twice";
    }
  }
  return "";
}

std::string takeProxy(const ahs_options& options,
                      std::map<PreferenceId, std::string>& preferences) {
  if (options.proxy == nullptr) {
    return "";
  }
  for (const PreferenceId id : {ProxySettings, ProxyHost, ProxyPort}) {
    if (preferences.contains(id)) {
      return "options.proxy and the preference " + std::string(PreferenceBase::find(id)->name) +
             " exclude each other: leave one out";
    }
  }
  if (*options.proxy == '\0') {
    preferences[ProxySettings] = PreferenceBase::ProxyNone;
    return "";
  }
  const std::string text = options.proxy;
  // Not quoted: the text before an @ may be a password.
  const std::string error = text.find('@') == std::string::npos
                                ? takeProxyChoice(text, preferences)
                                : "user name and password belong in the request.";
  return error.empty() ? "" : "options.proxy cannot be used: " + error;
}

Logging::DebugImportance importanceOf(uint32_t level) {
  constexpr Logging::DebugImportance Importances[] = {Logging::DBG_Error, Logging::DBG_Warning,
                                                      Logging::DBG_Info};
  return Importances[level];
}

std::string findLoginError(const ahs_request& request) {
  const bool hasUser = request.proxy_user != nullptr && *request.proxy_user != '\0';
  if (!hasUser && request.proxy_password != nullptr && *request.proxy_password != '\0') {
    return "request.proxy_password needs a proxy_user";
  }
  if (!hasUser && request.proxy_type == AHS_PROXY_KERBEROS) {
    return "request.proxy_user: a ticket needs a user name; any name will do";
  }
  if (hasUser && request.proxy_type == AHS_PROXY_NONE) {
    return "request.proxy_user: AHS_PROXY_NONE means that nobody logs in";
  }
  return "";
}

}  // namespace

bool StartPlan::isSame(const StartPlan& other) const {
  return sources == other.sources && log.file == other.log.file &&
         log.leastImportant == other.log.leastImportant &&
         ignoresEnvironment == other.ignoresEnvironment;
}

std::string takeOptions(const ahs_options* options, StartPlan& plan) {
  ahs_options given = AHS_OPTIONS_INIT;
  std::string error = takeStructure(options, LeastOptions, given, "options");
  if (error.empty() && given.log_level > AHS_LOG_INFO) {
    error = "options.log_level is " + std::to_string(given.log_level) +
            ", which is not one of ahs_log_level";
  }
  if (error.empty()) {
    error = takeHeadends(given, plan.sources.headends);
  }
  if (error.empty()) {
    error = takePreferences(given, plan.sources.preferences);
  }
  if (error.empty()) {
    error = takeProxy(given, plan.sources.preferences);
  }
  if (!error.empty()) {
    return error;
  }
  plan.sources.profileDirectory = textOf(given.profile_directory);
  plan.sources.userPreferencesFile = textOf(given.user_preferences_file);
  plan.sources.globalPreferencesFile = textOf(given.global_preferences_file);
  plan.sources.cacheDirectory = textOf(given.cache_directory);
  plan.log.file = textOf(given.log_file);
  plan.log.leastImportant = importanceOf(given.log_level);
  plan.onLog = given.on_log;
  plan.logContext = given.log_context;
  plan.ownLoop = given.own_loop != 0;
  plan.ignoresEnvironment = given.ignore_environment != 0;
  return "";
}

std::string takeRequest(const ahs_request* request, ahs_request& copy) {
  copy = AHS_REQUEST_INIT;
  std::string error = takeStructure(request, LeastRequest, copy, "request");
  if (error.empty() && copy.reason > AHS_REASON_DISCONNECT) {
    error = "request.reason is " + std::to_string(copy.reason) + ", which is not one of ahs_reason";
  }
  if (error.empty() && copy.proxy_type > AHS_PROXY_NONE) {
    error = "request.proxy_type is " + std::to_string(copy.proxy_type) +
            ", which is not one of ahs_proxy_type";
  }
  return error.empty() ? findLoginError(copy) : error;
}

std::unique_ptr<ProxyIfc> providerFor(const ahs_request& request, bool isSystemProxy) {
  using Secret = SecureString<std::string>;
  const std::string host = isSystemProxy ? CProxyProvider::SystemHost : "";
  if (request.proxy_user == nullptr || *request.proxy_user == '\0') {
    const bool isNeeded = isSystemProxy || request.proxy_type == AHS_PROXY_NONE;
    return isNeeded ? std::make_unique<CProxyProvider>(NoProxy, Secret(), Secret(), host) : nullptr;
  }
  static_assert(int{BasicProxy} == AHS_PROXY_BASIC && int{NTLMProxy} == AHS_PROXY_NTLM &&
                int{KerberosProxy} == AHS_PROXY_KERBEROS);
  const Secret password(request.proxy_password == nullptr ? "" : request.proxy_password);
  return std::make_unique<CProxyProvider>(static_cast<ProxyType>(request.proxy_type),
                                          Secret(request.proxy_user), password, host);
}
