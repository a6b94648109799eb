#pragma once

#include <string_view>

#include "ahs/ahs.h"

/// Keeps `text` as what ahs_error_text() tells this thread; one that is too long is cut.
/// @return `status`, for the caller to return.
ahs_status failed(ahs_status status, std::string_view text) noexcept;

/// The text that this thread kept last; empty if it has kept none.
const char* errorText() noexcept;
