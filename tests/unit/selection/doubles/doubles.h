#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/Gate.h"
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Utility/ExecutionContext.h"
#include "vpn/Common/Utility/Thread.h"
#include "vpn/Common/Utility/TimerList.h"
#include "vpn/include/Locks.h"
#include "vpn/include/StatusCode.h"

// Replaces the client library around a selection run; a test scripts it.

namespace doubles {

using tests::eventually;
using tests::Gate;

/// A value that a test may change while threads use it.
template <class T>
class Guarded {
 public:
  Guarded() = default;
  explicit Guarded(T value) : m_value(std::move(value)) {}

  void set(T value) {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_value = std::move(value);
  }
  T get() const {
    const std::lock_guard<std::mutex> hold(m_lock);
    return m_value;
  }
  /// Calls `change` with exclusive access to the value.
  template <class Change>
  auto with(const Change& change) {
    const std::lock_guard<std::mutex> hold(m_lock);
    return change(m_value);
  }
  /// Appends to a list.
  template <class Item>
  void add(const Item& item) {
    with([&item](auto& all) { all.push_back(item); });
  }

 private:
  mutable std::mutex m_lock;
  T m_value{};
};

template <class Signature>
using Hook = Guarded<std::function<Signature>>;

/// One call of the log.
struct LogLine {
  enum class Kind { Debug, ReturnCode, Verbose };

  Kind kind = Kind::Debug;
  std::string function;
  std::string file;
  unsigned int line = 0;
  char severity = 0;
  std::string format = {};   ///< of a message
  std::string message = {};  ///< rendered; of a return code the name of the failed call
  STATUSCODE code = 0;
  std::string extraText = {};
  int component = 0;
  int level = 0;
  std::thread::id thread = std::this_thread::get_id();

  /// "function S message", or "function S failedCall 0xCODE".
  std::string toString() const;
};

/// A log that keeps every line.
class Log {
 public:
  using Hook = std::function<void(const LogLine&)>;

  void reset();
  /// The logging thread calls the hook after keeping each line.
  void setHook(Hook hook) { m_hook.set(std::move(hook)); }

  std::vector<LogLine> lines() const { return m_lines.get(); }
  /// All lines as text, in order, or only those of one calling function.
  std::vector<std::string> texts(const std::string& function = "") const;
  /// How often a text was logged.
  std::size_t count(const std::string& text) const;
  /// Waits until a text was logged.
  bool await(const std::string& text) const {
    return eventually([&] { return count(text) > 0; });
  }

  void add(const LogLine& line);

 private:
  Guarded<std::vector<LogLine>> m_lines;
  Guarded<Hook> m_hook;
};

/// The arguments of one probe.
struct ProbeCall {
  std::string host;
  bool secure = false;
  bool reserved = false;
  unsigned int port = 0;
  std::string userAgent;
  unsigned int timeout = 0;
  bool determineProxy = false;
  std::string proxyServer;
  std::string proxyUser;
  std::string proxyPswd;
  const void* userBuffer = nullptr;  ///< where the user name's characters stood
  const void* pswdBuffer = nullptr;
  unsigned int options = 0;
  bool resultsWereZero = false;
  bool connectionKept = false;  ///< within the life of a `KeptConnection` of the thread
  std::thread::id thread = std::this_thread::get_id();

  /// Only the test probe asks for the headers.
  bool isTest() const { return (options & HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS) != 0; }
};

/// The scripted outcome of a probe.
struct ProbeAnswer {
  STATUSCODE status = 0;
  unsigned int rtt = 0;
  unsigned int httpStatus = 0;
  unsigned int lastError = 0;
  std::string headers = {};
  unsigned int takesMs = 0;           ///< moves the clock
  std::function<void()> during = {};  ///< called while the probe is out
};

/// Probes with scripted answers.
struct Probes {
  /// A host's answers to its worker, in order; the last one repeats. By default a host answers with
  /// 200 in 10 ms.
  void answer(const std::string& host, const std::vector<ProbeAnswer>& toWorker);
  /// The answer to the test probe, for any host.
  void answerTest(const ProbeAnswer& answer) { testAnswer.set(answer); }

  std::vector<ProbeCall> testCalls() const;
  /// The calls of one host, or of all.
  std::vector<ProbeCall> workerCalls(const std::string& host = "") const;

  ProbeAnswer next(const ProbeCall& call);

  /// If true, calls are kept without credentials.
  std::atomic<bool> isForgetful{false};
  Guarded<ProbeAnswer> testAnswer{ProbeAnswer{.httpStatus = 200}};
  Guarded<std::map<std::string, std::vector<ProbeAnswer>>> answers;  ///< still to come
  Guarded<std::vector<ProbeCall>> calls;
};

/// Number of living `KeptConnection`s of this thread.
inline thread_local unsigned int keptConnections = 0;

/// Timers that a test fires on its own thread, and their execution context.
struct Timers {
  /// Fires the newest timer if it is armed and exists. Returns after its callback.
  /// @return whether a timer fired.
  bool fire() const;

  /// If false, `acquireInstance` returns null.
  std::atomic<bool> hasContext{true};
  std::atomic<STATUSCODE> constructionStatus{0};
  std::atomic<STATUSCODE> startStatus{0};

  std::atomic<int> live{0};
  std::atomic<int> created{0};
  /// The milliseconds of each `StartTimer`, successful or not.
  Guarded<std::vector<unsigned long>> starts;
  std::atomic<int> contextAcquired{0};
  std::atomic<int> contextReleased{0};
  /// Fires the newest timer.
  Hook<bool()> newest;
};

/// A selection cache with scripted hits and misses, and its settings.
struct CacheScript {
  /// The status of creation; a failed one may still return the instance.
  std::atomic<STATUSCODE> creationStatus{0};
  std::atomic<bool> setsPointer{true};
  /// If set, every look-up hits and returns this entry.
  Guarded<std::optional<CCacheEntry>> hit;
  /// Called during each look-up.
  Hook<void()> duringLookup;
  std::atomic<STATUSCODE> storeStatus{0};

  std::atomic<int> acquired{0};
  std::atomic<int> released{0};
  Guarded<std::vector<std::string>> lookups;
  std::vector<CCacheEntry> stored() const { return entries.get(); }
  Guarded<std::vector<CCacheEntry>> entries;

  /// The result of `CAHSSettings::GetSettings`. The test writes it before the run.
  HS_SETTINGS settings{.bAHSEnabled = true,
                       .nResumeTime = 4,
                       .nImprovement = 20,
                       .nClearCache = 14,
                       .nConnectTimeout = 10000,
                       .nReconnectTimeout = 5000,
                       .nPingTimeout = 2000,
                       .nPingsPerHeadend = 3,
                       .nTestPingTimeout = 5,
                       .nMaxResults = 100};
  std::atomic<int> settingsReads{0};
};

/// Hooks in front of real operations. The linker redirects calls to them (--wrap), so that tests
/// can observe real threads and locks and make them fail.
struct Seams {
  enum class Reading { List, Copy };

  /// If the hook returns a value, `Start` returns it and starts no thread.
  Hook<std::optional<STATUSCODE>(CThread&)> beforeStart;
  Hook<void(CThread&)> afterStart;
  Hook<void(CThread&, unsigned int timeoutMs)> beforeWait;
  /// The hook's result becomes the wait's result.
  Hook<STATUSCODE(CThread&, STATUSCODE result, unsigned int& exitCode, unsigned int timeoutMs)>
      afterWait;
  /// Called when an owner is about to delete a thread.
  Hook<void(CThread&)> beforeDelete;
  /// Called after a lock was taken (true), and before it is released (false).
  Hook<void(const CManualLock*, bool taken)> onLock;
  /// Called before an entry's results are returned as a list or copied into another entry.
  Hook<void(const CCacheEntry&, Reading)> beforeReading;
  /// GetHeadendList returns this if it is a failure, and fills the list only if `fillsList`.
  std::atomic<STATUSCODE> listStatus{0};
  std::atomic<bool> fillsList{false};

  /// Number of `Start` calls, successful or not.
  std::atomic<int> starts{0};
  /// The arguments of the constructors.
  Guarded<std::vector<unsigned long>> lockArguments;
  Guarded<std::vector<unsigned long>> threadArguments;
};

/// All doubles of one test.
struct World {
  /// Events of all doubles in one order.
  Guarded<std::vector<std::string>> journal;
  /// The clock moves only when a test moves it.
  std::atomic<unsigned long> clock{1000};
  Log log;
  Probes probes;
  Timers timers;
  CacheScript cache;
  Seams seams;
};

inline World*& world() {
  static World* instance = new World;
  return instance;
}
/// For the next test, after the previous test's threads have ended.
inline void renewWorld() { delete std::exchange(world(), new World); }

inline auto& journal() { return world()->journal; }
inline auto& clock() { return world()->clock; }
inline auto& log() { return world()->log; }
inline auto& probes() { return world()->probes; }
inline auto& timers() { return world()->timers; }
inline auto& cache() { return world()->cache; }
inline auto& seams() { return world()->seams; }

}  // namespace doubles
