// A probe's use of the kernel's data about its connection. This program replaces getsockopt(2) for
// TCP_INFO, and slows connect(2) down, which takes no time on a loopback interface.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <string>
#include <thread>

#include "tests/support/ScriptedServer.h"
#include "tests/unit/common/http_probe_fixture.h"
#include "vpn/Common/IP/HttpProbe.h"

namespace {

/// The scripted kernel's answers.
struct KERNEL {
  std::atomic<unsigned int> minRttUs{0};
  std::atomic<unsigned int> retransmissions{0};
  std::atomic<std::size_t> infoLength{sizeof(tcp_info)};
  std::atomic<bool> fails{false};
  std::atomic<unsigned int> asked{0};
  std::atomic<unsigned int> connectTakesMs{0};
} kernel;

}  // namespace

extern "C" {

int __real_getsockopt(int socket, int level, int option, void* value, socklen_t* length);
int __wrap_getsockopt(int socket, int level, int option, void* value, socklen_t* length);

int __wrap_getsockopt(int socket, int level, int option, void* value, socklen_t* length) {
  if (level != IPPROTO_TCP || option != TCP_INFO) {
    return __real_getsockopt(socket, level, option, value, length);
  }
  ++kernel.asked;
  if (kernel.fails) {
    errno = ENOPROTOOPT;
    return -1;
  }
  tcp_info info{};
  info.tcpi_min_rtt = kernel.minRttUs;
  info.tcpi_total_retrans = kernel.retransmissions;
  *length = static_cast<socklen_t>(std::min<std::size_t>(*length, kernel.infoLength));
  std::memcpy(value, &info, *length);
  return 0;
}

int connect(int socket, const sockaddr* address, socklen_t length) {
  using Function = int (*)(int, const sockaddr*, socklen_t);
  static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "connect"));
  std::this_thread::sleep_for(std::chrono::milliseconds(kernel.connectTakesMs));
  return real(socket, address, length);
}

}  // extern "C"

namespace tests {
namespace {

constexpr unsigned int kConnectTakesMs = 60;

using HttpProbeKernelTest = HttpProbeTest;

TEST_F(HttpProbeKernelTest, TheSmallestRoundTripIsRoundedToTheNearestMillisecondAndIsNeverNone) {
  const ScriptedServer server(answering(kOk));
  for (const auto& [microseconds, rtt] :
       std::initializer_list<std::pair<unsigned int, unsigned int>>{
           {1, 1}, {499, 1}, {500, 1}, {1499, 1}, {1500, 2}, {77'000, 77}}) {
    kernel.minRttUs = microseconds;
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
    EXPECT_EQ(results.uiRtt, rtt);
    EXPECT_EQ(report().networkRttUs, microseconds);
  }
}

TEST_F(HttpProbeKernelTest, AKeptConnectionIsAskedAtTheEndOfEachProbe) {
  const ScriptedServer server(answering(kOk));
  const HttpProbe::KeptConnection kept;
  for (const unsigned int milliseconds : {30U, 20U, 10U}) {
    kernel.minRttUs = milliseconds * 1000;
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
    EXPECT_EQ(results.uiRtt, milliseconds);
  }
  EXPECT_TRUE(report().reused);
}

TEST_F(HttpProbeKernelTest, ARepeatedAttemptToConnectIsBelievedForAsLongAsItTookAndNotKept) {
  const ScriptedServer server(answering(kOk));
  const HttpProbe::KeptConnection kept;
  kernel.minRttUs = 1000;
  kernel.connectTakesMs = kConnectTakesMs;
  HttpProbe::setRoundTripMeasure(HttpProbe::RoundTripMeasure::Auto);
  for (const unsigned int times : {1U, 1U, 0U}) {
    kernel.retransmissions = times;
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
    EXPECT_FALSE(report().reused);
    EXPECT_EQ(results.uiRtt >= kConnectTakesMs, times > 0);
  }
  HttpProbe::setRoundTripMeasure(HttpProbe::RoundTripMeasure::Network);
  kernel.connectTakesMs = 0;
}

TEST_F(HttpProbeKernelTest, AConnectionThatIsClosedIsAskedAsItCloses) {
  kernel.minRttUs = 25'000;
  EXPECT_EQ(probeOf(closeAfterRequest), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  EXPECT_EQ(results.uiRtt, 25U);
}

/// A kernel without an answer.
struct SILENCE {
  const char* name;
  unsigned int minRttUs;
  std::size_t infoLength;
  bool fails;
};

class HttpProbeOfASilentKernel : public HttpProbeTest, public testing::WithParamInterface<SILENCE> {
 protected:
  void SetUp() override {
    kernel.minRttUs = GetParam().minRttUs;
    kernel.infoLength = GetParam().infoLength;
    kernel.fails = GetParam().fails;
    kernel.connectTakesMs = kConnectTakesMs;
  }
  void TearDown() override {
    kernel.infoLength = sizeof(tcp_info);
    kernel.fails = false;
    kernel.connectTakesMs = 0;
    HttpProbeTest::TearDown();
  }
};

TEST_P(HttpProbeOfASilentKernel, TakesTheTimeToConnectInsteadAndRemembersItWithTheConnection) {
  const ScriptedServer server(answering(kOk));
  const HttpProbe::KeptConnection kept;
  const unsigned int before = kernel.asked;
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  const unsigned int first = results.uiRtt;
  EXPECT_GT(kernel.asked, before);
  EXPECT_GE(first, kConnectTakesMs);
  EXPECT_LE(first, (report().connectUs + 500) / 1000);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(report().networkRttUs, -1);
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
    EXPECT_TRUE(report().reused);
    EXPECT_EQ(results.uiRtt, first);
  }
}

TEST_P(HttpProbeOfASilentKernel, HasARoundTripForAnAnswerThatIsNoHttpToo) {
  const auto alert = [](Connection& connection) {
    connection.readSome();
    connection.send(std::string("\x15\x03\x01\x00\x02\x02\x46", 7));
    connection.waitForPeer();
  };
  const auto reset = [](Connection& connection) { connection.resetAtEnd(); };
  for (const STATUSCODE status :
       {probeOf(closeAfterRequest), probeOf(alert, true), probeOf(reset)}) {
    EXPECT_EQ(status, HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  }
  for (const HttpProbe::Report& each : watcher->ended) {
    EXPECT_GE(each.rttMs, kConnectTakesMs);
  }
}

INSTANTIATE_TEST_SUITE_P(Kernel, HttpProbeOfASilentKernel,
                         testing::Values(SILENCE{"WithoutTheField", 7000,
                                                 offsetof(tcp_info, tcpi_min_rtt), false},
                                         SILENCE{"WithHalfOfTheField", 7000,
                                                 offsetof(tcp_info, tcpi_min_rtt) + 2, false},
                                         SILENCE{"WithoutASample", ~0U, sizeof(tcp_info), false},
                                         SILENCE{"ThatLeavesItZero", 0, sizeof(tcp_info), false},
                                         SILENCE{"ThatRefuses", 7000, sizeof(tcp_info), true}),
                         [](const auto& param) { return param.param.name; });

}  // namespace
}  // namespace tests
