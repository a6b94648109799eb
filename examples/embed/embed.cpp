// A VPN client's part in a selection, in full: bring the library up, start a run, be called back.
// Usage: embed PROFILE-DIRECTORY [PROXY-USER], the password of the user on standard input.

#include <cstdio>
#include <iostream>
#include <thread>

#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Api/ClientLibrary.h"
#include "vpn/Api/ProxyProviders.h"

// [README]
struct Client : ClientIfcBase {
  // Success is 0, from the cache, and HEADENDSELECTION_ERROR_ADDED_TO_CACHE, measured now.
  void AHSSelectedHost(unsigned int, const std::vector<std::string>& headends, long status,
                       const std::string& realm) override {
    std::printf("%s: %s%s\n", statusCodeName(status), headends.empty() ? "-" : headends[0].c_str(),
                CStringUtils::printable(realm).c_str());
  }
};

void selectOnce(Client& client, ProxyIfc* provider) {
  long status = 0;
  auto* run = new CHeadendSelection(&client, "name of the last headend", 0 /*connection*/, status);
  run->SetProxy(provider);  // the run's from here on; null for none
  if (status != 0) return delete run;
  std::thread([run] { run->run(); }).join();  // calls the client, then deletes itself
}
// [README]

ProxyIfc* providerFor(const char* user) {
  std::string typed;
  std::getline(std::cin, typed);
  const SecureString<std::string> password(typed);
  CStringUtils::wipe(typed);
  return new CBasicProxyProvider(user, password);
}

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: embed PROFILE-DIRECTORY [PROXY-USER]\n");
    return 2;
  }
  CClientLibrary::Options options;
  options.sources.profileDirectory = argv[1];
  options.log.terminal = true;
  options.log.leastImportant = Logging::DBG_Warning;
  STATUSCODE status = 0;
  const CClientLibrary library(options, status);
  if (status != 0) {
    std::fprintf(stderr, "embed: the library does not start: %s\n", statusCodeName(status));
    return 2;
  }
  Client client;
  selectOnce(client, argc > 2 ? providerFor(argv[2]) : nullptr);
  return 0;
}
