// How a program is told its headend.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "cli/exec/HeadendProgram.h"

namespace {

using testing::ElementsAre;
using testing::Pair;

HeadendResult gateway(const std::string& headend, const std::string& name,
                      std::optional<unsigned int> metric) {
  HeadendResult made;
  made.headend = headend;
  made.name = name;
  made.metricMs = metric;
  return made;
}

}  // namespace

TEST(HeadendProgram, TheHeadendItsHostAndItsPortAreReplacedWhereverTheyStand) {
  for (const auto& [headend, argument, replaced] : std::vector<std::array<const char*, 3>>{
           {"gw.example.com:8443", "{headend}", "gw.example.com:8443"},
           {"gw.example.com:8443", "--to={host}/{port}/{host}",
            "--to=gw.example.com/8443/gw.example.com"},
           {"gw.example.com", "{port}", "443"},
           {"gw.example.com", "{address}", "gw.example.com"},
           {"[2001:db8::7]:8443", "{host} {port} {headend}", "2001:db8::7 8443 [2001:db8::7]:8443"},
           {"gw", "{} {name} {headend {hostx} }{", "{} {name} {headend {hostx} }{"}}) {
    EXPECT_THAT(commandFor({"vpn", argument}, gateway(headend, "", std::nullopt)),
                ElementsAre("vpn", replaced));
  }
}

TEST(HeadendProgram, TheEnvironmentNamesEverythingThatIsKnown) {
  EXPECT_THAT(
      variablesOf(gateway("[2001:db8::7]:8443", "Z\xc3\xbcrich", 18)),
      ElementsAre(Pair("AHS_HEADEND", "[2001:db8::7]:8443"), Pair("AHS_HOST", "2001:db8::7"),
                  Pair("AHS_ADDRESS", "2001:db8::7"), Pair("AHS_PORT", "8443"),
                  Pair("AHS_NAME", "Z\xc3\xbcrich"), Pair("AHS_METRIC_MS", "18")));
  EXPECT_THAT(variablesOf(gateway("gw", "", std::nullopt)),
              testing::Contains(Pair("AHS_METRIC_MS", "")));
  HeadendResult measured = gateway("gw", "", 18);
  measured.probes.emplace_back().address = "192.0.2.7";
  EXPECT_THAT(variablesOf(measured), testing::Contains(Pair("AHS_ADDRESS", "192.0.2.7")));
  EXPECT_THAT(commandFor({"{address}"}, measured), ElementsAre("192.0.2.7"));
}

TEST(HeadendProgram, AHeadendIsFoundAmongTheResults) {
  SelectionResult result;
  result.results = {{}, gateway("gw:8443", "Bonn", 18)};
  EXPECT_EQ(chosenHeadend("gw:8443", result).name, "Bonn");
  EXPECT_EQ(chosenHeadend("gw:8443", result).metricMs, 18U);
  const HeadendResult unknown = chosenHeadend("another", result);
  EXPECT_EQ(unknown.headend, "another");
  EXPECT_EQ(unknown.name, "");
  EXPECT_EQ(unknown.metricMs, std::nullopt);
}
