#pragma once

#include <string>

#include "vpn/Common/IP/ProbeKind.h"
#include "vpn/Common/Utility/URL.h"

/// One host entry of a profile. Constant; any thread may read it.
class HostProfile {
 public:
  /// @param profileName name of the profile that holds the entry.
  /// @param hostName the entry's name, as a person picks it from a list.
  /// @param address where it is reached; may be empty.
  /// @param line line of the entry in its file, 0 if it comes from no file.
  /// @param url the address, else the name, parsed.
  HostProfile(const std::string& profileName, const std::string& hostName,
              const std::string& address, unsigned int line, const URL& url = {},
              const ProbeHow& how = {})
      : m_profileName(profileName),
        m_hostName(hostName),
        m_address(address),
        m_line(line),
        m_url(url),
        m_how(how) {}

  // The order of these four is part of the interface: name second, address fourth.

  /// What the entry was made with; the texts belong to it.
  /// @{
  virtual const std::string& getProfileName() const { return m_profileName; }
  virtual const std::string& getHostName() const { return m_hostName; }
  virtual unsigned int getLine() const { return m_line; }
  virtual const std::string& getHostAddress() const { return m_address; }
  const URL& getUrl() const { return m_url; }
  const ProbeHow& getHow() const { return m_how; }
  /// @}

  virtual ~HostProfile() = default;
  HostProfile(const HostProfile&) = delete;
  HostProfile& operator=(const HostProfile&) = delete;

 private:
  std::string m_profileName;
  std::string m_hostName;
  std::string m_address;
  unsigned int m_line;
  URL m_url;
  ProbeHow m_how;
};
