#pragma once

/// @file
/// How a selection ends.

#include "vpn/include/StatusCode.h"

/// Status codes of headend selection (module 0x53).
enum HEADENDSELECTION_ERRORS : STATUSCODE {
  HEADENDSELECTION_SUCCESS = 0,
  /// The module's base value, not a result.
  HEADENDSELECTION_NOTERROR_BASEVALUE_CHeadendSelection = 0xFE530000,
  HEADENDSELECTION_ERROR_NOT_IMPLEMENTED = 0xFE530001,
  HEADENDSELECTION_ERROR_BAD_PARAMETER = 0xFE530002,
  HEADENDSELECTION_ERROR_BAD_HANDLE = 0xFE530003,
  HEADENDSELECTION_ERROR_MEMALLOC_FAILED = 0xFE530004,
  HEADENDSELECTION_ERROR_NULL_POINTER = 0xFE530005,
  HEADENDSELECTION_ERROR_INSUFFICIENT_BUFFER = 0xFE530006,
  HEADENDSELECTION_ERROR_NOT_INITIALIZED = 0xFE530007,
  HEADENDSELECTION_ERROR_ALREADY_INITIALIZED = 0xFE530008,
  HEADENDSELECTION_ERROR_UNEXPECTED = 0xFE530009,
  /// A proxy asks for authentication; the extra information names its realm.
  HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED = 0xFE53000A,
  /// The time budget passed.
  HEADENDSELECTION_ERROR_TIMEOUT = 0xFE53000B,
  /// There is no selection cache.
  HEADENDSELECTION_ERROR_CACHE_FAILURE = 0xFE53000C,
  /// No host entry takes part in automatic selection.
  HEADENDSELECTION_ERROR_NO_HEADENDS = 0xFE53000D,
  HEADENDSELECTION_ERROR_PROBE_FAILURE = 0xFE53000E,
  /// No headend could be measured.
  HEADENDSELECTION_ERROR_SELECTION_FAILURE = 0xFE53000F,
  /// Not an error in spite of its name: a fresh selection, now in the cache.
  HEADENDSELECTION_ERROR_ADDED_TO_CACHE = 0xFE530010,
  HEADENDSELECTION_ERROR_UNKNOWN = 0xFE530011,
};

/// The name of a code of this module or of one of those that it passes on, for reports:
/// "HEADENDSELECTION_ERROR_TIMEOUT". "UNKNOWN" for any other. Any thread may call it.
const char* statusCodeName(STATUSCODE code);
