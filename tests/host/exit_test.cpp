// A host process that ends while workers probe, the timer is armed or fires, a file of the cache is
// read or the client's callback runs. Its exit status is its own, it does not crash and it does not
// hang.

#include <gtest/gtest.h>

#include <cstdlib>
#include <utility>

#include "tests/host/HostScene.h"

namespace tests {
namespace {

constexpr int LeftAsTold = 7;

/// How a process ends, and in the middle of what.
constexpr std::pair<const char*, const char*> Departures[] = {
    {"return", "plain"}, {"exit", "plain"},    {"quick_exit", "plain"}, {"_exit", "plain"},
    {"exec", "plain"},   {"return", "secure"}, {"exit", "secure"},      {"quick_exit", "secure"},
    {"exit", "busy"},    {"exit", "cached"},   {"exit", "endless"},     {"return", "endless"}};

class LeavingHost : public testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(LeavingHost, InTheMiddleOfARunEndsWithItsOwnExitStatus) {
  // From the start of a run until everything has been answered.
  constexpr std::chrono::microseconds Longest{160'000};
  constexpr int Moments = 12;
  // The timer comes after 100 ms, between the answers of the last two.
  const GatewayProcess gateways({"", "delay=15", "delay=60", "delay=130"});
  const TemporaryDirectory directory;
  // What a process that ends like this leaves behind in the file system goes with the test.
  ::setenv("TMPDIR", directory.Path().c_str(), 1);
  for (int i = 0; i < Moments; ++i) {
    const std::string moment = std::to_string((Longest * i / Moments).count());
    SCOPED_TRACE(moment + " us after its start");
    std::vector<std::string> command = {AHS_LEAVING_HOST, GetParam().first, moment,
                                        GetParam().second, gateways.Authority()};
    command.insert(command.end(), gateways.Addresses().begin(), gateways.Addresses().end());
    ChildProcess process(command, directory.File("output"), directory.Path());
    EXPECT_TRUE(process.WaitForEnd(Limit)) << "it hangs";
    EXPECT_EQ(process.ExitStatus(), LeftAsTold);
    ASSERT_EQ(readFile(directory.File("output")), "");
  }
  ::unsetenv("TMPDIR");
}

INSTANTIATE_TEST_SUITE_P(Host, LeavingHost, testing::ValuesIn(Departures),
                         [](const auto& instance) {
                           return "By_" + std::string(instance.param.first) + "_" +
                                  instance.param.second;
                         });

}  // namespace
}  // namespace tests
