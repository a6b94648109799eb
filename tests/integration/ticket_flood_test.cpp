// A trusted gateway that gives 200,000 tickets for later sessions before it answers: each is read,
// and none is kept.

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "tests/integration/simulated_gateways.h"
#include "vpn/Common/IP/HttpProbe.h"

namespace tests {
namespace {

/// The most memory that this process had so far, in KiB.
long peakMemory() {
  std::ifstream status("/proc/self/status");
  std::string word;
  while (status >> word && word != "VmHWM:") {
  }
  long size = 0;
  status >> size;
  return size;
}

TEST(TicketFlood, EndsInTheAnswerAndTakesNoMemory) {
  constexpr unsigned int Everything = 31;
  // So long that only an endless wait reaches it: a sanitizer takes minutes on a busy machine.
  constexpr unsigned int PatienceSeconds = 600;
  const SimulatedGateways gateways({"behaviour=normal", "behaviour=many-tickets"});
  HttpProbe::setTrustFile(gateways.Authority());
  const auto probe = [](const Endpoint& where) {
    HttpProbe::HTTP_PROBE_RESULTS results;
    const STATUSCODE status =
        HttpProbe::SendHttpProbe(where.address, true, false, where.port, "", PatienceSeconds,
                                 PROXY_DATA(), Everything, results);
    EXPECT_EQ(results.uiHttpStatusCode, 200U);
    return status;
  };
  EXPECT_EQ(probe(gateways.Where().at(0)), HTTP_SESSION_SUCCESS);
  const long before = peakMemory();
  EXPECT_EQ(probe(gateways.Where().at(1)), HTTP_SESSION_SUCCESS);
  EXPECT_LT(peakMemory() - before, AHS_MOST_KIB);
  HttpProbe::setTrustFile("");
}

}  // namespace
}  // namespace tests
