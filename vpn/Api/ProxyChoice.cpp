// A proxy as a person or a program names it. What comes out are values that the preferences allow.

#include "vpn/Api/ProxyChoice.h"

#include "vpn/Common/Utility/URL.h"

std::string takeProxyChoice(const std::string& text,
                            std::map<PreferenceId, std::string>& preferences) {
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
    return error +
           " A proxy is a name, an IPv4 address or an IPv6 address in brackets, with its port, "
           "which is 80 unless one is given: proxy.example.com:3128, 192.0.2.7:8080, "
           "[2001:db8::7]:3128.";
  }
  preferences[ProxySettings] = PreferenceBase::ProxyOverride;
  preferences[ProxyHost] = url.getHostFragment();
  preferences[ProxyPort] = url.getPort();
  return "";
}
