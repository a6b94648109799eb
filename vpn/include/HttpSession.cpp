// The proxy record of an HTTP request. It never gives memory back that still holds a credential.

#include "vpn/include/HttpSession.h"

#include "vpn/include/StringUtils.h"

PROXY_DATA::PROXY_DATA() : determineProxy(false) {}

PROXY_DATA::~PROXY_DATA() {
  CStringUtils::wipe(proxyUser);
  CStringUtils::wipe(proxyPswd);
}
