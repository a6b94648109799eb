// A selection that is cancelled, given back, or loses its library while it is under way.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "tests/capi/c_door_fixture.h"
#include "tests/support/ScriptedServer.h"

namespace tests {
namespace {

using testing::Each;
using testing::Field;
using testing::IsEmpty;

/// Many more than the test waits for.
const Preferences ManyProbes = {{"SelectionPingsPerHeadend", "100"}};

/// For a call that does not wait as it should.
constexpr std::chrono::milliseconds TimeToReturn{20};

constexpr ahs_reason Reasons[] = {AHS_REASON_CONNECTION, AHS_REASON_RECONNECTION};

/// What holds of every selection that was cancelled, once its library is down.
void expectCancelled(const Client& client) {
  EXPECT_EQ(client.Status(), AHS_ERROR_CANCELLED);
  EXPECT_THAT(client.Probes(), Each(Field(&Probe::afterResult, false)));
}

/// Whether a connection that waits is the gateway's first or a later one, and what it is for.
class Cancelling : public testing::TestWithParam<ahs_reason> {};

INSTANTIATE_TEST_SUITE_P(Cancel, Cancelling, testing::ValuesIn(Reasons), [](const auto& instance) {
  return instance.param == AHS_REASON_CONNECTION ? "DuringTheTestProbe" : "DuringTheMeasurement";
});

TEST_P(Cancelling, EndsTheSelectionAtOnceAndClosesItsConnections) {
  Gateway gateway(Gateway::silent());
  Client client;
  Library library({gateway.Address()}, ManyProbes);
  const Selection selection(library, client,
                            [](ahs_request& request) { request.reason = GetParam(); });
  ASSERT_TRUE(gateway.WaitUntilAsked());

  EXPECT_EQ(ahs_cancel(selection.Get()), AHS_SUCCESS);
  EXPECT_EQ(ahs_cancel(selection.Get()), AHS_SUCCESS) << "twice tells once";
  const ahs_result* const result = ahs_wait(selection.Get(), 0);
  ASSERT_NE(result, nullptr) << "its result is there when the call returns";
  EXPECT_EQ(result->status, AHS_ERROR_CANCELLED);
  EXPECT_EQ(result->reason, std::uint32_t{GetParam()});
  EXPECT_EQ(result->headend_count, 0U);
  EXPECT_EQ(result->candidate_count, 1U);
  EXPECT_TRUE(client.WaitUntilTold());
  EXPECT_TRUE(gateway.WaitUntilLeft());

  library.Stop();
  EXPECT_EQ(gateway.CountConnections(), 1U) << "further probes were due";
  expectCancelled(client);
}

TEST(Cancel, EndsAProbeWhoseConnectionIsNotThere) {
  const SilentPort dead;
  Signal connects;
  int socket = -1;
  Client client;
  client.atSocket = [&](int opened, ahs_selection*) {
    socket = opened;
    connects.Give();
    return 0;
  };
  Library library({"127.0.0.1:" + std::to_string(dead.port())});
  const Selection selection(library, client);
  ASSERT_TRUE(connects.Wait());
  EXPECT_GE(fcntl(socket, F_GETFD), 0);
  ahs_cancel(selection.Get());
  library.Stop();
  EXPECT_EQ(fcntl(socket, F_GETFD), -1) << "the stop does not wait for a probe's time limit";
  expectCancelled(client);
}

TEST(Cancel, KeepsTheHeadendUsedLast) {
  Gateway gateway(Gateway::silent());
  Client client;
  const Library library({gateway.Address()});
  const std::string last = gateway.Address();
  const Selection selection(library, client,
                            [&](ahs_request& request) { request.last_headend = last.c_str(); });
  ASSERT_TRUE(gateway.WaitUntilAsked());
  ahs_cancel(selection.Get());
  EXPECT_THAT(selection.Wait().headends, testing::ElementsAre(last));
}

TEST(Cancel, InsideTheSocketCallbackConnectsNothing) {
  Gateway gateway;
  Client client;
  client.atSocket = [](int, ahs_selection* selection) {
    EXPECT_EQ(ahs_cancel(selection), AHS_SUCCESS);
    return 0;
  };
  Library library({gateway.Address()}, ManyProbes);
  const Selection selection(library, client);
  EXPECT_TRUE(client.WaitUntilTold());
  library.Stop();
  expectCancelled(client);
  EXPECT_EQ(gateway.CountConnections(), 0U);
}

TEST(Cancel, DoesNothingToASelectionWhoseResultIsThere) {
  const Gateway gateway;
  Client client;
  Library library({gateway.Address()});
  const Selection selection(library, client);
  ASSERT_EQ(selection.Wait().status, AHS_ADDED_TO_CACHE);
  EXPECT_EQ(ahs_cancel(selection.Get()), AHS_SUCCESS);
  EXPECT_EQ(selection.Wait().status, AHS_ADDED_TO_CACHE);
  library.Stop();
  EXPECT_EQ(client.Status(), AHS_ADDED_TO_CACHE);
}

TEST(Cancel, LeavesOtherSelectionsAlone) {
  Gateway gateway(Gateway::silent());
  Client cancelled;
  Client other;
  const Library library({gateway.Address()});
  const Selection first(library, cancelled);
  const Selection second(library, other);
  ASSERT_TRUE(gateway.WaitUntilAsked(2));
  ahs_cancel(first.Get());
  ASSERT_TRUE(gateway.WaitUntilLeft());
  gateway.Answer(UINT_MAX);
  EXPECT_EQ(second.Wait().status, AHS_ADDED_TO_CACHE);
  EXPECT_EQ(first.Wait().status, AHS_ERROR_CANCELLED);
}

TEST(Cancel, AtAnyMomentEndsInOneResult) {
  constexpr int Rounds = 50;
  const Gateway gateway;
  for (int round = 0; round < Rounds; ++round) {
    Client client;
    Library library({gateway.Address()});
    Selection selection(library, client);
    std::this_thread::sleep_for(std::chrono::microseconds(40 * round));
    EXPECT_EQ(ahs_cancel(selection.Get()), AHS_SUCCESS);
    const ahs_status status = selection.Wait().status;
    EXPECT_TRUE(status == AHS_ERROR_CANCELLED || status == AHS_ADDED_TO_CACHE) << status;
    library.Stop();
    EXPECT_EQ(client.Status(), status);
    EXPECT_THAT(client.Probes(), Each(Field(&Probe::afterResult, false)));
  }
}

TEST(Free, EndsASelectionWithoutACallback) {
  Gateway gateway(Gateway::silent());
  Client client;
  Library library({gateway.Address()}, ManyProbes);
  Selection selection(library, client);
  ASSERT_TRUE(gateway.WaitUntilAsked());
  EXPECT_EQ(selection.Free(), AHS_SUCCESS);
  const std::size_t toldSoFar = client.Probes().size();
  EXPECT_TRUE(gateway.WaitUntilLeft());
  library.Stop();
  EXPECT_EQ(gateway.CountConnections(), 1U);
  EXPECT_THAT(client.Results(), IsEmpty());
  EXPECT_EQ(client.Probes().size(), toldSoFar);
}

/// Whether `giveBack` comes back only when the callback that runs has returned.
bool waitsForTheCallback(const std::function<void(Library&, Selection&)>& giveBack) {
  Signal entered;
  Signal mayReturn;
  std::atomic<bool> hasReturned{false};
  Client client;
  client.atResult = [&](ahs_selection*) {
    entered.Give();
    mayReturn.Wait();
    hasReturned = true;
  };
  Library library({});
  Selection selection(library, client);
  EXPECT_TRUE(entered.Wait());
  auto hadReturned = std::async(std::launch::async, [&] {
    giveBack(library, selection);
    return hasReturned.load();
  });
  std::this_thread::sleep_for(TimeToReturn);
  mayReturn.Give();
  return hadReturned.get();
}

TEST(Free, WaitsForTheCallbackThatRuns) {
  EXPECT_TRUE(waitsForTheCallback([](Library&, Selection& selection) { selection.Free(); }));
}

TEST(Free, DoesNotWaitForACallbackOfAnotherSelection) {
  Signal entered;
  Signal mayReturn;
  Client slow;
  slow.atResult = [&](ahs_selection*) {
    entered.Give();
    mayReturn.Wait();
  };
  Client queued;
  Library library({});
  const Selection first(library, slow);
  ASSERT_TRUE(entered.Wait());
  Selection second(library, queued);
  second.Wait();
  EXPECT_EQ(second.Free(), AHS_SUCCESS);
  mayReturn.Give();
  library.Stop();
  EXPECT_THAT(queued.Results(), IsEmpty());
}

TEST(Free, InsideItsOwnCallbackLetsTheResultHoldUntilThen) {
  Client client;
  Signal done;
  ahs_status status = UINT32_MAX;
  client.atResult = [&](ahs_selection* selection) {
    const ahs_result* const result = ahs_wait(selection, AHS_WAIT_FOREVER);
    status = result == nullptr ? UINT32_MAX : result->status;
    EXPECT_EQ(ahs_free(selection), AHS_SUCCESS);
    done.Give();
  };
  const Library library({});
  ASSERT_EQ(ahs_select(library.Get(), nullptr, Client::OnResult, &client, &client.selection),
            AHS_SUCCESS);
  EXPECT_TRUE(done.Wait());
  EXPECT_EQ(status, AHS_ERROR_NO_HEADENDS);
  EXPECT_EQ(ahs_free(client.selection), AHS_ERROR_BAD_PARAMETER);
}

TEST(Free, InsideTheProgressCallbackIsTheLastThatItIsTold) {
  Gateway gateway;
  Client client;
  Signal done;
  client.atProbe = [&](const ahs_probe&, ahs_selection* selection) {
    EXPECT_EQ(ahs_free(selection), AHS_SUCCESS);
    done.Give();
  };
  Library library({gateway.Address()}, ManyProbes);
  ahs_request request = AHS_REQUEST_INIT;
  request.on_progress = Client::OnProgress;
  request.progress_context = &client;
  ASSERT_EQ(ahs_select(library.Get(), &request, Client::OnResult, &client, &client.selection),
            AHS_SUCCESS);
  EXPECT_TRUE(done.Wait());
  library.Stop();
  EXPECT_EQ(client.Probes().size(), 1U);
  EXPECT_THAT(client.Results(), IsEmpty());
}

TEST(Stop, CancelsWhatIsUnderWayAndTellsItBeforeItReturns) {
  Gateway gateway(Gateway::silent());
  Client clients[3];
  Library library({gateway.Address()}, ManyProbes);
  const Selection selections[] = {
      {library, clients[0]}, {library, clients[1]}, {library, clients[2]}};
  ASSERT_TRUE(gateway.WaitUntilAsked(3));
  library.Stop();
  for (const Client& client : clients) {
    expectCancelled(client);
  }
  for (const Selection& selection : selections) {
    EXPECT_EQ(selection.Wait().status, AHS_ERROR_CANCELLED) << "handles stay good";
  }
  EXPECT_TRUE(gateway.WaitUntilLeft(3));
  EXPECT_EQ(gateway.CountConnections(), 3U);
}

TEST(Stop, WaitsForTheCallbackThatRuns) {
  EXPECT_TRUE(waitsForTheCallback([](Library& library, Selection&) { library.Stop(); }));
}

TEST(Stop, InsideACallbackTakesTheLibraryDown) {
  Gateway gateway(Gateway::silent());
  Client other;
  Client client;
  Signal done;
  Library library({gateway.Address()});
  client.atResult = [&](ahs_selection*) {
    library.Stop();
    EXPECT_EQ(other.Status(), AHS_ERROR_CANCELLED) << "told before the stop returns";
    done.Give();
  };
  const Selection first(library, other);
  const Selection second(library, client);
  ASSERT_TRUE(gateway.WaitUntilAsked(2));
  ahs_cancel(second.Get());
  EXPECT_TRUE(done.Wait());
  EXPECT_EQ(first.Wait().status, AHS_ERROR_CANCELLED);
  EXPECT_EQ(Library({}).Status(), AHS_SUCCESS) << "it can be started again";
}

TEST(Stop, InsideTheLogCallbackIsTheLastThatItIsTold) {
  struct Context {
    ahs_library* library = nullptr;
    Signal isUp;
    Signal done;
    int messages = 0;
  } context;
  ahs_options options = AHS_OPTIONS_INIT;
  options.log_context = &context;
  options.on_log = [](const ahs_log_message*, void* given) {
    Context& own = *static_cast<Context*>(given);
    own.isUp.Wait();
    if (++own.messages == 2) {
      EXPECT_EQ(ahs_stop(own.library), AHS_SUCCESS);
      own.done.Give();
    }
  };
  ASSERT_EQ(ahs_start(&options, &context.library), AHS_SUCCESS);
  Client client;
  ASSERT_EQ(ahs_select(context.library, nullptr, Client::OnResult, &client, &client.selection),
            AHS_SUCCESS);
  ASSERT_NE(ahs_wait(client.selection, AHS_WAIT_FOREVER), nullptr);
  context.isUp.Give();
  EXPECT_TRUE(context.done.Wait());
  EXPECT_EQ(client.Status(), AHS_ERROR_NO_HEADENDS);
  const int told = context.messages;
  EXPECT_EQ(ahs_free(client.selection), AHS_SUCCESS);
  {
    const Library next({});
    EXPECT_EQ(selectOnce(next).status, AHS_ERROR_NO_HEADENDS);
  }
  EXPECT_EQ(context.messages, told);
}

}  // namespace
}  // namespace tests
