#pragma once

#include "vpn/Common/Utility/Shortage.h"

/// Lets as many workers run at a time as the process has descriptors and threads for; the others
/// wait, and a worker's thread that has ended its body takes the next one. So nobody sleeps here.
/// Any thread may call anything; nothing throws or allocates memory.
class CWorkerQueue {
 public:
  /// A worker's body, in storage that stays where it is until the body is called.
  struct Body {
    void* (*function)(void*) = nullptr;  ///< what is called; its result is dropped
    void* argument = nullptr;            ///< what it is called with
    Body* next = nullptr;                ///< the queue's
    bool hasWaited = false;              ///< there was no room for it at first
    long toLookUp = 0;                   ///< the queue's, like the next
    long later = 0;
  };

  CWorkerQueue() = delete;

  /// Has the body called on a worker's thread, now or when there is room, in the order of calls.
  /// @return 0, or the errno value of why there is no thread when no worker runs that could take
  ///         the body; it is not called then.
  static int run(Body& body) noexcept;

  /// The body of this thread looks no name up any more, and so needs few descriptors. Does nothing
  /// on other threads.
  static void needFew() noexcept;

  /// What bodies wait for; `None` if none waits.
  static Shortage waitsFor() noexcept;
};
