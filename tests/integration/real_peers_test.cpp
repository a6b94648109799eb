// Whole selections among real servers: real profile files, the whole client library in the process,
// real sockets. What the client, the log and the cache are told must agree with what the servers
// did. Which server is nearest is the machine's business, so no test depends on it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/LoopbackSockets.h"
#include "tests/support/ProviderWithoutProxy.h"
#include "tests/support/RealServers.h"
#include "tests/support/SelectionRecorder.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestCertificates.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/ClientLibrary.h"
#include "vpn/Api/PreferenceMgr.h"
#include "vpn/include/HttpSession.h"

namespace tests {
namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAreArray;

using Lines = std::vector<std::string>;
/// Host entry name to address.
using Hosts = std::map<std::string, std::string>;
/// Preference name to value.
using Preferences = std::map<std::string, std::string>;

constexpr unsigned int Connection = 0;
constexpr unsigned int Reconnection = 1;
constexpr unsigned int ProcessLaunch = 4;

/// Probes that the test sends to each headend.
constexpr std::size_t Pings = 3;

/// A name that is none, so that no name server needs to be asked: a label has 63 letters at most
/// (RFC 1035, section 2.3.4).
const std::string UnknownName = std::string(64, 'l') + ".invalid";

/// Time limits for tests in which every server answers: nothing waits for them to pass, and a busy
/// machine does not come near them.
const Preferences Patient = {{"SelectionConnectTimeout", "60000"},
                             {"SelectionReconnectTimeout", "60000"},
                             {"SelectionPingTimeout", "20000"},
                             {"SelectionTestPingTimeout", "20"}};

Preferences with(Preferences preferences, const Preferences& changes) {
  for (const auto& [name, value] : changes) {
    preferences[name] = value;
  }
  return preferences;
}

// ---- What the log must say --------------------------------------------------------------------

std::string hostOf(const std::string& headend) { return headend.substr(0, headend.rfind(':')); }

Lines workerThatMeasured(const std::string& headend, const std::string& host) {
  return {"I Run: QIB starting thread named " + host,
          "I logThreadPingResults: QIB ping results for " + headend + ": (N N N )",
          "I Run: QIB terminating thread for " + headend};
}

Lines workerThatMeasured(const std::string& headend) {
  return workerThatMeasured(headend, hostOf(headend));
}

Lines workerThatGaveUp(const std::string& headend, unsigned int failures) {
  const std::string host = hostOf(headend);
  Lines lines = {"I Run: QIB starting thread named " + host};
  lines.insert(lines.end(), failures, "W Run: QIB ping timeout or couldn't connect: " + host);
  lines.push_back("I Run: QIB terminating thread for " + headend);
  return lines;
}

Lines workerThatFoundNoAddress(const std::string& name) {
  return {"I Run: QIB starting thread named " + name,
          "W Run: QIB: DNS error for " + name + ", time: 0",
          "I Run: QIB terminating thread for " + name};
}

std::string workerReturned(const std::string& code) {
  return "W startPingThreads: Return code from CSelectionThread::Run: " + code;
}

Lines runStarted(const std::string& reason, const std::string& lastHost) {
  return {"I run: CHeadendSelection thread ID 'N'",
          "I selectHeadend: Starting QIB processing during " + reason +
              " attempt. Last headend: " + lastHost};
}

Lines testPing(const std::string& headend) {
  return {"I startPingThreads: QIB Sending test ping to " + headend,
          "I startPingThreads: QIB test ping took N"};
}

const std::string FirstEnd = "I finishAHS: QIB in finishAHS() for first time";
const std::string SecondEnd = "I finishAHS: QIB in finishAHS() a second time";
const std::string FromCache = "Results obtained from QIB cache. No ping tests were performed.\n\n";
const std::string Retained = "Retained the last server to maximize the user experience.\n";

std::string selected(const std::string& headend) {
  return "Selected '" + headend + "' as the optimal server.\n";
}

Lines reportWritten(const std::string& reason, const std::string& last, const Lines& ranked,
                    const std::string& origin, const std::string& decision) {
  std::string report = "I logPingResults: *** QIB Selection Results ***\nQIB performed for " +
                       reason + " attempt. Last server: '" + last + "'\n\n" + origin +
                       "Server Address     RTT (ms)\n";
  for (const std::string& headend : ranked) {
    report += headend + "     N\n";
  }
  return {report + "\n" + decision};
}

/// What the log says when there is nothing to rank.
Lines nothingRanked(const std::string& reason, const std::string& last) {
  return {"I getBestHeadendsList: didn't get any QIB results from CCacheEntry::GetHeadendList()",
          "I logPingResults: *** QIB Selection Results ***\nQIB performed for " + reason +
              " attempt. Last server: '" + last +
              "'\n\nUnable to generate search results. Retaining the last server.\n"};
}

Lines runFinished(const std::string& headend) {
  return {"I finishAHS: Finished QIB thread, selected " + headend};
}

template <typename... T>
Lines lines(const T&... texts) {
  return {texts...};
}

Lines firstOf(Lines all, std::size_t count) {
  all.resize(std::min(all.size(), count));
  return all;
}

Lines operator+(Lines first, const Lines& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// ---- The tests' client ------------------------------------------------------------------------

class RealPeers : public testing::Test {
 protected:
  ~RealPeers() override {
    m_library.reset();
    HttpProbe::SetTrustFile("");
    HttpProbe::SetRoundTripMeasure(HttpProbe::RoundTripMeasure::Network);
  }

  /// Brings the client library up as a new process would, on these hosts and preferences; what was
  /// up before is taken down. The selection cache stays in its directory.
  void StartClient(const Hosts& hosts, const Preferences& preferences) {
    std::string profile =
        "<profile version=\"1\">\n  <preferences>\n    <preference "
        "name=\"EnableAutomaticServerSelection\" value=\"true\"/>\n  </preferences>\n  <hosts>\n";
    for (const auto& [name, address] : hosts) {
      profile.append("    <host name=\"" + name).append("\" address=\"" + address).append("\"/>\n");
    }
    m_directory.Write("profiles/office.xml", profile + "  </hosts>\n</profile>\n");

    std::string file = "<preferences version=\"1\">\n";
    for (const auto& [name, value] : preferences) {
      file.append("  <preference name=\"" + name).append("\" value=\"" + value).append("\"/>\n");
    }
    m_directory.Write("preferences.xml", file + "</preferences>\n");
    RestartClient();
  }

  /// Takes the client library down and brings it up again, on the same files.
  void RestartClient() {
    m_library.reset();
    CClientLibrary::Options options;
    options.log.off = true;  // the tests listen
    options.sources.profileDirectory = m_directory.File("profiles");
    options.sources.userPreferencesFile = m_directory.File("preferences.xml");
    options.sources.cacheDirectory = m_directory.File("cache");
    STATUSCODE status = -1;
    m_library = std::make_unique<CClientLibrary>(options, status);
    ASSERT_EQ(0, status);
    PreferenceMgr* const preferences = PreferenceMgr::acquireInstance();
    ASSERT_NE(nullptr, preferences);
    for (const FileProblem& problem : preferences->getProblems()) {
      ADD_FAILURE() << problem.toString();
    }
    preferences->releaseInstance();
  }

  /// Lets the next run measure.
  void ForgetSelections() { std::filesystem::remove_all(m_directory.File("cache")); }

  const TestCertificates& Certificates() const { return m_certificates; }

 private:
  TemporaryDirectory m_directory;
  const std::string m_profiles = m_directory.MakeDirectory("profiles");
  TestCertificates m_certificates;
  std::unique_ptr<CClientLibrary> m_library;
};

Lines headendsOf(const std::vector<std::pair<std::string, unsigned int>>& results) {
  Lines headends;
  for (const auto& [headend, metric] : results) {
    headends.push_back(headend);
  }
  return headends;
}

bool isRanked(const std::vector<std::pair<std::string, unsigned int>>& results) {
  return std::is_sorted(results.begin(), results.end(),
                        [](const auto& a, const auto& b) { return a.second < b.second; });
}

/// That a run was measured, went well and lists `headends`, best first, whichever that is.
void expectFreshSelection(const Selection& selection, const Lines& headends) {
  EXPECT_EQ(1U, selection.calls);
  EXPECT_EQ(HEADENDSELECTION_ERROR_ADDED_TO_CACHE, selection.status);
  EXPECT_EQ("", selection.extraInfo);
  EXPECT_THAT(selection.headends, UnorderedElementsAreArray(headends));
  EXPECT_THAT(headendsOf(selection.Results()), UnorderedElementsAreArray(headends));
  EXPECT_TRUE(isRanked(selection.Results())) << selection.report;
}

auto statusOfProbe(STATUSCODE status) { return Field(&HttpProbe::Report::status, status); }
auto httpStatusOfProbe(unsigned int status) {
  return Field(&HttpProbe::Report::httpStatus, status);
}

// ---- The tests --------------------------------------------------------------------------------

TEST_F(RealPeers, AFreshSelectionListsEveryServerThatAnswersAndIsReportedAsFresh) {
  const NginxServer nginx(Certificates());
  const HaproxyServer haproxy(Certificates());
  const OpensslServer openssl(Certificates());
  StartClient({{"a", nginx.Address()}, {"b", haproxy.Address()}, {"c", openssl.Address()}},
              Patient);

  const Selection selection = runSelection("A", Connection);

  expectFreshSelection(selection, {nginx.Address(), haproxy.Address(), openssl.Address()});
  EXPECT_EQ(Connection, selection.reason);
  EXPECT_EQ(headendsOf(selection.Results()), selection.headends);
  for (const RealServer* server :
       {static_cast<const RealServer*>(&nginx), static_cast<const RealServer*>(&haproxy),
        static_cast<const RealServer*>(&openssl)}) {
    EXPECT_EQ(workerThatMeasured(server->Address()), selection.WorkerLog(server->Address()));
    EXPECT_THAT(selection.ProbesOf(server->Where().port), SizeIs(Pings));
  }
}

TEST_F(RealPeers, ATlsServerAskedInPlainHttpAnswersWith400OrHangsUpAndIsMeasuredEitherWay) {
  const NginxServer nginx(Certificates());
  const HaproxyServer haproxy(Certificates());
  const OpensslServer openssl(Certificates());
  StartClient({{"a", nginx.Address()}, {"b", haproxy.Address()}, {"c", openssl.Address()}},
              Patient);

  const Selection selection = runSelection("a", Connection);

  EXPECT_THAT(selection.ProbesOf(nginx.Where().port),
              Each(AllOf(statusOfProbe(0), httpStatusOfProbe(400))));
  EXPECT_THAT(
      selection.ProbesOf(haproxy.Where().port),
      Each(AllOf(statusOfProbe(HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE), httpStatusOfProbe(0))));
  EXPECT_THAT(
      selection.ProbesOf(openssl.Where().port),
      Each(AllOf(statusOfProbe(HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE), httpStatusOfProbe(0))));
  EXPECT_EQ(runStarted("connection", "127.0.0.1") + testPing(nginx.Address()) +
                lines(workerReturned("0xFE46001C"), workerReturned("0xFE46001C"), FirstEnd) +
                reportWritten("connection", nginx.Address(), selection.headends, "",
                              selected(selection.headends.at(0))) +
                runFinished(selection.headends.at(0)),
            selection.RunLog());
}

TEST_F(RealPeers, DeadHeadendsAreLeftOutAndTheLogSaysOfEachWhatIsWrongWithIt) {
  const RefusingPort closed("127.0.0.1");
  const HaproxyServer haproxy(Certificates());
  const NginxServer nginx(Certificates());
  const OpensslServer openssl(Certificates());
  SilentListener silent("127.0.0.1");
  StartClient({{"a closed", closed.Where().Text()},
               {"b haproxy", haproxy.Address()},
               {"c nginx", nginx.Address()},
               {"d openssl", openssl.Address()},
               {"e silent", silent.Where().Text()},
               {"f unknown", UnknownName}},
              with(Patient, {{"SelectionPingTimeout", "4000"}}));

  const Selection selection = runSelection("c nginx", ProcessLaunch);

  expectFreshSelection(selection, {haproxy.Address(), nginx.Address(), openssl.Address()});
  EXPECT_EQ(workerThatGaveUp(closed.Where().Text(), 2), selection.WorkerLog(closed.Where().Text()));
  EXPECT_EQ(workerThatGaveUp(silent.Where().Text(), 2), selection.WorkerLog(silent.Where().Text()));
  EXPECT_EQ(workerThatFoundNoAddress(UnknownName), selection.WorkerLog(UnknownName));
  EXPECT_EQ(workerThatMeasured(nginx.Address()), selection.WorkerLog(nginx.Address()));
  EXPECT_EQ(workerThatMeasured(haproxy.Address()), selection.WorkerLog(haproxy.Address()));
  EXPECT_EQ(workerThatMeasured(openssl.Address()), selection.WorkerLog(openssl.Address()));
  EXPECT_EQ(2U, silent.ConnectionCount());
  EXPECT_EQ(runStarted("process launch", "127.0.0.1") + testPing(nginx.Address()) +
                lines(workerReturned("0xFE46001D"), workerReturned("0xFE46001C"),
                      workerReturned("0xFE46001C"), workerReturned("0xFE46001B"),
                      workerReturned("0xFE460019"), FirstEnd) +
                reportWritten("process launch", nginx.Address(), selection.headends, "",
                              selected(selection.headends.at(0))) +
                runFinished(selection.headends.at(0)),
            selection.RunLog());
}

TEST_F(RealPeers, TheSameSelectionAgainComesFromTheCacheAndReachesNoServer) {
  NginxServer nginx(Certificates());
  HaproxyServer haproxy(Certificates());
  OpensslServer openssl(Certificates());
  StartClient({{"a", nginx.Address()}, {"b", haproxy.Address()}, {"c", openssl.Address()}},
              Patient);
  const Selection fresh = runSelection("a", Connection);
  ASSERT_EQ(HEADENDSELECTION_ERROR_ADDED_TO_CACHE, fresh.status);
  nginx.Stop();
  haproxy.Stop();
  openssl.Stop();
  SilentListener insteadOfNginx(nginx.Where());
  SilentListener insteadOfHaproxy(haproxy.Where());
  SilentListener insteadOfOpenssl(openssl.Where());

  for (const char* start : {"the same process", "another process"}) {
    SCOPED_TRACE(start);
    const Selection cached = runSelection("a", Connection);

    EXPECT_EQ(1U, cached.calls);
    EXPECT_EQ(0, cached.status);
    EXPECT_EQ(headendsOf(cached.Results()), cached.headends);
    EXPECT_THAT(cached.Results(), UnorderedElementsAreArray(fresh.Results()));
    EXPECT_THAT(cached.probes, IsEmpty());
    EXPECT_EQ(runStarted("connection", "127.0.0.1") + lines(FirstEnd) +
                  reportWritten("connection", nginx.Address(), cached.headends, FromCache,
                                selected(cached.headends.at(0))) +
                  runFinished(cached.headends.at(0)),
              cached.RunLog());
    EXPECT_EQ(cached.RunLog().size(), cached.log.size()) << "another thread has logged";
    EXPECT_EQ(0U, insteadOfNginx.ConnectionCount());
    EXPECT_EQ(0U, insteadOfHaproxy.ConnectionCount());
    EXPECT_EQ(0U, insteadOfOpenssl.ConnectionCount());
    RestartClient();
  }
}

TEST_F(RealPeers, AnotherSetOfHeadendsIsNotFoundInTheCache) {
  const NginxServer nginx(Certificates());
  const HaproxyServer haproxy(Certificates());
  StartClient({{"a", nginx.Address()}}, Patient);
  ASSERT_EQ(HEADENDSELECTION_ERROR_ADDED_TO_CACHE, runSelection("a", Connection).status);

  StartClient({{"a", nginx.Address()}, {"b", haproxy.Address()}}, Patient);

  expectFreshSelection(runSelection("a", Connection), {nginx.Address(), haproxy.Address()});
}

/// Two gateways that take their time, of which one takes clearly more, and the time counts.
class Reconnections : public RealPeers {
 protected:
  void StartClientWithImprovement(const std::string& percent) {
    StartClient({{"Near", m_near.Address()}, {"Far", m_far.Address()}},
                with(Patient, {{"RoundTripTime", "response"}, {"SelectionImprovement", percent}}));
  }

  const SlowHaproxyServer m_near{300};
  const SlowHaproxyServer m_far{400};
};

TEST_F(Reconnections, TheLastHeadendIsRetainedWhenItAnswersWithinTheThreshold) {
  for (const auto& [last, address] : Hosts{{"near", m_near.Address()}, {"far", m_far.Address()}}) {
    SCOPED_TRACE(last);
    StartClientWithImprovement("1000");
    const Selection selection = runSelection(last, Reconnection);
    ForgetSelections();

    expectFreshSelection(selection, {m_near.Address(), m_far.Address()});
    EXPECT_EQ(address, selection.headends.at(0));
    EXPECT_EQ(
        runStarted("reconnection", "127.0.0.1") + lines(FirstEnd) +
            reportWritten("reconnection", address, headendsOf(selection.Results()), "", Retained) +
            runFinished(address),
        selection.RunLog());
    EXPECT_EQ(2 * Pings, selection.probes.size()) << "a reconnection sends no test ping";
  }
}

TEST_F(Reconnections, TheBestHeadendIsSelectedWhenNoImprovementIsAskedFor) {
  for (const char* last : {"near", "far"}) {
    SCOPED_TRACE(last);
    StartClientWithImprovement("0");
    const Selection selection = runSelection(last, Reconnection);
    ForgetSelections();

    expectFreshSelection(selection, {m_near.Address(), m_far.Address()});
    EXPECT_EQ(headendsOf(selection.Results()), selection.headends);
    EXPECT_THAT(selection.report, testing::EndsWith(selected(selection.headends.at(0))));
  }
}

TEST_F(Reconnections, TheThresholdIsAppliedToWhatWasMeasured) {
  StartClientWithImprovement("20");
  const Selection selection = runSelection("far", Reconnection);

  const auto results = selection.Results();
  ASSERT_THAT(results, SizeIs(2));
  const unsigned int best = results.at(0).second;
  const auto last = std::find_if(results.begin(), results.end(), [this](const auto& result) {
    return result.first == m_far.Address();
  });
  ASSERT_NE(results.end(), last);
  const bool withinThreshold = last->second * 100 < best * 120;
  EXPECT_EQ(withinThreshold ? m_far.Address() : results.at(0).first, selection.headends.at(0))
      << selection.report;
}

TEST_F(Reconnections, TheRoundTripIsTheNetworksUnlessTheUserAsksForTheResponses) {
  const auto toMs = [](long long us) { return static_cast<unsigned int>((us + 500) / 1000); };
  StartClientWithImprovement("20");
  const Selection byResponse = runSelection("far", Reconnection);
  ForgetSelections();
  StartClient({{"Near", m_near.Address()}, {"Far", m_far.Address()}}, Patient);
  const Selection byNetwork = runSelection("far", Reconnection);

  ASSERT_THAT(byResponse.probes, SizeIs(2 * Pings));
  for (const HttpProbe::Report& probe : byResponse.probes) {
    EXPECT_EQ(toMs(probe.responseRttUs), probe.rttMs);
  }
  ASSERT_THAT(byNetwork.probes, SizeIs(2 * Pings));
  for (const HttpProbe::Report& probe : byNetwork.probes) {
    EXPECT_EQ(toMs(probe.networkRttUs), probe.rttMs);
    EXPECT_LT(probe.networkRttUs, probe.responseRttUs);
  }
}

TEST_F(RealPeers, WithoutAnyAnswerTheLastHeadendIsKeptAndNothingIsRemembered) {
  const RefusingPort closed("127.0.0.1");
  SilentListener silent("127.0.0.1");
  StartClient({{"closed", closed.Where().Text()}, {"silent", silent.Where().Text()}},
              with(Patient, {{"SelectionPingTimeout", "1000"}}));

  const Selection selection = runSelection("Closed", Connection);

  EXPECT_EQ(1U, selection.calls);
  EXPECT_EQ(HEADENDSELECTION_ERROR_SELECTION_FAILURE, selection.status);
  EXPECT_THAT(selection.headends, ElementsAre(closed.Where().Text()));
  EXPECT_EQ(runStarted("connection", "127.0.0.1") +
                lines("I startPingThreads: QIB Sending test ping to " + closed.Where().Text(),
                      "E startPingThreads: Return code from HttpProbe::SendHttpProbe QIB test ping "
                      "failed: 0x00000007",  // CURLE_COULDNT_CONNECT
                      "I startPingThreads: QIB test ping took N", workerReturned("0xFE46001D"),
                      workerReturned("0xFE46001B"), FirstEnd) +
                nothingRanked("connection", closed.Where().Text()) +
                runFinished(closed.Where().Text()),
            selection.RunLog());

  // Had the failure been remembered, this run would send no probes.
  const Selection reconnection = runSelection("", Reconnection);
  EXPECT_THAT(reconnection.probes, SizeIs(4));
  EXPECT_EQ(HEADENDSELECTION_ERROR_SELECTION_FAILURE, reconnection.status);
  EXPECT_THAT(reconnection.headends, IsEmpty()) << "there is no last headend to keep";
  EXPECT_EQ(runStarted("reconnection", "") +
                lines(workerReturned("0xFE46001D"), workerReturned("0xFE46001B"), FirstEnd) +
                nothingRanked("reconnection", "") +
                lines("I finishAHS: Finished QIB thread, unable to select a host"),
            reconnection.RunLog());
}

TEST_F(RealPeers, WithoutAnyAnswerAndWithoutALastHeadendTheFirstOneIsKept) {
  const RefusingPort first("127.0.0.1");
  const RefusingPort second("127.0.0.1");
  StartClient({{"b", second.Where().Text()}, {"a", first.Where().Text()}}, Patient);

  const Selection selection = runSelection("", Connection);

  // The test ping needs a target, and that then counts as the last headend.
  EXPECT_EQ(HEADENDSELECTION_ERROR_SELECTION_FAILURE, selection.status);
  EXPECT_THAT(selection.headends, ElementsAre(first.Where().Text()));
}

TEST_F(RealPeers, WhenTheTimeIsOverTheClientGetsWhatHasAnsweredByThen) {
  const NginxServer nginx(Certificates());
  SilentListener silent("127.0.0.1");
  // The silent one holds its worker up for eight seconds; nginx needs a moment of the five.
  StartClient(
      {{"nginx", nginx.Address()}, {"silent", silent.Where().Text()}},
      with(Patient, {{"SelectionConnectTimeout", "5000"}, {"SelectionPingTimeout", "8000"}}));

  const Selection cutShort = runSelection("nginx", Connection);

  expectFreshSelection(cutShort, {nginx.Address()});
  EXPECT_EQ(lines("W OnTimerExpired: QIB timer expired", FirstEnd) +
                reportWritten("connection", nginx.Address(), {nginx.Address()}, "",
                              selected(nginx.Address())) +
                runFinished(nginx.Address()),
            cutShort.TimerLog());
  EXPECT_EQ(runStarted("connection", "127.0.0.1") + testPing(nginx.Address()) +
                lines(workerReturned("0xFE53000B"), SecondEnd),
            cutShort.RunLog());
  // Its budget is over with the first failure, so there is no second one.
  EXPECT_EQ(workerThatGaveUp(silent.Where().Text(), 1), cutShort.WorkerLog(silent.Where().Text()));
  EXPECT_EQ(0, runSelection("nginx", Connection).status) << "what was measured is remembered";
}

TEST_F(RealPeers, WhenTheTimeIsOverAndNothingHasAnsweredTheLastHeadendIsKept) {
  SilentListener silent("127.0.0.1");
  StartClient(
      {{"silent", silent.Where().Text()}},
      with(Patient, {{"SelectionReconnectTimeout", "300"}, {"SelectionPingTimeout", "5000"}}));

  const Selection selection = runSelection("silent", Reconnection);

  EXPECT_EQ(1U, selection.calls);
  EXPECT_EQ(HEADENDSELECTION_ERROR_SELECTION_FAILURE, selection.status);
  EXPECT_THAT(selection.headends, ElementsAre(silent.Where().Text()));
  EXPECT_EQ(lines("W OnTimerExpired: QIB timer expired", FirstEnd) +
                nothingRanked("reconnection", silent.Where().Text()) +
                runFinished(silent.Where().Text()),
            selection.TimerLog());
}

TEST_F(RealPeers, ServersWithAnUntrustedCertificateAreMeasuredAndAreSentNothing) {
  NginxServer nginx(Certificates());
  const HaproxyServer haproxy(Certificates());
  const OpensslServer openssl(Certificates());
  StartClient({{"a", nginx.Address()}, {"b", haproxy.Address()}, {"c", openssl.Address()}},
              Patient);

  const Selection selection = runSelection("a", Reconnection, new ProviderWithoutProxy);
  nginx.Stop();

  expectFreshSelection(selection, {nginx.Address(), haproxy.Address(), openssl.Address()});
  EXPECT_THAT(
      selection.probes,
      AllOf(SizeIs(3 * Pings), Each(AllOf(statusOfProbe(HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE),
                                          httpStatusOfProbe(0)))));
  EXPECT_THAT(nginx.Requests(), IsEmpty());
  EXPECT_EQ(runStarted("reconnection", "127.0.0.1") + lines(workerReturned("0xFE460017"),
                                                            workerReturned("0xFE460017"),
                                                            workerReturned("0xFE460017"), FirstEnd),
            firstOf(selection.RunLog(), 6));
}

TEST_F(RealPeers, ServersWithATrustedCertificateAnswerWithHttpOrWithSomethingElse) {
  NginxServer nginx(Certificates());
  const HaproxyServer haproxy(Certificates());
  const OpensslServer openssl(Certificates(), OpensslServer::Mode::ReversedText);
  HttpProbe::SetTrustFile(Certificates().Authority());
  StartClient({{"a", nginx.Address()}, {"b", haproxy.Address()}, {"c", openssl.Address()}},
              Patient);

  const Selection selection = runSelection("a", Reconnection, new ProviderWithoutProxy);
  nginx.Stop();

  expectFreshSelection(selection, {nginx.Address(), haproxy.Address(), openssl.Address()});
  EXPECT_THAT(selection.ProbesOf(nginx.Where().port),
              AllOf(SizeIs(Pings), Each(AllOf(statusOfProbe(0), httpStatusOfProbe(200)))));
  EXPECT_THAT(selection.ProbesOf(haproxy.Where().port),
              AllOf(SizeIs(Pings), Each(AllOf(statusOfProbe(0), httpStatusOfProbe(200)))));
  EXPECT_THAT(
      selection.ProbesOf(openssl.Where().port),
      AllOf(SizeIs(Pings), Each(statusOfProbe(HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE))));
  EXPECT_THAT(nginx.Requests(), SizeIs(Pings));
}

TEST_F(RealPeers, ServersThatDemandAClientCertificateAreMeasured) {
  const NginxServer nginx(Certificates(), "127.0.0.1", NginxServer::ClientCertificate::Demanded);
  const OpensslServer openssl(Certificates(), OpensslServer::Mode::ClientCertificate);
  HttpProbe::SetTrustFile(Certificates().Authority());
  StartClient({{"a", nginx.Address()}, {"b", openssl.Address()}}, Patient);

  const Selection selection = runSelection("a", Reconnection, new ProviderWithoutProxy);

  expectFreshSelection(selection, {nginx.Address(), openssl.Address()});
  // nginx lets the handshake pass and says so in HTTP; OpenSSL's own server breaks the connection.
  EXPECT_THAT(selection.ProbesOf(nginx.Where().port),
              AllOf(SizeIs(Pings), Each(AllOf(statusOfProbe(0), httpStatusOfProbe(400)))));
  EXPECT_THAT(
      selection.ProbesOf(openssl.Where().port),
      AllOf(SizeIs(Pings), Each(statusOfProbe(HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED))));
  EXPECT_EQ(workerThatMeasured(openssl.Address()), selection.WorkerLog(openssl.Address()));
}

TEST_F(RealPeers, AServerThatIsDownIsMissingUntilItIsBack) {
  NginxServer nginx(Certificates());
  HaproxyServer haproxy(Certificates());
  OpensslServer openssl(Certificates());
  const Lines all = {nginx.Address(), haproxy.Address(), openssl.Address()};
  StartClient({{"a", nginx.Address()}, {"b", haproxy.Address()}, {"c", openssl.Address()}},
              Patient);

  for (RealServer* server : {static_cast<RealServer*>(&nginx), static_cast<RealServer*>(&haproxy),
                             static_cast<RealServer*>(&openssl)}) {
    SCOPED_TRACE(server->Address());
    Lines others = all;
    others.erase(std::find(others.begin(), others.end(), server->Address()));

    server->Stop();
    expectFreshSelection(runSelection("", Reconnection), others);
    ForgetSelections();

    server->Start();
    expectFreshSelection(runSelection("", Reconnection), all);
    ForgetSelections();
  }
}

TEST_F(RealPeers, AnIPv6AddressIsProbedAndKeepsItsBrackets) {
  if (!hasAddress("::1")) {
    GTEST_SKIP() << "this machine has no IPv6 loopback address";
  }
  const NginxServer nginx(Certificates(), "::1");
  HttpProbe::SetTrustFile(Certificates().Authority());
  StartClient({{"six", nginx.Address()}}, Patient);

  const Selection plain = runSelection("six", Connection);
  ForgetSelections();
  const Selection secure = runSelection("six", Reconnection, new ProviderWithoutProxy);

  const std::string key = "[::1]:" + std::to_string(nginx.Where().port);
  expectFreshSelection(plain, {key});
  EXPECT_EQ(workerThatMeasured(key, "::1"), plain.WorkerLog(key));
  EXPECT_EQ(runStarted("connection", "::1") +
                testPing("::1:" + std::to_string(nginx.Where().port)) + lines(FirstEnd) +
                reportWritten("connection", key, {key}, "", selected(key)) + runFinished(key),
            plain.RunLog());
  expectFreshSelection(secure, {key});
  EXPECT_THAT(secure.ProbesOf(nginx.Where().port),
              Each(AllOf(statusOfProbe(0), httpStatusOfProbe(200))));
}

}  // namespace
}  // namespace tests
