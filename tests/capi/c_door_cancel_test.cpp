// A running selection that is cancelled, freed, or loses its library.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <optional>
#include <string>
#include <thread>

#include "tests/capi/c_door_fixture.h"
#include "tests/support/LoopbackSockets.h"
#include "tests/support/ScriptedServer.h"

namespace tests {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

/// More probes than the test waits for.
const Preferences ManyProbes = {{"SelectionPingsPerHeadend", "100"}};

/// The reason for a selection decides which probe waits at the gateway.
class Cancelling : public testing::TestWithParam<ahs::Reason> {};

INSTANTIATE_TEST_SUITE_P(Cancel, Cancelling,
                         testing::Values(ahs::Reason::Connection, ahs::Reason::Reconnection),
                         [](const auto& instance) {
                           return instance.param == ahs::Reason::Connection
                                      ? "DuringTheTestProbe"
                                      : "DuringTheMeasurement";
                         });

TEST_P(Cancelling, EndsTheSelectionAtOnceAndClosesItsConnections) {
  Gateway gateway;
  Client client;
  ahs::Library library(optionsFor({gateway.Address()}, ManyProbes));
  const ahs::Selection selection = client.Select(library, {.reason = GetParam()});
  ASSERT_TRUE(gateway.WaitUntilAsked());

  selection.cancel();
  selection.cancel();  // the second cancel does nothing
  const std::optional<ahs::Result> result = selection.wait(ahs::Milliseconds(0));
  ASSERT_TRUE(result) << "it is there when the call returns";
  EXPECT_EQ(result->status, ahs::Cancelled);
  EXPECT_EQ(result->reason, GetParam());
  EXPECT_THAT(result->headends, IsEmpty());
  EXPECT_THAT(result->candidates, SizeIs(1));
  EXPECT_TRUE(client.WaitUntilTold());
  EXPECT_TRUE(gateway.WaitUntilLeft());

  stop(library);
  EXPECT_EQ(gateway.CountConnections(), 1U) << "further probes were due";
  EXPECT_EQ(client.Status(), ahs::Cancelled);
}

TEST(Cancel, EndsAProbeWhoseConnectionIsNotThere) {
  const SilentPort dead;
  Signal connects;
  int socket = -1;
  Client client;
  client.atSocket = [&](int opened) {
    socket = opened;
    connects.Give();
    return true;
  };
  ahs::Library library(optionsFor({"127.0.0.1:" + std::to_string(dead.port())}));
  const ahs::Selection selection = client.Select(library);
  ASSERT_TRUE(connects.Wait());
  EXPECT_GE(fcntl(socket, F_GETFD), 0);
  selection.cancel();
  stop(library);
  EXPECT_EQ(fcntl(socket, F_GETFD), -1) << "the stop does not wait for a probe's time limit";
  EXPECT_EQ(client.Status(), ahs::Cancelled);
}

TEST(Cancel, KeepsTheHeadendUsedLastAndLeavesOtherSelectionsAlone) {
  Gateway gateway;
  Client cancelled;
  Client other;
  ahs::Library library(optionsFor({gateway.Address()}));
  const ahs::Selection first = cancelled.Select(
      library, {.reason = ahs::Reason::Reconnection, .lastHeadend = gateway.Address()});
  const ahs::Selection second = other.Select(library);
  ASSERT_TRUE(gateway.WaitUntilAsked(2));
  first.cancel();
  ASSERT_TRUE(gateway.WaitUntilLeft());
  gateway.Release();
  EXPECT_EQ(second.wait().status, ahs::AddedToCache);
  second.cancel();  // too late
  EXPECT_EQ(second.wait().status, ahs::AddedToCache);
  EXPECT_EQ(first.wait().status, ahs::Cancelled);
  EXPECT_THAT(first.wait().headends, testing::ElementsAre(gateway.Address()));
  stop(library);
  EXPECT_EQ(other.Status(), ahs::AddedToCache);
}

TEST(Cancel, InsideTheSocketCallbackConnectsNothing) {
  Gateway gateway(Gateway::All);
  Signal isStarted;
  ahs::Selection selection;
  Client client;
  client.atSocket = [&](int) {
    isStarted.Wait();
    selection.cancel();
    return true;
  };
  ahs::Library library(optionsFor({gateway.Address()}, ManyProbes));
  selection = client.Select(library);
  isStarted.Give();
  EXPECT_TRUE(client.WaitUntilTold());
  stop(library);
  EXPECT_EQ(client.Status(), ahs::Cancelled);
  EXPECT_EQ(gateway.CountConnections(), 0U);
}

TEST(Cancel, InsideTheProgressCallbackEndsASelectionThatItsClientWaitsFor) {
  const SilentListener silent("127.0.0.1");
  Client client;
  client.atProbe = [](const ahs::Probe& probe) { probe.cancel(); };
  ahs::Library library(optionsFor({silent.Where().Text()}));
  EXPECT_EQ(client.Select(library).wait().status, ahs::Cancelled);
}

TEST(Cancel, AtAnyMomentEndsInOneResult) {
  constexpr int Rounds = 50;
  const Gateway gateway(Gateway::All);
  for (int round = 0; round < Rounds; ++round) {
    Client client;
    ahs::Library library(optionsFor({gateway.Address()}));
    const ahs::Selection selection = client.Select(library);
    std::this_thread::sleep_for(std::chrono::microseconds(40 * round));
    selection.cancel();
    const ahs::Status status = selection.wait().status;
    EXPECT_TRUE(status == ahs::Cancelled || status == ahs::AddedToCache) << status.name();
    stop(library);
    EXPECT_EQ(client.Status(), status);
  }
}

TEST(Free, EndsASelectionWithoutACallback) {
  Gateway gateway;
  Client client;
  ahs::Library library(optionsFor({gateway.Address()}, ManyProbes));
  ahs::Selection selection = client.Select(library);
  ASSERT_TRUE(gateway.WaitUntilAsked());
  selection = ahs::Selection();
  const std::size_t toldSoFar = client.Probes().size();
  EXPECT_TRUE(gateway.WaitUntilLeft());
  stop(library);
  EXPECT_EQ(gateway.CountConnections(), 1U);
  EXPECT_THAT(client.Results(), IsEmpty());
  EXPECT_THAT(client.Probes(), SizeIs(toldSoFar));
}

/// Calls that wait for a running callback of the selection.
struct Waiting {
  const char* name;
  bool isSocketCallback;
  void (*giveBack)(ahs::Library&, ahs::Selection&);
};

void stopLibrary(ahs::Library& library, ahs::Selection&) { stop(library); }
void freeSelection(ahs::Library&, ahs::Selection& selection) { selection = ahs::Selection(); }

TEST(Free, AndStopWaitForACallbackThatRuns) {
  for (const auto& [name, isSocketCallback, giveBack] :
       {Waiting{"Free", false, freeSelection},
        Waiting{"FreeInASocketCallback", true, freeSelection},
        Waiting{"Stop", false, stopLibrary}}) {
    SCOPED_TRACE(name);
    const Gateway gateway(Gateway::All);
    Signal entered;
    Signal mayReturn;
    std::atomic<bool> hasReturned{false};
    const auto callback = [&] {
      entered.Give();
      mayReturn.Wait();
      hasReturned = true;
      return true;
    };
    Client client;
    client.atResult = isSocketCallback ? std::function<void()>() : callback;
    client.atSocket = [&, isSocketCallback = isSocketCallback](int) {
      return !isSocketCallback || callback();
    };
    ahs::Library library(optionsFor({gateway.Address()}));
    ahs::Selection selection = client.Select(library);
    EXPECT_TRUE(entered.Wait());
    auto hadReturned = std::async(std::launch::async, [&, giveBack = giveBack] {
      giveBack(library, selection);
      return hasReturned.load();
    });
    hadReturned.wait_for(std::chrono::milliseconds(20));  // time for a call that does not wait
    mayReturn.Give();
    EXPECT_TRUE(hadReturned.get());
  }
}

TEST(Free, DoesNotWaitForACallbackOfAnotherSelection) {
  Signal entered;
  Signal mayReturn;
  Client slow;
  slow.atResult = [&] {
    entered.Give();
    mayReturn.Wait();
  };
  Client queued;
  ahs::Library library(optionsFor({}));
  const ahs::Selection first = slow.Select(library);
  ASSERT_TRUE(entered.Wait());
  ahs::Selection second = queued.Select(library);
  second.wait();
  second = ahs::Selection();
  mayReturn.Give();
  stop(library);
  EXPECT_THAT(queued.Results(), IsEmpty());
}

TEST(Free, InsideACallbackOfTheSelectionIsTheLastThatItIsTold) {
  const Gateway gateway(Gateway::All);
  for (const bool isAtResult : {true, false}) {
    Signal isStarted;
    Signal done;
    ahs::Selection selection;
    Client client;
    const auto free = [&] {
      isStarted.Wait();
      if (isAtResult) {
        EXPECT_TRUE(selection.wait()) << "the result holds until then";
      }
      selection = ahs::Selection();
      done.Give();
    };
    client.atResult = free;
    if (!isAtResult) {
      client.atProbe = [&](const ahs::Probe&) { free(); };
    }
    ahs::Library library(optionsFor({gateway.Address()}, {{"SelectionPingsPerHeadend", "10"}}));
    selection = client.Select(library);
    isStarted.Give();
    EXPECT_TRUE(done.Wait());
    stop(library);
    EXPECT_EQ(client.Probes().size() > 1, isAtResult);
    EXPECT_THAT(client.Results(), SizeIs(isAtResult ? 1 : 0));
  }
}

TEST(Stop, CancelsWhatIsUnderWayAndTellsItBeforeItReturns) {
  Gateway gateway;
  Client clients[3];
  ahs::Library library(optionsFor({gateway.Address()}, ManyProbes));
  const ahs::Selection selections[] = {clients[0].Select(library), clients[1].Select(library),
                                       clients[2].Select(library)};
  ASSERT_TRUE(gateway.WaitUntilAsked(3));
  stop(library);
  for (const Client& client : clients) {
    EXPECT_EQ(client.Status(), ahs::Cancelled);
  }
  for (const ahs::Selection& selection : selections) {
    EXPECT_EQ(selection.wait().status, ahs::Cancelled) << "handles stay good";
  }
  EXPECT_TRUE(gateway.WaitUntilLeft(3));
  EXPECT_EQ(gateway.CountConnections(), 3U);
}

TEST(Stop, InsideACallbackTakesTheLibraryDown) {
  Gateway gateway;
  Client other;
  Client client;
  Signal done;
  ahs::Library library(optionsFor({gateway.Address()}));
  client.atResult = [&] {
    stop(library);
    EXPECT_EQ(other.Status(), ahs::Cancelled) << "told before the stop returns";
    done.Give();
  };
  const ahs::Selection first = other.Select(library);
  const ahs::Selection second = client.Select(library);
  ASSERT_TRUE(gateway.WaitUntilAsked(2));
  second.cancel();
  EXPECT_TRUE(done.Wait());
  EXPECT_EQ(first.wait().status, ahs::Cancelled);
  EXPECT_TRUE(ahs::Library(optionsFor({}))) << "it can be started again";
}

TEST(Stop, InsideTheLogCallbackIsTheLastThatItIsTold) {
  std::optional<ahs::Library> library;
  Signal isUp;
  Signal done;
  std::atomic<int> messages{0};
  ahs::Options options = optionsFor({});
  options.onLog = [&](const ahs::LogMessage&) {
    isUp.Wait();
    if (++messages == 2) {
      stop(*library);
      done.Give();
    }
  };
  library.emplace(options);
  Client client;
  const ahs::Selection selection = client.Select(*library);
  selection.wait();
  isUp.Give();
  EXPECT_TRUE(done.Wait());
  EXPECT_EQ(client.Status(), ahs::NoHeadends);
  const int told = messages;
  EXPECT_EQ(ahs::Library(optionsFor({})).select().status, ahs::NoHeadends);
  EXPECT_EQ(messages, told);
}

}  // namespace
}  // namespace tests
