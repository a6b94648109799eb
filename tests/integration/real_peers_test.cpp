// Whole selections among real servers: real profile files, the whole client library in the process,
// real sockets. What the client is told must agree with what the servers did. Which server is
// nearest is the machine's business, so no test depends on it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
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
#include "vpn/include/HttpSession.h"

namespace tests {
namespace {

using testing::AllOf;
using testing::Each;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAreArray;

/// Host entry name to address.
using Hosts = std::map<std::string, std::string>;

constexpr unsigned int Connection = 0;
constexpr unsigned int Reconnection = 1;

/// Probes that are sent to each headend by default.
constexpr std::size_t Pings = 3;

/// A name that is none, so that no name server needs to be asked: a label has 63 letters at most
/// (RFC 1035, section 2.3.4).
const std::string UnknownName = std::string(64, 'l') + ".invalid";

class RealPeers : public testing::Test {
 protected:
  ~RealPeers() override {
    m_library.reset();
    HttpProbe::setTrustFile("");
  }

  /// Brings the client library up on these hosts, with time limits that a busy machine does not
  /// come near where a server answers.
  void StartClient(const Hosts& hosts) {
    m_library.reset();
    std::string profile =
        "<profile version=\"1\"><preferences><preference name=\"EnableAutomaticServerSelection\" "
        "value=\"true\"/></preferences><hosts>\n";
    for (const auto& [name, address] : hosts) {
      profile.append("<host name=\"" + name).append("\" address=\"" + address).append("\"/>\n");
    }
    m_directory.Write("profiles/office.xml", profile + "</hosts></profile>\n");
    m_directory.Write("preferences.xml",
                      "<preferences version=\"1\">\n"
                      "<preference name=\"SelectionConnectTimeout\" value=\"60000\"/>\n"
                      "<preference name=\"SelectionReconnectTimeout\" value=\"60000\"/>\n"
                      "<preference name=\"SelectionPingTimeout\" value=\"4000\"/>\n"
                      "<preference name=\"SelectionTestPingTimeout\" value=\"20\"/>\n"
                      "</preferences>\n");
    CClientLibrary::Options options;
    options.log.off = true;  // the recorder listens
    options.sources.profileDirectory = m_directory.File("profiles");
    options.sources.userPreferencesFile = m_directory.File("preferences.xml");
    STATUSCODE status = -1;
    m_library = std::make_unique<CClientLibrary>(options, status);
    ASSERT_EQ(0, status);
  }

  const TestCertificates m_certificates;

 private:
  TemporaryDirectory m_directory;
  const std::string m_profiles = m_directory.MakeDirectory("profiles");
  std::unique_ptr<CClientLibrary> m_library;
};

/// That a run was measured, went well and lists `headends`, best first, whichever that is.
void expectFreshSelection(const Selection& selection, const std::vector<std::string>& headends) {
  EXPECT_EQ(1U, selection.calls);
  EXPECT_EQ(HEADENDSELECTION_ERROR_ADDED_TO_CACHE, selection.status);
  EXPECT_EQ("", selection.extraInfo);
  EXPECT_THAT(selection.headends, UnorderedElementsAreArray(headends));
  const auto results = selection.Results();
  EXPECT_TRUE(std::ranges::is_sorted(results, {}, &std::pair<std::string, unsigned int>::second));
  EXPECT_TRUE(std::ranges::equal(selection.headends, results, {}, {},
                                 &std::pair<std::string, unsigned int>::first));
}

auto probes(STATUSCODE status, unsigned int httpStatus) {
  return AllOf(SizeIs(Pings), Each(AllOf(Field(&HttpProbe::Report::status, status),
                                         Field(&HttpProbe::Report::httpStatus, httpStatus))));
}

TEST_F(RealPeers, TlsServersAskedInPlainHttpAreMeasuredAndDeadHeadendsLeftOut) {
  const RefusingPort closed("127.0.0.1");
  const HaproxyServer haproxy(m_certificates);
  const NginxServer nginx(m_certificates);
  const OpensslServer openssl(m_certificates);
  SilentListener silent("127.0.0.1");
  StartClient({{"a closed", closed.Where().Text()},
               {"b haproxy", haproxy.Address()},
               {"c nginx", nginx.Address()},
               {"d openssl", openssl.Address()},
               {"e silent", silent.Where().Text()},
               {"f unknown", UnknownName}});

  const Selection selection = runSelection("C nginx", Connection);

  expectFreshSelection(selection, {haproxy.Address(), nginx.Address(), openssl.Address()});
  EXPECT_EQ(Connection, selection.reason);
  // One says that this is a TLS port, the others hang up.
  EXPECT_THAT(selection.ProbesOf(nginx.Where().port), probes(HTTP_SESSION_SUCCESS, 400));
  for (const unsigned short port : {haproxy.Where().port, openssl.Where().port}) {
    EXPECT_THAT(selection.ProbesOf(port), probes(HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE, 0));
  }
  EXPECT_THAT(selection.ProbesOf(closed.Where().port), SizeIs(2)) << "a worker gives up";
  EXPECT_EQ(2U, silent.ConnectionCount());
}

TEST_F(RealPeers, ServersWithAnUntrustedCertificateAreMeasuredAndAreSentNothing) {
  NginxServer nginx(m_certificates);
  const HaproxyServer haproxy(m_certificates);
  const OpensslServer openssl(m_certificates);
  StartClient({{"a", nginx.Address()}, {"b", haproxy.Address()}, {"c", openssl.Address()}});

  const Selection selection = runSelection("a", Reconnection, new ProviderWithoutProxy);
  nginx.Stop();

  EXPECT_THAT(selection.headends, SizeIs(3));
  EXPECT_EQ(3 * Pings, selection.probes.size()) << "a reconnection sends no test ping";
  for (const unsigned short port :
       {nginx.Where().port, haproxy.Where().port, openssl.Where().port}) {
    EXPECT_THAT(selection.ProbesOf(port), probes(HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE, 0));
  }
  EXPECT_THAT(nginx.Requests(), IsEmpty());
}

TEST_F(RealPeers, ServersWithATrustedCertificateAnswerAskForOneOrTalkOtherwise) {
  NginxServer nginx(m_certificates);
  const HaproxyServer haproxy(m_certificates);
  const OpensslServer reverses(m_certificates, OpensslServer::Mode::ReversedText);
  const NginxServer asking(m_certificates, "127.0.0.1", NginxServer::ClientCertificate::Demanded);
  const OpensslServer refusing(m_certificates, OpensslServer::Mode::ClientCertificate);
  HttpProbe::setTrustFile(m_certificates.Authority());
  StartClient({{"a", nginx.Address()},
               {"b", haproxy.Address()},
               {"c", reverses.Address()},
               {"d", asking.Address()},
               {"e", refusing.Address()}});

  const Selection selection = runSelection("", Reconnection, new ProviderWithoutProxy);
  nginx.Stop();

  expectFreshSelection(selection, {nginx.Address(), haproxy.Address(), reverses.Address(),
                                   asking.Address(), refusing.Address()});
  EXPECT_THAT(selection.ProbesOf(nginx.Where().port), probes(HTTP_SESSION_SUCCESS, 200));
  EXPECT_THAT(nginx.Requests(), SizeIs(Pings));
  EXPECT_THAT(selection.ProbesOf(haproxy.Where().port), probes(HTTP_SESSION_SUCCESS, 200));
  EXPECT_THAT(selection.ProbesOf(reverses.Where().port),
              AllOf(SizeIs(Pings), Each(Field(&HttpProbe::Report::status,
                                              HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE))));
  // nginx lets the handshake pass and says so in HTTP; OpenSSL's own server breaks the connection.
  EXPECT_THAT(selection.ProbesOf(asking.Where().port), probes(HTTP_SESSION_SUCCESS, 400));
  EXPECT_THAT(selection.ProbesOf(refusing.Where().port),
              AllOf(SizeIs(Pings), Each(Field(&HttpProbe::Report::status,
                                              HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED))));
}

TEST_F(RealPeers, AnIPv6AddressIsProbedAndKeepsItsBrackets) {
  if (!hasAddress("::1")) {
    GTEST_SKIP() << "this machine has no IPv6 loopback address";
  }
  const NginxServer nginx(m_certificates, "::1");
  HttpProbe::setTrustFile(m_certificates.Authority());
  StartClient({{"six", nginx.Address()}});

  const Selection selection = runSelection("six", Reconnection, new ProviderWithoutProxy);

  expectFreshSelection(selection, {"[::1]:" + std::to_string(nginx.Where().port)});
  EXPECT_THAT(selection.ProbesOf(nginx.Where().port), probes(HTTP_SESSION_SUCCESS, 200));
}

}  // namespace
}  // namespace tests
