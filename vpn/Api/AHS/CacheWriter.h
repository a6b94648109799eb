#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "vpn/include/StatusCode.h"

/// Writes behind the back of its user: jobs that may take as long as a disk takes are done on a
/// thread of the library's own, one after the other, and whoever has the time may wait for them.
///
/// A job that has not begun gives way to the next one, which is to do all that it would have done;
/// so there is never more than one under way and one to come. The thread exists while there is
/// something to do. Jobs know nothing of the writer: one that is under way when the writer is
/// destroyed goes on by itself.
///
/// The writer is used by one thread at a time, its tickets by any. After a fork, the child begins
/// anew: what was under way is the parent's.
class CCacheWriter {
 public:
  /// What became of a job.
  struct Outcome {
    unsigned long number = 0;  ///< the job's, as it was submitted
    STATUSCODE status = 0;     ///< 0, or what went wrong
    /// What went wrong, as a sentence for the log; may be set without a failure.
    std::string problem;
  };

  /// Does the work, on the writer's thread. What it throws makes its outcome a failure.
  using Job = std::function<Outcome()>;

 private:
  struct State;

 public:
  /// To wait for a job with.
  class Ticket {
   public:
    Ticket() = default;
    /// Waits until the job, or a later one in its place, has ended. @return whether it has.
    bool WaitUntil(std::chrono::steady_clock::time_point deadline) const;

   private:
    friend class CCacheWriter;
    std::shared_ptr<State> m_state;  // null: nothing to wait for
    unsigned long m_number = 0;
  };

  CCacheWriter();
  /// A job that has not begun never begins.
  ~CCacheWriter();
  CCacheWriter(const CCacheWriter&) = delete;
  CCacheWriter& operator=(const CCacheWriter&) = delete;

  /// Hands a job over.
  /// @param number larger than that of every job before.
  /// @param job what is to be done.
  /// @return whether there is a thread for it; if not, the job is dropped.
  /// @throws std::bad_alloc with nothing changed.
  bool Submit(unsigned long number, Job job);

  /// Whether a job is under way or to come.
  bool IsBusy() const;

  /// For the last job that was handed over.
  Ticket Last() const;

  /// Takes the outcome of the job that ended last. @return false when it was taken before.
  bool Take(Outcome& outcome);

 private:
  bool isInherited() const;

  std::shared_ptr<State> m_state;
};
