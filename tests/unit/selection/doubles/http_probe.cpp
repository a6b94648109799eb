// Probes without a network: each answers what the test wrote down for its host, moves the test's
// clock by the time that it is said to take, and is remembered with all its arguments.

#include "tests/unit/selection/doubles/http_probe.h"

#include "tests/unit/selection/doubles/timers.h"

namespace {

thread_local unsigned int keptHere = 0;

/// The test probe alone asks for the headers.
bool isTestProbe(const doubles::ProbeCall& call) {
  return (call.options & HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS) != 0;
}

}  // namespace

namespace doubles {

void Probes::reset() {
  isForgetful = false;
  testAnswer.set({.httpStatus = 200});
  answers.set({});
  calls.set({});
}

void Probes::answer(const std::string& host, const std::vector<ProbeAnswer>& toWorker) {
  answers.with([&](auto& all) { all[host] = toWorker; });
}

std::vector<ProbeCall> Probes::testCalls() const {
  std::vector<ProbeCall> result = calls.get();
  std::erase_if(result, [](const ProbeCall& call) { return !isTestProbe(call); });
  return result;
}

std::vector<ProbeCall> Probes::workerCalls(const std::string& host) const {
  std::vector<ProbeCall> result = calls.get();
  std::erase_if(result, [&](const ProbeCall& call) {
    return isTestProbe(call) || (!host.empty() && call.host != host);
  });
  return result;
}

ProbeAnswer Probes::next(const ProbeCall& call) {
  calls.with([&](auto& all) { all.push_back(call); });
  if (isTestProbe(call)) {
    return testAnswer.get();
  }
  return answers.with([&](auto& all) {
    ProbeAnswer answer{.rtt = 10, .httpStatus = 200};
    if (const auto found = all.find(call.host); found != all.end()) {
      answer = found->second.front();
      if (found->second.size() > 1) {
        found->second.erase(found->second.begin());
      }
    }
    return answer;
  });
}

STATUSCODE Probes::send(const ProbeCall& call, HttpProbe::HTTP_PROBE_RESULTS& results) {
  const ProbeAnswer answer = next(call);
  if (answer.during) {
    answer.during();
  }
  clock().advance(answer.takesMs);
  if ((call.options & HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS) != 0) {
    results.tstrResponseHeaders = answer.headers;
  }
  if ((call.options & HttpProbe::HTTP_PROBE_RETURN_STATUSCODE) != 0) {
    results.uiHttpStatusCode = answer.httpStatus;
  }
  if ((call.options & HttpProbe::HTTP_PROBE_RETURN_LAST_ERROR) != 0) {
    results.uiLastError = answer.lastError;
  }
  if ((call.options & HttpProbe::HTTP_PROBE_RETURN_RTT) != 0) {
    results.uiRtt = answer.rtt;
  }
  return answer.status;
}

Probes& probes() {
  static Probes& instance = *new Probes;  // late threads may still use it
  return instance;
}

unsigned int keptConnections() { return keptHere; }

}  // namespace doubles

STATUSCODE HttpProbe::SendHttpProbe(const std::string& host, bool secure, bool reserved,
                                    unsigned short port, const std::string& userAgent,
                                    unsigned int timeoutSeconds, const PROXY_DATA& proxyData,
                                    unsigned int options, HTTP_PROBE_RESULTS& results) {
  doubles::ProbeCall call;
  call.host = host;
  call.secure = secure;
  call.reserved = reserved;
  call.port = port;
  call.userAgent = userAgent;
  call.timeout = timeoutSeconds;
  call.determineProxy = proxyData.determineProxy;
  call.proxyServer = proxyData.proxyServer;
  if (!doubles::probes().isForgetful) {
    call.proxyUser = proxyData.proxyUser;
    call.proxyPswd = proxyData.proxyPswd;
  }
  call.userBuffer = proxyData.proxyUser.data();
  call.pswdBuffer = proxyData.proxyPswd.data();
  call.options = options;
  call.resultsWereZero = results.uiRtt == 0 && results.uiHttpStatusCode == 0 &&
                         results.uiLastError == 0 && results.tstrResponseHeaders.empty() &&
                         results.tstrLocation.empty();
  call.connectionKept = keptHere != 0;
  call.thread = std::this_thread::get_id();
  return doubles::probes().send(call, results);
}

HttpProbe::KeptConnection::KeptConnection() noexcept { ++keptHere; }
HttpProbe::KeptConnection::~KeptConnection() { --keptHere; }
void HttpProbe::setRoundTripMeasure(RoundTripMeasure) {}
void HttpProbe::setTrustFile(const std::string&) {}
