// Checks of addresses and certificates, with the test's own servers.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

#include "cli/probe/AddressCheck.h"
#include "cli/probe/TlsInspection.h"
#include "tests/support/Eventually.h"
#include "tests/support/LoopbackSockets.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TestAuthority.h"
#include "vpn/Common/IP/HttpProbe.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using tests::Connection;
using tests::ScriptedServer;
using tests::TestAuthority;
using tests::TlsServerContext;

constexpr std::chrono::milliseconds Patience = tests::Limit;
constexpr std::chrono::seconds LongLimit{20};
constexpr std::chrono::milliseconds Impatience{50};

TlsInspection inspect(unsigned short port, const std::string& host = "localhost",
                      std::chrono::seconds limit = LongLimit) {
  return inspectTls(host, port, limit);
}

/// Does the server's side of a handshake and waits for the connection's end.
ScriptedServer::Script shakingHands(const TlsServerContext& context) {
  return [context](Connection& connection) {
    connection.startTls(context);
    connection.waitForPeer();
  };
}

class TlsInspectionTest : public testing::Test {
 protected:
  TlsInspectionTest() { HttpProbe::setTrustFile(m_authority.file()); }
  ~TlsInspectionTest() override { HttpProbe::setTrustFile(""); }

  TestAuthority m_authority;
};

TEST_F(TlsInspectionTest, ATrustedCertificateIsSummedUp) {
  const ScriptedServer server(shakingHands(TlsServerContext(m_authority.issue())));
  EXPECT_THAT(inspect(server.port(), "127.0.0.1").certificate->doubts, IsEmpty());
  const TlsInspection tls = inspect(server.port());
  EXPECT_EQ(tls.problem, "");
  EXPECT_TRUE(tls.speaksTls);
  EXPECT_EQ(tls.version, "TLSv1.3");
  EXPECT_THAT(tls.cipher, StartsWith("TLS_"));
  ASSERT_TRUE(tls.certificate);
  EXPECT_EQ(tls.certificate->subject, "CN = Test server");
  EXPECT_EQ(tls.certificate->issuer, "CN = Test authority");
  EXPECT_THAT(tls.certificate->names, ElementsAre("127.0.0.1", "::1", "localhost"));
  EXPECT_EQ(tls.certificate->key, "EC prime256v1, 256 bits");
  EXPECT_EQ(tls.certificate->daysLeft, 0);
  EXPECT_FALSE(tls.certificate->isExpired);
  EXPECT_THAT(tls.certificate->doubts, IsEmpty());
}

TEST_F(TlsInspectionTest, EveryDoubtIsTold) {
  TestAuthority::Subject subject;
  subject.alternativeNames = "DNS:elsewhere.example";
  subject.validFrom = -10L * 24 * 3600;
  subject.validUntil = -2L * 24 * 3600 - 60;
  const ScriptedServer server(shakingHands(TlsServerContext(m_authority.issue(subject))));
  HttpProbe::setTrustFile("");
  const TlsInspection tls = inspect(server.port());
  EXPECT_EQ(tls.problem, "");
  ASSERT_TRUE(tls.certificate);
  EXPECT_TRUE(tls.certificate->isExpired);
  EXPECT_EQ(tls.certificate->daysLeft, -3) << "the third day after has begun";
  EXPECT_THAT(tls.certificate->doubts, Contains(HasSubstr("hostname mismatch")));
  EXPECT_THAT(tls.certificate->doubts, Contains(HasSubstr("expired")));
  EXPECT_THAT(tls.certificate->doubts, Contains(HasSubstr("issuer")));
}

TEST_F(TlsInspectionTest, AnAddressIsNoNameAndOfManyNamesTheFirstAreTold) {
  TestAuthority::Subject subject;
  subject.alternativeNames = "DNS:localhost";
  for (int i = 0; i < 100; ++i) {
    subject.alternativeNames += ",DNS:gw" + std::to_string(i) + ".example";
  }
  TlsServerContext::Settings settings;
  settings.demandClientCertificate = true;
  const ScriptedServer server(shakingHands(TlsServerContext(m_authority.issue(subject), settings)));
  const TlsInspection tls = inspect(server.port(), "127.0.0.1");
  EXPECT_TRUE(tls.asksForClientCertificate);
  ASSERT_TRUE(tls.certificate);
  EXPECT_THAT(tls.certificate->doubts, ElementsAre(HasSubstr("IP address mismatch")));
  EXPECT_EQ(tls.certificate->names.size(), 20U);
  EXPECT_EQ(tls.certificate->moreNames, 81U);
}

TEST_F(TlsInspectionTest, NoRequestIsSent) {
  tests::RequestLog requests;
  const TlsServerContext context(m_authority.issue());
  const ScriptedServer server([&](Connection& connection) {
    connection.startTls(context);
    requests.add(connection.readSome());
  });
  EXPECT_EQ(inspect(server.port()).problem, "");
  EXPECT_TRUE(tests::eventually([&] { return !requests.all().empty(); }));
  EXPECT_THAT(requests.all(), testing::Each(""));
}

TEST_F(TlsInspectionTest, WhatAServerSaysInPlaceOfAHandshakeIsTold) {
  const std::string alert("\x15\x03\x03\x00\x02\x02\x28", 7);
  for (const auto& [answer, speaksTls, problem] :
       {std::tuple<std::string, bool, const char*>{"HTTP/1.1 400 Bad Request\r\n\r\n", false,
                                                   "speaks no TLS: it answers"},
        {"", false, "speaks no TLS: it hangs up"},
        {alert, true, "fails the TLS handshake: "}}) {
    const ScriptedServer server([&said = answer](Connection& connection) {
      connection.readSome();
      if (said.empty()) {
        connection.drain();
      } else {
        connection.send(said);
        connection.waitForPeer();
      }
    });
    const TlsInspection tls = inspect(server.port());
    EXPECT_EQ(tls.speaksTls, speaksTls);
    EXPECT_THAT(tls.problem, StartsWith(problem));
    EXPECT_FALSE(tls.certificate);
  }
}

TEST_F(TlsInspectionTest, SilenceHoldsItUpNoLongerThanTheLimit) {
  tests::SilentListener silent("127.0.0.1");
  EXPECT_THAT(inspect(silent.Where().port, "localhost", std::chrono::seconds(1)).problem,
              StartsWith("speaks no TLS: it says nothing"));
}

TEST_F(TlsInspectionTest, AHandshakeWithoutEndIsGivenUp) {
  // Warning alerts change nothing; the handshake continues after them.
  const std::string warning("\x15\x03\x03\x00\x02\x01\x5a", 7);
  std::string flood;
  for (int i = 0; i < 1000; ++i) {
    flood += warning;
  }
  const ScriptedServer server([flood](Connection& connection) {
    connection.readSome();
    while (connection.send(flood)) {
    }
  });
  EXPECT_NE(inspect(server.port()).problem, "");
}

TEST(AddressCheck, EachAddressIsTried) {
  const tests::RefusingPort refusing("127.0.0.1");
  const AddressCheck refused = checkAddresses("127.0.0.1", refusing.Where().port, Patience);
  ASSERT_EQ(refused.addresses.size(), 1U);
  EXPECT_EQ(refused.problem, "");
  EXPECT_EQ(refused.addresses[0].text, "127.0.0.1");
  EXPECT_EQ(refused.addresses[0].outcome, "refused");
  EXPECT_FALSE(refused.addresses[0].isConnected());

  tests::SilentListener listening("127.0.0.1");
  const AddressCheck taken = checkAddresses("localhost", listening.Where().port, Patience);
  const auto connected = std::ranges::find_if(taken.addresses, &CheckedAddress::isConnected);
  ASSERT_NE(connected, taken.addresses.end());
  EXPECT_EQ(connected->text, "127.0.0.1");
}

TEST(AddressCheck, AnyIpv6AddressTakesAZone) {
  tests::SilentListener listening("::1");
  const AddressCheck check = checkAddresses("::1%lo", listening.Where().port, Patience);
  EXPECT_EQ(check.problem, "");
  ASSERT_EQ(check.addresses.size(), 1U);
  EXPECT_EQ(check.addresses[0].text, "::1%lo");
  EXPECT_EQ(check.addresses[0].outcome, "connected");
  EXPECT_TRUE(check.addresses[0].isConnected());
  EXPECT_TRUE(isSameAddress(check.addresses[0], "::1")) << "as a probe tells it";
  EXPECT_FALSE(isSameAddress(check.addresses[0], "::2"));
  EXPECT_EQ(checkAddresses("::1%1", listening.Where().port, Patience).addresses[0].outcome,
            "connected");
}

TEST(AddressCheck, AnAddressThatEachNetworkHasNeedsAZone) {
  for (const char* address : {"fe80::7", "fe80::7%nowhere"}) {
    EXPECT_TRUE(isAddressLiteral(address));
    const AddressCheck check = checkAddresses(address, 443, Impatience);
    ASSERT_EQ(check.addresses.size(), 1U);
    EXPECT_EQ(check.addresses[0].outcome, "needs a zone");
  }
  EXPECT_FALSE(isAddressLiteral("gw.example.com"));
}

TEST(AddressCheck, AnAddressThatSaysNothingTimesOut) {
  const tests::SilentPort silent;
  const AddressCheck check = checkAddresses("127.0.0.1", silent.port(), Impatience);
  ASSERT_EQ(check.addresses.size(), 1U);
  EXPECT_EQ(check.addresses[0].outcome, "timed out");
}

}  // namespace
