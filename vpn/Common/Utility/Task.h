#pragma once

#include <memory>

enum class Shortage : unsigned char;

/// What threads work for. A thread has the task of the thread that started it, and a timer's
/// callback that of the thread that armed the timer, so whatever serves a task below can find it
/// without being handed it.
///
/// A task lives until its owner and the last thread that works for it have let it go.
class CTask {
 public:
  CTask() = default;
  virtual ~CTask() = default;
  CTask(const CTask&) = delete;
  CTask& operator=(const CTask&) = delete;

  /// Something lacked on this machine, for a thread that works for this.
  virtual void noteShortage(Shortage /*what*/) noexcept {}

  /// The task that this thread works for; null for none. Throws nothing.
  static std::shared_ptr<CTask> current() noexcept;

  /// Lets the thread work for a task as long as the object lives, which is on the thread's stack.
  class Scope {
   public:
    /// @param task null for none.
    explicit Scope(std::shared_ptr<CTask> task) noexcept;
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    const std::shared_ptr<CTask> m_task;
    const std::shared_ptr<CTask>* const m_former;
  };
};
