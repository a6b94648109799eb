// How probes leave the machine: interface, source address, mark, and a client's changes to their
// sockets.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/capi/c_door_fixture.h"
#include "tests/support/LoopbackSockets.h"

namespace tests {
namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;

/// Skips a test that cannot run here, if skipping is allowed.
#define SKIP_UNLESS(condition, reason)              \
  if (!(condition)) {                               \
    ASSERT_EQ(std::getenv("AHS_NO_SKIP"), nullptr); \
    GTEST_SKIP() << (reason);                       \
  }                                                 \
  static_assert(true, "takes a semicolon")

TEST(SourceAddress, ReachesHeadendsOfItsFamilyAlone) {
  SKIP_UNLESS(hasAddress("::1"), "no IPv6 here");
  const Gateway four(Gateway::All);
  const Gateway six(Gateway::Settings{.where = "::1"});
  ahs::Library library(optionsFor({four.Address(), six.Address()}));
  ahs::Request request = Reconnection;
  request.sourceAddress = "127.0.0.1";
  EXPECT_THAT(library.select(request).headends, ElementsAre(four.Address()));
  EXPECT_THAT(six.Peers(), IsEmpty());
  request.sourceAddress = "::1";
  EXPECT_THAT(library.select(request).headends, ElementsAre(six.Address()));
}

/// A socket callback's observations of one socket.
struct Seen {
  std::string interface;
  unsigned int mark = 0;
  std::string source;
  bool isStream = false;
  bool isConnected = false;
};

Seen look(int socket) {
  Seen seen;
  std::array<char, IFNAMSIZ> interface {};
  socklen_t length = interface.size();
  EXPECT_EQ(getsockopt(socket, SOL_SOCKET, SO_BINDTODEVICE, interface.data(), &length), 0);
  seen.interface = interface.data();
  length = sizeof seen.mark;
  EXPECT_EQ(getsockopt(socket, SOL_SOCKET, SO_MARK, &seen.mark, &length), 0);
  sockaddr_in where{};
  length = sizeof where;
  EXPECT_EQ(getsockname(socket, reinterpret_cast<sockaddr*>(&where), &length), 0);
  EXPECT_EQ(where.sin_family, AF_INET);
  std::array<char, INET_ADDRSTRLEN> text{};
  seen.source = inet_ntop(AF_INET, &where.sin_addr, text.data(), text.size());
  int type = 0;
  length = sizeof type;
  EXPECT_EQ(getsockopt(socket, SOL_SOCKET, SO_TYPE, &type, &length), 0);
  seen.isStream = type == SOCK_STREAM;
  length = sizeof where;
  seen.isConnected = getpeername(socket, reinterpret_cast<sockaddr*>(&where), &length) == 0;
  return seen;
}

/// A client that inspects every socket.
class SocketCallback : public testing::Test {
 protected:
  /// One whole selection with three probes.
  ahs::Result Select(const ahs::Request& request, const std::function<bool()>& answer) {
    m_client.atSocket = [this, answer](int socket) {
      const std::lock_guard<std::mutex> guard(m_mutex);
      m_seen.push_back(look(socket));
      EXPECT_NE(std::this_thread::get_id(), m_thread);
      return answer();
    };
    ahs::Library library(optionsFor({m_gateway.Address()}, {{"SelectionPingsPerHeadend", "3"}}));
    return m_client.Select(library, request).wait();
  }

  Gateway m_gateway{Gateway::All};
  Client m_client;
  const std::thread::id m_thread = std::this_thread::get_id();
  std::mutex m_mutex;
  std::vector<Seen> m_seen;
};

TEST_F(SocketCallback, IsGivenEverySocketBeforeItConnects) {
  EXPECT_EQ(Select(Reconnection, [] { return true; }).status, ahs::AddedToCache);
  EXPECT_THAT(m_seen, SizeIs(m_gateway.CountConnections()));
  EXPECT_THAT(m_seen, Each(AllOf(Field(&Seen::isStream, true), Field(&Seen::isConnected, false),
                                 Field(&Seen::interface, ""), Field(&Seen::mark, 0U),
                                 Field(&Seen::source, "0.0.0.0"))));
}

TEST_F(SocketCallback, FindsInterfaceSourceAddressAndMarkSet) {
  SKIP_UNLESS(geteuid() == 0, "a mark takes CAP_NET_ADMIN");
  constexpr unsigned int Mark = 0x4711;
  ahs::Request request;  // with a test probe
  request.interfaceName = "lo";
  request.sourceAddress = "127.0.0.3";
  request.mark = Mark;
  EXPECT_EQ(Select(request, [] { return true; }).status, ahs::AddedToCache);
  EXPECT_THAT(m_seen, SizeIs(4));
  EXPECT_THAT(m_seen, Each(AllOf(Field(&Seen::interface, "lo"), Field(&Seen::mark, Mark),
                                 Field(&Seen::source, "127.0.0.3"))));
  EXPECT_THAT(m_gateway.Peers(), AllOf(SizeIs(4), Each("127.0.0.3")));
}

TEST_F(SocketCallback, ThatRefusesOrThrowsFailsTheProbeAndConnectsNothing) {
  for (const std::function<bool()>& answer :
       {std::function<bool()>([] { return false; }),
        std::function<bool()>([]() -> bool { throw 4711; })}) {
    const ahs::Result result = Select(Reconnection, answer);
    EXPECT_EQ(result.status, ahs::SelectionFailure);
    EXPECT_EQ(result.candidates.at(0).outcome, ahs::Outcome::CannotConnect);
    EXPECT_EQ(m_gateway.CountConnections(), 0U);
  }
}

TEST(SocketCallbacks, ComeSeveralAtATime) {
  const Gateway gateways[2] = {Gateway(Gateway::All), Gateway(Gateway::All)};
  std::atomic<int> inside{0};
  Client client;
  client.atSocket = [&](int) {
    ++inside;
    return eventually([&] { return inside == 2; });
  };
  ahs::Library library(optionsFor({gateways[0].Address(), gateways[1].Address()}));
  EXPECT_THAT(client.Select(library).wait().headends, SizeIs(2));
}

}  // namespace
}  // namespace tests
