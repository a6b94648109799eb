#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "vpn/Api/ClientIfcBase.h"
#include "vpn/Api/ProxyIfc.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/IP/ProbeTask.h"
#include "vpn/include/StatusCode.h"

namespace tests {

/// One log call.
struct LogLine {
  /// Of the thread that made it; unlike the system's identifiers never given twice.
  unsigned int thread = 0;
  /// "severity function: message". What the machine decides (round-trip times, a thread's
  /// identifier) is written as "N".
  std::string text;
};

/// All that can be seen of one selection run from outside.
struct Selection {
  /// The client's calls; a run makes exactly one. The fields below are the first call's.
  std::size_t calls = 0;
  unsigned int reason = 0;
  std::vector<std::string> headends;
  long status = -1;
  std::string extraInfo;

  /// The log lines of the selection component, in order.
  std::vector<LogLine> log;
  /// The report of the ranking as it was logged; empty if there was none.
  std::string report;
  /// The probes, in the order in which they ended.
  std::vector<HttpProbe::Report> probes;

  /// The headends and metrics in the report, in its order.
  std::vector<std::pair<std::string, unsigned int>> Results() const;

  /// The lines of the thread that executed the run.
  std::vector<std::string> RunLog() const;
  /// The lines of the thread that serviced the timer; empty if it did not expire.
  std::vector<std::string> TimerLog() const;
  /// The probes of a port that its worker sent.
  std::vector<HttpProbe::Report> ProbesOf(unsigned short port) const;

 private:
  std::vector<std::string> LinesOf(unsigned int thread) const;
};

/// Executes one selection run on a thread of its own, on the client library that the test has
/// brought up, and waits until nothing of it is left. Failures to construct it and runs that leave
/// threads behind are reported as failures of the test.
/// @param lastHeadend name of the host entry that was used last. @param proxy owned from now on.
/// @param threadsThatStay those that ask for the system's proxy and get no answer.
Selection runSelection(const std::string& lastHeadend, unsigned int reason,
                       ProxyIfc* proxy = nullptr, unsigned int threadsThatStay = 0);

}  // namespace tests
