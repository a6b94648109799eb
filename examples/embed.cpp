// A VPN client's part in a selection, in full: bring the library up, start a run, be called back.
// A proxy that asks for a log-in gets one from the terminal. Usage: embed [PROFILE-DIRECTORY]

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <thread>

#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Api/ClientLibrary.h"
#include "vpn/Api/ProxyProviders.h"

// [README]
struct Client : ClientIfcBase {
  void AHSSelectedHost(unsigned int, const std::vector<std::string>& headends, long status,
                       const std::string&) override {
    std::printf("%s: %s\n", statusCodeName(status), headends.empty() ? "-" : headends[0].c_str());
  }
};

void selectOnce(Client& client) {
  long status = 0;
  auto* run = new CHeadendSelection(&client, "name of the last headend", 0 /*connection*/, status);
  if (status != 0) return delete run;
  std::thread([run] { run->run(); }).join();  // calls the client, then deletes itself
}
// [README]

/// Hears that a proxy wants a log-in.
struct AskingClient : Client {
  void AHSSelectedHost(unsigned int reason, const std::vector<std::string>& headends, long status,
                       const std::string& extraInfo) override {
    proxyAsks = status == HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED;
    realm = extraInfo;
    Client::AHSSelectedHost(reason, headends, status, extraInfo);
  }
  bool proxyAsks = false;
  std::string realm;
};

void selectWithLogIn(Client& client, const SecureString<std::string>& user,
                     const SecureString<std::string>& password) {
  long status = 0;
  auto* run = new CHeadendSelection(&client, "name of the last headend", 3 /*proxy authentication*/,
                                    status);
  run->SetProxy(new CBasicProxyProvider(user, password));  // the run's from here on
  if (status != 0) return delete run;
  std::thread([run] { run->run(); }).join();
}

void askForLogIn(AskingClient& client) {
  std::printf("The proxy asks for a log-in (%s).\nUser: ",
              CStringUtils::printable(client.realm).c_str());
  std::string user;
  std::getline(std::cin, user);
  const auto secretUser = SecureString<std::string>::GetAndClear(user.c_str());
  if (char* typed = getpass("Password: "); typed != nullptr) {
    selectWithLogIn(client, secretUser, SecureString<std::string>::GetAndClear(typed));
  }
}

int main(int argc, char** argv) {
  CClientLibrary::Options options;
  options.sources.profileDirectory = argc > 1 ? argv[1] : "examples/profiles";
  options.log.terminal = true;
  options.log.leastImportant = Logging::DBG_Warning;
  STATUSCODE status = 0;
  const CClientLibrary library(options, status);
  if (status != 0) {
    std::fprintf(stderr, "embed: the library does not start: %s\n", statusCodeName(status));
    return 2;
  }
  AskingClient client;
  selectOnce(client);
  if (client.proxyAsks) askForLogIn(client);
  return 0;
}
