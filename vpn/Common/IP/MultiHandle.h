#pragma once

/// libcurl's multi handle, the caller's to clean up; null without memory. Where the process may
/// open few descriptors, it has no pair of sockets to be woken by, which is of no use here.
void* makeMultiHandle() noexcept;
