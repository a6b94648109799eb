// What the outcome of a request means. Every way in which it can end is turned into a status in one
// table; a status that counts as an answer always comes with a round-trip time.

#include "vpn/Common/IP/ProbeOutcome.h"

#include <curl/curl.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "vpn/Common/Utility/URL.h"
#include "vpn/include/HttpSession.h"

namespace {

constexpr long long Unknown = -1;

constexpr long ProxyChallenge = 407;

/// The status for libcurl's code. A code that is not listed means that the peer did not answer with
/// HTTP or, without a connection, that connecting failed.
STATUSCODE statusOf(const ProbeOutcome& outcome, bool proxied) {
  constexpr long FirstFinal = 200;
  switch (outcome.code) {
    case CURLE_OK:
      if (outcome.isServed || (outcome.httpStatus >= FirstFinal && outcome.finalStatus() != 0)) {
        return HTTP_SESSION_SUCCESS;
      }
      break;  // interim answers promise a final one; without it nothing has been answered
    case CURLE_COULDNT_RESOLVE_PROXY:
      return HTTP_SESSION_ERROR_CONNECT;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_URL_MALFORMAT:  // the name has no form that could be looked up
      return HTTP_SESSION_ERROR_DNS_RESOLUTION;
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_ABORTED_BY_CALLBACK:  // its task was cancelled
      return HTTP_SESSION_ERROR_TIMEOUT;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_INVALIDCERTSTATUS:
      return HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE;
    case CURLE_SSL_CLIENTCERT:
      return HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED;
    default:
      if (!outcome.connected()) {
        return proxied ? HTTP_SESSION_ERROR_CONNECT : HTTP_SESSION_ERROR_CANNOT_CONNECT;
      }
  }
  return outcome.clientCertificateAsked ? HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED
                                        : HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE;
}

bool isAnswer(STATUSCODE status) {
  return status == HTTP_SESSION_SUCCESS || status == HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE ||
         status == HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE ||
         status == HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED;
}

/// From the request to the first byte of the answer, or to the event that replaced it.
long long responseRoundTrip(const ProbeOutcome& outcome) {
  if (outcome.requestUs == 0) {
    return outcome.endedUs - std::max(outcome.openedUs, outcome.tlsStartUs);
  }
  return (outcome.firstByteUs > 0 ? outcome.firstByteUs : outcome.endedUs) - outcome.requestUs;
}

long long ifHappened(long long time) { return time > 0 ? time : Unknown; }

/// The host of an absolute address, whatever follows it; empty for none.
std::string hostOf(const std::string& location) {
  const std::size_t scheme = location.find("//");
  return scheme == std::string::npos
             ? ""
             : URL(location.substr(0, location.find_first_of("/?#", scheme + 2))).getHost();
}

}  // namespace

long long ProbeOutcome::networkRoundTrip() const {
  if (networkRttUs != Unknown) {
    return networkRttUs;
  }
  return connectTookUs > 0 ? connectTookUs : endedUs - openedUs;
}

unsigned int ProbeOutcome::toMilliseconds(long long microseconds) {
  return static_cast<unsigned int>(std::max((microseconds + 500) / 1000, 1LL));
}

bool ProbeOutcome::connected() const {
  return reused || connectUs > 0 || networkRttUs != Unknown || osError == ECONNRESET;
}

unsigned int ProbeOutcome::finalStatus() const {
  constexpr long FirstRefusal = 300;
  if (httpStatus == ProxyChallenge && !askedProxy) {
    return 0;
  }
  const bool refused = tunnelStatus >= FirstRefusal;
  return static_cast<unsigned int>(httpStatus == 0 && refused ? tunnelStatus : httpStatus);
}

void ProbeOutcome::fill(ProbeReport& report, bool proxied, RoundTripMeasure measure) {
  report.status = statusOf(*this, proxied);
  report.transportError = code;
  report.httpStatus = finalStatus();
  report.silent = silent;
  report.reused = reused;
  report.connectUs = ifHappened(connectUs);
  report.tlsUs = ifHappened(tlsUs);
  report.openingUs = openingUs;
  report.networkRttUs = networkRttUs;
  report.toThisMachine = toThisMachine;
  report.unresolved = unresolved;
  report.systemError = connected() ? 0 : static_cast<int>(osError);
  report.issuer = std::move(issuer);
  constexpr unsigned int FirstRedirect = 300;
  constexpr unsigned int FirstError = 400;
  if (report.httpStatus >= FirstRedirect && report.httpStatus < FirstError) {
    report.redirectHost = hostOf(location);
  }
  if (connected()) {
    report.address = std::move(address);
    report.addressPort = addressPort;
  }
  if (!isAnswer(report.status)) {
    report.shortage = code == CURLE_OUT_OF_MEMORY && shortage == Shortage::None ? Shortage::Memory
                      : osError == 0 || shortage != Shortage::None
                          ? shortage
                          : Shortages::fromErrno(static_cast<int>(osError));
    return;
  }
  report.responseRttUs = responseRoundTrip(*this);
  const bool response = proxied || measure == RoundTripMeasure::Response;
  report.rttMs = toMilliseconds(response ? report.responseRttUs : networkRoundTrip());
}
