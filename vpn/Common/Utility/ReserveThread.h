#pragma once

/// Threads of the process that are made in advance and kept for bodies that must run although the
/// system gives no thread: a limit is reached, or there is no memory for a stack.
///
/// One exists from `create` until its last holder has left and nothing is left for it to do.
/// Holders are the execution context, which creates it, and every task that may still need it. A
/// task that measures adds one, so that its callback waits for no other. All operations may be
/// called from any thread; none throws, waits for a body or allocates memory, but for `create` and
/// `addThread`, which create a thread.
class CReserveThread {
 public:
  /// A body that waits for the thread, in storage of its caller's that must stay where it is until
  /// the body is called.
  struct Body {
    void* (*function)(void*) = nullptr;  ///< what is called; its result is dropped
    void* argument = nullptr;            ///< what it is called with
    Body* next = nullptr;                ///< the reserve thread's
  };

  /// Makes the caller a holder, and the thread if there is none.
  /// @return 0, or the errno value of why there is no thread; the caller is no holder then.
  static int create() noexcept;

  /// Adds a thread for as long as the caller wants one. @return 0, or the errno value of why there
  /// is none; otherwise `removeThread` ends it.
  static int addThread() noexcept;
  static void removeThread() noexcept;

  /// Makes the caller a holder, also where there is no thread.
  static void addHolder() noexcept;

  /// Ends what `create` or `addHolder` began.
  static void removeHolder() noexcept;

  /// Has the body called. Bodies that wait at the same time begin in the order they came, each on a
  /// thread of its own as far as the system gives one.
  /// @return false when there is no thread in reserve; the body is not called then.
  static bool Run(Body& body) noexcept;
};
