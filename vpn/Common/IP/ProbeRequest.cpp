// Turns what a probe is asked to do into something that can be sent. Hosts and proxies are
// untrusted texts: each must be a host or a proxy as a whole, so that no other part of a URL comes
// in.

#include "vpn/Common/IP/ProbeRequest.h"

#include <arpa/inet.h>
#include <curl/curl.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <string_view>
#include <vector>

#include "vpn/Common/IP/ProbeSettings.h"
#include "vpn/Common/IP/ProbeTask.h"
#include "vpn/Common/IP/SystemProxy.h"
#include "vpn/Common/Trust/Environment.h"
#include "vpn/Common/Utility/URL.h"
#include "vpn/Common/Utility/Utf8Locale.h"

namespace {

// libcurl refuses time-outs above INT_MAX milliseconds.
constexpr unsigned int MaxTimeoutSeconds = INT_MAX / 1000;

// The default of the scheme in "http://proxy".
constexpr std::string_view DefaultProxyPort = "80";

/// The host as it stands in a URL; empty if it is no host.
std::string checkedHost(const std::string& host) {
  const bool bareIPv6 = host.find(':') != std::string::npos && !host.starts_with('[');
  std::string text = bareIPv6 ? "[" + host + "]" : host;
  const std::size_t zoneAt = text.find('%');
  if (zoneAt != std::string::npos && text.compare(zoneAt, 3, "%25") != 0) {
    text.insert(zoneAt + 1, "25");
  }
  const URL url(text);
  // A text with more than a host, such as a port or a path, differs from its host fragment.
  return url.getHostFragment() == text ? text : std::string();
}

/// An international name as it is looked up and sent ("xn--..."); empty if it has no such form.
std::string inAscii(const std::string& host) {
  if (std::ranges::all_of(host, [](char c) { return static_cast<unsigned char>(c) < 128; })) {
    return host;
  }
  const Utf8Locale utf8;  // libcurl reads it in the thread's locale
  const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl_url(), curl_url_cleanup);
  char* text = nullptr;
  if (!url ||
      curl_url_set(url.get(), CURLUPART_URL, ("http://" + host + "/").c_str(), 0) != CURLUE_OK ||
      curl_url_get(url.get(), CURLUPART_HOST, &text, CURLU_PUNYCODE) != CURLUE_OK) {
    return {};
  }
  const std::unique_ptr<char, decltype(&curl_free)> owner(text, curl_free);
  return text;
}

/// "http=http://host:port" as libcurl takes it, "http://host:port"; empty if it is no proxy.
std::string checkedProxy(const std::string& setting) {
  constexpr std::string_view ForScheme = "http=";
  const std::size_t start = setting.starts_with(ForScheme) ? ForScheme.size() : 0;
  const URL url(setting.substr(start));
  const bool scheme =
      url.getProtocol() == URLPROTOCOL_HTTP || url.getProtocol() == URLPROTOCOL_NONE;
  if (!scheme || url.getHost().empty() ||
      (!url.getLocation().empty() && url.getLocation() != "/")) {
    return {};
  }
  return "http://" + url.getHostFragment() + ":" +
         (url.getPort().empty() ? std::string(DefaultProxyPort) : url.getPort());
}

/// Who decides on the system's proxy.
enum class SettledBy { Environment, System, Nobody };

bool isSet(const char* variable) { return Environment::get(variable) != nullptr; }

/// The environment, where it names a proxy that libcurl would take. The exceptions in no_proxy are
/// libcurl's to find; a host among them is measured as if there were a proxy. An environment that
/// names proxies, but none for this scheme, means that there is none: libproxy would take the other
/// scheme's, or HTTP_PROXY, which a web server's client can set (RFC 3875, section 4.1.18).
/// @param variable receives the one that names the proxy, where the environment decides.
SettledBy systemProxySettledBy(bool secure, const char*& variable) {
  for (const char* name : {secure ? "https_proxy" : "http_proxy", secure ? "HTTPS_PROXY" : ""}) {
    if (const char* const value = Environment::get(name); value != nullptr) {
      // libproxy understands these ways to ask for a proxy; libcurl does not.
      const std::string_view text = value;
      if (text.starts_with("pac+") || text.starts_with("wpad:")) {
        return SettledBy::System;
      }
      variable = name;
      return SettledBy::Environment;
    }
  }
  for (const char* name : {"all_proxy", "ALL_PROXY"}) {
    if (isSet(name)) {
      variable = name;
      return SettledBy::Environment;
    }
  }
  const bool namesOther =
      isSet("http_proxy") || isSet("HTTP_PROXY") || isSet("https_proxy") || isSet("HTTPS_PROXY");
  return namesOther ? SettledBy::Nobody : SettledBy::System;
}

/// Takes the first entry of the system's list that can be used: a proxy that speaks HTTP, or none.
CURLcode takeFirstUsable(const std::vector<std::string>& entries, std::string& proxy) {
  constexpr std::string_view Http = "http://";
  for (const std::string& entry : entries) {
    if (entry == "direct://") {
      return CURLE_OK;
    }
    if (entry.starts_with(Http)) {
      proxy = checkedProxy(entry);
      if (!proxy.empty()) {
        return CURLE_OK;
      }
    }
  }
  return CURLE_COULDNT_RESOLVE_PROXY;
}

std::string withoutControlCharacters(std::string text) {
  std::erase_if(text, [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 127; });
  return text;
}

}  // namespace

std::string ProbeTarget::url() const {
  return (secure ? "https://" : "http://") + host + ":" + std::to_string(port) + "/";
}

bool ProbeTarget::isAddress() const {
  in_addr address{};
  return host.starts_with('[') || inet_pton(AF_INET, host.c_str(), &address) == 1;
}

std::chrono::milliseconds ProbeRequest::timeLeft() const {
  return std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
}

bool ProbeRequest::needsName() const {
  const URL peer(proxy.empty() ? host : proxy);
  in_addr binary{};
  const bool isAddress = peer.getHost().find(':') != std::string::npos ||
                         inet_pton(AF_INET, peer.getHost().c_str(), &binary) == 1;
  return proxyVariable != nullptr || !isAddress;
}

unsigned int ProbeRequest::prepare(const std::string& toHost, const PROXY_DATA& proxyData) {
  if (!ProbeSettings::prepareTransport(secure)) {
    return CURLE_FAILED_INIT;
  }
  host = inAscii(checkedHost(toHost));
  if (host.empty()) {
    return CURLE_URL_MALFORMAT;
  }
  if (port == 0) {
    return CURLE_COULDNT_CONNECT;
  }
  userAgent = withoutControlCharacters(userAgent);
  credentials = &proxyData;
  timeout = std::chrono::seconds(std::clamp(timeoutSeconds, 1U, MaxTimeoutSeconds));
  deadline = start + timeout;
  if (proxyData.determineProxy) {
    return determineProxy();
  }
  if (!proxyData.proxyServer.empty()) {
    proxy = checkedProxy(proxyData.proxyServer);
    if (proxy.empty()) {
      return CURLE_COULDNT_RESOLVE_PROXY;
    }
  }
  return CURLE_OK;
}

unsigned int ProbeRequest::determineProxy() {
  const SettledBy settledBy = systemProxySettledBy(secure, proxyVariable);
  heedsExceptions = true;
  if (settledBy != SettledBy::System) {
    return CURLE_OK;
  }
  std::vector<std::string> entries;
  const int cancel = task != nullptr ? task->cancelDescriptor() : -1;
  const SystemProxy::Outcome outcome = SystemProxy::find(url(), timeLeft(), cancel, entries);
  if (outcome == SystemProxy::Outcome::Late || timeLeft().count() <= 0) {
    return CURLE_OPERATION_TIMEDOUT;
  }
  return outcome == SystemProxy::Outcome::Found ? takeFirstUsable(entries, proxy)
                                                : CURLE_COULDNT_RESOLVE_PROXY;
}
