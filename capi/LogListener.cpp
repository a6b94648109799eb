// Clients that hear the log. The log has one listener, called by one thread at a time; it hands a
// copy of each message to every client's teller, so that no client holds up a thread that logs.

#include "capi/LogListener.h"

#include <algorithm>
#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include "vpn/include/Locks.h"

namespace {

uint32_t levelOf(Logging::DebugImportance severity) {
  switch (severity) {
    case Logging::DBG_Error:
      return AHS_LOG_ERROR;
    case Logging::DBG_Warning:
      return AHS_LOG_WARNING;
    case Logging::DBG_Info:
      break;
  }
  return AHS_LOG_INFO;
}

}  // namespace

/// Where a client hears. Its messages hold it.
class LogListener::Ear : public std::enable_shared_from_this<Ear> {
 public:
  Ear(std::shared_ptr<Teller> teller, ahs_log_callback callback, void* context, uint32_t level)
      : m_teller(std::move(teller)), m_callback(callback), m_context(context), m_level(level) {}

  /// Called by one thread at a time.
  void hear(const CAppLog::Record& record);

 private:
  friend class Heard;

  const std::shared_ptr<Teller> m_teller;
  const ahs_log_callback m_callback;
  void* const m_context;
  const uint32_t m_level;
  std::atomic<std::size_t> m_waiting{0};  // bytes of messages that are not told yet
  uint64_t m_lost = 0;                    // used by `hear` alone
};

/// One message for one client.
class LogListener::Heard : public Teller::Message {
 public:
  Heard(std::shared_ptr<Ear> ear, const CAppLog::Record& record, uint64_t lost)
      : Message(nullptr),
        m_ear(std::move(ear)),
        m_text(record.message),
        m_function(record.function),
        m_message{sizeof m_message, levelOf(record.severity), m_text.c_str(), m_function.c_str(),
                  lost} {
    m_ear->m_waiting += size();
  }
  ~Heard() override { m_ear->m_waiting -= size(); }

  /// With what the list and the heap add.
  static std::size_t sizeOf(const CAppLog::Record& record) {
    return sizeof(Heard) + Overhead + record.message.size();
  }

  void tell() override { m_ear->m_callback(&m_message, m_ear->m_context); }

 private:
  static constexpr std::size_t Overhead = 160;

  std::size_t size() const { return sizeof(Heard) + Overhead + m_text.size(); }

  const std::shared_ptr<Ear> m_ear;
  const std::string m_text;
  const std::string m_function;
  const ahs_log_message m_message;
};

void LogListener::Ear::hear(const CAppLog::Record& record) {
  if (levelOf(record.severity) > m_level) {
    return;
  }
  if (m_waiting + Heard::sizeOf(record) > MostWaiting) {
    ++m_lost;
    return;
  }
  Teller::Messages messages;
  messages.push_back(std::make_unique<Heard>(shared_from_this(), record, std::exchange(m_lost, 0)));
  m_teller->post(messages);
}

/// All of the process. Never freed: threads may log until the process is gone.
struct LogListener::Ears {
  CManualLock changing;  // held over a change of `all` and of the log's listener with it
  CManualLock lock;      // taken after the log's own
  std::vector<std::shared_ptr<Ear>> all AHS_GUARDED_BY(lock);
};

LogListener::Ears& LogListener::ears() {
  static Ears& instance = *new Ears;
  return instance;
}

LogListener::LogListener(std::shared_ptr<Teller> teller, ahs_log_callback callback, void* context,
                         Logging::DebugImportance leastImportant)
    : m_ear(std::make_shared<Ear>(std::move(teller), callback, context, levelOf(leastImportant))) {
  const CAutoLockT<CManualLock> change(ears().changing);
  {
    const CAutoLockT<CManualLock> guard(ears().lock);
    ears().all.push_back(m_ear);
  }
  CAppLog::SetListener([](const CAppLog::Record& record) {
    const CAutoLockT<CManualLock> guard(ears().lock);
    for (const std::shared_ptr<Ear>& ear : ears().all) {
      ear->hear(record);
    }
  });
}

LogListener::~LogListener() {
  const CAutoLockT<CManualLock> change(ears().changing);
  bool isLast = false;
  {
    const CAutoLockT<CManualLock> guard(ears().lock);
    std::erase(ears().all, m_ear);
    isLast = ears().all.empty();
  }
  if (isLast) {
    CAppLog::SetListener({});
  }
}
