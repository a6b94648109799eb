// Shared by the tests of a host: the real client library on the test's files, gateways on loopback
// addresses, a client that records its results.

#include "tests/host/HostScene.h"

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Api/PreferenceMgr.h"
#include "vpn/Common/Utility/ExecutionContext.h"
#include "vpn/Common/Utility/Thread.h"

namespace tests {

namespace {

std::string preferencesFile(const Host::Preferences& preferences) {
  std::string text = "<preferences version=\"1\">\n";
  for (const auto& [name, value] : preferences) {
    text.append("  <preference name=\"" + name).append("\" value=\"" + value).append("\"/>\n");
  }
  return text + "</preferences>\n";
}

/// Whether a singleton is destroyed; the check does not change it.
template <class Singleton>
bool isGone(Singleton* acquired) {
  if (acquired != nullptr) {
    acquired->releaseInstance();
  }
  return acquired == nullptr;
}

}  // namespace

GatewayProcess::GatewayProcess(const std::vector<std::string>& gateways) {
  std::vector<std::string> command = {AHS_GATEWAYS, "--write-ca", Authority()};
  for (const std::string& gateway : gateways) {
    command.emplace_back("--gateway");
    command.push_back("127.0.0.1:0" + (gateway.empty() ? "" : "," + gateway));
  }
  const std::string output = m_directory.File("output");
  m_process = std::make_unique<ChildProcess>(command, output, m_directory.Path());
  if (!eventually([&] {
        return readFile(output).find("ready\n") != std::string::npos || !m_process->IsRunning();
      })) {
    throw std::runtime_error("the gateways do not start");
  }
  std::istringstream lines(readFile(output));
  std::string word;
  while (lines >> word) {
    if (word == "gateway" && lines >> word) {
      m_addresses.push_back(word);
    }
  }
  if (m_addresses.size() != gateways.size()) {
    throw std::runtime_error("the gateways did not start: " + readFile(output));
  }
  HttpProbe::setTrustFile(Authority());
}

GatewayProcess::~GatewayProcess() { HttpProbe::setTrustFile(""); }

Host::Preferences Host::patient() {
  return {{"SelectionConnectTimeout", "60000"}, {"SelectionReconnectTimeout", "60000"},
          {"SelectionPingTimeout", "20000"},    {"SelectionTestPingTimeout", "20"},
          {"SelectionPingsPerHeadend", "1"},    {"ProxySettings", "none"}};
}

Host::Preferences Host::hasty(const std::string& milliseconds) {
  Preferences preferences = patient();
  preferences["SelectionReconnectTimeout"] = milliseconds;
  return preferences;
}

Host::Host(const Preferences& user, const Preferences& global) { SetPreferences(user, global); }

void Host::SetPreferences(const Preferences& user, const Preferences& global) {
  m_directory.Write("user.xml", preferencesFile(user));
  m_directory.Write("global.xml", preferencesFile(global));
}

void Host::BringUp(const std::vector<std::string>& addresses) {
  TakeDown();
  CClientLibrary::Options options;
  options.log.file = LogFile();
  options.log.fileSize = 256UL * 1024;  // so that it is rotated now and then
  options.sources.headends.assign(addresses.begin(), addresses.end());
  options.sources.userPreferencesFile = m_directory.File("user.xml");
  options.sources.globalPreferencesFile = m_directory.File("global.xml");
  options.sources.cacheDirectory = CacheDirectory();
  STATUSCODE status = -1;
  m_library = std::make_unique<CClientLibrary>(options, status);
  if (status != 0 || !options.logProblem.empty()) {
    throw std::runtime_error("the library does not come up: " + std::to_string(status) + " " +
                             options.logProblem);
  }
}

void Host::ForgetSelections() const {
  static_cast<void>(isGone(CSelectionCache::acquireInstance()));  // the release writes the files
  std::filesystem::remove_all(CacheDirectory());
}

Client::Client(std::function<void()> reaction) : m_reaction(std::move(reaction)) {}

Client::~Client() = default;

void Client::AHSSelectedHost(unsigned int reason, const std::vector<std::string>& headends,
                             long status, const std::string& extraInfo) {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.push_back({reason, headends, status, extraInfo});
    m_called.notify_all();
  }
  if (m_reaction) {
    m_reaction();
  }
}

bool Client::WaitForCall() {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_called.wait_for(lock, Limit, [this] { return !m_calls.empty(); });
}

std::vector<Client::Call> Client::Calls() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_calls;
}

long Client::Status() const {
  const std::vector<Call> calls = Calls();
  if (calls.empty()) {
    return -1;
  }
  return calls.size() == 1 ? calls.front().status : -2;
}

CHeadendSelection* makeRun(ClientIfcBase& client, unsigned int reason,
                           const std::string& lastHeadend, ProxyIfc* proxy) {
  long status = -1;
  auto* const run = new CHeadendSelection(&client, lastHeadend, reason, status);
  run->SetProxy(proxy);
  if (status != 0) {
    delete run;
    throw std::runtime_error("the run cannot be started: " + std::to_string(status));
  }
  return run;
}

void executeRun(CHeadendSelection* run) {
  std::thread([run, task = CTask::current()] {
    const CTask::Scope scope(task);
    run->run();
  }).join();
}

namespace {

enum : std::size_t { Near, AlsoNear, ThirdNear, Dead, HangsUp, Far };

}  // namespace

int Rounds::MakeOne() {
  m_runs = 0;
  BringUp({Near, AlsoNear, ThirdNear}, {{"SelectionPingsPerHeadend", "2"}});
  SelectTwice(4, false);
  BringUp({Near, Dead, HangsUp}, {{"SelectionPingsPerHeadend", "2"}});
  SelectTwice(3, false);
  BringUp({Near, Dead, AlsoNear});
  SelectTwice(3, true);
  OutOfTime();
  BehindAProxyThatAsksForALogin();
  BringUp({});
  Select({HEADENDSELECTION_ERROR_NO_HEADENDS}, AtConnection);
  m_host.TakeDown();
  return m_runs;
}

void Rounds::Select(std::initializer_list<long> expected, unsigned int reason, bool isSecure) {
  Client client(m_atCallback);
  executeRun(makeRun(client, reason, "", isSecure ? new SecureProvider : nullptr));
  if (std::ranges::find(expected, client.Status()) == expected.end()) {
    throw std::runtime_error(std::string("a selection ended with ") +
                             statusCodeName(client.Status()) + " instead of " +
                             statusCodeName(*expected.begin()));
  }
  ++m_runs;
}

void Rounds::SelectTwice(int times, bool isSecure) {
  for (int i = 0; i < times; ++i) {
    const unsigned int reason = i % 2 == 0 ? AtConnection : AtReconnection;
    m_host.ForgetSelections();
    Select({HEADENDSELECTION_ERROR_ADDED_TO_CACHE}, reason, isSecure);
    Select({0}, reason, isSecure);
  }
}

void Rounds::BringUp(const Gateways& gateways, Host::Preferences preferences,
                     const Host::Preferences& global) {
  preferences.merge(Host::patient());
  m_host.SetPreferences(preferences, global);
  std::vector<std::string> addresses;
  for (const std::size_t gateway : gateways) {
    addresses.push_back(m_gateways.Addresses()[gateway]);
  }
  m_host.ForgetSelections();
  m_host.BringUp(addresses);
}

// The timer fires before the slowest worker has reported; on a very slow machine, before any has.
void Rounds::OutOfTime() {
  BringUp({Near, Far, Dead}, {{"SelectionReconnectTimeout", "100"}});
  Select({HEADENDSELECTION_ERROR_ADDED_TO_CACHE, HEADENDSELECTION_ERROR_SELECTION_FAILURE},
         AtReconnection, true);
}

void Rounds::BehindAProxyThatAsksForALogin() {
  const ScriptedServer proxy(
      answering("HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic "
                "realm=\"office\"\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"));
  BringUp({Near, AlsoNear, ThirdNear}, {{"ProxySettings", "override"}},
          {{"ProxyHost", "127.0.0.1"}, {"ProxyPort", std::to_string(proxy.port())}});
  for (const bool isSecure : {false, true, false, true}) {
    Select({HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED}, AtConnection, isSecure);
  }
}

bool nothingIsLeft() {
  return eventually([] {
    return CThread::RunningCount() == 0 && isGone(CSelectionCache::acquireInstance()) &&
           isGone(CExecutionContext::acquireInstance(API_INSTANCE)) &&
           isGone(PreferenceMgr::acquireInstance());
  });
}

}  // namespace tests
