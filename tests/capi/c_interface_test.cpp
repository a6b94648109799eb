// The C interface: what a client in another language may rely on, against servers on the loopback
// interface. Every test that is told something asks for it on the thread that it was told on.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include "capi/ahs.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/LoopbackSockets.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using tests::Connection;
using tests::RefusingPort;
using tests::ScriptedServer;
using tests::SilentListener;

constexpr std::uint32_t kShort = 20;

std::string addressOf(const ScriptedServer& server) {
  return "127.0.0.1:" + std::to_string(server.port());
}

ScriptedServer::Script webServer() {
  return tests::answering("HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
}

/// The library, up for the addresses of a test.
class Library {
 public:
  explicit Library(const std::vector<std::string>& addresses) {
    std::vector<const char*> texts;
    for (const std::string& address : addresses) {
      texts.push_back(address.c_str());
    }
    ahs_options options = AHS_OPTIONS_INIT;
    options.addresses = texts.data();
    options.address_count = texts.size();
    // A selection that an earlier test has given up may still be coming to its end.
    tests::eventually([&] {
      m_status = ahs_start(&options, &m_library);
      return m_status != AHS_ERROR_ALREADY_STARTED;
    });
  }
  ~Library() { ahs_stop(m_library); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  ahs_library* Get() const { return m_library; }
  ahs_status Status() const { return m_status; }

  void Stop() { ahs_stop(std::exchange(m_library, nullptr)); }

 private:
  ahs_library* m_library = nullptr;
  ahs_status m_status = AHS_SUCCESS;
};

/// What a callback has been told, and what it does meanwhile.
struct Told {
  std::atomic<int> times{0};
  ahs_status status = 0xFFFFFFFF;
  std::uint32_t reason = 0xFFFFFFFF;
  std::vector<std::string> headends;
  std::string extraInfo;
  std::function<void()> meanwhile;
};

void onResult(const ahs_result* result, void* context) {
  Told& told = *static_cast<Told*>(context);
  told.status = result->status;
  told.reason = result->reason;
  told.headends.assign(result->headends, result->headends + result->headend_count);
  told.extraInfo = result->extra_info;
  if (told.meanwhile) {
    told.meanwhile();
  }
  ++told.times;
}

ahs_request reconnection() {
  ahs_request request = AHS_REQUEST_INIT;
  request.reason = AHS_REASON_RECONNECTION;
  return request;
}

TEST(CInterface, TellsItsVersionAndTheNamesOfCodes) {
  EXPECT_STREQ(ahs_version(), AHS_PROJECT_VERSION);
  EXPECT_STREQ(ahs_status_name(AHS_ERROR_TIMEOUT), "HEADENDSELECTION_ERROR_TIMEOUT");
  EXPECT_STREQ(ahs_status_name(AHS_ADDED_TO_CACHE), "HEADENDSELECTION_ERROR_ADDED_TO_CACHE");
  EXPECT_STREQ(ahs_status_name(12345), "UNKNOWN");
}

TEST(CInterface, ASelectionTellsItsCallbackTheResultOnce) {
  const ScriptedServer server(webServer());
  const Library library({addressOf(server)});
  ASSERT_EQ(library.Status(), AHS_SUCCESS);
  Told told;
  const ahs_request request = reconnection();
  ahs_selection* selection = nullptr;
  ASSERT_EQ(ahs_select(library.Get(), &request, onResult, &told, &selection), AHS_SUCCESS);
  EXPECT_EQ(ahs_wait(selection, AHS_WAIT_FOREVER), AHS_WAIT_DELIVERED);

  EXPECT_EQ(told.times, 1);
  EXPECT_EQ(told.status, AHS_ADDED_TO_CACHE);
  EXPECT_EQ(told.reason, std::uint32_t{AHS_REASON_RECONNECTION});
  EXPECT_THAT(told.headends, testing::ElementsAre(addressOf(server)));
  EXPECT_EQ(told.extraInfo, "");
  ahs_free(selection);
}

TEST(CInterface, WithoutACallbackTheResultIsThereAfterTheWait) {
  const ScriptedServer server(webServer());
  const Library library({addressOf(server)});
  ahs_selection* selection = nullptr;
  ASSERT_EQ(ahs_select(library.Get(), nullptr, nullptr, nullptr, &selection), AHS_SUCCESS);
  ASSERT_EQ(ahs_wait(selection, AHS_WAIT_FOREVER), AHS_WAIT_DELIVERED);

  const ahs_result* result = ahs_get_result(selection);
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->size, sizeof(ahs_result));
  EXPECT_EQ(result->reason, std::uint32_t{AHS_REASON_CONNECTION});
  ASSERT_EQ(result->headend_count, 1U);
  EXPECT_EQ(result->headends[0], addressOf(server));
  EXPECT_EQ(ahs_wait(selection, 0), AHS_WAIT_DELIVERED) << "a second wait";
  ahs_free(selection);
}

TEST(CInterface, AFailureIsToldWithItsStatus) {
  const RefusingPort closed("127.0.0.1");
  const Library library({closed.Where().Text()});
  Told told;
  const ahs_request request = reconnection();
  ahs_selection* selection = nullptr;
  ASSERT_EQ(ahs_select(library.Get(), &request, onResult, &told, &selection), AHS_SUCCESS);
  EXPECT_EQ(ahs_wait(selection, AHS_WAIT_FOREVER), AHS_WAIT_DELIVERED);
  EXPECT_EQ(told.status, AHS_ERROR_SELECTION_FAILURE);
  ahs_free(selection);
}

TEST(CInterface, WithoutHeadendsTheCallbackIsToldSo) {
  const Library library({});
  ASSERT_EQ(library.Status(), AHS_SUCCESS);
  Told told;
  ahs_selection* selection = nullptr;
  ASSERT_EQ(ahs_select(library.Get(), nullptr, onResult, &told, &selection), AHS_SUCCESS);
  EXPECT_EQ(ahs_wait(selection, AHS_WAIT_FOREVER), AHS_WAIT_DELIVERED);
  EXPECT_EQ(told.status, AHS_ERROR_NO_HEADENDS);
  ahs_free(selection);
}

TEST(CInterface, AWaitEndsAtItsTimeoutAndMayBeRepeated) {
  const SilentListener silent("127.0.0.1");
  const Library library({silent.Where().Text()});
  ahs_selection* selection = nullptr;
  ASSERT_EQ(ahs_select(library.Get(), nullptr, nullptr, nullptr, &selection), AHS_SUCCESS);
  EXPECT_EQ(ahs_wait(selection, kShort), AHS_WAIT_TIMEOUT);
  EXPECT_EQ(ahs_get_result(selection), nullptr);
  EXPECT_EQ(ahs_wait(selection, 0), AHS_WAIT_TIMEOUT);
  ahs_free(selection);
}

TEST(CInterface, CancellingWakesTheThreadThatWaits) {
  const SilentListener silent("127.0.0.1");
  const Library library({silent.Where().Text()});
  ahs_selection* selection = nullptr;
  ASSERT_EQ(ahs_select(library.Get(), nullptr, nullptr, nullptr, &selection), AHS_SUCCESS);
  auto waited =
      std::async(std::launch::async, [&] { return ahs_wait(selection, AHS_WAIT_FOREVER); });
  ahs_cancel_wait(selection);
  EXPECT_EQ(waited.get(), AHS_WAIT_CANCELLED);
  EXPECT_EQ(ahs_wait(selection, AHS_WAIT_FOREVER), AHS_WAIT_CANCELLED) << "a later wait";
  ahs_free(selection);
}

TEST(CInterface, AResultThatIsThereGoesBeforeACancelledWait) {
  const Library library({});
  ahs_selection* selection = nullptr;
  ASSERT_EQ(ahs_select(library.Get(), nullptr, nullptr, nullptr, &selection), AHS_SUCCESS);
  ASSERT_EQ(ahs_wait(selection, AHS_WAIT_FOREVER), AHS_WAIT_DELIVERED);
  ahs_cancel_wait(selection);
  EXPECT_EQ(ahs_wait(selection, AHS_WAIT_FOREVER), AHS_WAIT_DELIVERED);
  ahs_free(selection);
}

TEST(CInterface, ASelectionThatWasGivenUpCallsNobody) {
  std::atomic<bool> mayAnswer{false};
  const ScriptedServer server([&](Connection& connection) {
    connection.readHead();
    tests::eventually([&] { return mayAnswer.load(); });
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
  });
  Told told;
  {
    const Library library({addressOf(server)});
    ahs_selection* selection = nullptr;
    const ahs_request request = reconnection();
    ASSERT_EQ(ahs_select(library.Get(), &request, onResult, &told, &selection), AHS_SUCCESS);
    ahs_free(selection);
    mayAnswer = true;
    // A second selection that ends later than the first.
    ASSERT_EQ(ahs_select(library.Get(), &request, nullptr, nullptr, &selection), AHS_SUCCESS);
    ASSERT_EQ(ahs_wait(selection, AHS_WAIT_FOREVER), AHS_WAIT_DELIVERED);
    ahs_free(selection);
  }
  EXPECT_EQ(told.times, 0);
}

TEST(CInterface, GivingUpWaitsForTheCallbackThatRuns) {
  const Library library({});
  Told told;
  std::promise<void> entered;
  std::promise<void> released;
  told.meanwhile = [&] {
    entered.set_value();
    released.get_future().wait();
  };
  ahs_selection* selection = nullptr;
  ASSERT_EQ(ahs_select(library.Get(), nullptr, onResult, &told, &selection), AHS_SUCCESS);
  entered.get_future().wait();
  auto freed = std::async(std::launch::async, [&] {
    ahs_free(selection);
    return told.times.load();
  });
  released.set_value();
  EXPECT_EQ(freed.get(), 1) << "it came back before the callback had returned";
}

TEST(CInterface, ACallbackMayGiveUpItsOwnSelectionAndAskIt) {
  const Library library({});
  Told told;
  ahs_selection* selection = nullptr;
  std::promise<void> handleIsHere;
  std::promise<void> done;
  ahs_wait_result waited = AHS_WAIT_TIMEOUT;
  bool hasResult = false;
  told.meanwhile = [&] {
    handleIsHere.get_future().wait();
    waited = ahs_wait(selection, AHS_WAIT_FOREVER);
    hasResult = ahs_get_result(selection) != nullptr;
    ahs_free(selection);
    done.set_value();
  };
  ASSERT_EQ(ahs_select(library.Get(), nullptr, onResult, &told, &selection), AHS_SUCCESS);
  handleIsHere.set_value();
  done.get_future().wait();
  EXPECT_TRUE(tests::eventually([&] { return told.times == 1; }));
  EXPECT_EQ(waited, AHS_WAIT_DELIVERED);
  EXPECT_TRUE(hasResult);
}

TEST(CInterface, StoppingTheLibraryLeavesASelectionUnderWayToItsEnd) {
  const ScriptedServer server(webServer());
  Library library({addressOf(server)});
  Told told;
  ahs_selection* selection = nullptr;
  ASSERT_EQ(ahs_select(library.Get(), nullptr, onResult, &told, &selection), AHS_SUCCESS);
  library.Stop();
  EXPECT_EQ(ahs_wait(selection, AHS_WAIT_FOREVER), AHS_WAIT_DELIVERED);
  EXPECT_EQ(told.times, 1);
  ahs_free(selection);
}

TEST(CInterface, ASecondLibraryIsRefusedAndTheFirstGoesOn) {
  const Library library({});
  const ahs_options options = AHS_OPTIONS_INIT;
  ahs_library* second = library.Get();
  EXPECT_EQ(ahs_start(&options, &second), AHS_ERROR_ALREADY_STARTED);
  EXPECT_EQ(second, nullptr);
  ahs_selection* selection = nullptr;
  EXPECT_EQ(ahs_select(library.Get(), nullptr, nullptr, nullptr, &selection), AHS_SUCCESS);
  EXPECT_EQ(ahs_wait(selection, AHS_WAIT_FOREVER), AHS_WAIT_DELIVERED);
  ahs_free(selection);
}

TEST(CInterface, ItCanBeStartedAgainOnceItWasStoppedAndItsSelectionsAreOver) {
  const SilentListener silent("127.0.0.1");
  {
    const Library library({silent.Where().Text()});
    ahs_selection* selection = nullptr;
    ASSERT_EQ(ahs_select(library.Get(), nullptr, nullptr, nullptr, &selection), AHS_SUCCESS);
    ahs_free(selection);
  }
  const Library again({});
  EXPECT_EQ(again.Status(), AHS_SUCCESS);
}

TEST(CInterface, ItCanBeStartedAgainAtOnceWhenNothingWasUnderWay) {
  { const Library library({}); }
  const ahs_options options = AHS_OPTIONS_INIT;
  ahs_library* again = nullptr;
  EXPECT_EQ(ahs_start(&options, &again), AHS_SUCCESS);
  ahs_stop(again);
}

TEST(CInterface, NullPointersAndForeignSizesAreRefused) {
  ahs_library* library = nullptr;
  ahs_options options = AHS_OPTIONS_INIT;
  EXPECT_EQ(ahs_start(nullptr, &library), AHS_ERROR_BAD_PARAMETER);
  EXPECT_EQ(ahs_start(&options, nullptr), AHS_ERROR_BAD_PARAMETER);
  options.address_count = 1;
  EXPECT_EQ(ahs_start(&options, &library), AHS_ERROR_BAD_PARAMETER) << "no addresses";
  options = AHS_OPTIONS_INIT;
  for (const std::size_t size : {std::size_t{0}, sizeof options + 1}) {
    options.size = size;
    EXPECT_EQ(ahs_start(&options, &library), AHS_ERROR_BAD_PARAMETER) << size;
  }
  EXPECT_EQ(library, nullptr);

  const Library started({});
  ahs_selection* selection = nullptr;
  ahs_request request = AHS_REQUEST_INIT;
  request.size = sizeof request + 1;
  EXPECT_EQ(ahs_select(started.Get(), &request, nullptr, nullptr, &selection),
            AHS_ERROR_BAD_PARAMETER);
  EXPECT_EQ(ahs_select(nullptr, nullptr, nullptr, nullptr, &selection), AHS_ERROR_BAD_PARAMETER);
  EXPECT_EQ(ahs_select(started.Get(), nullptr, nullptr, nullptr, nullptr), AHS_ERROR_BAD_PARAMETER);
  EXPECT_EQ(selection, nullptr);
  ahs_free(nullptr);
  ahs_stop(nullptr);
}

TEST(CInterface, AStructureOfAnOlderClientIsTakenAsFarAsItGoes) {
  const Library library({});
  ahs_request request = reconnection();
  request.size = offsetof(ahs_request, last_headend);
  // Beyond the older structure's end: must not be looked at.
  request.last_headend = reinterpret_cast<const char*>(1);
  Told told;
  ahs_selection* selection = nullptr;
  ASSERT_EQ(ahs_select(library.Get(), &request, onResult, &told, &selection), AHS_SUCCESS);
  EXPECT_EQ(ahs_wait(selection, AHS_WAIT_FOREVER), AHS_WAIT_DELIVERED);
  EXPECT_EQ(told.reason, std::uint32_t{AHS_REASON_RECONNECTION});
  ahs_free(selection);
}

TEST(CInterface, AProxyThatAsksForALoginIsToldWithItsRealm) {
  const ScriptedServer proxy(
      tests::answering("HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic "
                       "realm=\"office\"\r\nContent-Length: 0\r\n\r\n"));
  const ScriptedServer server(webServer());
  const tests::TemporaryDirectory directory;
  const std::string preferences = directory.Write("global.xml", R"(<preferences version="1">
  <preference name="ProxySettings" value="override"/>
  <preference name="ProxyHost" value="127.0.0.1"/>
  <preference name="ProxyPort" value=")" + std::to_string(proxy.port()) +
                                                                    "\"/>\n</preferences>\n");
  const std::string address = addressOf(server);
  const char* const addresses[] = {address.c_str()};
  ahs_options options = AHS_OPTIONS_INIT;
  options.global_preferences_file = preferences.c_str();
  options.addresses = addresses;
  options.address_count = 1;
  ahs_library* library = nullptr;
  ASSERT_EQ(ahs_start(&options, &library), AHS_SUCCESS);
  Told told;
  ahs_selection* selection = nullptr;
  ASSERT_EQ(ahs_select(library, nullptr, onResult, &told, &selection), AHS_SUCCESS);
  EXPECT_EQ(ahs_wait(selection, AHS_WAIT_FOREVER), AHS_WAIT_DELIVERED);
  EXPECT_EQ(told.status, AHS_ERROR_AUTH_PROXY_DETECTED);
  EXPECT_EQ(told.extraInfo, "office");
  ahs_free(selection);
  ahs_stop(library);
}

TEST(CInterface, AClientInCSelectsAndIsTold) {
  const ScriptedServer server(webServer());
  const tests::TemporaryDirectory directory;
  const std::string output = directory.File("output");
  tests::ChildProcess client({AHS_C_CLIENT, addressOf(server)}, output, directory.Path());
  ASSERT_TRUE(client.WaitForEnd(std::chrono::seconds(60)));
  EXPECT_EQ(client.ExitStatus(), 0);
  EXPECT_EQ(tests::readFile(output),
            "HEADENDSELECTION_ERROR_ADDED_TO_CACHE " + addressOf(server) + "\n");
}

}  // namespace
