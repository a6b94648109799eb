#ifndef AHS_HPP
#define AHS_HPP

#if __cplusplus < 202002L
#error "ahs.hpp needs C++20 (-std=c++20); ahs.h is C"
#endif

/**
 * @file
 * Selection of the nearest VPN gateway ("headend") for clients in C++20.
 *
 *     ahs::Library library({.headends = {"gw1.example.com", "gw2.example.com:8443"}});
 *     const ahs::Result result = library.select();
 *     std::puts((result ? result.headends.front() : result.error).c_str());
 *
 * This header is all inline, on top of ahs.h, which says more of each part. Values go in and come
 * out; what a function is given it copies.
 *
 * Errors are values. Nothing is thrown but std::bad_alloc, where there is no memory for a copy; the
 * call has then done nothing. Text and numbers are not checked here but in the library, which says
 * which one is wrong.
 *
 * Threads: any thread may call any member function but a move and a destructor at any time, also
 * inside a function that the client has given ("callback"). All callbacks of a Library but
 * Request::onSocket come one at a time and in order: on a thread of the library, or, with
 * Options::ownLoop, inside Library::dispatch(). What a callback throws ends there and is dropped.
 */

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ahs.h"

namespace ahs {

using Milliseconds = std::chrono::milliseconds;  ///< the unit of all times but a cache's age

/// How something ended. Other values than those named below are possible.
struct Status {
  ahs_status value = AHS_SUCCESS;  ///< as in ahs.h

  /// Whether it is a success: Success or AddedToCache.
  explicit operator bool() const noexcept { return ahs_is_success(value) != 0; }
  bool operator==(const Status&) const = default;  ///< compares values
  /// Such as "AHS_ADDED_TO_CACHE"; "UNKNOWN" for a value that has no name.
  const char* name() const noexcept { return ahs_status_name(value); }
  /// A sentence that says what to do, without a full stop at its end.
  const char* text() const noexcept { return ahs_status_text(value); }
};

inline constexpr Status Success{AHS_SUCCESS};  ///< done; of a selection: the cache had it
/// Of a selection: measured, and now in the cache. A success too.
inline constexpr Status AddedToCache{AHS_ADDED_TO_CACHE};
inline constexpr Status BadParameter{AHS_ERROR_BAD_PARAMETER};  ///< the error says which
inline constexpr Status OutOfMemory{AHS_ERROR_OUT_OF_MEMORY};   ///< there is no memory
/// A proxy asks for a user name and a password: select again with them.
inline constexpr Status AuthProxyDetected{AHS_ERROR_AUTH_PROXY_DETECTED};
/// The time limit passed. No result has this status: it has what was measured until then, or
/// SelectionFailure.
inline constexpr Status Timeout{AHS_ERROR_TIMEOUT};
inline constexpr Status NoHeadends{AHS_ERROR_NO_HEADENDS};              ///< none takes part
inline constexpr Status SelectionFailure{AHS_ERROR_SELECTION_FAILURE};  ///< none could be measured
/// The library is up with other options: one library a process.
inline constexpr Status AlreadyStarted{AHS_ERROR_ALREADY_STARTED};
inline constexpr Status Cancelled{AHS_ERROR_CANCELLED};  ///< by the client

/// What a client is doing that it needs a headend. A Reconnection keeps the last one unless another
/// is better by the preference SelectionImprovement.
enum class Reason : std::uint32_t {
  Connection,
  Reconnection,
  PreferencesChange,
  ProxyAuthentication,
  ProcessLaunch,
  Disconnect
};

/// How a client logs in to a proxy, as in ahs_proxy_type; see docs/proxies.md.
enum class ProxyType : std::uint32_t { Basic, Ntlm, Kerberos, None };

/// How much a log message matters.
enum class LogLevel : std::uint32_t { Error, Warning, Info };

/// What became of a headend or of one probe: up to FromCache with a metric, the others without.
enum class Outcome : std::uint32_t {
  Answered,
  UntrustedCertificate,
  ClientCertificateWanted,
  NotHttp,
  Failed,  ///< an answer of another kind
  FromCache,
  CannotConnect,
  TimedOut,
  NameNotResolved,
  NoAnswerInTime,  ///< its first probe was out when the selection ended
  NotFinishedInTime,
  NotProbed,
  NotInCache,
  LackOfDescriptors,  ///< this machine ran out of these; such a selection is not remembered
  LackOfThreads,
  LackOfMemory
};

static_assert(static_cast<int>(Reason::Disconnect) == AHS_REASON_DISCONNECT &&
              static_cast<int>(ProxyType::None) == AHS_PROXY_NONE &&
              static_cast<int>(LogLevel::Info) == AHS_LOG_INFO &&
              static_cast<int>(Outcome::LackOfMemory) == AHS_OUTCOME_LACK_OF_MEMORY);

/// Such as "timed out"; "unknown" for a value that has no name.
inline const char* outcomeName(Outcome outcome) noexcept {
  return ahs_outcome_name(static_cast<std::uint32_t>(outcome));
}

/// Version of the library, "MAJOR.MINOR.PATCH".
inline const char* version() noexcept { return ahs_version(); }

/// Overwrites a text with zeros and empties it, for passwords.
inline void wipe(std::string& text) noexcept {
  text.resize(text.capacity());
  volatile char* const bytes = text.data();
  for (std::size_t i = 0; i < text.size(); ++i) {
    bytes[i] = '\0';
  }
  text.clear();
}

/// A headend given by code.
struct Headend {
  Headend(const char* text) : address(text) {}             ///< an address without a name
  Headend(std::string text) : address(std::move(text)) {}  ///< the same
  /// A name and an address.
  Headend(std::string hostEntry, std::string text)
      : name(std::move(hostEntry)), address(std::move(text)) {}

  std::string name;     ///< of its host entry, unique in any letter case; empty: the address
  std::string address;  ///< host, host:port or URL; an IPv6 address in brackets
};

/// A preference set by code; see docs/profiles.md.
struct Preference {
  std::string name;   ///< such as "SelectionImprovement"
  std::string value;  ///< as a preferences file has it
};

/// A message of the log.
struct LogMessage {
  LogLevel level = LogLevel::Info;  ///< how much it matters
  std::string text;  ///< one paragraph of UTF-8 without control characters but line feeds and tabs
  std::string function;    ///< where it comes from
  std::uint64_t lost = 0;  ///< messages lost before this one, because callbacks were too slow
};

/// What a Library works with. An empty text stands for nothing.
struct Options {
  /// Its "*.xml" files are the profiles.
  std::string profileDirectory{};
  std::string userPreferencesFile{};      ///< the user's own preferences
  std::string globalPreferencesFile{};    ///< the machine's preferences
  std::vector<Headend> headends{};        ///< that take part, beside those of the profiles
  std::vector<Preference> preferences{};  ///< that go before every file's
  /// "host" or "host:port"; "" for none; nullopt: the preferences decide, whose default is the
  /// system's proxy.
  std::optional<std::string> proxy{};
  std::string cacheDirectory{};        ///< keeps selections between processes; empty: until the end
  std::string logFile{};               ///< rotated at 4 MiB
  LogLevel logLevel = LogLevel::Info;  ///< least important that is logged
  std::function<void(const LogMessage&)> onLog{};  ///< hears what is logged
  bool ownLoop = false;  ///< callbacks come inside Library::dispatch() alone
  /// No environment variable decides anything, for the rest of the process; see ahs_options.
  bool ignoreEnvironment = false;
};

/// Something that is wrong with a profile or a preferences file. It costs what it says and no more.
struct Problem {
  std::string file;          ///< its path
  std::uint32_t line = 0;    ///< from 1; 0: the file as a whole
  std::uint32_t column = 0;  ///< from 1, in characters; 0 with line 0
  std::string text;          ///< what was found and what is allowed
};

/// One probe that has started or ended.
struct Probe {
  std::string name;                    ///< of the headend's host entry
  std::string headend;                 ///< host, or host:port
  bool ended = false;                  ///< false: it has started, and the next three mean nothing
  Outcome outcome{};                   ///< what became of it
  Milliseconds roundTrip{};            ///< 0 where nothing answered
  std::string address;                 ///< the IP address that was connected to; empty if none was
  std::uint32_t probesStarted{};       ///< of the whole selection so far, as are the next two
  std::uint32_t probesEnded{};         ///< whatever became of them
  std::uint32_t headendsAnswered{};    ///< with a probe at least
  std::uint32_t headendCount{};        ///< that take part
  ahs_selection* selection = nullptr;  ///< for cancel()

  /// Cancels its selection, for a callback that comes before the client has the Selection.
  void cancel() const noexcept { ahs_cancel(selection); }
};

/// A selection is decided before it ends; see ahs_decision.
struct Decision {
  std::string name;                    ///< of the headend's host entry
  std::string headend;                 ///< host, or host:port, as in Result
  Milliseconds metric{};               ///< its metric
  Milliseconds after{};                ///< since select()
  ahs_selection* selection = nullptr;  ///< for cancel()

  /// Cancels its selection, whose result then is Cancelled.
  void cancel() const noexcept { ahs_cancel(selection); }
};

/// What is wanted of one selection. An empty text stands for nothing.
struct Request {
  Reason reason = Reason::Connection;      ///< why a headend is needed
  std::string lastHeadend{};               ///< used last: its name, or as in Result::headends
  ProxyType proxyType = ProxyType::Basic;  ///< without a user name only None matters
  std::string proxyUser{};                 ///< for a proxy that asked
  /// The library wipes its only copy when the selection is over. The client may wipe() this one as
  /// soon as select() has been called.
  std::string proxyPassword{};
  /// Probes leave through this network interface (SO_BINDTODEVICE, socket(7)).
  std::string interfaceName{};
  /// Probes leave from this IPv4 or IPv6 address, and reach headends of its family alone.
  std::string sourceAddress{};
  std::uint32_t mark = 0;   ///< probes carry it (SO_MARK; takes CAP_NET_ADMIN); 0 for none
  bool measureNow = false;  ///< whatever the cache has, which then keeps the new result
  /// A remembered selection answers up to this age; 0 or less: as the preferences say.
  std::chrono::seconds maxAge{0};
  /// Is given each socket that a probe is about to connect, after the three above were set, on the
  /// probe's own thread and several at a time. It must not close the socket, and of this library
  /// may call Selection::cancel() only. If it returns false or throws, the probe fails as if it
  /// could not connect.
  std::function<bool(int socket)> onSocket{};
  /// Hears that a probe has started or ended; not after the result.
  std::function<void(const Probe&)> onProgress{};
  /// Hears, once at most and before the result, which headend will be chosen. In rare cases, such
  /// as that of a lost packet, the result names another.
  std::function<void(const Decision&)> onDecision{};
};

/// What a selection found out about one headend.
struct Candidate {
  std::string name;     ///< of its host entry
  std::string headend;  ///< host, or host:port, as in Result
  std::string address;  ///< the IP address that was measured; empty if none was, or not now
  /// What the ranking goes by: the smallest round trip that is not 0 ms, or 0 ms if all are.
  std::optional<Milliseconds> metric{};
  Outcome outcome{};                    ///< what became of it
  std::vector<Milliseconds> samples{};  ///< measured now, in the order in which they came
};

/// The outcome of a selection.
struct Result {
  Status status{};                     ///< how it ended
  std::string error{};                 ///< why there is no choice, in a sentence; else empty
  Reason reason = Reason::Connection;  ///< as it was requested
  /// Host, or host:port, best first. With a failure: one to fall back on, or nothing.
  std::vector<std::string> headends{};
  /// With AuthProxyDetected the realm of the proxy that asks. It may hold anything: make it visible
  /// before you show it.
  std::string proxyRealm{};
  /// Every headend that takes part: those of `headends` in that order, then the others.
  std::vector<Candidate> candidates{};
  bool fromCache = false;  ///< the metrics are those of an earlier selection
  /// Since that one; nullopt where there is none or the clock was put back.
  std::optional<std::chrono::seconds> cacheAge{};
  Milliseconds elapsed{};  ///< from select() to the result

  /// Whether it has chosen; `headends` is not empty then.
  explicit operator bool() const noexcept { return static_cast<bool>(status); }
};

/// Not for clients.
namespace detail {

inline const char* orNull(const std::string& text) noexcept {
  return text.empty() ? nullptr : text.c_str();
}

inline Candidate copyOf(const ahs_candidate& from) {
  Candidate to{from.name, from.headend, from.address};
  if (from.metric_ms != AHS_NO_METRIC) {
    to.metric = Milliseconds(from.metric_ms);
  }
  to.outcome = static_cast<Outcome>(from.outcome);
  to.samples = {from.samples_ms, from.samples_ms + from.sample_count};
  return to;
}

inline Result copyOf(const ahs_result& from) {
  Result to{{from.status}, "", static_cast<Reason>(from.reason)};
  to.error = to ? "" : to.status.text();
  to.headends.assign(from.headends, from.headends + from.headend_count);
  to.proxyRealm = from.proxy_realm;
  for (std::size_t i = 0; i < from.candidate_count; ++i) {
    to.candidates.push_back(copyOf(*from.candidates[i]));
  }
  to.fromCache = from.from_cache != 0;
  if (from.cache_age_s >= 0) {
    to.cacheAge = std::chrono::seconds(from.cache_age_s);
  }
  to.elapsed = Milliseconds(from.elapsed_ms);
  return to;
}

/// Runs a client's function, whose exceptions end here. @return whether it threw none.
template <class Function, class... Arguments>
bool guarded(const Function& function, const Arguments&... arguments) noexcept {
  try {
    function(arguments...);
    return true;
  } catch (...) {
    return false;
  }
}

/// The functions of a library or a selection. A running one keeps them: it may destroy either.
struct Callbacks : std::enable_shared_from_this<Callbacks> {
  std::function<void(const LogMessage&)> onLog;
  std::function<void(const Result&)> onResult;
  std::function<void(const Probe&)> onProgress;
  std::function<void(const Decision&)> onDecision;
  std::function<bool(int)> onSocket;
  ahs_selection* selection = nullptr;

  static std::shared_ptr<Callbacks> from(void* context) {
    return static_cast<Callbacks*>(context)->shared_from_this();
  }
  static void tellResult(const ahs_result* result, void* context) noexcept {
    const auto self = from(context);
    Result copy;
    if (!guarded([&] { copy = copyOf(*result); })) {
      copy = Result{.status = OutOfMemory};
    }
    guarded(self->onResult, copy);
  }
  static void tellProgress(const ahs_probe* probe, void* context) noexcept {
    const auto self = from(context);
    guarded([&] {
      self->onProgress(Probe{probe->name, probe->headend, probe->ended != 0,
                             static_cast<Outcome>(probe->outcome), Milliseconds(probe->rtt_ms),
                             probe->address, probe->probes_started, probe->probes_ended,
                             probe->headends_answered, probe->headend_count, self->selection});
    });
  }
  static void tellDecision(const ahs_decision* decision, void* context) noexcept {
    const auto self = from(context);
    guarded([&] {
      self->onDecision(Decision{decision->name, decision->headend,
                                Milliseconds(decision->metric_ms), Milliseconds(decision->after_ms),
                                self->selection});
    });
  }
  static int tellSocket(int socket, void* context) noexcept {
    const auto self = from(context);
    bool goOn = false;
    guarded([&] { goOn = self->onSocket(socket); });
    return goOn ? 0 : 1;
  }
  static void tellLog(const ahs_log_message* message, void* context) noexcept {
    const auto self = from(context);
    guarded([&] {
      self->onLog(LogMessage{static_cast<LogLevel>(message->level), message->text,
                             message->function, message->lost});
    });
  }
};

/// A handle with the functions that its library calls, or why there is none. The functions are
/// destroyed after the handle.
template <class Native, ahs_status (*GiveBack)(Native*)>
struct Owned {
  struct Deleter {
    std::shared_ptr<Callbacks> functions{};
    void operator()(Native* native) const noexcept { GiveBack(native); }
  };
  std::unique_ptr<Native, Deleter> handle;
  Status failure = BadParameter;
  std::string text;

  void take(ahs_status status, Native* native, std::shared_ptr<Callbacks> functions) {
    if (status == AHS_SUCCESS) {
      handle = {native, Deleter{std::move(functions)}};
    } else {
      failure = {status};
      text = ahs_error_text();
    }
  }
  Status status() const noexcept { return handle ? Success : failure; }
  std::string error() const {
    return handle ? "" : text.empty() ? "the object is empty: moved from, or never made" : text;
  }
};

}  // namespace detail

/// One selection, from Library::select(). Its destructor cancels a running one and waits for its
/// running callback, except inside one; no callback comes afterwards.
class [[nodiscard]] Selection {
 public:
  /// No selection.
  Selection() = default;

  /// Whether there is a selection; it may be over.
  explicit operator bool() const noexcept { return static_cast<bool>(status()); }
  /// Why there is no selection; Success if there is one.
  Status status() const noexcept { return m_owned.status(); }
  /// The same in a sentence; empty if there is a selection.
  std::string error() const { return m_owned.error(); }

  /// Ends the selection and returns at once: its result is Cancelled, and the client is told. Does
  /// nothing to a selection that is over.
  void cancel() const noexcept { ahs_cancel(m_owned.handle.get()); }

  /// Waits for the result. The client's function may be told before or after.
  /// @return at once, with the reason, if there is no selection.
  Result wait() const {
    const ahs_result* result = ahs_wait(m_owned.handle.get(), AHS_WAIT_FOREVER);
    return result != nullptr ? detail::copyOf(*result) : Result{status(), error()};
  }
  /// The same for a limited time; 0 asks and does not wait.
  /// @return nullopt when the time has passed.
  std::optional<Result> wait(Milliseconds limit) const {
    constexpr Milliseconds Longest(AHS_WAIT_FOREVER - 1);
    const Milliseconds ms = limit < Longest ? limit : Longest;
    const auto count = static_cast<std::uint32_t>(ms.count() > 0 ? ms.count() : 0);
    const bool over = !*this || ahs_wait(m_owned.handle.get(), count) != nullptr;
    return over ? std::optional<Result>(wait()) : std::nullopt;
  }

 private:
  friend class Library;
  detail::Owned<ahs_selection, ahs_free> m_owned;
};

/// The library while it is up: one a process; a second one with equal options (callbacks and
/// ownLoop do not count) shares it. Its destructor cancels running selections and makes every
/// callback that is due; none comes afterwards. Selections and their results stay valid.
class Library {
 public:
  /// Brings it up: reads preferences and profiles. Mistakes in them are no failure; see problems().
  /// After a failure the object is false and can do nothing.
  explicit Library(const Options& options = {}) {
    std::vector<ahs_headend> headends;
    for (const Headend& headend : options.headends) {
      headends.push_back({detail::orNull(headend.name), headend.address.c_str()});
    }
    std::vector<ahs_preference> preferences;
    for (const Preference& preference : options.preferences) {
      preferences.push_back({preference.name.c_str(), preference.value.c_str()});
    }
    ahs_options native = AHS_OPTIONS_INIT;
    native.profile_directory = detail::orNull(options.profileDirectory);
    native.user_preferences_file = detail::orNull(options.userPreferencesFile);
    native.global_preferences_file = detail::orNull(options.globalPreferencesFile);
    native.headends = headends.data();
    native.headend_count = headends.size();
    native.preferences = preferences.data();
    native.preference_count = preferences.size();
    native.proxy = options.proxy ? options.proxy->c_str() : nullptr;
    native.cache_directory = detail::orNull(options.cacheDirectory);
    native.log_file = detail::orNull(options.logFile);
    native.log_level = static_cast<std::uint32_t>(options.logLevel);
    native.own_loop = options.ownLoop ? 1 : 0;
    native.ignore_environment = options.ignoreEnvironment ? 1 : 0;
    auto callbacks = std::make_shared<detail::Callbacks>();
    callbacks->onLog = options.onLog;
    native.on_log = callbacks->onLog ? detail::Callbacks::tellLog : nullptr;
    native.log_context = callbacks.get();
    ahs_library* library = nullptr;
    const ahs_status status = ahs_start(&native, &library);
    m_owned.take(status, library, std::move(callbacks));
  }

  /// Whether it is up.
  explicit operator bool() const noexcept { return static_cast<bool>(status()); }
  /// Why it is not up: BadParameter, AlreadyStarted, OutOfMemory, or the status of a part that
  /// failed to start; Success while it is up.
  Status status() const noexcept { return m_owned.status(); }
  /// The same in a sentence, which names the option that is wrong; empty while it is up.
  std::string error() const { return m_owned.error(); }

  /// Selects and waits for the result. Drops progress that has not been told by then; with ownLoop
  /// that is all progress that no other thread dispatches.
  [[nodiscard]] Result select(const Request& request = {}) {
    return select(request, nullptr).wait();
  }

  /// Starts a selection and returns at once. It takes no longer than its time limit.
  /// @param request what is wanted; may be destroyed when this has returned.
  /// @param onResult is told the result once, unless the Selection is destroyed before. It may
  ///        destroy the Selection, and may come before this returns. Empty if wait() will do.
  /// @return a Selection that is false if it could not be started; onResult does not come then.
  Selection select(const Request& request, std::function<void(const Result&)> onResult) {
    Selection selection;
    if (!*this) {
      selection.m_owned.failure = status();
      selection.m_owned.text = error();
      return selection;
    }
    auto callbacks = std::make_shared<detail::Callbacks>();
    callbacks->onResult = std::move(onResult);
    callbacks->onProgress = request.onProgress;
    callbacks->onDecision = request.onDecision;
    callbacks->onSocket = request.onSocket;
    ahs_request native = AHS_REQUEST_INIT;
    native.reason = static_cast<std::uint32_t>(request.reason);
    native.proxy_type = static_cast<std::uint32_t>(request.proxyType);
    native.last_headend = detail::orNull(request.lastHeadend);
    native.proxy_user = detail::orNull(request.proxyUser);
    native.proxy_password = detail::orNull(request.proxyPassword);
    native.interface_name = detail::orNull(request.interfaceName);
    native.source_address = detail::orNull(request.sourceAddress);
    native.mark = request.mark;
    native.measure_now = request.measureNow ? 1 : 0;
    constexpr std::chrono::seconds MostAge{UINT32_MAX};
    native.max_age_s = static_cast<std::uint32_t>(
        std::clamp(request.maxAge, std::chrono::seconds(0), MostAge).count());
    native.on_socket = callbacks->onSocket ? detail::Callbacks::tellSocket : nullptr;
    native.socket_context = callbacks.get();
    native.on_progress = callbacks->onProgress ? detail::Callbacks::tellProgress : nullptr;
    native.progress_context = callbacks.get();
    native.on_decision = callbacks->onDecision ? detail::Callbacks::tellDecision : nullptr;
    native.decision_context = callbacks.get();
    const ahs_callback told = callbacks->onResult ? detail::Callbacks::tellResult : ahs_no_callback;
    const ahs_status status =
        ahs_select(m_owned.handle.get(), &native, told, callbacks.get(), &callbacks->selection);
    ahs_selection* const handle = callbacks->selection;
    selection.m_owned.take(status, handle, std::move(callbacks));
    return selection;
  }

  /// What is wrong with profiles and preferences files; at most a thousand are listed.
  std::vector<Problem> problems() const {
    const ahs_problem* const* list = nullptr;
    const std::size_t count = ahs_problems(m_owned.handle.get(), &list);
    std::vector<Problem> problems;
    for (std::size_t i = 0; i < count; ++i) {
      problems.push_back({list[i]->file, list[i]->line, list[i]->column, list[i]->text});
    }
    return problems;
  }

  /// A descriptor that polls readable while dispatch() has something to tell; it belongs to the
  /// library. Neither read, write nor close it.
  /// @return -1 without ownLoop.
  int descriptor() const noexcept { return ahs_descriptor(m_owned.handle.get()); }

  /// Makes the callbacks that are due, on this thread, until there are none, and returns at once
  /// when there are none. Inside a callback, or while another thread is in it, it does nothing.
  /// @return BadParameter without ownLoop.
  Status dispatch() const noexcept { return {ahs_dispatch(m_owned.handle.get())}; }

 private:
  detail::Owned<ahs_library, ahs_stop> m_owned;
};

}  // namespace ahs

#endif
