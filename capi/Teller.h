#pragma once

#include <functional>
#include <list>
#include <memory>
#include <thread>

#include "vpn/Common/Utility/Thread.h"
#include "vpn/include/Locks.h"

/// Tells a client what happens, one message after the other: on a thread of its own, or when the
/// client asks for it. Any thread may call anything.
class Teller {
 public:
  /// What a message is about. The teller's lock guards it.
  class Subject {
   private:
    friend class Teller;
    int m_beingTold = 0;
    bool m_isForgotten = false;
  };

  /// Something to be told.
  struct Message {
    std::shared_ptr<Subject> subject;
    /// Calls the client. What it throws is logged and dropped.
    std::function<void()> tell;
  };
  /// A list, so that a message can be made in advance and takes no memory when its time has come.
  using Messages = std::list<Message>;

  /// @param byClient the client calls `tellAll` itself. @return null if the system gives no
  ///        descriptor or thread, whichever is needed.
  static std::shared_ptr<Teller> make(bool byClient);
  ~Teller();
  Teller(const Teller&) = delete;
  Teller& operator=(const Teller&) = delete;

  /// Appends messages, which leaves `messages` empty; drops them once the teller is closed. The
  /// caller holds their subjects.
  void post(Messages& messages) noexcept;

  /// Tells all messages. Does nothing inside a message, or while another thread tells.
  void tellAll();

  /// Drops all messages about a subject, now and later, and waits for one that another thread is
  /// telling, except inside a message. The caller holds the subject.
  void forget(Subject& subject);

  /// Tells all messages and accepts no more. Waits for a thread that is telling, except inside a
  /// message of another teller.
  void close();

  /// The same, but drops the messages instead.
  void drop();

  /// Polls readable while there are messages; -1 if the client does not tell, and after `close`.
  int descriptor() const;

 private:
  class TellingThread;

  explicit Teller(bool byClient);
  void serve();
  void tellQueue() AHS_REQUIRES(m_lock);
  void calm() AHS_REQUIRES(m_lock);
  bool isMine() const AHS_REQUIRES(m_lock) { return m_thread == std::this_thread::get_id(); }

  mutable CMonitor m_lock;  // notified of messages, of the end of telling, and of the closing
  int m_descriptor AHS_GUARDED_BY(m_lock);
  Messages m_queue AHS_GUARDED_BY(m_lock);
  std::thread::id m_thread AHS_GUARDED_BY(m_lock);  // the telling thread, while it tells
  bool m_isClosing AHS_GUARDED_BY(m_lock) = false;
  bool m_isServed AHS_GUARDED_BY(m_lock);  // by a thread of its own
};
