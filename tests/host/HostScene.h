#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
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

/// The `ahs-gateways` program with gateways on ports of its own, ended with the object. Used by the
/// thread that made it.
class GatewayProcess {
 public:
  /// @param gateways what follows the address of each: "", "delay=20", "behaviour=closes".
  explicit GatewayProcess(const std::vector<std::string>& gateways);
  ~GatewayProcess();
  GatewayProcess(const GatewayProcess&) = delete;
  GatewayProcess& operator=(const GatewayProcess&) = delete;

  /// "127.0.0.1:40001", in the order of construction.
  const std::vector<std::string>& Addresses() const { return m_addresses; }
  /// The certificate to trust; probes of this process trust it already.
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

  /// Limits that no test waits for, one probe a headend, and no proxy.
  static Preferences patient();
  /// The same with so many milliseconds for a reconnection.
  static Preferences hasty(const std::string& milliseconds);

  /// @param global preferences of the machine, where a proxy is named.
  explicit Host(const Preferences& user = patient(), const Preferences& global = {});

  /// Brings the library up on these candidates; what was up before is taken down.
  /// @throws std::runtime_error when it does not come up.
  void BringUp(const std::vector<std::string>& addresses);
  void TakeDown() { m_library.reset(); }

  void SetPreferences(const Preferences& user, const Preferences& global);
  std::string CacheDirectory() const { return m_directory.File("cache"); }
  std::string LogFile() const { return m_directory.File("ahs.log"); }
  /// Also those that are in memory.
  void ForgetSelections() const;

 private:
  TemporaryDirectory m_directory;
  std::unique_ptr<CClientLibrary> m_library;
};

/// A client that remembers its calls, and then reacts as the test wants it to.
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
  /// The status of the one call; -1 when there was none, -2 when there were several.
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

/// A run on the library that is up. @throws std::runtime_error when it must not be started.
CHeadendSelection* makeRun(ClientIfcBase& client, unsigned int reason = AtConnection,
                           const std::string& lastHeadend = "", ProxyIfc* proxy = nullptr);

/// Executes a run on a thread of its own, for the task of this one, and waits for that thread.
void executeRun(CHeadendSelection* run);

/// Selections of every kind, in rounds.
class Rounds {
 public:
  /// @param atCallback what every client's callback does.
  explicit Rounds(std::function<void()> atCallback = {}) : m_atCallback(std::move(atCallback)) {}

  /// Takes the library down at its end. @return how many selections it was.
  /// @throws std::runtime_error when one ends otherwise than it should.
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

/// Whether every thread has ended and every object of the library has been freed. The library must
/// have been taken down.
bool nothingIsLeft();

}  // namespace tests
