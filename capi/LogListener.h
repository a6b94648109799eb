#pragma once

#include <cstddef>
#include <memory>

#include "ahs/ahs.h"
#include "capi/Teller.h"
#include "vpn/Common/Logging/AppLog.h"

/// A client that hears the log, as long as the object lives. Any thread may make and destroy one.
class LogListener {
 public:
  /// Bytes of messages that wait for the client at most; later ones are lost, and counted.
  static constexpr std::size_t MostWaiting = std::size_t{4} * 1024 * 1024;

  LogListener(std::shared_ptr<Teller> teller, ahs_log_callback callback, void* context,
              Logging::DebugImportance leastImportant);
  ~LogListener();
  LogListener(const LogListener&) = delete;
  LogListener& operator=(const LogListener&) = delete;

 private:
  class Ear;
  class Heard;
  struct Ears;

  static Ears& ears();

  const std::shared_ptr<Ear> m_ear;
};
