// The ready-made proxy provider. The credentials lie in wiping holders from construction to
// destruction and leave them only as wiping copies.

#include "vpn/Api/ProxyProviders.h"

CProxyProvider::CProxyProvider(ProxyType type, const SecureString<std::string>& user,
                               const SecureString<std::string>& pswd, const std::string& host)
    : m_type(type), m_user(user), m_pswd(pswd), m_host(host) {}

CProxyProvider::~CProxyProvider() = default;

ProxyIfc::UnprotectedCredential CProxyProvider::getProxyUser() {
  // Not by way of a std::string, which would be a copy that nobody wipes.
  UnprotectedCredential user;
  user = m_user.c_str();
  return user;
}

ProxyIfc::UnprotectedCredential CProxyProvider::getProxyPswd() {
  UnprotectedCredential pswd;
  pswd = m_pswd.c_str();
  return pswd;
}

std::string CProxyProvider::getProxyHost() { return m_host; }

ProxyType CProxyProvider::getProxyType() { return m_type; }
