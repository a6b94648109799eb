#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/Eventually.h"
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Utility/ExecutionContext.h"
#include "vpn/Common/Utility/Thread.h"
#include "vpn/Common/Utility/TimerList.h"
#include "vpn/include/Locks.h"
#include "vpn/include/StatusCode.h"

// What stands in for the client library around a selection run, as a test writes it down.

namespace doubles {

using tests::eventually;

/// A value that a test changes while threads use it.
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
  /// Calls `change` with the value, which nobody else touches meanwhile.
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

/// A door that threads wait at until a test opens it.
class Gate {
 public:
  void open() {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_open = true;
    m_changed.notify_all();
  }

  /// @return false when nobody opened the gate within `tests::Limit`.
  bool wait() {
    std::unique_lock<std::mutex> hold(m_lock);
    return m_changed.wait_for(hold, tests::Limit, [this] { return m_open; });
  }

 private:
  std::mutex m_lock;
  std::condition_variable m_changed;
  bool m_open = false;
};

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
  /// Is called for every line on the logging thread, after the line was kept.
  void setHook(Hook hook) { m_hook.set(std::move(hook)); }

  std::vector<LogLine> lines() const { return m_lines.get(); }
  /// All lines as text, in order, or those of one calling function.
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

/// One probe as it was asked for.
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

  /// The test probe alone asks for the headers.
  bool isTest() const { return (options & HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS) != 0; }
};

/// What a probe is to bring.
struct ProbeAnswer {
  STATUSCODE status = 0;
  unsigned int rtt = 0;
  unsigned int httpStatus = 0;
  unsigned int lastError = 0;
  std::string headers = {};
  unsigned int takesMs = 0;           ///< moves the clock
  std::function<void()> during = {};  ///< called while the probe is out
};

/// Probes that answer as a test wrote down.
struct Probes {
  /// The answers of a host to its worker, in order; the last one repeats. A host without any
  /// answers with 200 in 10 ms.
  void answer(const std::string& host, const std::vector<ProbeAnswer>& toWorker);
  /// The answer to the test probe, whatever its host.
  void answerTest(const ProbeAnswer& answer) { testAnswer.set(answer); }

  std::vector<ProbeCall> testCalls() const;
  /// Those of one host, or of all.
  std::vector<ProbeCall> workerCalls(const std::string& host = "") const;

  ProbeAnswer next(const ProbeCall& call);

  /// Keeps no copy of the credentials.
  std::atomic<bool> isForgetful{false};
  Guarded<ProbeAnswer> testAnswer{ProbeAnswer{.httpStatus = 200}};
  Guarded<std::map<std::string, std::vector<ProbeAnswer>>> answers;  ///< still to come
  Guarded<std::vector<ProbeCall>> calls;
};

/// How many `KeptConnection`s live on this thread.
inline thread_local unsigned int keptConnections = 0;

/// Timers that expire when a test says so, on the thread that says it, and the execution context
/// that they belong to.
struct Timers {
  /// Lets the newest timer expire, if it is armed and still exists. Returns when its callback has.
  /// @return whether there was anything to fire.
  bool fire() const;

  /// Without it `acquireInstance` gives nothing.
  std::atomic<bool> hasContext{true};
  std::atomic<STATUSCODE> constructionStatus{0};
  std::atomic<STATUSCODE> startStatus{0};

  std::atomic<int> live{0};
  std::atomic<int> created{0};
  /// The milliseconds of each successful or failed `StartTimer`.
  Guarded<std::vector<unsigned long>> starts;
  std::atomic<int> contextAcquired{0};
  std::atomic<int> contextReleased{0};
  /// Fires the newest timer.
  Hook<bool()> newest;
};

/// A selection cache that hits or misses as a test says, and the settings that go with it.
struct CacheScript {
  /// What creation gives; a failing one may hand out the instance all the same.
  std::atomic<STATUSCODE> creationStatus{0};
  std::atomic<bool> setsPointer{true};
  /// Every look-up hits and brings this.
  Guarded<std::optional<CCacheEntry>> hit;
  /// Is called during each look-up.
  Hook<void()> duringLookup;
  std::atomic<STATUSCODE> storeStatus{0};

  std::atomic<int> acquired{0};
  std::atomic<int> released{0};
  Guarded<std::vector<std::string>> lookups;
  std::vector<CCacheEntry> stored() const { return entries.get(); }
  Guarded<std::vector<CCacheEntry>> entries;

  /// What `CAHSSettings::GetSettings` gives. Written by the test before the run.
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

/// Hooks in front of real operations. The linker sends calls of the component through them
/// (--wrap), so that the real threads and locks can be watched and made to fail.
struct Seams {
  enum class Reading { List, Copy };

  /// A value that the hook gives is `Start`'s result, and no thread is started.
  Hook<std::optional<STATUSCODE>(CThread&)> beforeStart;
  Hook<void(CThread&)> afterStart;
  Hook<void(CThread&, unsigned int timeoutMs)> beforeWait;
  /// What the hook gives is the wait's result.
  Hook<STATUSCODE(CThread&, STATUSCODE result, unsigned int& exitCode, unsigned int timeoutMs)>
      afterWait;
  /// Is called when an owner is about to give a thread up.
  Hook<void(CThread&)> beforeDelete;
  /// Is called when a lock was taken (true), and when it is about to be given back (false).
  Hook<void(const CManualLock*, bool taken)> onLock;
  /// Is called when an entry's results are about to be handed out as a list, or to be copied into
  /// another entry.
  Hook<void(const CCacheEntry&, Reading)> beforeReading;
  /// With a failure GetHeadendList gives it, and leaves the list alone unless it `fillsList`.
  std::atomic<STATUSCODE> listStatus{0};
  std::atomic<bool> fillsList{false};

  /// Number of successful or failed `Start` calls.
  std::atomic<int> starts{0};
};

/// All of it, for one test.
struct World {
  /// What the doubles saw, in one order over all of them.
  Guarded<std::vector<std::string>> journal;
  /// A clock that stands still until a test moves it.
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
/// For the next test, when no thread of the one before is left.
inline void renewWorld() { delete std::exchange(world(), new World); }

inline auto& journal() { return world()->journal; }
inline auto& clock() { return world()->clock; }
inline auto& log() { return world()->log; }
inline auto& probes() { return world()->probes; }
inline auto& timers() { return world()->timers; }
inline auto& cache() { return world()->cache; }
inline auto& seams() { return world()->seams; }

}  // namespace doubles
