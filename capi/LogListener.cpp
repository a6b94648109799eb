// Clients that hear the log. The log has one listener, called by one thread at a time; it copies
// each message to every client's teller, so that no client delays a thread that logs.

#include "capi/LogListener.h"

#include <string>
#include <utility>
#include <vector>

#include "vpn/include/Locks.h"

namespace {

/// What a message takes besides its text: object, list node and heap overhead.
constexpr std::size_t Overhead = 256;

/// All of the process. Never freed: threads may log until the process is gone.
struct Listeners {
  CManualLock lock;  // taken after the log's own
  std::vector<std::shared_ptr<LogListener>> all AHS_GUARDED_BY(lock);
};

Listeners& listeners() {
  static Listeners& instance = *new Listeners;
  return instance;
}

uint32_t levelOf(Logging::DebugImportance severity) {
  return severity == Logging::DBG_Error     ? AHS_LOG_ERROR
         : severity == Logging::DBG_Warning ? AHS_LOG_WARNING
                                            : AHS_LOG_INFO;
}

}  // namespace

LogListener::LogListener(std::shared_ptr<Teller> teller, ahs_log_callback callback, void* context,
                         Logging::DebugImportance leastImportant)
    : m_teller(std::move(teller)),
      m_callback(callback),
      m_context(context),
      m_level(levelOf(leastImportant)) {}

void LogListener::begin() {
  {
    const CAutoLockT<CManualLock> guard(listeners().lock);
    listeners().all.push_back(shared_from_this());
  }
  // It stays after the last client has left, so that clients that come and go need no order.
  CAppLog::setListener([](const CAppLog::Record& record) {
    const CAutoLockT<CManualLock> guard(listeners().lock);
    for (const std::shared_ptr<LogListener>& each : listeners().all) {
      each->hear(record);
    }
  });
}

void LogListener::end() {
  const CAutoLockT<CManualLock> guard(listeners().lock);
  std::erase(listeners().all, shared_from_this());
}

void LogListener::hear(const CAppLog::Record& record) {
  const uint32_t level = levelOf(record.severity);
  if (level > m_level) {
    return;
  }
  const std::size_t size = Overhead + record.message.size();
  if (m_waiting + size > MostWaiting) {
    ++m_lost;
    return;
  }
  Teller::Messages messages;
  messages.push_back(
      {shared_from_this(),
       [this, level, size, text = record.message, function = std::string(record.function),
        lost = std::exchange(m_lost, 0)] {
         m_waiting -= size;
         const ahs_log_message message{sizeof message, level, text.c_str(), function.c_str(), lost};
         m_callback(&message, m_context);
       }});
  m_waiting += size;
  m_teller->post(messages);
}
