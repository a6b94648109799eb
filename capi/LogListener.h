#pragma once

#include <atomic>
#include <cstddef>
#include <memory>

#include "ahs/ahs.h"
#include "capi/Teller.h"
#include "vpn/Common/Logging/AppLog.h"

/// A client that hears the log. Any thread may call anything.
class LogListener : public Teller::Subject, public std::enable_shared_from_this<LogListener> {
 public:
  /// Most bytes of messages that wait for the client; later messages are lost and counted.
  static constexpr std::size_t MostWaiting = std::size_t{4} * 1024 * 1024;

  LogListener(std::shared_ptr<Teller> teller, ahs_log_callback callback, void* context,
              Logging::DebugImportance leastImportant);

  /// Hears from now on.
  void begin();
  /// Hears no more; what it has heard is still told.
  void end();

 private:
  void hear(const CAppLog::Record& record);

  const std::shared_ptr<Teller> m_teller;
  const ahs_log_callback m_callback;
  void* const m_context;
  const uint32_t m_level;
  std::atomic<std::size_t> m_waiting{0};  // bytes of messages that are not told yet
  uint64_t m_lost = 0;                    // used by `hear` alone, by one thread at a time
};
