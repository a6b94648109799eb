#pragma once

#include <cstddef>

/// Stack of a thread that needs no other, in bytes. Address space only: what is touched is a few
/// pages, so a thousand threads fit in a laptop's memory and in its overcommit limit.
constexpr std::size_t DefaultStackSize = std::size_t{256} * 1024;

/// Creates a thread that nobody joins; all threads of the library come from here.
///
/// Signals are blocked in it, so that the host's handlers run on the host's threads; only those
/// that a fault of the thread itself raises get through to the host's crash handler.
///
/// @param body what the thread runs; @param argument is handed to it.
/// @param stackSize bytes of stack, besides the process's thread-local storage; less than the
///        system's minimum is raised to it.
/// @return 0, or the errno value of why there is no thread; `body` is not called then.
int startDetachedThread(void* (*body)(void*), void* argument, std::size_t stackSize) noexcept;
