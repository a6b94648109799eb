#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tests/stress/stage.h"
#include "vpn/Common/Utility/ExecutionContext.h"

namespace stress {

/// The execution context that all runs share, as in a host that keeps the client library up.
class Host {
 public:
  Host();
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  /// Waits until the timer thread has left every callback that it is in.
  void settleTimerThread();

 private:
  CExecutionContext* m_pContext;
};

/// Runs the selections of a round to their end, at once if there are several, and looks at what
/// happened and what is left. Each is then given to `note`.
/// @return empty, or what is wrong, with all that one needs to see it again.
std::string playRound(Host& host, std::uint64_t seed, unsigned long round,
                      const std::function<void(const Stage&)>& note);

}  // namespace stress
