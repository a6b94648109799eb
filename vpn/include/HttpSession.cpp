// The proxy record of an HTTP request.

#include "vpn/include/HttpSession.h"

#include "vpn/include/StringUtils.h"

PROXY_DATA::PROXY_DATA() = default;

// Delegates, so that the destructor runs and wipes the copied part if memory runs out.
PROXY_DATA::PROXY_DATA(const PROXY_DATA& other) : PROXY_DATA() { *this = other; }

PROXY_DATA& PROXY_DATA::operator=(const PROXY_DATA& other) {
  if (this == &other) {
    return *this;
  }
  // Assignment to a string may give its old buffer back.
  CStringUtils::wipe(proxyUser);
  CStringUtils::wipe(proxyPswd);
  determineProxy = other.determineProxy;
  proxyServer = other.proxyServer;
  proxyUser = other.proxyUser;
  proxyPswd = other.proxyPswd;
  return *this;
}

PROXY_DATA::~PROXY_DATA() {
  CStringUtils::wipe(proxyUser);
  CStringUtils::wipe(proxyPswd);
}
