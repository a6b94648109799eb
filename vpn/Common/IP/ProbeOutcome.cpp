// What the outcome of a request means. Every way in which it can end is turned into a status in one
// table; a status that counts as an answer always comes with a round-trip time.

#include "vpn/Common/IP/ProbeOutcome.h"

#include <curl/curl.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

namespace {

constexpr long long kUnknown = -1;

struct MEANING {
  CURLcode code;
  STATUSCODE direct;
  STATUSCODE throughProxy;
};

/// What libcurl's codes mean. A code that is not listed means that what was connected to did not
/// answer with HTTP, or, without a connection, that none could be made; see `statusOf`.
constexpr MEANING kMeanings[] = {
    {CURLE_OK, HTTP_SESSION_SUCCESS, HTTP_SESSION_SUCCESS},
    {CURLE_COULDNT_RESOLVE_PROXY, HTTP_SESSION_ERROR_CONNECT, HTTP_SESSION_ERROR_CONNECT},
    {CURLE_COULDNT_RESOLVE_HOST, HTTP_SESSION_ERROR_DNS_RESOLUTION,
     HTTP_SESSION_ERROR_DNS_RESOLUTION},
    // The name has no form that could be looked up.
    {CURLE_URL_MALFORMAT, HTTP_SESSION_ERROR_DNS_RESOLUTION, HTTP_SESSION_ERROR_DNS_RESOLUTION},
    {CURLE_OPERATION_TIMEDOUT, HTTP_SESSION_ERROR_TIMEOUT, HTTP_SESSION_ERROR_TIMEOUT},
    // Its task was cancelled.
    {CURLE_ABORTED_BY_CALLBACK, HTTP_SESSION_ERROR_TIMEOUT, HTTP_SESSION_ERROR_TIMEOUT},
    {CURLE_PEER_FAILED_VERIFICATION, HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE,
     HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE},
    {CURLE_SSL_ISSUER_ERROR, HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE,
     HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE},
    {CURLE_SSL_CACERT_BADFILE, HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE,
     HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE},
    {CURLE_SSL_CRL_BADFILE, HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE,
     HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE},
    {CURLE_SSL_INVALIDCERTSTATUS, HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE,
     HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE},
    {CURLE_SSL_CLIENTCERT, HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED,
     HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED},
};

STATUSCODE statusOf(const PROBE_OUTCOME& outcome, bool proxied) {
  const auto* meaning = std::find_if(std::begin(kMeanings), std::end(kMeanings),
                                     [&](const MEANING& m) { return m.code == outcome.code; });
  STATUSCODE status = proxied ? HTTP_SESSION_ERROR_CONNECT : HTTP_SESSION_ERROR_CANNOT_CONNECT;
  if (meaning != std::end(kMeanings)) {
    status = proxied ? meaning->throughProxy : meaning->direct;
  } else if (outcome.Connected()) {
    status = HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE;
  }
  // Interim answers promise a final one; without it nothing has been answered.
  if (status == HTTP_SESSION_SUCCESS && outcome.httpStatus < 200) {
    status = HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE;
  }
  if (status == HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE && outcome.clientCertificateAsked) {
    status = HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED;
  }
  return status;
}

bool isAnswer(STATUSCODE status) {
  return status == HTTP_SESSION_SUCCESS || status == HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE ||
         status == HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE ||
         status == HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED;
}

/// From the request to the first byte of the answer, or to what stood in its place.
long long responseRoundTrip(const PROBE_OUTCOME& outcome) {
  if (outcome.requestUs == 0) {
    const long long start = std::max({outcome.lookupUs, outcome.connectUs, outcome.tlsStartUs});
    return std::max(outcome.totalUs - start, 0LL);
  }
  return std::max(outcome.firstByteUs > 0 ? outcome.firstByteUs : outcome.totalUs,
                  outcome.requestUs) -
         outcome.requestUs;
}

long long ifHappened(long long time) { return time > 0 ? time : kUnknown; }

unsigned int toMilliseconds(long long microseconds) {
  return static_cast<unsigned int>((std::max(microseconds, 0LL) + 500) / 1000);
}

/// The network's round trip, or what comes nearest to it where the kernel does not tell. A
/// connection that was reset while it opened took until its end.
long long networkRoundTrip(const PROBE_OUTCOME& outcome) {
  if (outcome.networkRttUs != kUnknown) {
    return outcome.networkRttUs;
  }
  return outcome.connectTookUs > 0 ? outcome.connectTookUs : outcome.totalUs - outcome.lookupUs;
}

}  // namespace

bool PROBE_OUTCOME::Connected() const {
  return reused || connectUs > 0 || networkRttUs != kUnknown || osError == ECONNRESET;
}

unsigned int PROBE_OUTCOME::HttpStatus() const {
  constexpr long kFirstRefusal = 300;
  const bool refused = tunnelStatus >= kFirstRefusal;
  return static_cast<unsigned int>(httpStatus == 0 && refused ? tunnelStatus : httpStatus);
}

void PROBE_OUTCOME::Fill(HttpProbe::Report& report, bool proxied,
                         HttpProbe::RoundTripMeasure measure) {
  report.status = statusOf(*this, proxied);
  report.transportError = code;
  report.httpStatus = HttpStatus();
  report.reused = reused;
  report.connectUs = ifHappened(connectUs);
  report.tlsUs = ifHappened(tlsUs);
  report.totalUs = totalUs;
  report.networkRttUs = networkRttUs;
  if (Connected()) {
    report.address = std::move(address);
  }
  if (!isAnswer(report.status)) {
    return;
  }
  report.responseRttUs = responseRoundTrip(*this);
  const bool response = proxied || measure == HttpProbe::RoundTripMeasure::Response;
  report.rttMs = toMilliseconds(response ? report.responseRttUs : networkRoundTrip(*this));
}
