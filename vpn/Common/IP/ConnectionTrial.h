#pragma once

#include <chrono>
#include <string>

/// What came of trying to connect.
enum class ConnectionTrial {
  Stands,
  Dead,     ///< refused, silent, unreachable, or the name is not known
  Untried,  ///< this machine lacks something, or the thread's task is cancelled
};

/// Opens one direct TCP connection and closes it, or has a packet answered where that is how the
/// gateway is probed; in the way of the thread's task (`ProbeTask`),
/// which is not told of it. Any thread may call it; throws nothing.
/// @param host as for `HttpProbe::SendHttpProbe`. @param longest the looking up of a name included.
ConnectionTrial tryConnection(const std::string& host, unsigned short port,
                              std::chrono::milliseconds longest) noexcept;
