// Broken and malicious gateways, played by another process with real TLS. Each probe must end
// within its time-out, take less than a megabyte, and report its outcome: alone, and three times on
// one connection.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/integration/simulated_gateways.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/IP/ProbeTask.h"
#include "vpn/include/HttpSession.h"

// ---- The memory that a thread takes -------------------------------------------------------------

namespace {

// Signed: freeing another thread's block counts below zero.
thread_local constinit long long t_taken = 0;
thread_local constinit long long t_most = 0;

}  // namespace

#ifdef AHS_COUNTS_MEMORY

// glibc's names for its allocator, for programs that replace it. Counts the usable size of blocks;
// ignores aligned blocks, which nobody here requests.
extern "C" void* __libc_malloc(std::size_t size);
extern "C" void* __libc_calloc(std::size_t count, std::size_t size);
extern "C" void* __libc_realloc(void* memory, std::size_t size);
extern "C" void __libc_free(void* memory);

namespace {

long long sizeOf(void* memory) {
  return memory == nullptr ? 0 : static_cast<long long>(malloc_usable_size(memory));
}

void* counted(void* memory) {
  t_taken += sizeOf(memory);
  t_most = std::max(t_most, t_taken);
  return memory;
}

}  // namespace

extern "C" void* malloc(std::size_t size) noexcept { return counted(__libc_malloc(size)); }

extern "C" void* calloc(std::size_t count, std::size_t size) noexcept {
  return counted(__libc_calloc(count, size));
}

extern "C" void* realloc(void* memory, std::size_t size) noexcept {
  const long long before = sizeOf(memory);
  void* const grown = __libc_realloc(memory, size);
  if (grown == nullptr && size != 0) {
    return nullptr;  // the old block is still there
  }
  t_taken -= before;
  return counted(grown);
}

extern "C" void free(void* memory) noexcept {
  t_taken -= sizeOf(memory);
  __libc_free(memory);
}

#endif

namespace tests {
namespace {

using testing::AnyOf;

constexpr STATUSCODE Success = HTTP_SESSION_SUCCESS;
constexpr STATUSCODE Untrusted = HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE;
constexpr STATUSCODE WantsCertificate = HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED;
constexpr STATUSCODE TimedOut = HTTP_SESSION_ERROR_TIMEOUT;
constexpr STATUSCODE NoHttp = HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE;
constexpr STATUSCODE NoConnection = HTTP_SESSION_ERROR_CANNOT_CONNECT;

/// The expected outcome of a probe.
struct Verdict {
  STATUSCODE status;
  unsigned int httpStatus;
};

struct Hostile {
  const char* behaviour;
  Verdict plain;
  Verdict secure;
};

void PrintTo(const Hostile& hostile, std::ostream* stream) { *stream << hostile.behaviour; }

/// The same outcome with and without TLS.
Hostile both(const char* behaviour, STATUSCODE status, unsigned int httpStatus) {
  return {behaviour, {status, httpStatus}, {status, httpStatus}};
}

/// A TLS web server: it answers a plain request; over TLS the outcome differs.
Hostile overTls(const char* behaviour, STATUSCODE status) {
  return {behaviour, {Success, 400}, {status, 0}};
}

/// All hostile gateways with a probe's outcome. If the answer breaks off inside its head, the code
/// of its first line is known.
std::vector<Hostile> hostiles() {
  return {
      both("refuse", NoConnection, 0),
      both("drop", TimedOut, 0),
      both("silent", TimedOut, 0),
      both("closes", NoHttp, 0),
      both("closes-late", NoHttp, 0),
      both("resets-at-once", NoHttp, 0),
      both("resets", NoHttp, 0),
      both("resets-midway", NoHttp, 200),
      both("alert", NoHttp, 0),
      both("garbage", NoHttp, 0),
      both("drip", TimedOut, 0),
      both("endless-headers", NoHttp, 200),
      both("long-header", NoHttp, 200),
      both("endless-body", Success, 200),
      both("endless-chunks", Success, 200),
      both("stalls", Success, 200),
      both("bomb-gzip", Success, 200),
      both("bomb-deflate", Success, 200),
      both("bomb-br", Success, 200),
      both("interim-flood", NoHttp, 100),
      both("redirect-loop", Success, 302),
      both("escapes", Success, 200),
      both("challenge", NoHttp, 0),
      both("keeps-then-closes", Success, 200),
      both("keeps-then-resets", Success, 200),
      both("keeps-then-silent", Success, 200),
      both("keeps-then-garbage", Success, 200),
      both("keeps-then-resets-midway", Success, 200),
      both("leaves", Success, 200),
      overTls("expired", Untrusted),
      overTls("not-yet-valid", Untrusted),
      overTls("self-signed", Untrusted),
      overTls("wrong-host", Untrusted),
      overTls("client-certificate-12", WantsCertificate),
      overTls("client-certificate-13", WantsCertificate),
      overTls("old-tls", NoHttp),
      overTls("key-updates", TimedOut),
      overTls("key-updates-with-reply", TimedOut),
      overTls("hello-requests", TimedOut),
      overTls("tickets", TimedOut),
  };
}

bool isAnswer(STATUSCODE status) {
  return status == Success || status == NoHttp || status == Untrusted || status == WantsCertificate;
}

// ---- One probe --------------------------------------------------------------------------------

/// Remembers the last probe.
struct LastProbe : ProbeTask {
  void probeEnded(const HttpProbe::Report& ended) override { report = ended; }

  HttpProbe::Report report;
};

struct Probed {
  HttpProbe::Report report;
  HttpProbe::HTTP_PROBE_RESULTS results;
};

Probed probe(const Endpoint& where, bool secure, unsigned int timeoutSeconds) {
  constexpr unsigned int Everything = 31;
  Probed probed;
  const auto last = std::make_shared<LastProbe>();
  const CTask::Scope scope(last);
  HttpProbe::SendHttpProbe(where.address, secure, false, where.port, "", timeoutSeconds,
                           PROXY_DATA(), Everything, probed.results);
  probed.report = last->report;
  return probed;
}

/// A time limit for probes that end by themselves; only an endless wait reaches it.
constexpr unsigned int PatienceSeconds = 30;
constexpr unsigned int TimeoutSeconds = 1;
/// Silent gateways are silent longer than this, and a probe ends sooner after its time limit even
/// on a busy machine.
constexpr long long MuchLaterUs = 15LL * 1000 * 1000;
constexpr long long MostMemory = 1024LL * 1024;

/// Only an answer has a round trip of the response.
void expectRoundTrip(const Probed& probed) {
  const HttpProbe::Report& report = probed.report;
  EXPECT_EQ(report.rttMs, probed.results.uiRtt);
  if (!isAnswer(report.status)) {
    EXPECT_EQ(0U, report.rttMs);
    EXPECT_EQ(-1, report.responseRttUs);
    return;
  }
  EXPECT_GE(report.networkRttUs, 0);
  EXPECT_GE(report.responseRttUs, 0);
  EXPECT_LE(report.responseRttUs, report.totalUs);
  EXPECT_EQ(std::max((report.responseRttUs + 500) / 1000, 1LL), report.rttMs);
}

/// Permitted outcomes of the second and third probe of a connection. A gateway that misbehaves
/// after its first answer is met in that state; if it has closed the connection, the probe opens a
/// new one.
testing::Matcher<STATUSCODE> laterStatus(const Hostile& hostile, const Verdict& first) {
  const std::string behaviour = hostile.behaviour;
  if (behaviour == "keeps-then-silent") {
    return AnyOf(Success, TimedOut);
  }
  if (behaviour == "keeps-then-garbage" || behaviour == "keeps-then-resets-midway") {
    return AnyOf(Success, NoHttp);
  }
  return testing::Eq(first.status);
}

class HostileGateway : public testing::TestWithParam<Hostile> {
 protected:
  HostileGateway()
      : m_gateways({"behaviour=normal", std::string("behaviour=") + GetParam().behaviour}) {
    HttpProbe::setRoundTripMeasure(HttpProbe::RoundTripMeasure::Response);
    HttpProbe::setTrustFile(m_gateways.Authority());
    // The first probes load what the process loads only once.
    EXPECT_EQ(Success, probe(m_gateways.Where().at(0), true, PatienceSeconds).report.status);
    EXPECT_EQ(Success, probe(m_gateways.Where().at(0), false, PatienceSeconds).report.status);
  }
  ~HostileGateway() override {
    HttpProbe::setRoundTripMeasure(HttpProbe::RoundTripMeasure::Network);
    HttpProbe::setTrustFile("");
  }

  const Endpoint& Where() const { return m_gateways.Where().at(1); }

  /// Sends three probes over one connection.
  void Probe(bool secure) const {
    SCOPED_TRACE(secure ? "secure" : "plain");
    const Verdict& expected = secure ? GetParam().secure : GetParam().plain;
    const bool fallsSilent = GetParam().behaviour == std::string("keeps-then-silent");
    const unsigned int timeout = expected.status == TimedOut ? TimeoutSeconds
                                 : fallsSilent               ? 3 * TimeoutSeconds
                                                             : PatienceSeconds;
    const HttpProbe::KeptConnection connection;
    for (int i = 0; i < 3; ++i) {
      SCOPED_TRACE(i);
      const Probed probed = probe(Where(), secure, timeout);
      const HttpProbe::Report& report = probed.report;
      if (i == 0) {
        EXPECT_EQ(expected.status, report.status) << report.transportError;
        EXPECT_EQ(expected.httpStatus, probed.results.uiHttpStatusCode);
      } else {
        EXPECT_THAT(report.status, laterStatus(GetParam(), expected));
      }
      expectRoundTrip(probed);
      if (report.status == TimedOut) {
        // Nor much earlier: libcurl counts in milliseconds.
        EXPECT_GE(report.totalUs, timeout * 900'000LL);
        EXPECT_LT(report.totalUs, MuchLaterUs);
      } else {
        EXPECT_LT(report.totalUs, PatienceSeconds * 1'000'000LL);
      }
    }
  }

 private:
  const SimulatedGateways m_gateways;
};

TEST_P(HostileGateway, IsToldByItsStatusInTimeAndInLittleMemory) {
  // Like two workers at once.
  std::vector<std::jthread> workers;
  for (const bool secure : {false, true}) {
    workers.emplace_back([this, secure] {
      t_taken = t_most = 0;
      Probe(secure);
      EXPECT_LT(t_most, MostMemory);
    });
  }
}

INSTANTIATE_TEST_SUITE_P(That, HostileGateway, testing::ValuesIn(hostiles()),
                         [](const auto& param) {
                           std::string name = param.param.behaviour;
                           std::ranges::replace(name, '-', '_');
                           return name;
                         });

}  // namespace
}  // namespace tests
