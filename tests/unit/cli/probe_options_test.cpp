// From the options of `ahs probe` to a plan.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/probe/ProbeOptions.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::HasSubstr;
using testing::StartsWith;

class ProbeOptionsTest : public testing::Test {
 protected:
  ProbeOptionsTest() {
    settings.nPingsPerHeadend = 3;
    settings.nPingTimeout = 2900;
    settings.nConnectTimeout = 10000;
    options.host = "gw.example.com";
  }

  std::string make() { return makeProbePlan(options, entries, settings, plan); }

  ProbeOptions options;
  std::vector<HostEntry> entries = {
      {"Berlin", "europe.xml", "/p/europe.xml", 3, "gw-ber.example.com:8443", true, ""}};
  HS_SETTINGS settings{};
  ProbePlan plan;
};

TEST_F(ProbeOptionsTest, NothingGivenIsWhatAWorkerDoesAndWhatIsGivenGoesBefore) {
  EXPECT_EQ(make(), "");
  EXPECT_EQ(plan.headend, "gw.example.com");
  EXPECT_EQ(plan.place, Place("gw.example.com", 443));
  EXPECT_EQ(plan.entry, "");
  EXPECT_FALSE(plan.secure);
  EXPECT_EQ(plan.count, 3U);
  EXPECT_EQ(plan.timeout, seconds(2));
  options.count = 1000;
  options.timeoutSeconds = 3600;
  options.host = "[2001:db8::7]:8443";
  EXPECT_EQ(make(), "");
  EXPECT_EQ(plan.place, Place("2001:db8::7", 8443));
  EXPECT_EQ(plan.count, 1000U);
  EXPECT_EQ(plan.timeout, seconds(3600));
  EXPECT_EQ(plan.selectionCount, 3U);
  EXPECT_EQ(plan.selectionTimeout, seconds(2));
  EXPECT_EQ(plan.selectionLimit, milliseconds(10000));
}

TEST_F(ProbeOptionsTest, TheNameOfAHostEntryIsItsAddressInAnyLetterCaseThoughItTakesNoPart) {
  options.host = "bERLIN";
  EXPECT_EQ(make(), "");
  EXPECT_EQ(plan.headend, "gw-ber.example.com:8443");
  EXPECT_EQ(plan.place, Place("gw-ber.example.com", 8443));
  EXPECT_EQ(plan.entry, "Berlin");
  EXPECT_EQ(plan.profile, "europe.xml");
  EXPECT_EQ(plan.leftOut, "");
  entries[0].takesPart = false;
  entries[0].reason = "it is switched off";
  EXPECT_EQ(make(), "");
  EXPECT_EQ(plan.leftOut, "it is switched off");
}

TEST_F(ProbeOptionsTest, AHostThatIsNoneIsRefusedAndShownWithoutControlCharacters) {
  options.host = "gw\x1b[31m.example.com";
  EXPECT_THAT(make(), StartsWith("the host 'gw\\x1b[31m.example.com' cannot be used: "));
  options.host = "";
  EXPECT_THAT(make(), HasSubstr("it is empty"));
}

}  // namespace
