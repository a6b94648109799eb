#pragma once

#include <string>

#include "tests/faults/Injection.h"
#include "tests/host/HostScene.h"
#include "tests/support/LoopbackSockets.h"
#include "vpn/include/StatusCode.h"

namespace tests {

/// How a selection probes: plainly, or over TLS as it does for a client with a proxy that wants a
/// login.
enum class Probing { Plain, Secure };

/// What became of one selection.
struct Outcome {
  bool isConstructed = false;
  bool threw = false;            ///< construction ended by std::bad_alloc
  STATUSCODE construction = -1;  ///< the status of construction
  unsigned int calls = 0;        ///< of the client
  STATUSCODE status = -1;        ///< of the first call, as the rest
  unsigned int headends = 0;     ///< how many were delivered
  bool areKnown = false;         ///< they are all of the profile, and none comes twice
  bool isLastFirst = false;      ///< the first one is the last headend
  Seen seen;
};

/// A process that selects: gateways on the loopback interface, one of them known by a name, and one
/// more that is down; preferences, a log file, a cache.
/// Used by one thread, which is exempt from faults. A selection that does not end ends the process.
class DisturbedHost {
 public:
  /// Headends that answer.
  static constexpr unsigned int HeadendCount = 3;

  DisturbedHost();

  /// Brings the client library up, with a new log.
  void Start();
  /// Takes it down and waits until its threads are gone.
  void Stop();

  /// What has been logged since.
  std::string Log() const { return readFile(m_host.LogFile()); }

  /// Runs one selection to its end while `fault` is armed, and waits until none of its threads is
  /// left. No block of memory that it takes for itself is left either.
  Outcome Select(const Fault& fault, Probing probing);

  /// Makes its directory, and what has been selected expire.
  void ResetCache() const;
  std::string CacheDirectory() const { return m_host.CacheDirectory(); }
  /// Whether a selection that has not expired is in the cache.
  bool IsStored() const;
  /// What is wrong with the cache: a file that is no selection, or none of the cache's.
  std::string FindCacheFlaw() const;

 private:
  const GatewayProcess m_gateways{{"", "", ""}};
  const RefusingPort m_down{KnownAddress};
  Host m_host;
  // What there was before the library.
  unsigned int m_ourThreads = 0;
  unsigned int m_allThreads = 0;
};

/// Open file descriptors and threads of this process.
unsigned int openDescriptors();
unsigned int threadCount();

}  // namespace tests
