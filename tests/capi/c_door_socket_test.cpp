// Where probes leave the machine: interface, source address, mark, and what a client does to their
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
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/capi/c_door_fixture.h"
#include "tests/support/LoopbackSockets.h"

namespace tests {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

/// Skips a test that cannot be run here, where that is allowed.
#define SKIP_UNLESS(condition, reason)              \
  if (!(condition)) {                               \
    ASSERT_EQ(std::getenv("AHS_NO_SKIP"), nullptr); \
    GTEST_SKIP() << (reason);                       \
  }                                                 \
  static_assert(true, "takes a semicolon")

TEST(SourceAddress, IsWhereEveryProbeComesFrom) {
  const Gateway gateway;
  const Library library({gateway.Address()}, {{"SelectionPingsPerHeadend", "2"}});
  const Result result = selectOnce(library, [](ahs_request& request) {
    request.reason = AHS_REASON_CONNECTION;  // with a test probe
    request.source_address = "127.0.0.2";
  });
  EXPECT_EQ(result.status, AHS_ADDED_TO_CACHE);
  EXPECT_THAT(gateway.Peers(), ElementsAre("127.0.0.2", "127.0.0.2", "127.0.0.2"));
}

TEST(SourceAddress, ReachesHeadendsOfItsFamilyAlone) {
  SKIP_UNLESS(hasAddress("::1"), "no IPv6 here");
  Gateway::Settings settings;
  const Gateway four(settings);
  settings.where = "::1";
  const Gateway six(settings);
  const Library library({four.Address(), six.Address()});
  const Result fromFour =
      selectOnce(library, [](ahs_request& request) { request.source_address = "127.0.0.1"; });
  EXPECT_THAT(fromFour.headends, ElementsAre(four.Address()));
  EXPECT_EQ(fromFour.Of(six.Address()).metric, AHS_NO_METRIC);
  EXPECT_THAT(six.Peers(), IsEmpty());
  const Result fromSix =
      selectOnce(library, [](ahs_request& request) { request.source_address = "::1"; });
  EXPECT_THAT(fromSix.headends, ElementsAre(six.Address()));
}

/// What a socket callback has seen of one socket.
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

/// A client that looks at every socket that it is given.
class SocketCallback : public testing::Test {
 protected:
  SocketCallback() {
    m_client.atSocket = [this](int socket, ahs_selection*) {
      const std::lock_guard<std::mutex> guard(m_mutex);
      m_seen.push_back(look(socket));
      m_threads.push_back(std::this_thread::get_id());
      return m_answer;
    };
  }

  Gateway m_gateway;
  Client m_client;
  int m_answer = 0;
  std::mutex m_mutex;
  std::vector<Seen> m_seen;
  std::vector<std::thread::id> m_threads;
};

TEST_F(SocketCallback, IsGivenEverySocketBeforeItConnects) {
  const Library library({m_gateway.Address()}, {{"SelectionPingsPerHeadend", "3"}});
  const Selection selection(library, m_client);
  EXPECT_EQ(selection.Wait().status, AHS_ADDED_TO_CACHE);
  EXPECT_THAT(m_seen, SizeIs(m_gateway.CountConnections()));
  EXPECT_THAT(m_seen, Each(AllOf(Field(&Seen::isStream, true), Field(&Seen::isConnected, false),
                                 Field(&Seen::interface, ""), Field(&Seen::mark, 0U),
                                 Field(&Seen::source, "0.0.0.0"))));
  EXPECT_THAT(m_threads, Each(testing::Ne(std::this_thread::get_id())));
}

TEST_F(SocketCallback, FindsInterfaceSourceAddressAndMarkSet) {
  SKIP_UNLESS(geteuid() == 0, "a mark takes CAP_NET_ADMIN");
  constexpr unsigned int Mark = 0x4711;
  const Library library({m_gateway.Address()});
  const Selection selection(library, m_client, [](ahs_request& request) {
    request.reason = AHS_REASON_CONNECTION;
    request.interface_name = "lo";
    request.source_address = "127.0.0.3";
    request.mark = Mark;
  });
  EXPECT_EQ(selection.Wait().status, AHS_ADDED_TO_CACHE);
  EXPECT_THAT(m_seen, SizeIs(2)) << "the test probe and one";
  EXPECT_THAT(m_seen, Each(AllOf(Field(&Seen::interface, "lo"), Field(&Seen::mark, Mark),
                                 Field(&Seen::source, "127.0.0.3"))));
}

TEST_F(SocketCallback, ThatRefusesFailsTheProbeAndConnectsNothing) {
  m_answer = 1;
  const Library library({m_gateway.Address()});
  const Selection selection(library, m_client);
  const Result result = selection.Wait();
  EXPECT_EQ(result.status, AHS_ERROR_SELECTION_FAILURE);
  EXPECT_EQ(result.Of(m_gateway.Address()).outcome, std::uint32_t{AHS_OUTCOME_CANNOT_CONNECT});
  EXPECT_EQ(m_gateway.CountConnections(), 0U);
}

TEST(SocketCallbacks, ComeSeveralAtATime) {
  const Gateway gateways[2];
  std::atomic<int> inside{0};
  Client client;
  client.atSocket = [&](int, ahs_selection*) {
    ++inside;
    return eventually([&] { return inside == 2; }) ? 0 : 1;
  };
  const Library library({gateways[0].Address(), gateways[1].Address()});
  const Selection selection(library, client);
  EXPECT_THAT(selection.Wait().headends, SizeIs(2));
}

/// A place to leave from that is none.
struct NoPlace {
  const char* member;
  const char* ahs_request::*where;
  const char* value;
};

TEST(Request, WhereProbesCannotLeaveIsRefused) {
  constexpr NoPlace places[] = {
      {"interface_name", &ahs_request::interface_name, "nowhere0"},
      {"interface_name", &ahs_request::interface_name, "much-too-long-a-name-for-an-interface"},
      {"source_address", &ahs_request::source_address, "127.0.0"},
      {"source_address", &ahs_request::source_address, "localhost"},
      {"source_address", &ahs_request::source_address, "127.0.0.1:80"},
      {"source_address", &ahs_request::source_address, "[::1]"},
  };
  const Library library({});
  for (const NoPlace& place : places) {
    ahs_request request = AHS_REQUEST_INIT;
    request.*place.where = place.value;
    ahs_selection* selection = nullptr;
    EXPECT_EQ(ahs_select(library.Get(), &request, ahs_no_callback, nullptr, &selection),
              AHS_ERROR_BAD_PARAMETER)
        << place.member << " " << place.value;
    EXPECT_THAT(ahs_error_text(), HasSubstr(place.member));
    EXPECT_EQ(selection, nullptr);
    ahs_free(selection);
  }
}

}  // namespace
}  // namespace tests
