#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/selection/doubles/gate.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/include/StatusCode.h"

namespace doubles {

/// One probe as it was asked for.
struct ProbeCall {
  std::string host;
  bool secure = false;
  bool reserved = false;
  unsigned int port = 0;
  std::string userAgent;
  unsigned int timeout = 0;
  bool determineProxy = false;
  std::string proxyServer;
  std::string proxyUser;
  std::string proxyPswd;
  const void* userBuffer = nullptr;  ///< where the user name's characters stood
  const void* pswdBuffer = nullptr;
  unsigned int options = 0;
  bool resultsWereZero = false;
  bool connectionKept = false;  ///< within the life of a `KeptConnection` of the thread
  std::thread::id thread;
};

/// What a probe is to bring.
struct ProbeAnswer {
  STATUSCODE status = 0;
  unsigned int rtt = 0;
  unsigned int httpStatus = 0;
  unsigned int lastError = 0;
  std::string headers = {};
  unsigned int takesMs = 0;           ///< moves the clock
  std::function<void()> during = {};  ///< called while the probe is out
};

/// Probes that answer as a test wrote down.
struct Probes {
  void reset();

  /// The answers of a host to its worker, in order; the last one repeats. A host without any
  /// answers with 200 in 10 ms.
  void answer(const std::string& host, const std::vector<ProbeAnswer>& toWorker);
  /// The answer to the test probe, whatever its host.
  void answerTest(const ProbeAnswer& answer) { testAnswer.set(answer); }

  std::vector<ProbeCall> testCalls() const;
  /// Those of one host, or of all.
  std::vector<ProbeCall> workerCalls(const std::string& host = "") const;

  STATUSCODE send(const ProbeCall& call, HttpProbe::HTTP_PROBE_RESULTS& results);

  /// Keeps no copy of the credentials.
  std::atomic<bool> isForgetful{false};
  Guarded<ProbeAnswer> testAnswer;
  Guarded<std::map<std::string, std::vector<ProbeAnswer>>> answers;  ///< still to come
  Guarded<std::vector<ProbeCall>> calls;

 private:
  ProbeAnswer next(const ProbeCall& call);
};

Probes& probes();

/// How many `KeptConnection`s live on this thread.
unsigned int keptConnections();

}  // namespace doubles
