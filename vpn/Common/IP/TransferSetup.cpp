// A request in libcurl's options. Nothing is left for libcurl to read in the environment.

#include "vpn/Common/IP/TransferSetup.h"

#include <curl/curl.h>

#include <initializer_list>

#include "vpn/Common/IP/ProbeRequest.h"
#include "vpn/Common/IP/TlsHandshake.h"
#include "vpn/Common/Trust/Environment.h"

namespace {

// A head fits, and there may be a thousand probes at a time. Both are the least that libcurl takes.
constexpr long ReceiveBufferBytes = 1024;
constexpr long SendBufferBytes = 16L * 1024;

// The ways to log in to a proxy that take a password.
constexpr long PasswordLogIns = static_cast<long>(CURLAUTH_BASIC | CURLAUTH_NTLM);

/// Sets options until one fails.
class Options {
 public:
  explicit Options(CURL* easy) : m_easy(easy) {}

  template <class T>
  void set(CURLoption option, T value) {
    if (m_result == CURLE_OK) {
      m_result = curl_easy_setopt(m_easy, option, value);
    }
  }
  CURLcode result() const { return m_result; }

 private:
  CURL* const m_easy;
  CURLcode m_result = CURLE_OK;
};

void setTarget(const ProbeRequest& request, Options& options) {
  options.set(CURLOPT_URL, request.url().c_str());
  options.set(CURLOPT_PROTOCOLS_STR, "http,https");
  // Not HEAD, which some servers leave without an answer.
  options.set(CURLOPT_HTTPGET, 1L);
  options.set(CURLOPT_FOLLOWLOCATION, 0L);
  options.set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  options.set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
  if (!request.userAgent.empty()) {
    options.set(CURLOPT_USERAGENT, request.userAgent.c_str());
  }
}

/// The first variable that has a value; empty if none has.
const char* valueOf(std::initializer_list<const char*> variables) {
  for (const char* const variable : variables) {
    if (const char* const value = Environment::get(variable); value != nullptr) {
      return value;
    }
  }
  return "";
}

void setProxy(const ProbeRequest& request, Options& options) {
  // Both are always set, an empty text for none: otherwise libcurl would read the environment.
  options.set(CURLOPT_PROXY, request.proxyVariable != nullptr ? valueOf({request.proxyVariable})
                                                              : request.proxy.c_str());
  options.set(CURLOPT_NOPROXY, request.heedsExceptions ? valueOf({"no_proxy", "NO_PROXY"}) : "");
  if (request.logsIn()) {
    options.set(CURLOPT_PROXYUSERNAME, request.credentials->proxyUser.c_str());
    options.set(CURLOPT_PROXYPASSWORD, request.credentials->proxyPswd.c_str());
    options.set(
        CURLOPT_PROXYAUTH,
        PasswordLogIns | (request.mayUseTicket ? static_cast<long>(CURLAUTH_NEGOTIATE) : 0L));
  }
}

}  // namespace

unsigned int setUpTransfer(void* easy, const ProbeRequest& request) {
  Options options(easy);
  setTarget(request, options);
  setProxy(request, options);
  // Trusted certificates come from the shared store instead of the disk.
  const char* none = nullptr;
  options.set(CURLOPT_CAINFO, none);
  options.set(CURLOPT_CAPATH, none);
  options.set(CURLOPT_NOSIGNAL, 1L);
  // The thread that waits for a silent name server is left behind when the time-out passes.
  options.set(CURLOPT_QUICK_EXIT, 1L);
  options.set(CURLOPT_BUFFERSIZE, ReceiveBufferBytes);
  options.set(CURLOPT_UPLOAD_BUFFERSIZE, SendBufferBytes);
  if (request.handshake != nullptr) {
    // Connects and sends nothing. The handshake reports doubts about the certificate; libcurl
    // checks the host alone.
    static_assert(sizeof request.handshake->failure >= CURL_ERROR_SIZE);
    options.set(CURLOPT_CONNECT_ONLY, 1L);
    options.set(CURLOPT_SSL_VERIFYPEER, 0L);
    options.set(CURLOPT_ERRORBUFFER, request.handshake->failure.data());
  }
  return options.result();
}

void dropCredentials(void* easy) {
  const char* none = nullptr;
  curl_easy_setopt(easy, CURLOPT_PROXYUSERNAME, none);
  curl_easy_setopt(easy, CURLOPT_PROXYPASSWORD, none);
}
