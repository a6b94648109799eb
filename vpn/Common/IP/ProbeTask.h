#pragma once

#include <atomic>
#include <memory>

#include "vpn/Common/IP/ProbeReport.h"
#include "vpn/Common/Utility/Task.h"

/// A task whose threads send probes: is told of each, gives each socket its way out of the machine,
/// and can be cancelled.
///
/// What derives from this overrides what it wants to know. The three operations are called on the
/// probe's own thread, by several at once, and hold up the probe; what they throw is dropped.
class ProbeTask : public CTask {
 public:
  ProbeTask();
  ~ProbeTask() override;

  /// The task of this thread, if its threads may send probes; else null.
  static std::shared_ptr<ProbeTask> current();

  /// A probe is about to start; only host, port, secure and options are known.
  virtual void probeStarted(const ProbeReport& /*report*/) {}
  /// A probe is over; everything of its report is known.
  virtual void probeEnded(const ProbeReport& /*report*/) {}
  /// A TCP socket was made and is about to connect, to the server or to a proxy.
  /// @param family AF_INET or AF_INET6. @return false if it must not be used.
  virtual bool socketOpened(int /*socket*/, int /*family*/) { return true; }

  /// Ends running probes, closing their connections, and refuses later ones, all with
  /// HTTP_SESSION_ERROR_TIMEOUT. Returns at once; any thread may call it.
  void cancel() noexcept;
  bool isCancelled() const noexcept { return m_cancelled; }

  /// Polls readable once the task is cancelled. -1 if the system gave no descriptor; waiters then
  /// have to check now and then.
  int cancelDescriptor() const noexcept { return m_descriptor; }

 private:
  const int m_descriptor;
  std::atomic<bool> m_cancelled;
};
