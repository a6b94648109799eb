#pragma once

#include <netinet/in.h>

#include <atomic>
#include <chrono>
#include <memory>

#include "vpn/Common/IP/ConnectPatience.h"
#include "vpn/Common/IP/ProbeReport.h"
#include "vpn/Common/IP/RoundTripEvidence.h"
#include "vpn/Common/Utility/Task.h"
#include "vpn/include/Locks.h"

/// A task whose threads send probes: is told of each, gives each socket its way out of the machine,
/// and can be cancelled.
///
/// What derives from this overrides what it wants to know. Its operations are called by several
/// threads at once and hold up the probe; what they throw is dropped. `unanswered` and `connected`
/// may come from the thread of another probe, of whatever task: they must not wait for anything but
/// short locks.
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

  /// A socket is about to be made for an IPv4 address. @return whether `to` replaces it.
  virtual bool translated(const in_addr& /*from*/, in6_addr& /*to*/) { return false; }

  /// A direct probe's attempt to connect has gone unanswered for so long. Asked before the first
  /// attempt, and now and then while nothing answers. @return how long to wait.
  virtual ConnectPatience unanswered(const ProbeReport& /*report*/,
                                     std::chrono::milliseconds /*waited*/) {
    return {};
  }
  /// The connection of a direct probe stands. @param rttUs the network's round trip in
  /// microseconds, -1 if the kernel cannot say.
  virtual void connected(const ProbeReport& /*report*/, long long /*rttUs*/) {}

  /// What its probes know of their connections, for `weigh`; see `RoundTripEvidence`.
  void noteConnecting(const RoundTripEvidence::Place& host);
  void noteOpened(const RoundTripEvidence::Place& host, const RoundTripEvidence::Place& address,
                  long long openingUs);
  void noteEnded(const RoundTripEvidence::Place& host) noexcept;
  RoundTripEvidence::Verdict weigh(const RoundTripEvidence::Place& address,
                                   const RoundTripEvidence::RoundTrips& seen);

  /// Ends running probes, closing their connections, and refuses later ones, all with
  /// HTTP_SESSION_ERROR_TIMEOUT. Returns at once; any thread may call it.
  void cancel() noexcept;
  bool isCancelled() const noexcept { return m_cancelled; }

  /// Polls readable once the task is cancelled. -1 if the system gave no descriptor; waiters then
  /// have to check now and then.
  int cancelDescriptor() const noexcept { return m_descriptor; }

 protected:
  /// Of locks that each probe takes: they are held for a few microseconds.
  static constexpr unsigned long SpinCount = 500;

 private:
  const int m_descriptor;
  std::atomic<bool> m_cancelled;
  mutable CManualLock m_evidenceLock{SpinCount};
  RoundTripEvidence m_evidence AHS_GUARDED_BY(m_evidenceLock);
};
