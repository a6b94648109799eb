// What a client is told: the result with every headend, each probe on its way, the log.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/capi/c_door_fixture.h"
#include "tests/support/LoopbackSockets.h"
#include "tests/support/TemporaryDirectory.h"

namespace tests {
namespace {

using std::chrono::milliseconds;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

/// Further away than a busy machine makes the nearest one.
constexpr milliseconds Far{1000};

/// One that answers so late every time.
Gateway::Settings after(milliseconds delay) {
  Gateway::Settings settings;
  settings.delays.assign(100, delay);
  return settings;
}

testing::Matcher<Candidate> without(ahs_outcome outcome) {
  return AllOf(Field(&Candidate::outcome, std::uint32_t{outcome}),
               Field(&Candidate::metric, AHS_NO_METRIC), Field(&Candidate::samples, IsEmpty()));
}

TEST(Result, HasTheHeadendsThatAnsweredBestFirstAndThenTheOthers) {
  const Gateway near;
  const Gateway far(after(Far));
  Gateway::Settings talksOtherwise = after(2 * Far);
  talksOtherwise.answer = "SSH-2.0-hello\r\n";
  const Gateway notHttp(talksOtherwise);
  const RefusingPort refuses("127.0.0.1");
  const SilentListener silent("127.0.0.1");
  // Too long a label for a name server to be asked.
  const std::string unknown = std::string(64, 'x') + ".example";
  const Library library({silent.Where().Text(), notHttp.Address(), refuses.Where().Text(),
                         far.Address(), near.Address(), unknown},
                        {{"RoundTripTime", "response"}, {"SelectionPingTimeout", "4000"}});
  const Result result = selectOnce(library);

  EXPECT_EQ(result.status, AHS_ADDED_TO_CACHE);
  EXPECT_EQ(result.reason, std::uint32_t{AHS_REASON_RECONNECTION});
  EXPECT_THAT(result.headends, ElementsAre(near.Address(), far.Address(), notHttp.Address()));
  ASSERT_THAT(result.candidates, SizeIs(6));
  for (std::size_t i = 0; i < result.headends.size(); ++i) {
    const Candidate& candidate = result.candidates[i];
    EXPECT_EQ(candidate.name, result.headends[i]);
    EXPECT_EQ(candidate.headend, result.headends[i]);
    EXPECT_EQ(candidate.address, "127.0.0.1");
    EXPECT_THAT(candidate.samples, SizeIs(1));
    EXPECT_EQ(candidate.outcome,
              std::uint32_t{i == 2 ? AHS_OUTCOME_NOT_HTTP : AHS_OUTCOME_ANSWERED});
  }
  EXPECT_GE(result.candidates[1].metric, Far.count());
  EXPECT_THAT(result.Of(refuses.Where().Text()), without(AHS_OUTCOME_CANNOT_CONNECT));
  EXPECT_THAT(result.Of(silent.Where().Text()), without(AHS_OUTCOME_TIMED_OUT));
  EXPECT_THAT(result.Of(unknown), without(AHS_OUTCOME_NAME_NOT_RESOLVED));
  EXPECT_FALSE(result.fromCache);
  EXPECT_EQ(result.cacheAge, -1);
  EXPECT_EQ(result.realm, "");
}

TEST(Result, OfASecondSelectionComesFromTheCache) {
  const Gateway gateway;
  const RefusingPort refuses("127.0.0.1");
  const Library library({gateway.Address(), refuses.Where().Text()});
  const Result first = selectOnce(library);
  const Result second = selectOnce(library);

  EXPECT_EQ(second.status, AHS_SUCCESS);
  EXPECT_TRUE(second.fromCache);
  EXPECT_GE(second.cacheAge, 0);
  EXPECT_LE(second.cacheAge, Limit.count());
  EXPECT_EQ(second.headends, first.headends);
  const Candidate remembered = second.Of(gateway.Address());
  EXPECT_EQ(remembered.outcome, std::uint32_t{AHS_OUTCOME_FROM_CACHE});
  EXPECT_EQ(remembered.metric, first.Of(gateway.Address()).metric);
  EXPECT_EQ(remembered.address, "") << "it was not measured now";
  EXPECT_THAT(remembered.samples, IsEmpty());
  EXPECT_THAT(second.Of(refuses.Where().Text()), without(AHS_OUTCOME_NOT_IN_CACHE));
}

TEST(Result, OfASelectionThatIsToMeasureNowIsMeasuredAndKept) {
  const Gateway gateway;
  const Library library({gateway.Address()});
  const auto now = [](ahs_request& request) { request.measure_now = 1; };
  EXPECT_EQ(selectOnce(library).status, AHS_ADDED_TO_CACHE);
  EXPECT_EQ(selectOnce(library, now).status, AHS_ADDED_TO_CACHE);
  EXPECT_EQ(selectOnce(library).status, AHS_SUCCESS);
}

TEST(Result, OfProbesThatLeaveAnotherWayIsNotThatOfTheCache) {
  const Gateway gateway;
  const Library library({gateway.Address()});
  const auto otherWay = [](ahs_request& request) { request.source_address = "127.0.0.9"; };
  EXPECT_EQ(selectOnce(library).status, AHS_ADDED_TO_CACHE);
  EXPECT_EQ(selectOnce(library, otherWay).status, AHS_ADDED_TO_CACHE);
  EXPECT_EQ(selectOnce(library, otherWay).status, AHS_SUCCESS) << "the same way again";
}

TEST(Result, AtTheTimeLimitHasWhatWasFoundOutUntilThen) {
  Gateway silent(Gateway::silent());
  Gateway::Settings once = Gateway::silent();
  once.answers = 1;
  Gateway unfinished(once);
  const Gateway done;
  Client client;
  Library library({silent.Address(), unfinished.Address(), done.Address()},
                  {{"SelectionReconnectTimeout", "3000"}, {"SelectionPingsPerHeadend", "2"}});
  const Selection selection(library, client);
  const Result result = selection.Wait();
  silent.Answer(UINT_MAX);
  unfinished.Answer(UINT_MAX);

  EXPECT_EQ(result.status, AHS_ADDED_TO_CACHE);
  EXPECT_THAT(result.headends, ElementsAre(done.Address()));
  EXPECT_EQ(selectOnce(library).status, AHS_SUCCESS) << "what was measured is remembered";
  EXPECT_THAT(result.Of(silent.Address()), without(AHS_OUTCOME_NO_ANSWER_IN_TIME));
  const Candidate half = result.Of(unfinished.Address());
  EXPECT_EQ(half.outcome, std::uint32_t{AHS_OUTCOME_NOT_FINISHED_IN_TIME});
  EXPECT_EQ(half.metric, AHS_NO_METRIC);
  EXPECT_THAT(half.samples, SizeIs(1));
  library.Stop();
  EXPECT_EQ(client.Status(), AHS_ADDED_TO_CACHE);
  EXPECT_THAT(client.Probes(), Each(Field(&Probe::afterResult, false)));
}

TEST(Result, OfASelectionThatMeasuredNothingIsAFailure) {
  const RefusingPort refuses("127.0.0.1");
  const Library library({refuses.Where().Text()});
  for (const ahs_reason reason : {AHS_REASON_CONNECTION, AHS_REASON_RECONNECTION}) {
    const Result result =
        selectOnce(library, [&](ahs_request& request) { request.reason = reason; });
    EXPECT_EQ(result.status, AHS_ERROR_SELECTION_FAILURE);
    // A connection has sent its test probe to the first headend, and keeps that.
    EXPECT_THAT(result.headends, SizeIs(reason == AHS_REASON_CONNECTION ? 1 : 0));
    EXPECT_THAT(result.candidates, ElementsAre(without(AHS_OUTCOME_CANNOT_CONNECT)));
  }
}

TEST(Result, OfALibraryWithoutHeadendsSaysSo) {
  const Library library({});
  const Result result = selectOnce(library);
  EXPECT_EQ(result.status, AHS_ERROR_NO_HEADENDS);
  EXPECT_THAT(result.headends, IsEmpty());
  EXPECT_THAT(result.candidates, IsEmpty());
}

TEST(Progress, CountsTheProbesOfAllHeadends) {
  const Gateway gateways[3];
  const RefusingPort refuses("127.0.0.1");
  Client client;
  Library library(
      {gateways[0].Address(), gateways[1].Address(), gateways[2].Address(), refuses.Where().Text()},
      {{"SelectionPingsPerHeadend", "2"}});
  const Selection selection(library, client);
  selection.Wait();
  library.Stop();

  const std::vector<Probe> probes = client.Probes();
  ASSERT_THAT(probes, SizeIs(16));
  Probe before;
  for (const Probe& probe : probes) {
    EXPECT_EQ(probe.probesStarted, before.probesStarted + (probe.ended ? 0 : 1));
    EXPECT_EQ(probe.probesEnded, before.probesEnded + (probe.ended ? 1 : 0));
    EXPECT_GE(probe.headendsAnswered, before.headendsAnswered);
    EXPECT_EQ(probe.headendCount, 4U);
    before = probe;
    if (probe.ended && probe.name == refuses.Where().Text()) {
      EXPECT_EQ(probe.outcome, std::uint32_t{AHS_OUTCOME_CANNOT_CONNECT});
      EXPECT_EQ(probe.address, "");
      EXPECT_EQ(probe.rttMs, 0U);
    }
  }
  EXPECT_EQ(before.probesEnded, 8U);
  EXPECT_EQ(before.headendsAnswered, 3U);
}

TEST(Progress, OfTwoSelectionsAtOnceIsToldToEachItsOwn) {
  Gateway gateway(Gateway::silent());
  Client clients[2];
  Library library({gateway.Address()}, {{"SelectionPingsPerHeadend", "2"}});
  const Selection one(library, clients[0]);
  const Selection two(library, clients[1]);
  ASSERT_TRUE(gateway.WaitUntilAsked(2));
  gateway.Answer(UINT_MAX);
  one.Wait();
  two.Wait();
  library.Stop();
  for (const Client& client : clients) {
    ASSERT_THAT(client.Probes(), SizeIs(4));
    EXPECT_EQ(client.Probes().back().probesEnded, 2U);
    EXPECT_THAT(client.Results().front().Of(gateway.Address()).samples, SizeIs(2));
  }
}

// Names that need no name server (RFC 6761), long ones, so that each report of a selection is long.
TEST(Log, CountsWhatIsLostWhileNobodyListens) {
  constexpr std::size_t More = std::size_t{5} * 1024 * 1024;
  constexpr int Headends = 100;
  const Gateway gateway;
  std::vector<std::string> addresses;
  for (int i = 0; i < Headends; ++i) {
    addresses.push_back(std::to_string(i) + "." + std::string(60, 'x') + "." +
                        std::string(60, 'y') + "." + std::string(60, 'z') +
                        ".localhost:" + gateway.Port());
  }
  Log log;
  Library library(addresses, {}, [&](ahs_options& options) {
    log.Hear(options);
    options.own_loop = 1;
  });
  ASSERT_EQ(selectOnce(library).headends.size(), addresses.size());
  for (std::size_t written = 0; written < More; written += Headends * addresses.back().size()) {
    ASSERT_EQ(selectOnce(library).status, AHS_SUCCESS);
  }
  ahs_dispatch(library.Get());
  selectOnce(library);
  ahs_dispatch(library.Get());
  std::uint64_t lost = 0;
  std::size_t told = 0;
  for (const Log::Message& message : log.All()) {
    lost += message.lost;
    told += message.text.size();
  }
  EXPECT_GT(lost, 0U);
  EXPECT_GT(told, More / 2) << "most of it was kept";
  EXPECT_EQ(log.All().back().lost, 0U);
}

}  // namespace
}  // namespace tests
