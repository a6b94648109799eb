#pragma once

#include <condition_variable>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/HeldGateway.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryDirectory.h"
#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Api/ClientIfcBase.h"
#include "vpn/Api/ClientLibrary.h"
#include "vpn/Api/ProxyIfc.h"

namespace tests {

constexpr unsigned int AtConnection = 0;
constexpr unsigned int AtReconnection = 1;

/// The program `ahs-gateways` with gateways on its own ports; the destructor ends it. Used by one
/// thread.
class GatewayProcess {
 public:
  /// @param gateways suffix for each address: "", "delay=20", "behaviour=closes".
  explicit GatewayProcess(const std::vector<std::string>& gateways);
  ~GatewayProcess();
  GatewayProcess(const GatewayProcess&) = delete;
  GatewayProcess& operator=(const GatewayProcess&) = delete;

  /// "127.0.0.1:40001", in the order of construction.
  const std::vector<std::string>& Addresses() const { return m_addresses; }
  /// The certificate to trust; this process already does.
  std::string Authority() const { return m_directory.File("authority.pem"); }

 private:
  TemporaryDirectory m_directory;
  std::unique_ptr<ChildProcess> m_process;
  std::vector<std::string> m_addresses;
};

/// The client library of a host, on files in a directory of its own. Used by one thread.
class Host {
 public:
  using Preferences = std::map<std::string, std::string>;

  /// Limits that no test reaches, one probe per headend, and no proxy.
  static Preferences patient();
  /// Like `patient`, with this time limit for a reconnection.
  static Preferences hasty(const std::string& milliseconds);

  /// @param global the machine's preferences, for a proxy.
  explicit Host(const Preferences& user = patient(), const Preferences& global = {});

  /// Starts the library with these candidates, after stopping a running one.
  /// @throws std::runtime_error if it does not start.
  void BringUp(const std::vector<std::string>& addresses);
  void TakeDown() { m_library.reset(); }

  void SetPreferences(const Preferences& user, const Preferences& global);
  std::string CacheDirectory() const { return m_directory.File("cache"); }
  std::string LogFile() const { return m_directory.File("ahs.log"); }
  /// Also selections in memory.
  void ForgetSelections() const;

 private:
  TemporaryDirectory m_directory;
  std::unique_ptr<CClientLibrary> m_library;
};

/// A client that records its calls, and then reacts as the test wants.
class Client : public ClientIfcBase {
 public:
  struct Call {
    unsigned int reason = 0;
    std::vector<std::string> headends;
    long status = -1;
    std::string extraInfo;
  };

  explicit Client(std::function<void()> reaction = {});
  ~Client() override;

  void AHSSelectedHost(unsigned int reason, const std::vector<std::string>& headends, long status,
                       const std::string& extraInfo) override;

  bool WaitForCall();
  std::vector<Call> Calls() const;
  /// The status of the only call; -1 without a call, -2 for several.
  long Status() const;

 private:
  const std::function<void()> m_reaction;
  mutable std::mutex m_mutex;
  std::condition_variable m_called;
  std::vector<Call> m_calls;
};

/// A provider with a user but without a proxy: test probe and workers go over TLS.
class SecureProvider : public ProxyIfc {
 public:
  UnprotectedCredential getProxyUser() override { return UnprotectedCredential("user"); }
  UnprotectedCredential getProxyPswd() override { return UnprotectedCredential("password"); }
  std::string getProxyHost() override { return ""; }
  ProxyType getProxyType() override { return BasicProxy; }
};

/// A run of the running library. @throws std::runtime_error if it must not start.
CHeadendSelection* makeRun(ClientIfcBase& client, unsigned int reason = AtConnection,
                           const std::string& lastHeadend = "", ProxyIfc* proxy = nullptr);

/// Executes a run for this thread's task on a new thread, and waits for that thread.
void executeRun(CHeadendSelection* run);

/// Selections of every kind, in rounds.
class Rounds {
 public:
  /// @param atCallback what every client's callback does.
  explicit Rounds(std::function<void()> atCallback = {}) : m_atCallback(std::move(atCallback)) {}

  /// Stops the library at the end. @return the number of selections.
  /// @throws std::runtime_error if one ends wrongly.
  int MakeOne();

 private:
  using Gateways = std::vector<std::size_t>;
  void Select(std::initializer_list<long> expected, unsigned int reason, bool isSecure = false);
  /// A fresh selection and then one from the cache, with and without a test probe in turn.
  void SelectTwice(int times, bool isSecure);
  void BringUp(const Gateways& gateways, Host::Preferences preferences = {},
               const Host::Preferences& global = {});
  void OutOfTime();
  void BehindAProxyThatAsksForALogin();

  const std::function<void()> m_atCallback;
  const GatewayProcess m_gateways{
      {"", "", "", "behaviour=refuse", "behaviour=closes", "delay=130"}};
  Host m_host;
  int m_runs = 0;
};

/// Whether every thread has ended and every object of the stopped library is freed.
bool nothingIsLeft();

}  // namespace tests
