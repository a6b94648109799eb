#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "vpn/Api/Preference.h"
#include "vpn/include/StatusCode.h"

class ProfileMgr;

namespace doubles {

/// The preferences and profiles of a test. Written by the test before the run, read by the run.
struct PreferenceScript {
  struct Profile {
    std::string name;
    std::optional<std::string> automaticSelection = PreferenceBase::PreferenceEnabled;
    bool userControllable = false;
  };
  struct Host {
    std::string name;
    std::string address;
    std::string profile;
    bool isNull = false;  ///< the map holds a null pointer for it
  };

  void reset();
  /// One profile in which automatic selection is on; an address is also its entry's name.
  void useAddresses(const std::vector<std::string>& addresses);

  /// Changes the profile manager that was handed out last, while somebody uses it.
  /// @{
  void forgetAllProfilesBut(const std::string& name) const;
  void forgetAllHostsBut(const std::string& name) const;
  /// @}

  bool hasInstance = true;
  STATUSCODE profileMgrStatus = 0;
  std::vector<Profile> profiles;
  std::vector<Host> hosts;
  STATUSCODE valueStatus = 0;
  std::string proxySettings = PreferenceBase::ProxySystem;
  STATUSCODE fileStatus = 0;
  std::string proxyHost;
  std::string proxyPort;
  std::function<void()> whenAskedForAProfile;  ///< by the name of a host entry

  ProfileMgr* handedOut = nullptr;
  int acquired = 0;
  int released = 0;
  std::vector<PreferenceId> valuesAsked;
  std::vector<PreferenceScope> filesAsked;
};

/// The script that holds for the calling thread, from the program.
PreferenceScript& preferences();

}  // namespace doubles
