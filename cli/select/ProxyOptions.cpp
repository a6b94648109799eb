// The options about the proxy. Whoever types a password where none belongs has shown it to every
// user of the machine already; it is not shown once more in a message.

#include "cli/select/ProxyOptions.h"

#include <unistd.h>

#include <charconv>

#include "cli/Console.h"
#include "vpn/Common/Utility/URL.h"

namespace {

constexpr const char* WaysToGivePassword =
    "Put it into a file that you alone may read and name that with --proxy-password-file FILE, or "
    "hand it over with --proxy-password-fd N.";

std::string takeProxy(const std::string& text, PreferenceMgr::Sources::Proxy& proxy) {
  if (text.find('@') != std::string::npos) {
    return "--proxy takes no user name and password. Use --proxy-user NAME. For the password: " +
           std::string(WaysToGivePassword);
  }
  const URL url(text);
  std::string error = text.empty() ? "it is empty." : URL::findError(text);
  if (error.empty() && url.getProtocol() != URLPROTOCOL_NONE &&
      url.getProtocol() != URLPROTOCOL_HTTP) {
    error = "only proxies that are reached by plain HTTP can be used.";
  }
  if (error.empty() && !url.getLocation().empty() && url.getLocation() != "/") {
    error = "a proxy has no path.";
  }
  if (!error.empty()) {
    return "the proxy '" + Console::visible(text) + "' cannot be used: " + error +
           " A proxy is a name, an IPv4 address or an IPv6 address in brackets, with its port, "
           "which is 80 unless one is given: proxy.example.com:3128, 192.0.2.7:8080, "
           "[2001:db8::7]:3128.";
  }
  proxy.choice = PreferenceMgr::Sources::Proxy::Choice::Given;
  proxy.host = url.getHostFragment();
  proxy.port = url.getPort();
  return "";
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
    // Not repeated: it may be the password itself.
    return "--proxy-password-fd takes the number of a descriptor that is open for reading: 0, or 3 "
           "and above, as in '--proxy-password-fd 3 3<FILE'.";
  }
  descriptor = number;
  return "";
}

std::string findContradiction(const ProxyOptions& options) {
  if (options.passwordAsArgument) {
    return std::string(
               "a password is not taken as an argument, which every user of the machine "
               "can read. ") +
           WaysToGivePassword + " On a terminal it is asked for.";
  }
  if (options.proxy && options.noProxy) {
    return "--proxy and --no-proxy exclude each other: leave one out.";
  }
  if (options.passwordFile && options.passwordDescriptor) {
    return "--proxy-password-file and --proxy-password-fd exclude each other: leave one out.";
  }
  const bool givesPassword = options.passwordFile || options.passwordDescriptor;
  if (options.noProxy && (options.user || givesPassword)) {
    return "without a proxy there is nothing to log in to: leave out --no-proxy, or the options "
           "--proxy-user, --proxy-password-file and --proxy-password-fd.";
  }
  return givesPassword && !options.user
             ? "a password needs the name of its user: add --proxy-user NAME."
             : "";
}

}  // namespace

std::string makeProxyPlan(const ProxyOptions& options, ProxyPlan& plan) {
  std::string error = findContradiction(options);
  if (error.empty() && options.proxy) {
    error = takeProxy(*options.proxy, plan.proxy);
  }
  if (options.noProxy) {
    plan.proxy.choice = PreferenceMgr::Sources::Proxy::Choice::None;
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
