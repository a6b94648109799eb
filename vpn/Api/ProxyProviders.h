#pragma once

#include <string>

#include "vpn/Api/ProxyIfc.h"
#include "vpn/include/StringUtils.h"

/// A proxy provider that is told everything when it is made. Made as one of the classes below.
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
/// gateways measured over TLS.
class CProxyProvider : public ProxyIfc {
 public:
  /// A host for who wants the system's proxy; which one it is does not matter.
  static constexpr const char* SystemHost = "system";

  ~CProxyProvider() override;

  /// What the provider was made with.
  /// @{
  UnprotectedCredential getProxyUser() override;
  UnprotectedCredential getProxyPswd() override;
  std::string getProxyHost() override;
  ProxyType getProxyType() override;
  /// @}

 protected:
  /// For the classes below: copies what it is told.
  CProxyProvider(ProxyType type, const SecureString<std::string>& user,
                 const SecureString<std::string>& pswd, const std::string& host);

 private:
  const ProxyType m_type;
  const SecureString<std::string> m_user;
  const SecureString<std::string> m_pswd;
  const std::string m_host;
};

/// For a proxy that asks for a user name and a password (RFC 7617): the answer to
/// HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED with a realm.
class CBasicProxyProvider : public CProxyProvider {
 public:
  /// @param user, pswd copied; the caller's own are the caller's to wipe.
  /// @param host of the system's proxy; empty: the preferences name the proxy.
  CBasicProxyProvider(const SecureString<std::string>& user, const SecureString<std::string>& pswd,
                      const std::string& host = {});
};

/// For a proxy that asks for a domain's user and password by challenge and response. The password
/// does not leave the machine. The user is "user", "DOMAIN\user" or "user@domain".
class CNtlmProxyProvider : public CProxyProvider {
 public:
  /// @param user, pswd copied; the caller's own are the caller's to wipe.
  /// @param host of the system's proxy; empty: the preferences name the proxy.
  CNtlmProxyProvider(const SecureString<std::string>& user, const SecureString<std::string>& pswd,
                     const std::string& host = {});
};

/// For a proxy that accepts the machine's Kerberos ticket (Negotiate, RFC 4559), which is taken
/// from the user's ticket cache. Without a user name no ticket is used; which name it is does not
/// matter. Without a password nothing but the ticket is tried.
class CKerberosProxyProvider : public CProxyProvider {
 public:
  /// @param user any name. @param pswd tried where there is no ticket; empty for none.
  /// @param host of the system's proxy; empty: the preferences name the proxy.
  explicit CKerberosProxyProvider(const SecureString<std::string>& user,
                                  const SecureString<std::string>& pswd = {},
                                  const std::string& host = {});
};

/// For a proxy that asks for nothing. Without a host it does what no provider does.
class CNoProxyProvider : public CProxyProvider {
 public:
  /// @param host of the system's proxy; empty: as without a provider.
  explicit CNoProxyProvider(const std::string& host = {});
};
