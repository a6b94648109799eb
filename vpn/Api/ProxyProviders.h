#pragma once

#include <string>

#include "vpn/Api/ProxyIfc.h"
#include "vpn/include/StringUtils.h"

/// A proxy provider whose values are fixed at construction.
///
/// Made with `new` and handed over with `CHeadendSelection::SetProxy`: the run owns it from then on
/// and deletes it, wiping the credentials. It is for one run. It never changes, so any thread may
/// call it. Its copies of the credentials end at the first NUL; wiping the caller's own is the
/// caller's part.
///
/// The proxy's host says where the proxy comes from: with one, the system's settings name the proxy
/// (the host itself is not contacted); without, the preferences do (`ProxySettings`). Credentials
/// are used only together with a user name: the test probe then goes through a tunnel to port 443.
/// They are given to the proxy by the scheme that it asks for, whatever the provider's type: the
/// strongest of Negotiate, NTLM and Basic that can be had. Every type but `NoProxy` has the
/// headends measured over TLS.
class CProxyProvider : public ProxyIfc {
 public:
  /// A host for who wants the system's proxy; which one it is does not matter.
  static constexpr const char* SystemHost = "system";

  /// @param type `BasicProxy` for a proxy that asks for a user and a password (RFC 7617), the
  ///        answer to HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED with a realm; `NTLMProxy` for a
  ///        domain's ("DOMAIN\user" or "user@domain"); `KerberosProxy` for one that accepts the
  ///        machine's ticket (RFC 4559), with any user name; `NoProxy` for one that asks for
  ///        nothing.
  /// @param user, pswd copied. For Kerberos the password is tried where there is no ticket.
  /// @param host of the system's proxy; empty: the preferences name the proxy.
  explicit CProxyProvider(ProxyType type, const SecureString<std::string>& user = {},
                          const SecureString<std::string>& pswd = {}, const std::string& host = {})
      : m_type(type), m_user(user), m_pswd(pswd), m_host(host) {}

  /// What the provider was made with.
  /// @{
  UnprotectedCredential getProxyUser() override { return credentialOf(m_user); }
  UnprotectedCredential getProxyPswd() override { return credentialOf(m_pswd); }
  std::string getProxyHost() override { return m_host; }
  ProxyType getProxyType() override { return m_type; }
  /// @}

 private:
  static UnprotectedCredential credentialOf(const SecureString<std::string>& secret) {
    // Not through a std::string, which would leave a copy that nobody wipes.
    UnprotectedCredential credential;
    credential = secret.c_str();
    return credential;
  }

  const ProxyType m_type;
  const SecureString<std::string> m_user;
  const SecureString<std::string> m_pswd;
  const std::string m_host;
};
