// A request in libcurl's options. Nothing is left to the environment but what the request says.

#include "vpn/Common/IP/TransferSetup.h"

#include <curl/curl.h>

#include <string>

#include "vpn/Common/IP/ProbeRequest.h"
#include "vpn/Common/IP/TlsHandshake.h"

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

void setProxy(const ProbeRequest& request, Options& options) {
  if (!request.environmentProxy) {
    // Empty texts mean no proxy and no exceptions; without them libcurl would read the environment.
    options.set(CURLOPT_PROXY, request.proxy.c_str());
    if (!request.heedsExceptions) {
      options.set(CURLOPT_NOPROXY, "");
    }
  }
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
