// Gateways that are broken or mean harm, each played by another process with real TLS. Whatever one
// does, a probe of it ends within its own time-out, takes less than a megabyte, and says what it
// has met; a selection among all of them ends as it should, and none of them writes into the log.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/integration/counted_memory.h"
#include "tests/integration/simulated_gateways.h"
#include "tests/support/ProviderWithoutProxy.h"
#include "tests/support/SelectionRecorder.h"
#include "tests/support/TemporaryDirectory.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/ClientLibrary.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/IP/ProbeTask.h"
#include "vpn/include/HttpSession.h"

namespace tests {
namespace {

using testing::AnyOf;
using testing::UnorderedElementsAreArray;

using Measure = HttpProbe::RoundTripMeasure;
using Lines = std::vector<std::string>;

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

class HostileGateway : public testing::TestWithParam<Hostile> {
 protected:
  HostileGateway()
      : m_gateways({"behaviour=normal", std::string("behaviour=") + GetParam().behaviour}) {
    HttpProbe::SetTrustFile(m_gateways.Authority());
    // What the process loads once, the first probes have loaded.
    EXPECT_EQ(Success, probe(m_gateways.Where().at(0), true, PatienceSeconds).report.status);
    EXPECT_EQ(Success, probe(m_gateways.Where().at(0), false, PatienceSeconds).report.status);
  }
  ~HostileGateway() override {
    HttpProbe::SetRoundTripMeasure(Measure::Network);
    HttpProbe::SetTrustFile("");
  }

  const Endpoint& Where() const { return m_gateways.Where().at(1); }

  void Probe(const Verdict& expected, bool secure, Measure measure) const {
    const std::optional<std::size_t> memory = mostMemoryOf([&] {
      const Probed probed = probe(Where(), secure, timeoutFor(expected));
      SCOPED_TRACE(secure ? "secure" : "plain");
      expectVerdict(expected, probed);
      expectRoundTrip(probed, measure);
      expectTime(expected, probed);
    });
    EXPECT_LT(memory.value_or(0), MostMemory);
    if (memory) {
      RecordProperty(secure ? "secure_bytes" : "plain_bytes", std::to_string(*memory));
    }
  }

 private:
  const SimulatedGateways m_gateways;
};

TEST_P(HostileGateway, IsToldByItsStatusInTimeAndInLittleMemory) {
  std::thread plain([this] { Probe(GetParam().plain, false, Measure::Network); });
  std::thread secure([this] { Probe(GetParam().secure, true, Measure::Network); });
  plain.join();
  secure.join();
}

TEST_P(HostileGateway, HasTheResponsesRoundTripWhereThatIsMeasured) {
  HttpProbe::SetRoundTripMeasure(Measure::Response);
  std::thread plain([this] { Probe(GetParam().plain, false, Measure::Response); });
  std::thread secure([this] { Probe(GetParam().secure, true, Measure::Response); });
  plain.join();
  secure.join();
}

INSTANTIATE_TEST_SUITE_P(That, HostileGateway, testing::ValuesIn(hostiles()),
                         [](const auto& param) { return nameOf(param.param); });

// ---- Several on one connection ----------------------------------------------------------------

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

class HostileGatewayOfAWorker : public HostileGateway {
 protected:
  void ProbeThrice(const Verdict& expected, bool secure) const {
    constexpr int Probes = 3;
    const std::optional<std::size_t> memory = mostMemoryOf([&] {
      const HttpProbe::KeptConnection connection;
      for (int i = 0; i < Probes; ++i) {
        SCOPED_TRACE((secure ? "secure, probe " : "plain, probe ") + std::to_string(i));
        // A probe that may be answered and may meet with silence.
        const unsigned int timeout =
            fallsSilent(GetParam()) ? 3 * TimeoutSeconds : timeoutFor(expected);
        const Probed probed = probe(Where(), secure, timeout);
        EXPECT_THAT(probed.report.status,
                    i == 0 ? testing::Eq(expected.status) : laterStatus(GetParam(), expected));
        expectRoundTrip(probed, Measure::Network);
        EXPECT_LT(probed.report.totalUs,
                  probed.report.status == TimedOut ? MuchLaterUs : PatienceSeconds * 1'000'000LL);
      }
    });
    EXPECT_LT(memory.value_or(0), MostMemory);
  }
};

TEST_P(HostileGatewayOfAWorker, DoesNoMoreToLaterProbesOfAConnection) {
  std::thread plain([this] { ProbeThrice(GetParam().plain, false); });
  std::thread secure([this] { ProbeThrice(GetParam().secure, true); });
  plain.join();
  secure.join();
}

INSTANTIATE_TEST_SUITE_P(That, HostileGatewayOfAWorker, testing::ValuesIn(hostiles()),
                         [](const auto& param) { return nameOf(param.param); });

// ---- A whole selection ------------------------------------------------------------------------

constexpr unsigned int Reconnection = 1;
constexpr unsigned int Connection = 0;

/// Selections in this process among gateways of every kind, with the log in a file.
class HostileSelection : public testing::Test {
 protected:
  HostileSelection() : m_gateways(settings()) {
    HttpProbe::SetTrustFile(m_gateways.Authority());
    std::string profile =
        "<profile version=\"1\">\n<preferences>\n<preference "
        "name=\"EnableAutomaticServerSelection\" value=\"true\"/>\n</preferences>\n<hosts>\n";
    for (std::size_t i = 0; i < m_hostiles.size(); ++i) {
      profile += "<host name=\"" + std::string(m_hostiles[i].behaviour) + "\" address=\"" +
                 m_gateways.Where()[i].Text() + "\"/>\n";
    }
    m_directory.Write("profiles/all.xml", profile + "</hosts>\n</profile>\n");
    m_directory.Write("preferences.xml",
                      "<preferences version=\"1\">\n"
                      "<preference name=\"SelectionConnectTimeout\" value=\"60000\"/>\n"
                      "<preference name=\"SelectionReconnectTimeout\" value=\"60000\"/>\n"
                      "<preference name=\"SelectionPingTimeout\" value=\"6000\"/>\n"
                      "</preferences>\n");
    CClientLibrary::Options options;
    options.log.file = m_directory.File("log");
    options.sources.profileDirectory = m_directory.File("profiles");
    options.sources.userPreferencesFile = m_directory.File("preferences.xml");
    STATUSCODE status = -1;
    m_library = std::make_unique<CClientLibrary>(options, status);
    EXPECT_EQ(0, status);
    m_before = LogFile().size();
  }
  ~HostileSelection() override {
    m_library.reset();
    HttpProbe::SetTrustFile("");
  }

  Lines LogFile() const {
    CAppLog::flush();
    std::istringstream log(readFile(m_directory.File("log")));
    Lines lines;
    for (std::string line; std::getline(log, line);) {
      lines.push_back(line);
    }
    return lines;
  }

  std::string Where(std::size_t index) const { return m_gateways.Where()[index].Text(); }

  /// What each worker has written is its own, and one line at most for each probe.
  void ExpectWorkerLogs(const Selection& selection, const Verdict Hostile::*verdict) const {
    for (std::size_t i = 0; i < m_hostiles.size(); ++i) {
      SCOPED_TRACE(m_hostiles[i].behaviour);
      const Lines log = selection.WorkerLog(Where(i));
      const std::string host = m_gateways.Where()[i].address;
      const STATUSCODE status = (m_hostiles[i].*verdict).status;
      Lines expected = {"I Run: QIB starting thread named " + host};
      if (isAnswer(status)) {
        expected.push_back("I logThreadPingResults: QIB ping results for " + Where(i) +
                           ": (N N N )");
      } else {
        expected.insert(expected.end(), 2, "W Run: QIB ping timeout or couldn't connect: " + host);
      }
      expected.push_back("I Run: QIB terminating thread for " + Where(i));
      if (!fallsSilent(m_hostiles[i])) {
        EXPECT_EQ(expected, log);
      }
      EXPECT_LE(log.size(),
                expected.size() + selection.ProbesOf(m_gateways.Where()[i].port).size());
    }
  }

  /// What the workers came to: what the last probe did. Where a gateway answers the first request
  /// of a connection alone, it depends on how many were kept, and none is where an answer is late.
  Lines ExpectedOutcomes(const Selection& selection, const Verdict Hostile::*verdict) const {
    const std::map<STATUSCODE, std::string> codes = {{Untrusted, "0xFE460017"},
                                                     {WantsCertificate, "0xFE46001A"},
                                                     {TimedOut, "0xFE46001B"},
                                                     {NoHttp, "0xFE46001C"},
                                                     {NoConnection, "0xFE46001D"}};
    Lines outcomes;
    for (std::size_t i = 0; i < m_hostiles.size(); ++i) {
      STATUSCODE status = (m_hostiles[i].*verdict).status;
      if (fallsOutOfItsPart(m_hostiles[i])) {
        const auto probes = selection.ProbesOf(m_gateways.Where()[i].port);
        status = probes.empty() ? TimedOut : probes.back().status;
        EXPECT_THAT(status, AnyOf(Success, NoHttp)) << m_hostiles[i].behaviour;
      }
      if (status != Success) {
        outcomes.push_back("W startPingThreads: Return code from CSelectionThread::Run: " +
                           codes.at(status));
      }
    }
    return outcomes;
  }

  /// Every line of the file is one of the selection's own, short, and shows nothing but what may be
  /// shown.
  void ExpectLegibleLog(const Selection& selection) const {
    // With time, place and thread.
    constexpr std::size_t LongestLine = 400;
    const Lines all = LogFile();
    std::size_t messages = 0;
    for (std::size_t i = m_before; i < all.size(); ++i) {
      const std::string& line = all[i];
      // The report is one message of many lines.
      messages += line.starts_with(' ') || line.empty() ? 0 : 1;
      EXPECT_LE(line.size(), LongestLine) << line;
      EXPECT_TRUE(std::ranges::all_of(line, [](char c) { return c >= ' ' && c <= '~'; })) << line;
      EXPECT_EQ(std::string::npos, line.find("evil")) << line;
    }
    EXPECT_EQ(selection.log.size(), messages);
  }

  const std::vector<Hostile> m_hostiles = hostiles();

 private:
  static std::vector<std::string> settings() {
    std::vector<std::string> gateways;
    for (const Hostile& hostile : hostiles()) {
      gateways.push_back(std::string("behaviour=") + hostile.behaviour);
    }
    return gateways;
  }

  const SimulatedGateways m_gateways;
  TemporaryDirectory m_directory;
  const std::string m_profiles = m_directory.MakeDirectory("profiles");
  std::unique_ptr<CClientLibrary> m_library;
  std::size_t m_before = 0;
};

Lines outcomesOf(const Selection& selection) {
  Lines outcomes;
  std::ranges::copy_if(selection.RunLog(), std::back_inserter(outcomes), [](const auto& line) {
    return line.find("CSelectionThread::Run") != std::string::npos;
  });
  return outcomes;
}

TEST_F(HostileSelection, MeasuresThoseThatAnswerAndLogsNothingOfTheirs) {
  const Selection selection = runSelection("", Reconnection);

  EXPECT_EQ(HEADENDSELECTION_ERROR_ADDED_TO_CACHE, selection.status);
  ExpectWorkerLogs(selection, &Hostile::plain);
  EXPECT_THAT(outcomesOf(selection),
              UnorderedElementsAreArray(ExpectedOutcomes(selection, &Hostile::plain)));
  ExpectLegibleLog(selection);
}

TEST_F(HostileSelection, MeasuresThoseThatAnswerOverTlsAndLogsNothingOfTheirs) {
  const Selection selection = runSelection("", Reconnection, new ProviderWithoutProxy);

  EXPECT_EQ(HEADENDSELECTION_ERROR_ADDED_TO_CACHE, selection.status);
  ExpectWorkerLogs(selection, &Hostile::secure);
  EXPECT_THAT(outcomesOf(selection),
              UnorderedElementsAreArray(ExpectedOutcomes(selection, &Hostile::secure)));
  ExpectLegibleLog(selection);
}

TEST_F(HostileSelection, LogsNothingOfARealm) {
  const Selection selection = runSelection("challenge", Connection);

  EXPECT_EQ(HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED, selection.status);
  EXPECT_EQ("", selection.extraInfo) << "a realm with control characters is none to be shown";
  ExpectLegibleLog(selection);
}

}  // namespace
}  // namespace tests
