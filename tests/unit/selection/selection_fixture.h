#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/selection/doubles/doubles.h"
#include "tests/unit/selection/doubles/preferences.h"
#include "tests/unit/selection/selection_access.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/ClientIfcBase.h"
#include "vpn/Api/ProxyIfc.h"

namespace tests {

using doubles::cache;
using doubles::Gate;
using doubles::journal;
using doubles::preferences;
using doubles::ProbeAnswer;
using doubles::ProbeCall;
using doubles::probes;
using doubles::seams;
using doubles::timers;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr long Success = 0;
constexpr long MemoryFailed = 0xFE530004;
constexpr long Unexpected = 0xFE530009;
constexpr long AuthProxy = 0xFE53000A;
constexpr long TimedOut = 0xFE53000B;
constexpr long NoCache = 0xFE53000C;
constexpr long NoHeadends = 0xFE53000D;
constexpr long SelectionFailure = 0xFE53000F;
constexpr long AddedToCache = 0xFE530010;
constexpr long NoContext = 0xFE8D000A;
constexpr long SomeFailure = 0xFE360002;

using Texts = std::vector<std::string>;

enum ReasonCode : unsigned int { Connection = 0, Reconnection = 1 };

/// A row of a table of cases: a separate test, whose name states the behaviour.
template <class Case>
struct Row {
  const char* name;
  Case is;

  friend void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }
};

template <class Case>
using Rows = std::vector<Row<Case>>;

/// For INSTANTIATE_TEST_SUITE_P.
inline const auto nameOfRow = [](const auto& info) { return std::string(info.param.name); };

/// A client that records its calls. It may be slowed down.
class Client : public ClientIfcBase {
 public:
  struct Outcome {
    unsigned int reason = 0;
    Texts headends;
    long status = 0;
    std::string extraInfo;
    std::thread::id thread;
  };

  void AHSSelectedHost(unsigned int reason, const std::vector<std::string>& headends, long status,
                       const std::string& extraInfo) override;

  std::size_t calls() const { return m_outcomes.get().size(); }
  /// The only outcome; a test failure if there is none or more than one.
  Outcome only() const;

  /// Called inside the callback, before the outcome counts.
  std::function<void()> during;

 private:
  doubles::Guarded<std::vector<Outcome>> m_outcomes;
};

/// A provider with fixed answers; its deletion goes into the journal.
class Provider : public ProxyIfc {
 public:
  Provider(ProxyType type, std::string user, std::string pswd, std::string host)
      : m_type(type), m_user(std::move(user)), m_pswd(std::move(pswd)), m_host(std::move(host)) {}
  ~Provider() override {
    doubles::journal().add("provider deleted");
    deletedBy = std::this_thread::get_id();
  }

  UnprotectedCredential getProxyUser() override {
    asked += "user ";
    return UnprotectedCredential(m_user);
  }
  UnprotectedCredential getProxyPswd() override {
    asked += "password ";
    return UnprotectedCredential(m_pswd);
  }
  std::string getProxyHost() override { return m_host; }
  ProxyType getProxyType() override { return m_type; }

  /// The thread that deleted the last provider: the one that deletes its run.
  inline static std::thread::id deletedBy;

  /// The run thread's questions, in order.
  std::string asked;

 private:
  const ProxyType m_type;
  const std::string m_user;
  const std::string m_pswd;
  const std::string m_host;
};

/// A selection run among doubles. After each test everything must be released and every thread
/// ended, and every log line must name its source.
class SelectionTest : public testing::Test {
 protected:
  SelectionTest();
  void TearDown() override;

  /// Constructs a run for `client`; its construction must give this status.
  CHeadendSelection& make(unsigned int reason = Connection, const std::string& last = "",
                          long expected = Success);
  /// Like `make`, with these candidates.
  CHeadendSelection& makeFor(const Texts& addresses, unsigned int reason = Connection,
                             const std::string& last = "");
  /// Deletes a run that `run` does not delete.
  void destroy();
  /// Runs the run of `make` on a new thread until it has deleted itself.
  void runToEnd();
  /// Like `runToEnd` without waiting; `joinRun` waits.
  void startRun();
  void joinRun();

  /// After the run's end: the only call, on a separate thread.
  Client::Outcome outcome();

  /// Waits until all threads have ended and all acquired objects are released.
  bool quiet();

  /// Lets the timer expire on a separate thread, like the timer thread, and waits for it.
  bool fireTimer();

  Client client;
  CHeadendSelection* run = nullptr;
  std::thread runThread;
  std::atomic<bool> hasRunReturned{false};
  std::thread::id runThreadId;
  std::thread::native_handle_type runThreadHandle{};
  std::thread::id timerThreadId;
};

/// Results as (host, metric), for direct use of the ranking.
CCacheEntry entryOf(const std::vector<std::pair<std::string, unsigned int>>& results);

/// The records of an entry as "host metric".
Texts recordsOf(const CCacheEntry& entry);

/// Host and port of each address.
Texts keysOf(const std::vector<URL>& urls);

}  // namespace tests
