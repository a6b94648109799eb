// Sends and reports single HTTP(S) requests. Each probe has its own transfer, so probes share only
// the process's settings. Only the probes of one thread may share a connection: within a scope that
// the thread has opened, without a proxy and without a secret.

#include "vpn/Common/IP/HttpProbe.h"

#include <curl/curl.h>

#include <utility>

#include "vpn/Common/IP/DatagramTransfer.h"
#include "vpn/Common/IP/DirectTransfer.h"
#include "vpn/Common/IP/HttpTransfer.h"
#include "vpn/Common/IP/KeptTransfer.h"
#include "vpn/Common/IP/ProbeOutcome.h"
#include "vpn/Common/IP/ProbeRequest.h"
#include "vpn/Common/IP/ProbeSettings.h"
#include "vpn/Common/IP/ProbeTask.h"
#include "vpn/Common/IP/TransportMemory.h"
#include "vpn/Common/Utility/Utf8Locale.h"
#include "vpn/Common/Utility/WorkerQueue.h"

namespace {

constexpr unsigned int ProxyChallenge = 407;

/// Where this thread's probes keep their transfer; null where they keep none. A plain pointer: it
/// needs no memory to set up and none to take down.
thread_local std::shared_ptr<KeptTransfer>* keptHere = nullptr;

/// Whether a log-in failed that could succeed with the password: libcurl tries only the strongest
/// scheme that the proxy offers, and Negotiate without a ticket does not log in.
bool passwordIsUntried(const ProbeOutcome& outcome, const ProbeRequest& request) {
  const auto offered = static_cast<unsigned long>(outcome.offeredLogIns);
  return outcome.finalStatus() == ProxyChallenge && request.proxied() && request.mayUseTicket &&
         !request.credentials->proxyUser.empty() && !request.credentials->proxyPswd.empty() &&
         (offered & CURLAUTH_NEGOTIATE) != 0 && (offered & (CURLAUTH_BASIC | CURLAUTH_NTLM)) != 0;
}

ProbeOutcome sendOnce(ProbeRequest& request) {
  if (request.isDatagram()) {
    return DatagramTransfer(request).send();
  }
  if (DirectTransfer::serves(request)) {
    DirectTransfer::Addresses addresses;
    DirectTransfer transfer(request, false, addresses);
    transfer.send(request);
    return transfer.takeOutcome();
  }
  HttpTransfer transfer(request);
  transfer.send();
  return transfer.takeOutcome();
}

ProbeOutcome sendLoggingIn(ProbeRequest& request) {
  ProbeOutcome outcome = sendOnce(request);
  if (passwordIsUntried(outcome, request) && request.timeLeft().count() > 0) {
    request.mayUseTicket = false;
    outcome = sendOnce(request);
  }
  return outcome;
}

/// Sends the probe. Throws only std::bad_alloc.
ProbeOutcome send(const std::string& host, const PROXY_DATA& proxyData, ProbeRequest& request) {
  ProbeOutcome outcome;
  outcome.code = request.prepare(host, proxyData);
  if (outcome.code != CURLE_OK) {
    return outcome;
  }
  if (request.isAddress()) {
    CWorkerQueue::needFew();
  }
  const Utf8Locale utf8;  // libcurl reads a proxy's international name in the thread's locale
  if (keptHere == nullptr || !request.isDirect() || request.isDatagram() ||
      request.handshake != nullptr) {
    return sendLoggingIn(request);
  }
  if (*keptHere == nullptr) {
    *keptHere = std::make_shared<KeptTransfer>();
  }
  return (*keptHere)->send(request);
}

void writeResults(const HttpProbe::Report& report, ProbeOutcome& outcome,
                  HttpProbe::HTTP_PROBE_RESULTS& results) {
  const auto give = [&report](HttpProbe::HTTP_PROBE_OPTIONS option, auto& result, auto& value) {
    if ((report.options & option) != 0) {
      result = std::move(value);
    }
  };
  give(HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS, results.tstrResponseHeaders, outcome.headers);
  give(HttpProbe::HTTP_PROBE_RETURN_STATUSCODE, results.uiHttpStatusCode, report.httpStatus);
  give(HttpProbe::HTTP_PROBE_RETURN_LAST_ERROR, results.uiLastError, report.transportError);
  give(HttpProbe::HTTP_PROBE_RETURN_RTT, results.uiRtt, report.rttMs);
  give(HttpProbe::HTTP_PROBE_RETURN_LOCATION, results.tstrLocation, outcome.location);
  give(HttpProbe::HTTP_PROBE_RETURN_REQUEST, results.tstrRequest, outcome.request);
}

void tell(ProbeTask* task, void (ProbeTask::*what)(const HttpProbe::Report&),
          const HttpProbe::Report& report) {
  if (task == nullptr) {
    return;
  }
  try {
    (task->*what)(report);
  } catch (...) {
    // A listener's exception does not concern the probe.
  }
}

/// Replaces the network's round trip in the report of an answer, if the evidence speaks against it.
void weigh(const ProbeOutcome& outcome, ProbeTask* task, HttpProbe::Report& report) {
  const long long networkUs =
      outcome.openedAgain ? outcome.connectTookUs : outcome.networkRoundTrip();
  const RoundTripEvidence::RoundTrips seen{networkUs, report.responseRttUs,
                                           outcome.openedAgain ? networkUs : report.openingUs};
  const RoundTripEvidence::Place address{report.address, report.addressPort};
  const RoundTripEvidence::Verdict verdict =
      task != nullptr ? task->weigh(address, seen)
                      : RoundTripEvidence().weigh(address, seen, RoundTripEvidence::Clock::now());
  report.doubt = verdict.doubt;
  report.rttMs = ProbeOutcome::toMilliseconds(verdict.roundTripUs);
}

/// Whether nothing that a client could use has answered, though something has.
bool lacksService(const HttpProbe::Report& report) {
  constexpr unsigned int FirstServerError = 500;
  const bool isTest = (report.options & HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS) != 0;
  return !report.proxied && !isTest &&
         (report.httpStatus >= FirstServerError ||
          report.status == HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
}

/// The whole of a probe. Not inlined, so that its traces on the stack are below its caller's frame.
[[gnu::noinline]] STATUSCODE sendAndReport(const std::string& host, bool secure,
                                           unsigned short port, const std::string& userAgent,
                                           unsigned int timeoutSeconds, const PROXY_DATA& proxyData,
                                           unsigned int options,
                                           HttpProbe::HTTP_PROBE_RESULTS& results) {
  // A plain pointer will do: the thread holds its task.
  ProbeTask* const task = ProbeTask::current().get();
  HttpProbe::RoundTripMeasure measure = HttpProbe::RoundTripMeasure::Network;
  HttpProbe::Report report;
  ProbeOutcome outcome;
  ProbeRequest request;
  try {
    measure = ProbeSettings::measure();
    report.host = host;
    report.port = port;
    report.secure = secure;
    report.options = options;
    tell(task, &ProbeTask::probeStarted, report);
    request.task = task;
    request.report = &report;
    request.secure = secure;
    request.how = ProbeSettings::howTo(host, port);
    request.port = request.how.portAt(port);
    request.userAgent = userAgent;
    request.tellsRequest = (options & HttpProbe::HTTP_PROBE_RETURN_REQUEST) != 0;
    request.timeoutSeconds = timeoutSeconds;
    outcome = send(host, proxyData, request);
  } catch (...) {
    outcome = ProbeOutcome();
    outcome.code = CURLE_OUT_OF_MEMORY;
  }
  report.proxied = request.proxied() || outcome.code == CURLE_COULDNT_RESOLVE_PROXY;
  outcome.fill(report, request.proxied(), measure);
  if (task != nullptr) {
    task->noteEnded({request.host, request.port});
  }
  if (measure == RoundTripMeasure::Auto && !request.proxied() && report.responseRttUs >= 0) {
    weigh(outcome, task, report);
  }
  if (ProbeSettings::needsService() && lacksService(report)) {
    report.status = HTTP_SESSION_ERROR_CANNOT_CONNECT;
    report.rttMs = 0;
  }
  report.totalUs = std::chrono::duration_cast<std::chrono::microseconds>(
                       ProbeRequest::Clock::now() - request.start)
                       .count();
  Shortages::note(report.shortage);
  writeResults(report, outcome, results);
  tell(task, &ProbeTask::probeEnded, report);
  CWorkerQueue::needFew();  // what comes now has its name looked up
  return report.status;
}

}  // namespace

STATUSCODE HttpProbe::SendHttpProbe(const std::string& host, bool secure, bool reserved,
                                    unsigned short port, const std::string& userAgent,
                                    unsigned int timeoutSeconds, const PROXY_DATA& proxyData,
                                    unsigned int options, HTTP_PROBE_RESULTS& results) {
  static_cast<void>(reserved);
  const STATUSCODE status =
      sendAndReport(host, secure, port, userAgent, timeoutSeconds, proxyData, options, results);
  if (!proxyData.proxyUser.empty()) {
    TransportMemory::wipeStack();
  }
  return status;
}

TlsHandshake HttpProbe::shakeHands(const std::string& host, unsigned short port,
                                   std::chrono::seconds timeout) noexcept {
  TlsHandshake shown;
  const PROXY_DATA noProxy;
  ProbeOutcome outcome;
  ProbeRequest request;
  request.task = ProbeTask::current().get();
  request.secure = true;
  request.port = port;
  request.timeoutSeconds = static_cast<unsigned int>(timeout.count());
  request.handshake = &shown;
  try {
    outcome = send(host, noProxy, request);
  } catch (...) {
    outcome.code = CURLE_OUT_OF_MEMORY;
  }
  shown.isForAnotherHost = shown.isDone && outcome.code == CURLE_PEER_FAILED_VERIFICATION;
  shown.isTimedOut = outcome.code == CURLE_OPERATION_TIMEDOUT;
  shown.asksForClientCertificate = outcome.clientCertificateAsked;
  shown.address = std::move(outcome.address);
  return shown;
}

HttpProbe::KeptConnection::KeptConnection() noexcept {
  if (keptHere == nullptr) {
    keptHere = &m_transfer;
  }
}

HttpProbe::KeptConnection::~KeptConnection() {
  if (keptHere == &m_transfer) {
    keptHere = nullptr;
  }
}

void HttpProbe::setRoundTripMeasure(RoundTripMeasure measure) {
  ProbeSettings::setMeasure(measure);
}

void HttpProbe::setLeavesSilent(bool leaves) { ProbeSettings::setLeavesSilent(leaves); }
void HttpProbe::setNeedsService(bool needs) { ProbeSettings::setNeedsService(needs); }

void HttpProbe::setHows(ProbeHows hows) { ProbeSettings::setHows(std::move(hows)); }

std::string HttpProbe::setTrustFile(const std::string& path) {
  return ProbeSettings::setTrustFile(path);
}
