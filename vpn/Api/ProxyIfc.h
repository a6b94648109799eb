#pragma once

/// @file
/// What a client implements to hand in a proxy and a login.

#include <cstddef>
#include <string>

/// How a proxy wants its users to prove who they are.
enum ProxyType {
  BasicProxy = 0,
  NTLMProxy = 1,
  KerberosProxy = 2,
  NoProxy = 3,
  ProxyTypeMax = 4,
};

/// A provider of a proxy and of the credentials for it, written by the client or taken ready-made
/// from `ProxyProviders.h`.
///
/// A selection run that is given a provider owns and deletes it. `getProxyType` is called from many
/// threads at once, also after the run's result has been delivered; the others on the run's thread.
/// What they throw ends the run with HEADENDSELECTION_ERROR_UNEXPECTED, or a worker without a
/// result.
class ProxyIfc {
 public:
  /// A credential in clear. Destruction overwrites its characters before their memory is released.
  class UnprotectedCredential {
   public:
    UnprotectedCredential() = default;
    /// A copy of its own, which is wiped by itself.
    UnprotectedCredential(const UnprotectedCredential& other) = default;
    /// Not explicit, so that a provider can return the string that it holds.
    UnprotectedCredential(const std::string& value) : m_tstrValue(value) {}
    ~UnprotectedCredential();

    /// Wipes the old value first. A null pointer stands for the empty text; it may point into this
    /// object's own text.
    /// @{
    UnprotectedCredential& operator=(const UnprotectedCredential& other);
    UnprotectedCredential& operator=(const char* value);
    /// @}

    /// The characters, as long as the object is not changed; copies are not wiped.
    /// @{
    const std::string& GetValue() const { return m_tstrValue; }
    const char* c_str() const { return m_tstrValue.c_str(); }
    /// @}
    /// How many bytes there are.
    /// @{
    std::size_t GetLength() const { return m_tstrValue.size(); }
    std::size_t length() const { return m_tstrValue.size(); }
    /// @}
    /// Whether there are none.
    bool empty() const { return m_tstrValue.empty(); }

    /// Appends, and wipes the buffer that it outgrows. A null pointer stands for the empty text.
    /// @{
    UnprotectedCredential& operator+=(const UnprotectedCredential& other);
    UnprotectedCredential& operator+=(const char* value);
    /// @}

   private:
    void append(const char* characters, std::size_t count);

    std::string m_tstrValue;
  };

  ProxyIfc() = default;
  virtual ~ProxyIfc() = default;
  ProxyIfc(const ProxyIfc&) = delete;
  ProxyIfc& operator=(const ProxyIfc&) = delete;

  /// The user name for the proxy; empty for none, then no credentials are used.
  virtual UnprotectedCredential getProxyUser() = 0;
  /// The password for the proxy.
  virtual UnprotectedCredential getProxyPswd() = 0;
  /// Host of the provider's own proxy; empty when it knows none.
  virtual std::string getProxyHost() = 0;
  /// How the proxy wants its users to prove who they are.
  virtual ProxyType getProxyType() = 0;
};
