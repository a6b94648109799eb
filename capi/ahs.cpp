// The C interface: handles around the client library and one selection each. A run may outlive its
// handle, so what it reports to is held by both; nothing thrown gets past a function of this file.

#include "capi/ahs.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/ClientIfcBase.h"
#include "vpn/Api/ClientLibrary.h"
#include "vpn/Api/ProxyProviders.h"
#include "vpn/Common/Utility/ExecutionContext.h"
#include "vpn/Common/Utility/MonotonicClock.h"
#include "vpn/Common/Utility/Thread.h"
#include "vpn/include/Locks.h"

namespace {

/// Runs `operation`, whatever it throws.
template <typename Operation>
ahs_status guarded(Operation operation) noexcept {
  try {
    return operation();
  } catch (const std::bad_alloc&) {
    return AHS_ERROR_OUT_OF_MEMORY;
  } catch (...) {
    return static_cast<ahs_status>(HEADENDSELECTION_ERROR_UNEXPECTED);
  }
}

std::string textOf(const char* text) { return text == nullptr ? std::string() : text; }

/// A structure of the caller's, which may be of an older version and then ends earlier.
/// @return whether it can be used; `copy` keeps its defaults for members that are not there.
template <typename Structure>
bool take(const Structure* given, Structure& copy) {
  if (given == nullptr || given->size < sizeof given->size || given->size > sizeof copy) {
    return false;
  }
  std::memcpy(&copy, given, given->size);
  return true;
}

/// Whether the library has been brought up by this interface: a second one would take the first
/// one's log away before it is refused.
std::atomic<bool>& isUp() {
  static std::atomic<bool> up{false};
  return up;
}

/// What a run reports to and a client asks.
class Outcome : public ClientIfcBase {
 public:
  Outcome(ahs_callback callback, void* context) : m_callback(callback), m_context(context) {}

  void AHSSelectedHost(unsigned int reason, const std::vector<std::string>& headends, long status,
                       const std::string& extraInfo) override {
    ahs_callback callback = nullptr;
    {
      const CAutoLockT<CMonitor> guard(m_lock);
      store(reason, headends, status, extraInfo);
      m_caller = std::this_thread::get_id();
      callback = std::exchange(m_callback, nullptr);
    }
    if (callback != nullptr) {
      callback(&m_result, m_context);
    }
    const CAutoLockT<CMonitor> guard(m_lock);
    m_caller = {};
    m_delivered = true;
    m_lock.NotifyAll();
  }

  ahs_wait_result wait(std::uint32_t timeoutMs) {
    const auto limit = MonotonicClock::now() + std::chrono::milliseconds(timeoutMs);
    const CAutoLockT<CMonitor> guard(m_lock);
    while (!isDelivered()) {
      if (m_cancelled) {
        return AHS_WAIT_CANCELLED;
      }
      if (timeoutMs == AHS_WAIT_FOREVER) {
        m_lock.Wait();
      } else if (MonotonicClock::now() >= limit) {
        return AHS_WAIT_TIMEOUT;
      } else {
        m_lock.WaitUntil(limit);
      }
    }
    return AHS_WAIT_DELIVERED;
  }

  void cancelWait() {
    const CAutoLockT<CMonitor> guard(m_lock);
    m_cancelled = true;
    m_lock.NotifyAll();
  }

  /// Once there, the result stays as it is.
  const ahs_result* result() const {
    const CAutoLockT<CMonitor> guard(m_lock);
    return m_stored ? &m_result : nullptr;
  }

  /// No callback runs, or will, when this has returned; but the one that calls it.
  void abandon() {
    const CAutoLockT<CMonitor> guard(m_lock);
    m_callback = nullptr;
    while (m_caller != std::thread::id() && m_caller != std::this_thread::get_id()) {
      m_lock.Wait();
    }
  }

 private:
  void store(unsigned int reason, const std::vector<std::string>& headends, long status,
             const std::string& extraInfo) AHS_REQUIRES(m_lock) {
    m_result.size = sizeof m_result;
    m_result.status = static_cast<ahs_status>(status);
    m_result.reason = reason;
    m_result.extra_info = "";
    try {
      m_headends = headends;
      m_extraInfo = extraInfo;
      m_pointers.reserve(m_headends.size());
      for (const std::string& headend : m_headends) {
        m_pointers.push_back(headend.c_str());
      }
      m_result.extra_info = m_extraInfo.c_str();
      m_result.headends = m_pointers.data();
      m_result.headend_count = m_pointers.size();
    } catch (...) {
      m_result.status = AHS_ERROR_OUT_OF_MEMORY;
    }
    m_stored = true;
  }

  bool isDelivered() const AHS_REQUIRES(m_lock) {
    return m_delivered || m_caller == std::this_thread::get_id();
  }

  mutable CMonitor m_lock;  // notified of every change of the state
  ahs_callback m_callback AHS_GUARDED_BY(m_lock);
  void* const m_context;
  std::thread::id m_caller AHS_GUARDED_BY(m_lock);  // the thread that calls back, while it does
  bool m_stored AHS_GUARDED_BY(m_lock) = false;
  bool m_delivered AHS_GUARDED_BY(m_lock) = false;
  bool m_cancelled AHS_GUARDED_BY(m_lock) = false;
  // Written once, before m_stored is set under the lock; read by those who have seen that.
  std::vector<std::string> m_headends;
  std::vector<const char*> m_pointers;
  std::string m_extraInfo;
  ahs_result m_result{};
};

/// Runs the selection, and keeps what it reports to until it is over.
class RunThread : public CThread {
 public:
  RunThread(std::shared_ptr<Outcome> outcome, std::unique_ptr<CHeadendSelection> selection)
      : m_outcome(std::move(outcome)), m_selection(std::move(selection)) {}

  STATUSCODE Run() override {
    m_selection.release()->run();  // deletes the selection
    return 0;
  }

 private:
  std::shared_ptr<Outcome> m_outcome;
  std::unique_ptr<CHeadendSelection> m_selection;
};

std::unique_ptr<ProxyIfc> providerFor(const ahs_request& request) {
  if (request.proxy_user == nullptr || *request.proxy_user == '\0') {
    return nullptr;
  }
  const char* password = request.proxy_password == nullptr ? "" : request.proxy_password;
  return std::make_unique<CBasicProxyProvider>(SecureString<std::string>(request.proxy_user),
                                               SecureString<std::string>(password));
}

ahs_status startRun(const ahs_request& request, const std::shared_ptr<Outcome>& outcome) {
  long status = 0;
  auto run = std::make_unique<CHeadendSelection>(outcome.get(), textOf(request.last_headend),
                                                 request.reason, status);
  if (status == 0) {
    run->SetProxy(providerFor(request).release());
    status = std::make_unique<RunThread>(outcome, std::move(run))->Start();
  }
  return static_cast<ahs_status>(status);
}

}  // namespace

struct ahs_library {
  std::unique_ptr<CClientLibrary> clientLibrary;
};

struct ahs_selection {
  std::shared_ptr<Outcome> outcome;
};

namespace {

ahs_status bringUp(const ahs_options& options, ahs_library*& library) {
  CClientLibrary::Options all;
  all.sources.profileDirectory = textOf(options.profile_directory);
  all.sources.userPreferencesFile = textOf(options.user_preferences_file);
  all.sources.globalPreferencesFile = textOf(options.global_preferences_file);
  all.sources.cacheFile = textOf(options.cache_file);
  all.log.file = textOf(options.log_file);
  for (const char* address : std::span(options.addresses, options.address_count)) {
    all.sources.addresses.push_back(textOf(address));
  }
  STATUSCODE status = 0;
  auto handle = std::make_unique<ahs_library>();
  handle->clientLibrary = std::make_unique<CClientLibrary>(all, status);
  if (status == 0) {
    library = handle.release();
  }
  // A selection that has outlived the library it was started with holds on to one or the other.
  const bool exists = status == PREFERENCEMGR_ERROR_ALREADY_EXISTS ||
                      status == EXECUTIONCONTEXT_ERROR_ALREADY_EXISTS;
  return exists ? AHS_ERROR_ALREADY_STARTED : static_cast<ahs_status>(status);
}

}  // namespace

const char* ahs_version(void) { return AHS_VERSION; }

const char* ahs_status_name(ahs_status status) { return statusCodeName(STATUSCODE{status}); }

ahs_status ahs_start(const ahs_options* options, ahs_library** library) {
  if (library == nullptr) {
    return AHS_ERROR_BAD_PARAMETER;
  }
  *library = nullptr;
  ahs_options given = AHS_OPTIONS_INIT;
  if (!take(options, given) || (given.addresses == nullptr && given.address_count != 0)) {
    return AHS_ERROR_BAD_PARAMETER;
  }
  if (isUp().exchange(true)) {
    return AHS_ERROR_ALREADY_STARTED;
  }
  const ahs_status status = guarded([&given, library] { return bringUp(given, *library); });
  if (status != AHS_SUCCESS) {
    isUp() = false;
  }
  return status;
}

void ahs_stop(ahs_library* library) {
  if (library != nullptr) {
    delete library;
    isUp() = false;
  }
}

ahs_status ahs_select(ahs_library* library, const ahs_request* request, ahs_callback callback,
                      void* context, ahs_selection** selection) {
  if (selection == nullptr) {
    return AHS_ERROR_BAD_PARAMETER;
  }
  *selection = nullptr;
  ahs_request given = AHS_REQUEST_INIT;
  if (library == nullptr || (request != nullptr && !take(request, given))) {
    return AHS_ERROR_BAD_PARAMETER;
  }
  const ahs_status status = guarded([&given, callback, context, selection] {
    const auto outcome = std::make_shared<Outcome>(callback, context);
    auto handle = std::make_unique<ahs_selection>(ahs_selection{outcome});
    // The callback may come, and free the handle, before this has returned.
    *selection = handle.get();
    const ahs_status started = startRun(given, outcome);
    if (started == AHS_SUCCESS) {
      static_cast<void>(handle.release());
    }
    return started;
  });
  if (status != AHS_SUCCESS) {
    *selection = nullptr;
  }
  return status;
}

ahs_wait_result ahs_wait(ahs_selection* selection, uint32_t timeout_ms) {
  return selection->outcome->wait(timeout_ms);
}

void ahs_cancel_wait(ahs_selection* selection) { selection->outcome->cancelWait(); }

const ahs_result* ahs_get_result(const ahs_selection* selection) {
  return selection->outcome->result();
}

void ahs_free(ahs_selection* selection) {
  if (selection != nullptr) {
    selection->outcome->abandon();
    delete selection;
  }
}
