#pragma once

#include <cstddef>

/// Stack for a client's code, in bytes: what its main thread may have (`ulimit -s`), 8 MiB where
/// that is unlimited. Any thread may call it.
std::size_t callbackStackSize() noexcept;
