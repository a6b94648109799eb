#ifndef AHS_H
#define AHS_H

/**
 * @file
 * Selection of the nearest VPN gateway ("headend"): the whole of what a client sees of the library.
 *
 *     ahs_headend headends[] = {{NULL, "gw1.example.com"}, {NULL, "gw2.example.com:8443"}};
 *     ahs_options options = AHS_OPTIONS_INIT;
 *     options.headends = headends;
 *     options.headend_count = 2;
 *     ahs_library* library;
 *     if (ahs_start(&options, &library) != AHS_SUCCESS) puts(ahs_error_text());
 *     ahs_selection* selection;
 *     ahs_select(library, NULL, on_result, context, &selection);
 *     ...
 *     ahs_free(selection);
 *     ahs_stop(library);
 *
 * C++ has ahs.hpp on top of this.
 *
 * Texts are UTF-8 and end with a NUL. Functions copy their arguments: the caller may free them when
 * the function has returned. Structures begin with their size, set by their _INIT macro, so that
 * later versions can add members at the end.
 *
 * Errors: a function that fails returns why, and ahs_error_text() says it in a sentence. No
 * exception leaves the library and no signal is raised, not even SIGXFSZ for a file that grows too
 * large. A handle that was given back, or never was one, is refused with AHS_ERROR_BAD_PARAMETER
 * wherever it is used.
 *
 * Threads: any thread may call any function at any time, also inside a callback, unless the
 * function says otherwise. All callbacks of a library but ahs_socket_callback come one at a time
 * and in order: on a thread of the library, or, for a client with an event loop, inside
 * ahs_dispatch(). A callback that takes long holds up the callbacks after it and no measurement.
 * None may throw or end its thread, and no thread may be cancelled (pthread_cancel(3)) in here. On
 * a thread of the library nearly all signals are blocked; a program started there inherits that, so
 * a callback that starts one unblocks them first (posix_spawnattr_setsigmask(3), or
 * pthread_sigmask(3) between fork and exec).
 */

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** 0 for success, otherwise a number that ahs_status_name() names. */
typedef uint32_t ahs_status;

/** Done; of a selection: the cache had it. */
#define AHS_SUCCESS ((ahs_status)0)
/** Of a selection: measured, and now in the cache. A success too; see ahs_is_success(). */
#define AHS_ADDED_TO_CACHE ((ahs_status)0xFE530010)
/** An argument is wrong; ahs_error_text() says which. */
#define AHS_ERROR_BAD_PARAMETER ((ahs_status)0xFE530002)
/** There is no memory. */
#define AHS_ERROR_OUT_OF_MEMORY ((ahs_status)0xFE530004)
/** A proxy asks for a user name and a password: select again with them. */
#define AHS_ERROR_AUTH_PROXY_DETECTED ((ahs_status)0xFE53000A)
/** The time limit passed. No result has this status: it has what was measured until then, or
 * AHS_ERROR_SELECTION_FAILURE. */
#define AHS_ERROR_TIMEOUT ((ahs_status)0xFE53000B)
/** No headend takes part in automatic selection. */
#define AHS_ERROR_NO_HEADENDS ((ahs_status)0xFE53000D)
/** No headend could be measured. */
#define AHS_ERROR_SELECTION_FAILURE ((ahs_status)0xFE53000F)
/** The library is up with other options: one library a process. */
#define AHS_ERROR_ALREADY_STARTED ((ahs_status)0xFE320008)
/** ahs_cancel() ended the selection. */
#define AHS_ERROR_CANCELLED ((ahs_status)0xFE7A0001)

/** What a client is doing that it needs a headend. Only a reconnection changes what happens. */
enum ahs_reason {
  AHS_REASON_CONNECTION = 0,
  /** Keeps the last headend unless another is better by the preference SelectionImprovement. */
  AHS_REASON_RECONNECTION = 1,
  AHS_REASON_PREFERENCES_CHANGE = 2,
  AHS_REASON_PROXY_AUTHENTICATION = 3,
  AHS_REASON_PROCESS_LAUNCH = 4,
  AHS_REASON_DISCONNECT = 5
};

/** How a client logs in to a proxy. The proxy picks among what it offers; see docs/proxies.md. */
enum ahs_proxy_type {
  AHS_PROXY_BASIC = 0,    /**< user name and password */
  AHS_PROXY_NTLM = 1,     /**< the same, of a domain */
  AHS_PROXY_KERBEROS = 2, /**< the machine's ticket; the user name may be any, but not empty */
  AHS_PROXY_NONE = 3      /**< the proxy asks for nothing */
};

/** How much a log message matters. */
enum ahs_log_level { AHS_LOG_ERROR = 0, AHS_LOG_WARNING = 1, AHS_LOG_INFO = 2 };

/** What became of a headend or of one probe. ahs_outcome_name() names it. */
enum ahs_outcome {
  /* With a metric: */
  AHS_OUTCOME_ANSWERED = 0,
  AHS_OUTCOME_UNTRUSTED_CERTIFICATE = 1,
  AHS_OUTCOME_CLIENT_CERTIFICATE_WANTED = 2,
  AHS_OUTCOME_NOT_HTTP = 3,
  AHS_OUTCOME_FAILED = 4, /**< an answer of another kind */
  AHS_OUTCOME_FROM_CACHE = 5,
  /* Without: */
  AHS_OUTCOME_CANNOT_CONNECT = 6,
  AHS_OUTCOME_TIMED_OUT = 7,
  AHS_OUTCOME_NAME_NOT_RESOLVED = 8,
  AHS_OUTCOME_NO_ANSWER_IN_TIME = 9, /**< its first probe was out when the selection ended */
  AHS_OUTCOME_NOT_FINISHED_IN_TIME = 10,
  AHS_OUTCOME_NOT_PROBED = 11,
  AHS_OUTCOME_NOT_IN_CACHE = 12,
  /* This machine ran out of something. Such a selection is not remembered. */
  AHS_OUTCOME_LACK_OF_DESCRIPTORS = 13,
  AHS_OUTCOME_LACK_OF_THREADS = 14,
  AHS_OUTCOME_LACK_OF_MEMORY = 15
};

/** A headend given by code. This structure never changes. */
typedef struct ahs_headend {
  const char* name;    /**< of its host entry, unique in any letter case; null: the address */
  const char* address; /**< host, host:port or URL; an IPv6 address in brackets */
} ahs_headend;

/** A preference set by code, see docs/profiles.md. This structure never changes. */
typedef struct ahs_preference {
  const char* name;  /**< such as "SelectionImprovement" */
  const char* value; /**< as a preferences file has it */
} ahs_preference;

/** A message of the log. The text is one paragraph of UTF-8 without control characters but line
 * feeds and tabs. */
typedef struct ahs_log_message {
  size_t size;          /**< of this structure, as the library has it */
  uint32_t level;       /**< one of ahs_log_level */
  const char* text;     /**< the message */
  const char* function; /**< where it comes from */
  /** Messages lost before this one, because callbacks were too slow (4 MiB wait at most). */
  uint64_t lost;
} ahs_log_message;

/** Hears a log message, which is valid until the callback returns. */
typedef void (*ahs_log_callback)(const ahs_log_message* message, void* context);

/** What a library works with. A null pointer stands for nothing. */
typedef struct ahs_options {
  size_t size; /**< sizeof(ahs_options) */
  /** Its "*.xml" files are the profiles. */
  const char* profile_directory;
  const char* user_preferences_file;   /**< the user's own preferences */
  const char* global_preferences_file; /**< the machine's preferences */
  /** Headends that take part, beside those of the profiles. */
  const ahs_headend* headends;
  size_t headend_count; /**< of these */
  /** Preferences that go before every file's. */
  const ahs_preference* preferences;
  size_t preference_count; /**< of these */
  /** The proxy: "host" or "host:port"; "" for none; null: the preferences decide, whose default is
   * the system's proxy. */
  const char* proxy;
  /** Keeps selections between processes, one small file each; it is made where it is missing. Null:
   * in memory, until the end. */
  const char* cache_directory;
  const char* log_file; /**< rotated at 4 MiB; null: none */
  uint32_t log_level;   /**< least important that is logged, one of ahs_log_level */
  /** Not 0: callbacks come inside ahs_dispatch() alone; see ahs_descriptor(). */
  int own_loop;
  ahs_log_callback on_log; /**< hears what is logged; null for nobody */
  void* log_context;       /**< handed to on_log */
  /** Not 0: no environment variable decides anything, for the rest of the process;
   * docs/privilege.md tells what remains the client's duty. A process with rights of its file
   * (setuid, setgid, capabilities) ignores the environment in any case. */
  int ignore_environment;
} ahs_options;

/** Options that name nothing: to begin with. */
#define AHS_OPTIONS_INIT                                                                        \
  {                                                                                             \
    sizeof(ahs_options), NULL, NULL, NULL, NULL, 0, NULL, 0, NULL, NULL, NULL, AHS_LOG_INFO, 0, \
        NULL, NULL, 0                                                                           \
  }

/** Something that is wrong with a profile or a preferences file. It costs what it says and no more.
 */
typedef struct ahs_problem {
  size_t size;      /**< of this structure, as the library has it */
  const char* file; /**< its path */
  uint32_t line;    /**< from 1; 0: the file as a whole */
  uint32_t column;  /**< from 1, in characters; 0 with line 0 */
  const char* text; /**< what was found and what is allowed */
} ahs_problem;

/** One probe that has started or ended. */
typedef struct ahs_probe {
  size_t size;         /**< of this structure, as the library has it */
  const char* name;    /**< of the headend's host entry */
  const char* headend; /**< host, or host:port */
  int ended;           /**< 0: it has started, and the next three mean nothing */
  uint32_t outcome;    /**< one of ahs_outcome */
  uint32_t rtt_ms;     /**< round-trip time; 0 where nothing answered */
  const char* address; /**< the IP address that was connected to; empty if none was */
  /** Of the whole selection so far: */
  uint32_t probes_started;
  uint32_t probes_ended;      /**< so far */
  uint32_t headends_answered; /**< so far */
  uint32_t headend_count;     /**< that take part */
} ahs_probe;

/** Hears that a probe of its selection has started or ended. Never comes after the result. */
typedef void (*ahs_progress_callback)(const ahs_probe* probe, void* context);

/** A selection is decided before it ends: nobody who is still out can win, because the others are
 * known to be farther away, or have answered no attempt to connect for max(300 ms, 2 x the best
 * metric). On a reconnection the last headend has ended, too, or is silent like that. */
typedef struct ahs_decision {
  size_t size;         /**< of this structure, as the library has it */
  const char* name;    /**< of the headend's host entry */
  const char* headend; /**< host, or host:port, as in ahs_result */
  uint32_t metric_ms;  /**< its metric */
  uint32_t after_ms;   /**< since ahs_select() */
} ahs_decision;

/** Hears once at most that its selection is decided, before the result. It does not come where the
 * cache answers or nobody was measured. The result may name another, in rare cases such as that of
 * a lost packet. */
typedef void (*ahs_decision_callback)(const ahs_decision* decision, void* context);

/**
 * Is given each socket that a probe is about to connect, after interface, source address and mark
 * of the request were set. Comes on the probe's own thread, several at a time, and holds up that
 * probe; it must not close the socket, and of this library's functions may call ahs_cancel() only.
 * Its stack has 256 KiB.
 * @param socket a TCP socket that is neither bound (but for the request's source address) nor
 *        connected.
 * @return 0 to go on; anything else: the probe fails as if it could not connect.
 */
typedef int (*ahs_socket_callback)(int socket, void* context);

/** What is wanted of one selection. A null pointer stands for nothing. */
typedef struct ahs_request {
  size_t size;                /**< sizeof(ahs_request) */
  uint32_t reason;            /**< one of ahs_reason */
  uint32_t proxy_type;        /**< one of ahs_proxy_type; without a user name only NONE matters */
  const char* last_headend;   /**< used last: its name, or as in ahs_result; in any letter case */
  const char* proxy_user;     /**< for a proxy that asked */
  const char* proxy_password; /**< wiped from the library's memory when its last thread has ended */
  /** Probes leave through this network interface (SO_BINDTODEVICE, socket(7)). */
  const char* interface_name;
  /** Probes leave from this IPv4 or IPv6 address, and reach headends of its family alone. */
  const char* source_address;
  uint32_t mark; /**< probes carry it (SO_MARK, socket(7); takes CAP_NET_ADMIN); 0 for none */
  /** Not 0: measures now and ignores the cache, which then keeps the new result. */
  int measure_now;
  ahs_socket_callback on_socket;     /**< is given each socket; null for nobody */
  void* socket_context;              /**< handed to on_socket */
  ahs_progress_callback on_progress; /**< hears of each probe; null for nobody */
  void* progress_context;            /**< handed to on_progress */
  ahs_decision_callback on_decision; /**< hears of the decision; null for nobody */
  void* decision_context;            /**< handed to on_decision */
  /** A remembered selection answers up to this age in seconds; 0: as the preferences say. */
  uint32_t max_age_s;
} ahs_request;

/** A connection without a last headend: to begin with. */
#define AHS_REQUEST_INIT                                                                          \
  {                                                                                               \
    sizeof(ahs_request), AHS_REASON_CONNECTION, AHS_PROXY_BASIC, NULL, NULL, NULL, NULL, NULL, 0, \
        0, NULL, NULL, NULL, NULL, NULL, NULL, 0                                                  \
  }

/** No metric, for ahs_candidate. */
#define AHS_NO_METRIC UINT32_MAX

/** What a selection found out about one headend. */
typedef struct ahs_candidate {
  size_t size;         /**< of this structure, as the library has it */
  const char* name;    /**< of its host entry */
  const char* headend; /**< host, or host:port, as in ahs_result */
  const char* address; /**< the IP address that was measured; empty if none was, or not now */
  uint32_t metric_ms;  /**< what the ranking goes by: the smallest sample that is not 0, or 0 if all
                          are */
  uint32_t outcome;    /**< one of ahs_outcome */
  const uint32_t* samples_ms; /**< round-trip times measured now, in the order in which they came */
  size_t sample_count;        /**< of these */
} ahs_candidate;

/** The outcome of a selection. It belongs to the selection and holds until ahs_free(). */
typedef struct ahs_result {
  size_t size;       /**< of this structure, as the library has it */
  ahs_status status; /**< how the selection ended; see ahs_is_success() */
  uint32_t reason;   /**< as it was requested */
  /** Host, or host:port, best first; one that two host entries name stands here twice. With a
   * failure at most one, to fall back on: the headend used last, or, where a test probe was sent
   * without one, the first that takes part. */
  const char* const* headends;
  size_t headend_count; /**< of these */
  /** With AHS_ERROR_AUTH_PROXY_DETECTED the realm of the proxy that asks; else empty. It may hold
   * anything: make it visible before you show it. */
  const char* proxy_realm;
  /** Every headend that takes part, once: those of `headends` in that order, then the others. One
   * that several host entries name goes by the first name in byte order. */
  const ahs_candidate* const* candidates;
  size_t candidate_count; /**< of these */
  int from_cache;         /**< the metrics are those of an earlier selection */
  int64_t
      cache_age_s; /**< seconds since that one; -1 where there is none or the clock was put back */
  uint32_t elapsed_ms; /**< from ahs_select() to the result */
} ahs_result;

/** The library while it is up: from ahs_start(), to be given back with ahs_stop(). */
typedef struct ahs_library ahs_library;
/** One selection: from ahs_select(), to be given back with ahs_free(). */
typedef struct ahs_selection ahs_selection;

/** Is told the outcome of a selection, once. It may call ahs_free() of that selection. */
typedef void (*ahs_callback)(const ahs_result* result, void* context);

/** A callback that does nothing, for a client that calls ahs_wait() instead. */
void ahs_no_callback(const ahs_result* result, void* context);

/** Version of the library, "MAJOR.MINOR.PATCH"; static. */
const char* ahs_version(void);

/** Whether a selection that ended so has chosen: AHS_SUCCESS or AHS_ADDED_TO_CACHE. */
int ahs_is_success(ahs_status status);

/** Name of a status, such as "AHS_ADDED_TO_CACHE"; "UNKNOWN" for any other; static. */
const char* ahs_status_name(ahs_status status);

/** A status in a sentence that says what to do, without a full stop at its end; static. */
const char* ahs_status_text(ahs_status status);

/** Name of an ahs_outcome, such as "timed out"; "unknown" for any other; static. */
const char* ahs_outcome_name(uint32_t outcome);

/** Why this thread's last failed call failed, in a sentence; empty if none has. Valid until the
 * thread calls the library again. */
const char* ahs_error_text(void);

/**
 * Brings the library up: reads preferences and profiles. Mistakes in them are no failure; see
 * ahs_problems(). While it is up, a second start with equal options (callbacks, contexts and
 * own_loop do not count) shares it and gets its own handle, which is stopped separately.
 *
 * @param options null for AHS_OPTIONS_INIT.
 * @param library receives the handle; null after a failure.
 * @return AHS_SUCCESS, AHS_ERROR_BAD_PARAMETER, AHS_ERROR_ALREADY_STARTED with other options,
 *         AHS_ERROR_OUT_OF_MEMORY, or why a part of the library could not be brought up.
 */
ahs_status ahs_start(const ahs_options* options, ahs_library** library);

/**
 * Takes the library down. Cancels its running selections, and makes every callback that is due
 * before it returns (with own_loop on this thread); none comes afterwards. Waits for a running
 * callback, except inside one; up to 5 seconds for threads that a disk holds up; and without a
 * limit for the disk to which measurements are written. Selections' handles stay valid. Null is
 * ignored.
 */
ahs_status ahs_stop(ahs_library* library);

/**
 * What is wrong with profiles and preferences files.
 * @param problems receives an array, which holds until ahs_stop(); null without problems.
 * @return how many there are; at most a thousand are listed.
 */
size_t ahs_problems(ahs_library* library, const ahs_problem* const** problems);

/**
 * A descriptor that polls readable while ahs_dispatch() has something to tell; it belongs to the
 * library and is closed by ahs_stop(). Neither read nor write it.
 * @return -1 for a library without own_loop.
 */
int ahs_descriptor(ahs_library* library);

/**
 * Makes the callbacks that are due, on this thread, until there are none, and returns at once when
 * there are none. Inside a callback, or while another thread is in it, it does nothing.
 * @return AHS_SUCCESS, or AHS_ERROR_BAD_PARAMETER for a library without own_loop.
 */
ahs_status ahs_dispatch(ahs_library* library);

/**
 * Starts a selection and returns at once. It takes no longer than its time limit.
 *
 * On success the callback comes exactly once, unless ahs_free() comes before it, and `*selection`
 * is set before it comes. After a failure `*selection` is null and no callback comes.
 *
 * @param library that is up.
 * @param request null for AHS_REQUEST_INIT.
 * @param callback ahs_no_callback if ahs_wait() will do; not null.
 * @param context handed to the callback; the library does not look at it.
 * @param selection receives the handle.
 * @return AHS_SUCCESS, AHS_ERROR_BAD_PARAMETER, AHS_ERROR_OUT_OF_MEMORY, or why there is no
 *         selection.
 */
ahs_status ahs_select(ahs_library* library, const ahs_request* request, ahs_callback callback,
                      void* context, ahs_selection** selection);

/**
 * Ends a selection and returns at once: its result is there, with AHS_ERROR_CANCELLED and what was
 * found out so far (samples, no metrics), and its callback comes. Connections close, no new one
 * starts, and what was still found out is dropped. Does nothing to a selection whose result is
 * there.
 */
ahs_status ahs_cancel(ahs_selection* selection);

/** No limit, for ahs_wait(). */
#define AHS_WAIT_FOREVER UINT32_MAX

/**
 * Waits for the result, for `timeout_ms` milliseconds at most. The callback may come before or
 * after it returns.
 * @return the result; null when the time has passed (0 asks and does not wait), or the handle is
 *         none.
 */
const ahs_result* ahs_wait(ahs_selection* selection, uint32_t timeout_ms);

/**
 * Gives a selection back; null is ignored. One without a result is cancelled, and its callbacks do
 * not come. Waits for a callback of this selection that runs, except inside one. No other thread
 * may be in ahs_wait() or look at the result.
 */
ahs_status ahs_free(ahs_selection* selection);

#ifdef __cplusplus
}
#endif

#endif
