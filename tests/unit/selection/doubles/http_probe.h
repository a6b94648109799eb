#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/include/StatusCode.h"

namespace doubles {

/// The options of a test probe; a worker's lack the headers.
constexpr unsigned int TestProbeOptions = 15;
constexpr unsigned int WorkerOptions = 14;

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
class Probes {
 public:
  void reset();

  /// The answers of a host to its worker, in order; the last one repeats. A host without any
  /// answers with 200 in 10 ms.
  void answer(const std::string& host, std::vector<ProbeAnswer> answers);
  /// The answer to the test probe, whatever its host.
  void answerTest(ProbeAnswer answer);
  /// Keeps no copy of the credentials.
  void setForgetful(bool forgetful);

  std::vector<ProbeCall> testCalls() const;
  std::vector<ProbeCall> workerCalls() const;
  std::vector<ProbeCall> workerCalls(const std::string& host) const;

  bool forgetful() const { return m_forgetful; }
  STATUSCODE send(const ProbeCall& call, HttpProbe::HTTP_PROBE_RESULTS& results);

 private:
  ProbeAnswer next(const ProbeCall& call);

  mutable std::mutex m_lock;
  std::map<std::string, std::vector<ProbeAnswer>> m_answers;
  std::map<std::string, std::size_t> m_position;
  ProbeAnswer m_testAnswer;
  std::vector<ProbeCall> m_calls;
  std::atomic<bool> m_forgetful{false};
};

Probes& probes();

/// How many `KeptConnection`s live on this thread.
unsigned int keptConnections();

}  // namespace doubles
