// Probes over UDP, of gateways that no HTTP probe reaches.

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "tests/support/DatagramGateway.h"
#include "tests/unit/common/http_probe_fixture.h"
#include "vpn/Common/IP/ConnectionTrial.h"

namespace tests {
namespace {

using Datagram = DatagramGateway::Datagram;

class DatagramProbeTest : public HttpProbeTest, public testing::WithParamInterface<ProbeKind> {
 protected:
  static DatagramGateway::Script AnswersOf(ProbeKind kind) {
    return kind == ProbeKind::OpenVpn ? DatagramGateway::OpenVpn
           : kind == ProbeKind::Ike   ? DatagramGateway::Ike
                                      : DatagramGateway::Quic;
  }
  static void Ask(ProbeKind kind, unsigned short port = 0) {
    HttpProbe::setHows({{}, {kind, port}});
  }
  void TearDown() override {
    HttpProbe::setHows({});
    HttpProbeTest::TearDown();
  }
};

TEST_P(DatagramProbeTest, AnAnswerIsASampleWithoutAnHttpStatus) {
  const DatagramGateway gateway(AnswersOf(GetParam()));
  Ask(GetParam(), gateway.Where().port);
  constexpr unsigned short OwnPort = 443;
  EXPECT_EQ(probe(OwnPort), HTTP_SESSION_SUCCESS);
  EXPECT_GE(results.uiRtt, 1U);
  EXPECT_EQ(results.uiHttpStatusCode, 0U);
  EXPECT_EQ(report().port, OwnPort) << "as it was asked for";
  EXPECT_EQ(report().addressPort, gateway.Where().port);
  EXPECT_EQ(report().address, "127.0.0.1");
  EXPECT_GE(report().networkRttUs, 0);
  EXPECT_LE(report().networkRttUs, report().responseRttUs);
  EXPECT_LE(report().responseRttUs, report().totalUs);
  EXPECT_EQ(tryConnection("127.0.0.1", OwnPort, std::chrono::seconds(20)), ConnectionTrial::Stands);
}

TEST_P(DatagramProbeTest, WhatBelongsToNoPacketOfItsOwnIsNoAnswer) {
  const DatagramGateway gateway([](const Datagram& datagram, unsigned int number) {
    std::vector<Datagram> answers = {{}, {0}, Datagram(2048, 0xff), datagram};
    for (const Datagram& right : AnswersOf(GetParam())(datagram, number)) {
      for (std::size_t i = 1; i <= right.size(); ++i) {
        answers.emplace_back(right.begin(), right.end() - static_cast<std::ptrdiff_t>(i));
      }
    }
    Datagram anothers = datagram;
    anothers[GetParam() == ProbeKind::OpenVpn ? 1 : GetParam() == ProbeKind::Ike ? 0 : 15] ^= 1;
    answers.push_back(AnswersOf(GetParam())(anothers, number).front());
    return number == 0 ? answers : AnswersOf(GetParam())(datagram, number);
  });
  Ask(GetParam(), gateway.Where().port);
  EXPECT_EQ(probe(gateway.Where().port), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(gateway.Count(), 2U) << "the first one was not answered";
}

INSTANTIATE_TEST_SUITE_P(Kinds, DatagramProbeTest,
                         testing::Values(ProbeKind::OpenVpn, ProbeKind::Ike, ProbeKind::Quic));

TEST_F(DatagramProbeTest, ALostPacketIsRepeatedAndDoesNotCount) {
  const DatagramGateway gateway([](const Datagram& datagram, unsigned int number) {
    return number == 0 ? std::vector<Datagram>() : DatagramGateway::OpenVpn(datagram, number);
  });
  Ask(ProbeKind::OpenVpn);
  EXPECT_EQ(probe(gateway.Where().port), HTTP_SESSION_SUCCESS);
  EXPECT_LT(report().networkRttUs, report().totalUs / 2);
}

TEST_F(DatagramProbeTest, APortThatNobodyHasRefuses) {
  Endpoint nobody;
  {
    const DatagramGateway gone(DatagramGateway::OpenVpn);
    nobody = gone.Where();
  }
  Ask(ProbeKind::OpenVpn);
  EXPECT_EQ(probe(nobody.port), HTTP_SESSION_ERROR_CANNOT_CONNECT);
  EXPECT_EQ(tryConnection("127.0.0.1", nobody.port, std::chrono::seconds(20)),
            ConnectionTrial::Dead);
}

TEST_F(DatagramProbeTest, SilenceIsATimeOutAndACancelEndsIt) {
  const DatagramGateway silent(
      [](const Datagram&, unsigned int) { return std::vector<Datagram>(); });
  Ask(ProbeKind::OpenVpn);
  EXPECT_EQ(probe(silent.Where().port, 1), HTTP_SESSION_ERROR_TIMEOUT);
  EXPECT_EQ(silent.Count(), 2U);
  watcher->cancel();
  EXPECT_EQ(probe(silent.Where().port), HTTP_SESSION_ERROR_TIMEOUT);
}

TEST_F(DatagramProbeTest, OnlyTheGatewaysThatAreNamedAreAskedSo) {
  const DatagramGateway gateway(DatagramGateway::OpenVpn);
  const ScriptedServer server(answering(kOk));
  HttpProbe::setHows({{{{"127.0.0.1", gateway.Where().port}, {ProbeKind::OpenVpn}}}, {}});
  EXPECT_EQ(probe(gateway.Where().port), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.uiHttpStatusCode, 0U);
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.uiHttpStatusCode, 200U);
}

TEST_F(DatagramProbeTest, ASocketThatMayNotBeUsedIsNot) {
  class Forbids : public RecordingWatcher {
    bool socketOpened(int /*socket*/, int /*family*/) override { return false; }
  };
  const DatagramGateway gateway(DatagramGateway::OpenVpn);
  Ask(ProbeKind::OpenVpn);
  const CTask::Scope own(std::make_shared<Forbids>());
  EXPECT_EQ(probe(gateway.Where().port), HTTP_SESSION_ERROR_CANNOT_CONNECT);
  EXPECT_EQ(gateway.Count(), 0U);
}

}  // namespace
}  // namespace tests
