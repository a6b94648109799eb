#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vpn/Common/Utility/Thread.h"
#include "vpn/include/Locks.h"

class CCacheEntry;

namespace doubles {

/// Hooks in front of real operations. The linker sends calls of the component through them
/// (--wrap), so that the real threads and locks can be watched and made to fail.
class Seams {
 public:
  using BeforeStart = std::function<std::optional<STATUSCODE>(CThread&)>;
  using AfterStart = std::function<void(CThread&)>;
  using BeforeWait = std::function<void(CThread&, unsigned int timeoutMs)>;
  using AfterWait = std::function<STATUSCODE(CThread&, STATUSCODE result, unsigned int& exitCode,
                                             unsigned int timeoutMs)>;
  using BeforeDelete = std::function<void(CThread&)>;
  using AfterLock = std::function<void(const CManualLock*, bool taken)>;
  enum class Reading { List, Copy };
  using BeforeReading = std::function<void(const CCacheEntry&, Reading)>;

  void reset();

  /// A value that the hook gives is `Start`'s result, and no thread is started.
  void setBeforeStart(BeforeStart hook);
  void setAfterStart(AfterStart hook);
  /// Is called when a wait is about to begin.
  void setBeforeWait(BeforeWait hook);
  /// Is called when a wait has ended; what it gives is the wait's result.
  void setAfterWait(AfterWait hook);
  /// Is called when an owner is about to give a thread up.
  void setBeforeDelete(BeforeDelete hook);
  /// Is called when a lock was taken (true), and when it is about to be given back (false).
  void setLockHook(AfterLock hook);
  /// Is called when an entry's results are about to be handed out as a list, or to be copied into
  /// another entry.
  void setBeforeReading(BeforeReading hook);
  /// What every further CCacheEntry::GetHeadendList gives; with a failure the list is left alone.
  void failHeadendList(STATUSCODE status);
  /// A failing GetHeadendList fills the list all the same.
  void failHeadendListAfterFilling(STATUSCODE status);

  /// Number of successful or failed `Start` calls.
  int starts() const;
  /// The constructor arguments of all locks and threads made since the reset.
  std::vector<unsigned long> lockArguments() const;
  std::vector<unsigned long> threadArguments() const;

  // For the wrappers.
  BeforeStart beforeStart() const;
  AfterStart afterStart() const;
  BeforeWait beforeWait() const;
  AfterWait afterWait() const;
  BeforeDelete beforeDelete() const;
  AfterLock lockHook() const;
  BeforeReading beforeReading() const;
  STATUSCODE headendListStatus(bool& fills) const;
  void countStart();
  void addLockArgument(unsigned long argument);
  void addThreadArgument(unsigned long argument);

 private:
  mutable std::mutex m_lock;
  BeforeStart m_beforeStart;
  AfterStart m_afterStart;
  BeforeWait m_beforeWait;
  AfterWait m_afterWait;
  BeforeDelete m_beforeDelete;
  AfterLock m_lockHook;
  BeforeReading m_beforeReading;
  STATUSCODE m_headendListStatus = 0;
  bool m_fills = false;
  int m_starts = 0;
  std::vector<unsigned long> m_lockArguments;
  std::vector<unsigned long> m_threadArguments;
};

Seams& seams();

}  // namespace doubles
