#ifndef AHS_H
#define AHS_H

/**
 * @file
 * Gateway ("headend") selection for clients that are not written in C++.
 *
 *     ahs_library* library;
 *     ahs_options options = AHS_OPTIONS_INIT;
 *     options.profile_directory = "/etc/client/profiles";
 *     ahs_status status = ahs_start(&options, &library);
 *     if (status != AHS_SUCCESS) ...
 *     ahs_selection* selection;
 *     status = ahs_select(library, NULL, on_result, context, &selection);
 *     ...
 *     ahs_free(selection);
 *     ahs_stop(library);
 *
 * Strings are UTF-8 and end with a NUL; what a function is given it copies, so the caller may free
 * it when the function has returned. No exception leaves these functions and no signal is raised.
 * Unless a function says otherwise any thread may call it. A handle is given back once, with the
 * function that says so, and not used afterwards.
 */

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** 0 for success, otherwise the number of a failure; ahs_status_name() names it. */
typedef uint32_t ahs_status;

/** A selection that the cache had. */
#define AHS_SUCCESS ((ahs_status)0)
/** A fresh selection, measured, now in the cache: a success too. */
#define AHS_ADDED_TO_CACHE ((ahs_status)0xFE530010)
/** A null pointer, a structure of an unknown size, a number out of range. */
#define AHS_ERROR_BAD_PARAMETER ((ahs_status)0xFE530002)
/** There is no memory. */
#define AHS_ERROR_OUT_OF_MEMORY ((ahs_status)0xFE530004)
/** A proxy asks for a user name and a password: select again with them. */
#define AHS_ERROR_AUTH_PROXY_DETECTED ((ahs_status)0xFE53000A)
/** The time limit of the selection (preference SelectionConnectTimeout) passed. */
#define AHS_ERROR_TIMEOUT ((ahs_status)0xFE53000B)
/** No host entry takes part in automatic selection. */
#define AHS_ERROR_NO_HEADENDS ((ahs_status)0xFE53000D)
/** No headend could be measured. */
#define AHS_ERROR_SELECTION_FAILURE ((ahs_status)0xFE53000F)
/** The library is up already: one ahs_library a process at a time. It is up, too, while a selection
 * comes to its end that was under way when it was stopped. */
#define AHS_ERROR_ALREADY_STARTED ((ahs_status)0xFE320008)

/** What a client is doing that it needs a headend. */
enum ahs_reason {
  AHS_REASON_CONNECTION = 0,
  /** Keeps the last headend unless another is better by the preference SelectionImprovement. */
  AHS_REASON_RECONNECTION = 1,
  AHS_REASON_PREFERENCES_CHANGE = 2,
  AHS_REASON_PROXY_AUTHENTICATION = 3,
  AHS_REASON_PROCESS_LAUNCH = 4,
  AHS_REASON_DISCONNECT = 5
};

/** Where the library finds its files. A null or empty path stands for nothing to read. */
typedef struct ahs_options {
  size_t size;                   /**< sizeof(ahs_options), so that later versions can add members */
  const char* profile_directory; /**< its "*.xml" files are the profiles */
  const char* user_preferences_file;   /**< the user's own preferences */
  const char* global_preferences_file; /**< the machine's preferences */
  const char* cache_file; /**< where selections are kept between processes; null: in memory only */
  const char* log_file;   /**< rotated at 4 MiB; null: no log */
  /** Addresses that take the place of all profiles: host, host:port or URL. */
  const char* const* addresses;
  size_t address_count; /**< how many there are; 0: the profiles count */
} ahs_options;

/** Options that name nothing: to begin with. */
#define AHS_OPTIONS_INIT \
  { sizeof(ahs_options), NULL, NULL, NULL, NULL, NULL, NULL, 0 }

/** What is wanted of one selection. */
typedef struct ahs_request {
  size_t size;                /**< sizeof(ahs_request) */
  uint32_t reason;            /**< one of ahs_reason */
  const char* last_headend;   /**< name of the host entry used last; null for none */
  const char* proxy_user;     /**< for a proxy that asked; null for none */
  const char* proxy_password; /**< wiped from the library's memory when the selection is over */
} ahs_request;

/** A connection without a last headend: to begin with. */
#define AHS_REQUEST_INIT \
  { sizeof(ahs_request), AHS_REASON_CONNECTION, NULL, NULL, NULL }

/** The outcome of a selection. */
typedef struct ahs_result {
  size_t size;       /**< of this structure in the library's version */
  ahs_status status; /**< how the selection ended */
  uint32_t reason;   /**< as it was requested */
  /** Host, or host:port, best first. With a failure: the headend used last, or nothing. */
  const char* const* headends;
  size_t headend_count; /**< how many there are */
  /** The realm of the proxy that asks, with AHS_ERROR_AUTH_PROXY_DETECTED; else empty. */
  const char* extra_info;
} ahs_result;

/** The library while it is up: from ahs_start(), to be given back with ahs_stop(). */
typedef struct ahs_library ahs_library;
/** One selection: from ahs_select(), to be given back with ahs_free(). */
typedef struct ahs_selection ahs_selection;

/**
 * Is told the outcome, once, on a thread of the library's. `result` and all that it points to hold
 * until it returns. It may call ahs_free() of its own selection. It must not throw.
 */
typedef void (*ahs_callback)(const ahs_result* result, void* context);

/** Version of the library, "MAJOR.MINOR.PATCH"; static. */
const char* ahs_version(void);

/** Name of a status, such as "HEADENDSELECTION_ERROR_TIMEOUT"; "UNKNOWN" for any other; static. */
const char* ahs_status_name(ahs_status status);

/**
 * Brings the library up: reads preferences and profiles. Files with mistakes are reported in the
 * log and skipped. On success `*library` is to be given back with ahs_stop(); otherwise it is null.
 */
ahs_status ahs_start(const ahs_options* options, ahs_library** library);

/**
 * Takes the library down. Null is ignored. Selections under way come to their end and call back all
 * the same; their handles stay good.
 */
void ahs_stop(ahs_library* library);

/**
 * Starts a selection and returns at once; it takes no longer than its time limit.
 *
 * On success `*selection` is to be given back with ahs_free(), and the callback is called exactly
 * once unless that comes first. Otherwise `*selection` is null and there is no callback.
 *
 * @param library that is up.
 * @param request null for a connection without a last headend.
 * @param callback null if ahs_wait() will do.
 * @param context handed to the callback; the library does not look at it.
 * @param selection receives the handle.
 * @return AHS_SUCCESS, AHS_ERROR_BAD_PARAMETER or why there is no selection.
 */
ahs_status ahs_select(ahs_library* library, const ahs_request* request, ahs_callback callback,
                      void* context, ahs_selection** selection);

/** How a wait ended. */
enum ahs_wait_result {
  AHS_WAIT_DELIVERED = 0, /**< the result is there and the callback has returned */
  AHS_WAIT_TIMEOUT = 1,
  AHS_WAIT_CANCELLED = 2
};

/** No limit, for ahs_wait(). */
#define AHS_WAIT_FOREVER UINT32_MAX

/**
 * Waits for the result, for `timeout_ms` milliseconds at most. Called by the selection's own
 * callback it finds it delivered.
 */
enum ahs_wait_result ahs_wait(ahs_selection* selection, uint32_t timeout_ms);

/**
 * Ends the waits of all threads with AHS_WAIT_CANCELLED, those to come too, until the result is
 * there. The selection goes on.
 */
void ahs_cancel_wait(ahs_selection* selection);

/**
 * The result, or null while there is none. It belongs to the selection and holds until ahs_free().
 */
const ahs_result* ahs_get_result(const ahs_selection* selection);

/**
 * Gives up a selection; null is ignored. If the callback has not been called it will not be; if it
 * is running this waits for it, except on its own thread. No other thread may use the handle
 * meanwhile: end its waits first. The measurement comes to its end in the background.
 */
void ahs_free(ahs_selection* selection);

#ifdef __cplusplus
}
#endif

#endif
