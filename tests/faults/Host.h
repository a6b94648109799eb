#pragma once

#include <memory>
#include <string>
#include <vector>

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
/// Used by one thread, which is exempt from faults.
///
/// A selection that does not end, and a process that dies in one, say which fault was at work.
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
  std::string Log() const;

  /// Runs one selection to its end while `fault` is armed, and waits until none of its threads is
  /// left. No block of memory that it takes for itself is left either.
  Outcome Select(const Fault& fault, Probing probing);

  /// Makes its directory, and what has been selected expire.
  void ResetCache() const;
  /// Takes away the directory of the cache.
  void RemoveCacheDirectory() const;

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

/// Open file descriptors of this process.
unsigned int openDescriptors();

/// Threads of this process.
unsigned int threadCount();

/// Starts a thread that ends at once. ThreadSanitizer starts one of its own, which stays, with the
/// first of a process: threads are to be counted after that.
void startFirstThread();

/// Opens the standard input again if it has been closed. libcurl up to 7.88 closes descriptor 0
/// when it gets no memory for the lock of a look-up (it takes a field that is not set yet for a
/// socket).
void mendStandardInput();

/// Has the C library make what its resolver needs for good. That of glibc 2.36 does not survive if
/// it gets no memory for it: it then keeps a lock for ever, or never works again.
void wakeResolver();

/// Whether OpenSSL has come up. It tries once a process.
bool isTlsUsable();

}  // namespace tests
