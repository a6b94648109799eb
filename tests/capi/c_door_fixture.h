#pragma once

#include <ahs/ahs.hpp>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/HeldGateway.h"

namespace tests {

using Gateway = HeldGateway;
using Preferences = std::vector<ahs::Preference>;

/// Limits that no test waits for, one probe a headend and no proxy.
/// @param preferences go before these.
ahs::Options optionsFor(std::vector<ahs::Headend> headends, Preferences preferences = {});

/// Nothing but the gateways is probed: there is no test probe.
inline const ahs::Request Reconnection{.reason = ahs::Reason::Reconnection};

/// Takes a library down, as its destructor would.
inline void stop(ahs::Library& library) { const ahs::Library last(std::move(library)); }

/// A client of one selection that remembers what it is told and then reacts as the test wants it
/// to. The reactions are set before the selection is started.
class Client {
 public:
  std::function<void()> atResult;
  std::function<void(const ahs::Probe&)> atProbe;
  std::function<bool(int)> atSocket;

  /// @return a selection that tells this client everything.
  ahs::Selection Select(ahs::Library& library, ahs::Request request = Reconnection);

  bool WaitUntilTold() const;
  std::vector<ahs::Result> Results() const;
  std::vector<ahs::Probe> Probes() const;
  /// The status of the one result, after which no probe was told; else one that nothing ends with.
  ahs::Status Status() const;

 private:
  mutable std::mutex m_mutex;
  std::vector<ahs::Result> m_results;
  std::vector<ahs::Probe> m_probes;
  bool m_wasToldTooLate = false;
};

/// Something that one thread waits for and another says.
class Signal {
 public:
  void Give();
  /// @return whether it was given within `Limit`.
  bool Wait();

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_given = false;
};

}  // namespace tests

namespace ahs {

inline void PrintTo(const Status& status, std::ostream* out) { *out << status.name(); }

}  // namespace ahs
