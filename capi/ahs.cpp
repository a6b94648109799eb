// The C functions. A handle is a number that stands for an object as long as nobody has given it
// back, and for none ever after, so a wrong one does no harm. Nothing thrown gets past this file.

#include "ahs/ahs.h"

#include <atomic>
#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "capi/Arguments.h"
#include "capi/ErrorText.h"
#include "capi/Library.h"
#include "capi/Selection.h"
#include "vpn/Api/AHS/HeadendResult.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/include/Locks.h"

namespace {

/// A number that no handle of either kind has had. It looks like a pointer to those who look.
std::uintptr_t newNumber() {
  constexpr std::uintptr_t step = 16;
  static std::atomic<std::uintptr_t> last{0};
  return last += step;
}

/// The objects that clients hold, by handle. Any thread may call anything.
template <typename Handle, typename Object>
class Handles {
 public:
  /// All of the process; never freed, so that they may be given back at exit.
  static Handles& instance() {
    static Handles& all = *new Handles;
    return all;
  }

  Handle* add(std::shared_ptr<Object> object) {
    const CAutoLockT<CManualLock> guard(m_lock);
    // Never dereferenced. NOLINTNEXTLINE(performance-no-int-to-ptr)
    auto* const handle = reinterpret_cast<Handle*>(newNumber());
    m_objects.emplace(handle, std::move(object));
    return handle;
  }

  /// The object, null if there is none.
  std::shared_ptr<Object> find(const Handle* handle) {
    const CAutoLockT<CManualLock> guard(m_lock);
    const auto found = m_objects.find(handle);
    return found == m_objects.end() ? nullptr : found->second;
  }

  /// The same; the handle is none from now on.
  std::shared_ptr<Object> take(const Handle* handle) {
    const CAutoLockT<CManualLock> guard(m_lock);
    const auto node = m_objects.extract(handle);
    return node.empty() ? nullptr : node.mapped();
  }

 private:
  CManualLock m_lock;
  std::map<const Handle*, std::shared_ptr<Object>> m_objects AHS_GUARDED_BY(m_lock);
};

using Libraries = Handles<ahs_library, Library>;
using Selections = Handles<ahs_selection, Selection>;

constexpr ahs_status Unexpected = HEADENDSELECTION_ERROR_UNEXPECTED;

/// Runs `operation`, whatever it throws.
template <typename Operation>
ahs_status guarded(Operation operation) noexcept {
  try {
    return operation();
  } catch (const std::bad_alloc&) {
    return failed(AHS_ERROR_OUT_OF_MEMORY, "there is no memory");
  } catch (const std::exception& exception) {
    return failed(Unexpected, exception.what());
  }
}

ahs_status refused(std::string_view why) noexcept { return failed(AHS_ERROR_BAD_PARAMETER, why); }

ahs_status noLibrary(const ahs_library* handle) noexcept {
  return refused(handle == nullptr ? "library is null"
                                   : "library is no handle of a library that is up");
}

ahs_status noSelection(const ahs_selection* handle) noexcept {
  return refused(handle == nullptr ? "selection is null"
                                   : "selection is no handle, or it was given back");
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
    library = Libraries::instance().add(started);
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
  const auto selection = library.makeSelection(
      {nullptr, callback, context, given.on_progress, given.progress_context}, given.reason);
  if (selection == nullptr) {
    return refused("library is being stopped");
  }
  // The callback may come, and give the handle back, before this has returned.
  handle = Selections::instance().add(selection);
  STATUSCODE status = 0;
  try {
    error = selection->start(given, status);
  } catch (const std::bad_alloc&) {
    status = HEADENDSELECTION_ERROR_MEMALLOC_FAILED;
    error.clear();
  }
  if (status == 0) {
    return AHS_SUCCESS;
  }
  Selections::instance().take(handle);
  selection->abandon();
  return failed(static_cast<ahs_status>(status),
                error.empty() ? ahs_status_text(AHS_ERROR_OUT_OF_MEMORY) : error);
}

}  // namespace

void ahs_no_callback(const ahs_result* /*result*/, void* /*context*/) {}

const char* ahs_version(void) { return AHS_VERSION; }

int ahs_is_success(ahs_status status) {
  return status == AHS_SUCCESS || status == AHS_ADDED_TO_CACHE ? 1 : 0;
}

// Those that the header names go by the names there, any other by the one of the log.
const char* ahs_status_name(ahs_status status) {
  switch (status) {
    case AHS_SUCCESS:
      return "AHS_SUCCESS";
    case AHS_ADDED_TO_CACHE:
      return "AHS_ADDED_TO_CACHE";
    case AHS_ERROR_BAD_PARAMETER:
      return "AHS_ERROR_BAD_PARAMETER";
    case AHS_ERROR_OUT_OF_MEMORY:
      return "AHS_ERROR_OUT_OF_MEMORY";
    case AHS_ERROR_AUTH_PROXY_DETECTED:
      return "AHS_ERROR_AUTH_PROXY_DETECTED";
    case AHS_ERROR_TIMEOUT:
      return "AHS_ERROR_TIMEOUT";
    case AHS_ERROR_NO_HEADENDS:
      return "AHS_ERROR_NO_HEADENDS";
    case AHS_ERROR_SELECTION_FAILURE:
      return "AHS_ERROR_SELECTION_FAILURE";
    case AHS_ERROR_ALREADY_STARTED:
      return "AHS_ERROR_ALREADY_STARTED";
    case AHS_ERROR_CANCELLED:
      return "AHS_ERROR_CANCELLED";
    default:
      return statusCodeName(STATUSCODE{status});
  }
}

const char* ahs_status_text(ahs_status status) {
  switch (status) {
    case AHS_SUCCESS:
      return "done, or selected from the cache";
    case AHS_ADDED_TO_CACHE:
      return "selected from measurements made now";
    case AHS_ERROR_BAD_PARAMETER:
      return "an argument is wrong; ahs_error_text() says which";
    case AHS_ERROR_OUT_OF_MEMORY:
      return "the machine is short of memory, threads or descriptors";
    case AHS_ERROR_AUTH_PROXY_DETECTED:
      return "nothing was measured: a proxy asks for a login; select again with user name and "
             "password";
    case AHS_ERROR_TIMEOUT:
      return "nothing was measured within the time limit; check the network, or raise "
             "SelectionConnectTimeout";
    case AHS_ERROR_NO_HEADENDS:
      return "no headend takes part; give headends, or set EnableAutomaticServerSelection to true "
             "in a profile that has some";
    case AHS_ERROR_SELECTION_FAILURE:
      return "no headend could be measured; check the network and the addresses";
    case AHS_ERROR_ALREADY_STARTED:
      return "the library is up with other options; stop it, or start with equal ones";
    case AHS_ERROR_CANCELLED:
      return "the selection was cancelled";
    default:
      return "the selection failed; the log tells more";
  }
}

const char* ahs_outcome_name(uint32_t outcome) {
  return outcome <= AHS_OUTCOME_NOT_IN_CACHE ? outcomeName(static_cast<HeadendOutcome>(outcome))
                                             : "unknown";
}

const char* ahs_error_text(void) { return errorText(); }

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
  return guarded([library] {
    const auto stopped = Libraries::instance().take(library);
    if (stopped == nullptr) {
      return noLibrary(library);
    }
    stopped->stop();
    return AHS_SUCCESS;
  });
}

size_t ahs_problems(ahs_library* library, const ahs_problem* const** problems) {
  const auto found = Libraries::instance().find(library);
  if (found == nullptr || problems == nullptr) {
    static_cast<void>(found == nullptr ? noLibrary(library) : refused("problems is null"));
    return 0;
  }
  const std::shared_ptr<HeldCore> core = found->core();
  if (core == nullptr) {
    static_cast<void>(noLibrary(library));
    return 0;
  }
  const auto& all = core->get().problems();
  *problems = all.empty() ? nullptr : all.data();
  return all.size();
}

int ahs_descriptor(ahs_library* library) {
  const auto found = Libraries::instance().find(library);
  if (found == nullptr) {
    static_cast<void>(noLibrary(library));
    return -1;
  }
  return found->teller().descriptor();
}

ahs_status ahs_dispatch(ahs_library* library) {
  return guarded([library] {
    const auto found = Libraries::instance().find(library);
    if (found == nullptr) {
      return noLibrary(library);
    }
    if (found->teller().descriptor() < 0) {
      return refused("library was started without own_loop: its callbacks come by themselves");
    }
    found->teller().tellAll();
    return AHS_SUCCESS;
  });
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
  const ahs_status status = guarded([=] {
    const auto found = Libraries::instance().find(library);
    return found == nullptr ? noLibrary(library)
                            : startSelection(*found, request, callback, context, *selection);
  });
  if (status != AHS_SUCCESS) {
    *selection = nullptr;
  }
  return status;
}

ahs_status ahs_cancel(ahs_selection* selection) {
  return guarded([selection] {
    const auto found = Selections::instance().find(selection);
    if (found == nullptr) {
      return noSelection(selection);
    }
    found->cancel();
    return AHS_SUCCESS;
  });
}

const ahs_result* ahs_wait(ahs_selection* selection, uint32_t timeout_ms) {
  const auto found = Selections::instance().find(selection);
  if (found == nullptr) {
    static_cast<void>(noSelection(selection));
    return nullptr;
  }
  return found->wait(timeout_ms);
}

ahs_status ahs_free(ahs_selection* selection) {
  if (selection == nullptr) {
    return AHS_SUCCESS;
  }
  return guarded([selection] {
    const auto found = Selections::instance().take(selection);
    if (found == nullptr) {
      return noSelection(selection);
    }
    found->abandon();
    return AHS_SUCCESS;
  });
}
