// A client that has names of its own like those inside the library, and lets cross the border what
// C++ can: classes derived from the library's, casts, exceptions. Prints what the callback was
// told. Usage: client PROFILE-DIRECTORY

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <typeinfo>

#include "names.h"
#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Api/ClientLibrary.h"
#include "vpn/Api/ProxyProviders.h"

namespace {

class CallersError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Leaves its callback by an exception that no code of the library knows.
class Client : public ClientIfcBase {
 public:
  void AHSSelectedHost(unsigned int, const std::vector<std::string>& headends, long status,
                       const std::string&) override {
    const std::scoped_lock lock(m_mutex);
    std::printf("%s: %s\n", statusCodeName(status), headends.empty() ? "-" : headends[0].c_str());
    m_told = true;
    m_changed.notify_all();
    throw CallersError("the client's own");
  }

  bool isTold() {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::minutes(1), [this] { return m_told; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_told = false;
};

bool select(Client& client) {
  long status = 0;
  auto run = std::make_unique<CHeadendSelection>(&client, std::string(), 0U, status);
  const ApiRunnable& runnable = *run;
  if (dynamic_cast<const CHeadendSelection*>(&runnable) == nullptr ||
      typeid(runnable) != typeid(CHeadendSelection) || status != 0) {
    return false;
  }
  std::thread([&run] { run.release()->run(); }).join();
  return client.isTold();
}

}  // namespace

int main(int argc, char** argv) {
  const std::unique_ptr<ProxyIfc> provider = providerOfAnotherObject();
  if (argc != 2 || worthOfProbe(7) != 49 || numberOf("seven") != "7" ||
      dynamic_cast<CBasicProxyProvider*>(provider.get()) == nullptr ||
      dynamic_cast<CNtlmProxyProvider*>(provider.get()) != nullptr ||
      provider->getProxyUser().GetValue() != "anna") {
    std::fputs("the client's own names are mistaken for others\n", stderr);
    return 2;
  }
  CClientLibrary::Options options;
  options.sources.profileDirectory = argv[1];
  STATUSCODE status = 0;
  const CClientLibrary library(options, status);
  Client client;
  return status == 0 && select(client) ? 0 : 1;
}
