// A VPN client's part in a selection, in full: bring the library up, start a run, be called back.
// Usage: embed [PROFILE-DIRECTORY]

#include <cstdio>
#include <thread>

#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Api/ClientLibrary.h"

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
  Client client;
  selectOnce(client);
  return 0;
}
