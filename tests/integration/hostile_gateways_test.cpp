// Gateways that are broken or mean harm, each played by another process with real TLS. Whatever one
// does, a probe of it ends within its own time-out, takes less than a megabyte, and says what it
// has met, alone and three times on one connection.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/integration/counted_memory.h"
#include "tests/integration/simulated_gateways.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/IP/ProbeTask.h"
#include "vpn/include/HttpSession.h"

namespace tests {
namespace {

using testing::AnyOf;

using Measure = HttpProbe::RoundTripMeasure;

constexpr STATUSCODE Success = HTTP_SESSION_SUCCESS;
constexpr STATUSCODE Untrusted = HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE;
constexpr STATUSCODE WantsCertificate = HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED;
constexpr STATUSCODE TimedOut = HTTP_SESSION_ERROR_TIMEOUT;
constexpr STATUSCODE NoHttp = HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE;
constexpr STATUSCODE NoConnection = HTTP_SESSION_ERROR_CANNOT_CONNECT;

/// What a probe says of a gateway.
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

/// The same over TLS or not.
Hostile both(const char* behaviour, STATUSCODE status, unsigned int httpStatus) {
  return {behaviour, {status, httpStatus}, {status, httpStatus}};
}

/// A TLS web server, which tells a plain request that it is one, with another verdict over TLS.
Hostile overTls(const char* behaviour, STATUSCODE status) {
  return {behaviour, {Success, 400}, {status, 0}};
}

/// All of them, and what becomes of a probe. Where an answer breaks off within its head the code
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
      both("challenge", Success, 407),
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
  };
}

bool isAnswer(STATUSCODE status) {
  return status == Success || status == NoHttp || status == Untrusted || status == WantsCertificate;
}

std::string nameOf(const Hostile& hostile) {
  std::string name = hostile.behaviour;
  std::ranges::replace(name, '-', '_');
  return name;
}

/// Answers the first request of a connection, and the second with what is none.
bool fallsOutOfItsPart(const Hostile& hostile) {
  const std::string behaviour = hostile.behaviour;
  return behaviour == "keeps-then-garbage" || behaviour == "keeps-then-resets-midway";
}

/// Answers the first request of a connection and no other.
bool fallsSilent(const Hostile& hostile) {
  return hostile.behaviour == std::string("keeps-then-silent");
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

/// A probe's own limit where something is bound to come before; only what never comes reaches it.
constexpr unsigned int PatienceSeconds = 30;
constexpr unsigned int TimeoutSeconds = 1;
/// The gateways that stay silent do so for longer than this, and this is longer than a busy machine
/// takes to let a probe end whose time is over.
constexpr long long MuchLaterUs = 15LL * 1000 * 1000;
constexpr std::size_t MostMemory = 1024UL * 1024;

unsigned int timeoutFor(const Verdict& verdict) {
  return verdict.status == TimedOut ? TimeoutSeconds : PatienceSeconds;
}

unsigned int rounded(long long us) { return static_cast<unsigned int>((us + 500) / 1000); }

void expectVerdict(const Verdict& expected, const Probed& probed) {
  EXPECT_EQ(expected.status, probed.report.status) << probed.report.transportError;
  EXPECT_EQ(expected.httpStatus, probed.results.uiHttpStatusCode);
}

/// An answer has a round trip of the kind that was asked for, nothing else has any.
void expectRoundTrip(const Probed& probed, Measure measure) {
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
  EXPECT_EQ(rounded(measure == Measure::Network ? report.networkRttUs : report.responseRttUs),
            report.rttMs);
}

void expectTime(const Verdict& expected, const Probed& probed) {
  if (expected.status == TimedOut) {
    // Not much earlier either: libcurl counts in milliseconds.
    EXPECT_GE(probed.report.totalUs, TimeoutSeconds * 900'000LL);
    EXPECT_LT(probed.report.totalUs, MuchLaterUs);
  } else {
    EXPECT_LT(probed.report.totalUs, PatienceSeconds * 1'000'000LL);
  }
}

/// What may become of the second and third probe of one connection. A gateway that answers once and
/// then falls out of its part is met with that part at the latest; where it has ended the
/// connection instead, the probe has taken another.
testing::Matcher<STATUSCODE> laterStatus(const Hostile& hostile, const Verdict& first) {
  if (fallsSilent(hostile)) {
    return AnyOf(Success, TimedOut);
  }
  if (fallsOutOfItsPart(hostile)) {
    return AnyOf(Success, NoHttp);
  }
  return testing::Eq(first.status);
}

class HostileGateway : public testing::TestWithParam<Hostile> {
 protected:
  HostileGateway()
      : m_gateways({"behaviour=normal", std::string("behaviour=") + GetParam().behaviour}) {
    HttpProbe::setTrustFile(m_gateways.Authority());
    // What the process loads once, the first probes have loaded.
    EXPECT_EQ(Success, probe(m_gateways.Where().at(0), true, PatienceSeconds).report.status);
    EXPECT_EQ(Success, probe(m_gateways.Where().at(0), false, PatienceSeconds).report.status);
  }
  ~HostileGateway() override {
    HttpProbe::setRoundTripMeasure(Measure::Network);
    HttpProbe::setTrustFile("");
  }

  const Endpoint& Where() const { return m_gateways.Where().at(1); }

  /// Runs `probes` for a plain and for a secure worker at once, each in little memory.
  void AsTwoWorkers(const std::function<void(const Verdict&, bool)>& probes) const {
    const auto work = [&](const Verdict& expected, bool secure) {
      const std::optional<std::size_t> memory = mostMemoryOf([&] {
        SCOPED_TRACE(secure ? "secure" : "plain");
        probes(expected, secure);
      });
      EXPECT_LT(memory.value_or(0), MostMemory);
    };
    std::thread plain([&] { work(GetParam().plain, false); });
    std::thread secure([&] { work(GetParam().secure, true); });
    plain.join();
    secure.join();
  }

 private:
  const SimulatedGateways m_gateways;
};

TEST_P(HostileGateway, IsToldByItsStatusInTimeAndInLittleMemory) {
  AsTwoWorkers([this](const Verdict& expected, bool secure) {
    const Probed probed = probe(Where(), secure, timeoutFor(expected));
    expectVerdict(expected, probed);
    expectRoundTrip(probed, Measure::Network);
    expectTime(expected, probed);
  });
}

TEST_P(HostileGateway, DoesNoMoreToLaterProbesOfAConnection) {
  HttpProbe::setRoundTripMeasure(Measure::Response);
  AsTwoWorkers([this](const Verdict& expected, bool secure) {
    const HttpProbe::KeptConnection connection;
    for (int i = 0; i < 3; ++i) {
      SCOPED_TRACE(i);
      // A probe that may be answered and may meet with silence.
      const unsigned int timeout =
          fallsSilent(GetParam()) ? 3 * TimeoutSeconds : timeoutFor(expected);
      const Probed probed = probe(Where(), secure, timeout);
      EXPECT_THAT(probed.report.status,
                  i == 0 ? testing::Eq(expected.status) : laterStatus(GetParam(), expected));
      expectRoundTrip(probed, Measure::Response);
      EXPECT_LT(probed.report.totalUs,
                probed.report.status == TimedOut ? MuchLaterUs : PatienceSeconds * 1'000'000LL);
    }
  });
}

INSTANTIATE_TEST_SUITE_P(That, HostileGateway, testing::ValuesIn(hostiles()),
                         [](const auto& param) { return nameOf(param.param); });

}  // namespace
}  // namespace tests
