// The C functions. A handle is a number that names an object until it is given back, and is never
// reused, so that a wrong one does no harm. No exception leaves this file.

#include "ahs/ahs.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <iterator>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "capi/Arguments.h"
#include "capi/Library.h"
#include "capi/Selection.h"
#include "vpn/Api/AHS/HeadendResult.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/include/Locks.h"

namespace {

/// A path in it may be cut.
constexpr std::size_t LongestErrorText = 511;

/// The last error of each thread. It takes no memory, so that it can also tell a lack of memory.
thread_local char lastErrorText[LongestErrorText + 1] = "";

/// Keeps what ahs_error_text() tells this thread. @return `status`.
ahs_status failed(ahs_status status, std::string_view text) noexcept {
  std::size_t length = std::min(text.size(), LongestErrorText);
  // Do not cut within a character of UTF-8.
  while (length < text.size() && length > 0 && (text[length] & '\xC0') == '\x80') {
    --length;
  }
  *std::copy_n(text.begin(), length, &lastErrorText[0]) = '\0';
  return status;
}

ahs_status refused(std::string_view why) noexcept { return failed(AHS_ERROR_BAD_PARAMETER, why); }

/// A number that no handle of any kind has had. It resembles a pointer.
std::uintptr_t newNumber() {
  constexpr std::uintptr_t Step = 16;
  static std::atomic<std::uintptr_t> last{0};
  return last += Step;
}

/// The objects that clients hold, by handle. Any thread may call anything.
template <typename Handle, typename Object>
class Handles {
 public:
  /// @param null, none the errors for a null handle and for an unknown one.
  Handles(const char* null, const char* none) : m_null(null), m_none(none) {}

  Handle* add(std::shared_ptr<Object> object) {
    const CAutoLockT<CManualLock> guard(m_lock);
    // Never dereferenced. NOLINTNEXTLINE(performance-no-int-to-ptr)
    auto* const handle = reinterpret_cast<Handle*>(newNumber());
    m_objects.emplace(handle, std::move(object));
    return handle;
  }

  /// The object; null, and refused, if there is none.
  std::shared_ptr<Object> find(const Handle* handle) {
    const CAutoLockT<CManualLock> guard(m_lock);
    const auto found = m_objects.find(handle);
    return found == m_objects.end() ? none(handle) : found->second;
  }

  /// The same, and invalidates the handle.
  std::shared_ptr<Object> take(const Handle* handle) {
    const CAutoLockT<CManualLock> guard(m_lock);
    const auto node = m_objects.extract(handle);
    return node.empty() ? none(handle) : node.mapped();
  }

  std::nullptr_t none(const Handle* handle) const {
    refused(handle == nullptr ? m_null : m_none);
    return nullptr;
  }

 private:
  const char* const m_null;
  const char* const m_none;
  CManualLock m_lock;
  std::map<const Handle*, std::shared_ptr<Object>> m_objects AHS_GUARDED_BY(m_lock);
};

// Never freed, so that handles may be given back at exit.
auto& libraries() {
  static auto& all = *new Handles<ahs_library, Library>(
      "library is null", "library is not the handle of a library that is up");
  return all;
}

auto& selections() {
  static auto& all = *new Handles<ahs_selection, Selection>(
      "selection is null", "selection is not a handle, or was given back");
  return all;
}

/// Runs `operation` and turns exceptions into a status.
template <typename Operation>
ahs_status guarded(Operation operation) noexcept {
  try {
    return operation();
  } catch (const std::bad_alloc&) {
    return failed(AHS_ERROR_OUT_OF_MEMORY, "there is no memory");
  } catch (const std::exception& exception) {
    return failed(HEADENDSELECTION_ERROR_UNEXPECTED, exception.what());
  }
}

ahs_status startLibrary(const ahs_options* options, ahs_library*& library) {
  StartPlan plan;
  std::string error = takeOptions(options, plan);
  if (!error.empty()) {
    return refused(error);
  }
  ahs_status status = AHS_SUCCESS;
  const auto started = Library::start(plan, status, error);
  if (started == nullptr) {
    return failed(status, error.empty() ? ahs_status_text(status) : error);
  }
  try {
    library = libraries().add(started);
  } catch (const std::bad_alloc&) {
    started->stop();
    throw;
  }
  return AHS_SUCCESS;
}

ahs_status startSelection(Library& library, const ahs_request* request, ahs_callback callback,
                          void* context, ahs_selection*& handle) {
  ahs_request given = AHS_REQUEST_INIT;
  std::string error = takeRequest(request, given);
  if (!error.empty()) {
    return refused(error);
  }
  const auto selection = library.makeSelection(given, callback, context);
  if (selection == nullptr) {
    return refused("library is being stopped");
  }
  // The callback may come, and give the handle back, before this function returns.
  handle = selections().add(selection);
  STATUSCODE status = 0;
  try {
    error = selection->start(given, status);
  } catch (const std::exception&) {
    status = HEADENDSELECTION_ERROR_MEMALLOC_FAILED;  // nothing else throws here
    error = ahs_status_text(AHS_ERROR_OUT_OF_MEMORY);
  }
  if (status != 0) {
    selections().take(handle);
    handle = nullptr;
    selection->abandon();
    return failed(static_cast<ahs_status>(status), error);
  }
  return AHS_SUCCESS;
}

/// A status that the header names.
struct NamedStatus {
  ahs_status status;
  const char* name;
  const char* text;
};

constexpr NamedStatus Statuses[] = {
    {AHS_SUCCESS, "AHS_SUCCESS", "done, or selected from the cache"},
    {AHS_ADDED_TO_CACHE, "AHS_ADDED_TO_CACHE", "selected from measurements made now"},
    {AHS_ERROR_BAD_PARAMETER, "AHS_ERROR_BAD_PARAMETER",
     "an argument is wrong; ahs_error_text() says which"},
    {AHS_ERROR_OUT_OF_MEMORY, "AHS_ERROR_OUT_OF_MEMORY",
     "the machine is short of memory, threads or descriptors"},
    {AHS_ERROR_AUTH_PROXY_DETECTED, "AHS_ERROR_AUTH_PROXY_DETECTED",
     "nothing was measured: a proxy asks for a login; select again with user name and password"},
    {AHS_ERROR_TIMEOUT, "AHS_ERROR_TIMEOUT",
     "nothing was measured within the time limit; check the network, or raise "
     "SelectionConnectTimeout"},
    {AHS_ERROR_NO_HEADENDS, "AHS_ERROR_NO_HEADENDS",
     "no headend takes part; give headends, or set EnableAutomaticServerSelection to true in a "
     "profile that has some"},
    {AHS_ERROR_SELECTION_FAILURE, "AHS_ERROR_SELECTION_FAILURE",
     "no headend could be measured; check the network and the addresses"},
    {AHS_ERROR_ALREADY_STARTED, "AHS_ERROR_ALREADY_STARTED",
     "the library is up with other options; stop it, or start with equal ones"},
    {AHS_ERROR_CANCELLED, "AHS_ERROR_CANCELLED", "the selection was cancelled"},
};

/// Null for one that the header does not name.
const NamedStatus* findStatus(ahs_status status) {
  const auto* const found = std::ranges::find(Statuses, status, &NamedStatus::status);
  return found == std::end(Statuses) ? nullptr : found;
}

}  // namespace

void ahs_no_callback(const ahs_result* /*result*/, void* /*context*/) {}

const char* ahs_version(void) { return AHS_VERSION; }

int ahs_is_success(ahs_status status) {
  return status == AHS_SUCCESS || status == AHS_ADDED_TO_CACHE ? 1 : 0;
}

const char* ahs_status_name(ahs_status status) {
  const NamedStatus* const named = findStatus(status);
  return named != nullptr ? named->name : statusCodeName(STATUSCODE{status});  // as the log has it
}

const char* ahs_status_text(ahs_status status) {
  const NamedStatus* const named = findStatus(status);
  return named != nullptr ? named->text : "the selection failed; the log tells more";
}

const char* ahs_outcome_name(uint32_t outcome) {
  return outcome <= AHS_OUTCOME_LACK_OF_MEMORY ? outcomeName(static_cast<HeadendOutcome>(outcome))
                                               : "unknown";
}

const char* ahs_error_text(void) { return &lastErrorText[0]; }

ahs_status ahs_start(const ahs_options* options, ahs_library** library) {
  if (library == nullptr) {
    return refused("library, which receives the handle, is null");
  }
  *library = nullptr;
  return guarded([options, library] { return startLibrary(options, *library); });
}

ahs_status ahs_stop(ahs_library* library) {
  if (library == nullptr) {
    return AHS_SUCCESS;
  }
  const auto stopped = libraries().take(library);
  if (stopped == nullptr) {
    return AHS_ERROR_BAD_PARAMETER;
  }
  stopped->stop();
  return AHS_SUCCESS;
}

size_t ahs_problems(ahs_library* library, const ahs_problem* const** problems) {
  if (problems == nullptr) {
    refused("problems is null");
    return 0;
  }
  const auto found = libraries().find(library);
  const std::shared_ptr<const Core> core = found == nullptr ? nullptr : found->core();
  if (core == nullptr) {
    libraries().none(library);
    return 0;
  }
  const auto& all = core->problems();
  *problems = all.empty() ? nullptr : all.data();
  return all.size();
}

int ahs_descriptor(ahs_library* library) {
  const auto found = libraries().find(library);
  return found == nullptr ? -1 : found->teller().descriptor();
}

ahs_status ahs_dispatch(ahs_library* library) {
  const auto found = libraries().find(library);
  if (found == nullptr) {
    return AHS_ERROR_BAD_PARAMETER;
  }
  if (found->teller().descriptor() < 0) {
    return refused("library was started without own_loop: its callbacks come by themselves");
  }
  found->teller().tellAll();
  return AHS_SUCCESS;
}

ahs_status ahs_select(ahs_library* library, const ahs_request* request, ahs_callback callback,
                      void* context, ahs_selection** selection) {
  if (selection == nullptr) {
    return refused("selection, which receives the handle, is null");
  }
  *selection = nullptr;
  if (callback == nullptr) {
    return refused("callback is null; ahs_no_callback does nothing");
  }
  return guarded([=] {
    const auto found = libraries().find(library);
    return found == nullptr ? AHS_ERROR_BAD_PARAMETER
                            : startSelection(*found, request, callback, context, *selection);
  });
}

ahs_status ahs_cancel(ahs_selection* selection) {
  const auto found = selections().find(selection);
  if (found == nullptr) {
    return AHS_ERROR_BAD_PARAMETER;
  }
  found->cancel();
  return AHS_SUCCESS;
}

const ahs_result* ahs_wait(ahs_selection* selection, uint32_t timeoutMs) {
  const auto found = selections().find(selection);
  return found == nullptr ? nullptr : found->wait(timeoutMs);
}

ahs_status ahs_free(ahs_selection* selection) {
  if (selection == nullptr) {
    return AHS_SUCCESS;
  }
  const auto found = selections().take(selection);
  if (found == nullptr) {
    return AHS_ERROR_BAD_PARAMETER;
  }
  found->abandon();
  return AHS_SUCCESS;
}
