// How a program is told its headend.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

std::vector<std::string> commandWith(const std::string& headend, const std::string& argument) {
  return commandFor({"vpn", argument}, gateway(headend, "", std::nullopt));
}

}  // namespace

TEST(HeadendProgram, TheHeadendItsHostAndItsPortAreReplacedWhereverTheyStand) {
  EXPECT_THAT(commandWith("gw.example.com:8443", "{headend}"),
              ElementsAre("vpn", "gw.example.com:8443"));
  EXPECT_THAT(commandWith("gw.example.com:8443", "--to={host}/{port}/{host}"),
              ElementsAre("vpn", "--to=gw.example.com/8443/gw.example.com"));
}

TEST(HeadendProgram, ThePortIsThatOfTlsUnlessThereIsAnother) {
  EXPECT_THAT(commandWith("gw.example.com", "{port}"), ElementsAre("vpn", "443"));
}

TEST(HeadendProgram, AnIpv6HostHasNoBrackets) {
  EXPECT_THAT(commandWith("[2001:db8::7]:8443", "{host} {port} {headend}"),
              ElementsAre("vpn", "2001:db8::7 8443 [2001:db8::7]:8443"));
}

TEST(HeadendProgram, OtherBracesStayAsTheyAre) {
  EXPECT_THAT(commandWith("gw", "{} {name} {headend {hostx} }{"),
              ElementsAre("vpn", "{} {name} {headend {hostx} }{"));
}

TEST(HeadendProgram, TheEnvironmentNamesEverythingThatIsKnown) {
  EXPECT_THAT(variablesOf(gateway("[2001:db8::7]:8443", "Z\xc3\xbcrich", 18)),
              ElementsAre(Pair("AHS_HEADEND", "[2001:db8::7]:8443"),
                          Pair("AHS_HOST", "2001:db8::7"), Pair("AHS_PORT", "8443"),
                          Pair("AHS_NAME", "Z\xc3\xbcrich"), Pair("AHS_METRIC_MS", "18")));
  EXPECT_THAT(variablesOf(gateway("gw", "", std::nullopt)),
              testing::Contains(Pair("AHS_METRIC_MS", "")));
}

TEST(HeadendProgram, AHeadendIsFoundAmongTheResults) {
  SelectionResult result;
  result.results = {{}, {}};
  result.results[1].headend = "gw:8443";
  result.results[1].name = "Bonn";
  result.results[1].metricMs = 18;
  const HeadendResult known = chosenHeadend("gw:8443", result);
  EXPECT_EQ(known.name, "Bonn");
  EXPECT_EQ(known.metricMs, 18U);
  const HeadendResult unknown = chosenHeadend("another", result);
  EXPECT_EQ(unknown.headend, "another");
  EXPECT_EQ(unknown.name, "");
  EXPECT_EQ(unknown.metricMs, std::nullopt);
}
