// The options about the proxy. A password typed in a wrong place is visible to every user of the
// machine; a message must not repeat it.

#include "cli/login/ProxyOptions.h"

#include <unistd.h>

#include <charconv>

#include "cli/Console.h"
#include "cli/Wording.h"
#include "vpn/Api/ProxyChoice.h"

namespace {

constexpr const char* WaysToGivePassword =
    "Put it into a file that you alone may read and name that with --proxy-password-file FILE, or "
    "hand it over with --proxy-password-fd N.";

std::string takeProxy(const std::string& text, std::map<PreferenceId, std::string>& preferences) {
  if (text.find('@') != std::string::npos) {
    return "--proxy takes no user name and password. Use --proxy-user NAME. For the password: " +
           std::string(WaysToGivePassword);
  }
  const std::string error = takeProxyChoice(Wording::asHost(text), preferences);
  return error.empty() ? "" : "the proxy '" + Console::visible(text) + "' cannot be used: " + error;
}

std::string takeUser(const std::string& text, Secret& user) {
  user = text;
  if (text.empty()) {
    return "--proxy-user needs a user name.";
  }
  if (text.size() > MostCredentialBytes) {
    return "--proxy-user: the user name is longer than " + std::to_string(MostCredentialBytes) +
           " bytes.";
  }
  const std::string error = findUserError(user);
  return error.empty()
             ? ""
             : "--proxy-user: " + error + " If a password follows the name: " + WaysToGivePassword;
}

std::string takeDescriptor(const std::string& text, std::optional<int>& descriptor) {
  int number = -1;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < 0 ||
      number == STDOUT_FILENO || number == STDERR_FILENO) {
    // The value is not repeated: it may be the password itself.
    return "--proxy-password-fd takes the number of a descriptor that is open for reading: 0, or 3 "
           "and above, as in '--proxy-password-fd 3 3<FILE'.";
  }
  descriptor = number;
  return "";
}

}  // namespace

std::string adviceForPassword() {
  return std::string(
             "a password is not taken as an argument, which every user of the machine can "
             "read. ") +
         WaysToGivePassword + " On a terminal it is asked for";
}

std::string makeProxyPlan(const ProxyOptions& options, ProxyPlan& plan) {
  std::string error;
  if (options.proxy) {
    error = takeProxy(*options.proxy, plan.preferences);
  }
  if (options.noProxy) {
    plan.preferences[ProxySettings] = PreferenceBase::ProxyNone;
  }
  if (error.empty() && options.user) {
    error = takeUser(*options.user, plan.user);
  }
  if (error.empty() && options.passwordDescriptor) {
    error = takeDescriptor(*options.passwordDescriptor, plan.passwordDescriptor);
  }
  plan.passwordFile = options.passwordFile;
  return error;
}

std::string readPassword(const ProxyPlan& plan, std::optional<Secret>& password) {
  if (!plan.passwordFile && !plan.passwordDescriptor) {
    return "";
  }
  keepMemoryPrivate();
  Secret read;
  std::string error = plan.passwordFile ? readPasswordFile(*plan.passwordFile, read)
                                        : readPasswordDescriptor(*plan.passwordDescriptor, read);
  if (error.empty()) {
    password = read;
  }
  return error;
}
