// One host entry of a profile: what its file says, and its address parsed.

#include "vpn/Api/HostProfile.h"

HostProfile::HostProfile(const std::string& profileName, const std::string& hostName,
                         const std::string& address, unsigned int line, const URL& url)
    : m_profileName(profileName),
      m_hostName(hostName),
      m_address(address),
      m_line(line),
      m_url(url) {}

HostProfile::~HostProfile() = default;

const std::string& HostProfile::getProfileName() const { return m_profileName; }

const std::string& HostProfile::getHostName() const { return m_hostName; }

unsigned int HostProfile::getLine() const { return m_line; }

const std::string& HostProfile::getHostAddress() const { return m_address; }
