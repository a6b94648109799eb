// Probes without a network: each answers what the test wrote down for its host, moves the test's
// clock by the time that it is said to take, and is remembered with all its arguments.

#include "tests/unit/selection/doubles/http_probe.h"

#include <algorithm>
#include <utility>

#include "tests/unit/selection/doubles/timers.h"

namespace {

thread_local unsigned int keptHere = 0;

}  // namespace

namespace doubles {

void Probes::reset() {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_answers.clear();
  m_position.clear();
  m_testAnswer = ProbeAnswer{.httpStatus = 200};
  m_calls.clear();
  m_forgetful = false;
}

void Probes::setForgetful(bool forgetful) { m_forgetful = forgetful; }

void Probes::answer(const std::string& host, std::vector<ProbeAnswer> answers) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_answers[host] = std::move(answers);
  m_position[host] = 0;
}

void Probes::answerTest(ProbeAnswer answer) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_testAnswer = std::move(answer);
}

std::vector<ProbeCall> Probes::testCalls() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  std::vector<ProbeCall> result;
  std::copy_if(m_calls.begin(), m_calls.end(), std::back_inserter(result),
               [](const ProbeCall& call) { return call.options == TestProbeOptions; });
  return result;
}

std::vector<ProbeCall> Probes::workerCalls() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  std::vector<ProbeCall> result;
  std::copy_if(m_calls.begin(), m_calls.end(), std::back_inserter(result),
               [](const ProbeCall& call) { return call.options != TestProbeOptions; });
  return result;
}

std::vector<ProbeCall> Probes::workerCalls(const std::string& host) const {
  std::vector<ProbeCall> result = workerCalls();
  std::erase_if(result, [&](const ProbeCall& call) { return call.host != host; });
  return result;
}

ProbeAnswer Probes::next(const ProbeCall& call) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_calls.push_back(call);
  if (call.options == TestProbeOptions) {
    return m_testAnswer;
  }
  const auto found = m_answers.find(call.host);
  if (found == m_answers.end() || found->second.empty()) {
    return ProbeAnswer{.rtt = 10, .httpStatus = 200};
  }
  std::size_t& position = m_position[call.host];
  const ProbeAnswer answer = found->second[position];
  position = std::min(position + 1, found->second.size() - 1);
  return answer;
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
  if (!doubles::probes().forgetful()) {
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
void HttpProbe::SetRoundTripMeasure(RoundTripMeasure) {}
void HttpProbe::SetTrustFile(const std::string&) {}
