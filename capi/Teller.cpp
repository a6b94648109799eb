// Every message to a client goes through one queue. Its lock is never held while the client is
// called, and nobody logs while holding it: the log's listener posts here.

#include "capi/Teller.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Utility/GuardedCall.h"
#include "vpn/Common/Utility/StackSize.h"

namespace {

constexpr const char* SourceFile = "capi/Teller";

/// How many messages of any teller this thread is inside. Two threads inside messages that waited
/// for each other could wait for ever.
thread_local int depth = 0;

void tellOne(const Teller::Message& message) {
  ++depth;
  guardedCall([&message] { message.tell(); },
              [](const char* what) {
                CAppLog::LogDebugMessage("tell", SourceFile, __LINE__, Logging::DBG_Error,
                                         "a callback of the client has thrown: %s", what);
              });
  --depth;
}

}  // namespace

/// Holds the teller until it is closed.
class Teller::TellingThread : public CThread {
 public:
  explicit TellingThread(std::shared_ptr<Teller> teller)
      : CThread(callbackStackSize()), m_teller(std::move(teller)) {}

  STATUSCODE Run() override {
    m_teller->serve();
    return 0;
  }

 private:
  const std::shared_ptr<Teller> m_teller;
};

Teller::Teller(bool byClient)
    : m_descriptor(byClient ? eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK) : -1), m_isServed(!byClient) {}

Teller::~Teller() {
  if (m_descriptor >= 0) {
    ::close(m_descriptor);
  }
}

std::shared_ptr<Teller> Teller::make(bool byClient) {
  const std::shared_ptr<Teller> teller(new Teller(byClient));
  const bool isUp = byClient ? teller->descriptor() >= 0
                             : std::make_unique<TellingThread>(teller)->Start() == THREAD_SUCCESS;
  return isUp ? teller : nullptr;
}

void Teller::post(Messages& messages) noexcept {
  const CAutoLockT<CMonitor> guard(m_lock);
  const bool isForgotten = std::ranges::any_of(
      messages, [](const Message& message) { return message.subject->m_isForgotten; });
  if (m_isClosing || isForgotten) {
    messages.clear();
    return;
  }
  m_queue.splice(m_queue.end(), messages);
  m_lock.notifyAll();
  if (m_descriptor >= 0) {
    eventfd_write(m_descriptor, 1);
  }
}

void Teller::tellAll() {
  const CAutoLockT<CMonitor> guard(m_lock);
  if (m_thread == std::thread::id()) {
    tellQueue();
  }
}

void Teller::tellQueue() {
  const std::thread::id former = std::exchange(m_thread, std::this_thread::get_id());
  while (!m_queue.empty()) {
    Messages one;
    one.splice(one.begin(), m_queue, m_queue.begin());
    Subject& subject = *one.front().subject;
    ++subject.m_beingTold;
    m_lock.Unlock();
    tellOne(one.front());
    m_lock.Lock();
    --subject.m_beingTold;
    m_lock.notifyAll();
    // The message may hold the subject last, whose destruction takes other locks.
    m_lock.Unlock();
    one.clear();
    m_lock.Lock();
  }
  calm();
  m_thread = former;
  m_lock.notifyAll();
}

void Teller::serve() {
  const CAutoLockT<CMonitor> guard(m_lock);
  while (!m_isClosing) {
    if (m_queue.empty()) {
      m_lock.wait();
    } else {
      tellQueue();
    }
  }
  // Tells what came before the closing; inside a message all of it was told.
  tellQueue();
  m_isServed = false;
  m_lock.notifyAll();
}

/// Clears the descriptor: nothing is to be told.
void Teller::calm() {
  eventfd_t ignored = 0;
  if (m_descriptor >= 0) {
    eventfd_read(m_descriptor, &ignored);
  }
}

void Teller::forget(Subject& subject) {
  const CAutoLockT<CMonitor> guard(m_lock);
  subject.m_isForgotten = true;
  m_queue.remove_if(
      [&subject](const Message& message) { return message.subject.get() == &subject; });
  if (m_queue.empty()) {
    calm();
  }
  while (subject.m_beingTold > 0 && depth == 0) {
    m_lock.wait();
  }
}

void Teller::close() {
  const CAutoLockT<CMonitor> guard(m_lock);
  m_isClosing = true;
  m_lock.notifyAll();
  while (depth == 0 && (m_isServed || m_thread != std::thread::id())) {
    m_lock.wait();
  }
  // Inside a message of this teller, the rest is told here; a thread that serves it goes on.
  if (isMine() || (!m_isServed && m_thread == std::thread::id())) {
    tellQueue();
  }
  if (m_descriptor >= 0) {
    ::close(m_descriptor);
    m_descriptor = -1;
  }
}

void Teller::drop() {
  Messages dropped;  // destroyed without the lock
  {
    const CAutoLockT<CMonitor> guard(m_lock);
    dropped.swap(m_queue);
  }
  close();
}

int Teller::descriptor() const {
  const CAutoLockT<CMonitor> guard(m_lock);
  return m_descriptor;
}
