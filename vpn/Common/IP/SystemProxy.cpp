// The system's proxy settings, by libproxy. libproxy loads modules, may fetch a file without a time
// limit and may never return, so only threads made for it wait for it. Their number is bounded by
// the number of factories (libproxy's objects): each belongs to one thread or is idle. None is ever
// destroyed, because that would unload modules that have threads and processes of their own.

#include "vpn/Common/IP/SystemProxy.h"

#include <proxy.h>
#include <string.h>

#include <array>
#include <memory>
#include <string_view>
#include <utility>

#include "vpn/Common/Utility/GuardedCall.h"
#include "vpn/Common/Utility/MonotonicClock.h"
#include "vpn/Common/Utility/Task.h"
#include "vpn/Common/Utility/Thread.h"
#include "vpn/include/Locks.h"

namespace {

// A healthy factory answers within milliseconds, so four serve any number of probes. If four hang,
// the next would hang too.
constexpr std::size_t MostFactories = 4;

// The modules are written for the stack of a main program: some run a script interpreter.
constexpr std::size_t StackBytes = 8UL * 1024 * 1024;

/// One question, on its own thread, for which the asker need not wait.
class Lookup : public CThread {
 public:
  explicit Lookup(std::string serverUrl) : CThread(StackBytes), url(std::move(serverUrl)) {}
  STATUSCODE Run() override;

  const std::string url;
  /// Null until the thread has made it.
  pxProxyFactory* factory = nullptr;
  SystemProxy::Outcome outcome = SystemProxy::Outcome::Failed;
  std::vector<std::string> entries;
  // The rest is guarded by the lock of the factories.
  bool ended = false;
  bool late = false;
};

/// Decides who may ask. Never freed: late threads may return at any time.
class Factories {
 public:
  /// Takes a factory, or the right to make one, waiting until one is idle.
  SystemProxy::Outcome take(MonotonicClock::time_point deadline, Lookup& lookup) {
    const CAutoLockT<CMonitor> guard(m_lock);
    while (m_idleCount == 0) {
      if (m_lateCount == MostFactories) {
        return SystemProxy::Outcome::Failed;
      }
      if (MonotonicClock::now() >= deadline) {
        return SystemProxy::Outcome::Late;
      }
      m_lock.waitUntil(deadline);
    }
    lookup.factory = m_idle[--m_idleCount];
    return SystemProxy::Outcome::Found;
  }

  /// Gives it back.
  void end(Lookup& lookup) {
    const CAutoLockT<CMonitor> guard(m_lock);
    lookup.ended = true;
    m_idle[m_idleCount++] = lookup.factory;
    if (lookup.late) {
      --m_lateCount;
    }
    m_lock.notifyAll();
  }

  /// Waits for the end.
  SystemProxy::Outcome wait(MonotonicClock::time_point deadline, Lookup& lookup) {
    const CAutoLockT<CMonitor> guard(m_lock);
    while (!lookup.ended && MonotonicClock::now() < deadline) {
      m_lock.waitUntil(deadline);
    }
    if (lookup.ended) {
      return lookup.outcome;
    }
    lookup.late = true;
    ++m_lateCount;
    m_lock.notifyAll();  // a waiter may find that every factory is late
    return SystemProxy::Outcome::Late;
  }

 private:
  CMonitor m_lock;
  /// A stack, so that those already made are taken first.
  std::array<pxProxyFactory*, MostFactories> m_idle AHS_GUARDED_BY(m_lock){};
  std::size_t m_idleCount AHS_GUARDED_BY(m_lock) = MostFactories;
  std::size_t m_lateCount AHS_GUARDED_BY(m_lock) = 0;
};

Factories& factories() {
  static Factories& instance = *new Factories;
  return instance;
}

/// An entry without a user name and a password: what stands between the scheme and the last "@".
std::string withoutCredentials(std::string_view entry) {
  constexpr std::string_view SchemeEnd = "://";
  const std::size_t scheme = entry.find(SchemeEnd);
  const std::size_t start = scheme == std::string_view::npos ? 0 : scheme + SchemeEnd.size();
  const std::size_t at = entry.rfind('@');
  const bool names = at != std::string_view::npos && at >= start;
  return std::string(entry.substr(0, start)).append(entry.substr(names ? at + 1 : start));
}

void wipeAndFree(char** list) {
  for (char** entry = list; *entry != nullptr; ++entry) {
    explicit_bzero(*entry, strlen(*entry));
  }
  px_proxy_factory_free_proxies(list);
}

void ask(Lookup& lookup) {
  if (lookup.factory == nullptr) {
    lookup.factory = px_proxy_factory_new();
  }
  if (lookup.factory == nullptr) {
    return;
  }
  const std::unique_ptr<char*, decltype(&wipeAndFree)> list(
      px_proxy_factory_get_proxies(lookup.factory, lookup.url.c_str()), wipeAndFree);
  if (list) {
    for (char** entry = list.get(); *entry != nullptr; ++entry) {
      lookup.entries.push_back(withoutCredentials(*entry));
    }
    lookup.outcome = SystemProxy::Outcome::Found;
  }
}

STATUSCODE Lookup::Run() {
  // If a module throws, there is no answer.
  guardedCall([this] { ask(*this); }, [](const char*) {});
  factories().end(*this);
  return THREAD_SUCCESS;
}

}  // namespace

SystemProxy::Outcome SystemProxy::find(const std::string& url, std::chrono::milliseconds limit,
                                       std::vector<std::string>& entries) {
  const MonotonicClock::time_point deadline = MonotonicClock::now() + limit;
  const auto lookup = std::make_unique<Lookup>(url);
  Outcome outcome = factories().take(deadline, *lookup);
  if (outcome != Outcome::Found) {
    return outcome;
  }
  const CTask::Scope noTask(nullptr);  // a thread that hangs must not keep a task
  if (lookup->Start() != THREAD_SUCCESS) {
    factories().end(*lookup);
    return Outcome::Failed;
  }
  outcome = factories().wait(deadline, *lookup);
  if (outcome == Outcome::Found) {
    entries.swap(lookup->entries);
  }
  return outcome;
}
