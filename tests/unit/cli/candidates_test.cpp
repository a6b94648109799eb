// The candidates as the tool sees them, from real profile files.

#include "vpn/Api/AHS/Candidates.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TemporaryDirectory.h"
#include "vpn/Api/PreferenceMgr.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string profile(const std::string& switchAttributes, const std::string& hosts) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<profile version=\"1\"><preferences>"
         "<preference name=\"EnableAutomaticServerSelection\" " +
         switchAttributes + "/></preferences><hosts>" + hosts + "</hosts></profile>\n";
}

// The process's preference manager for the length of a test.
class Loaded {
 public:
  explicit Loaded(const PreferenceMgr::Sources& sources) {
    EXPECT_EQ(PreferenceMgr::createInstance(sources), 0);
  }
  ~Loaded() {
    // One acquisition is the creator's, the other this look-up's own.
    PreferenceMgr* const manager = PreferenceMgr::acquireInstance();
    manager->releaseInstance();
    manager->releaseInstance();
  }
  Loaded(const Loaded&) = delete;
  Loaded& operator=(const Loaded&) = delete;
};

std::vector<std::string> headends() {
  std::vector<std::string> names;
  for (const Candidate& candidate : findCandidates()) {
    names.push_back(candidate.headend);
  }
  return names;
}

}  // namespace

TEST(Candidates, AreTheHostsOfProfilesWithTheSwitchOnOrLeftToTheUser) {
  const tests::TemporaryDirectory directory;
  directory.Write("on.xml", profile("value=\"true\"", "<host name=\"c\" address=\"gw-c\"/>"));
  directory.Write("user.xml", profile("value=\"false\" user-controllable=\"true\"",
                                      "<host name=\"b\" address=\"gw-b:8443\"/>"));
  directory.Write("off.xml", profile("value=\"false\" user-controllable=\"false\"",
                                     "<host name=\"a\" address=\"gw-a\"/>"));
  directory.Write("none.xml",
                  "<?xml version=\"1.0\"?><profile version=\"1\"><hosts>"
                  "<host name=\"d\" address=\"gw-d\"/></hosts></profile>");
  PreferenceMgr::Sources sources;
  sources.profileDirectory = directory.Path();
  const Loaded loaded(sources);
  EXPECT_THAT(headends(), ElementsAre("gw-b:8443", "gw-c"));
}

TEST(Candidates, AnEntryWithoutAnAddressIsReachedByItsName) {
  const tests::TemporaryDirectory directory;
  directory.Write("on.xml", profile("value=\"true\"",
                                    "<host name=\"gw.example.com:444\"/>"
                                    "<host name=\"gw.example.com:445\" address=\" &#10;\"/>"));
  PreferenceMgr::Sources sources;
  sources.profileDirectory = directory.Path();
  const Loaded loaded(sources);
  const auto candidates = findCandidates();
  ASSERT_EQ(candidates.size(), 2U);
  EXPECT_EQ(candidates[0].name, "gw.example.com:444");
  EXPECT_EQ(candidates[0].headend, "gw.example.com:444");
  EXPECT_EQ(candidates[0].place, Place("gw.example.com", 444));
  EXPECT_EQ(candidates[1].place, Place("gw.example.com", 445));
}

TEST(Candidates, GivenHeadendsTakePartBesideThoseOfTheProfiles) {
  const tests::TemporaryDirectory directory;
  directory.Write("on.xml", profile("value=\"true\"", "<host name=\"c\" address=\"gw-c\"/>"));
  PreferenceMgr::Sources sources;
  sources.profileDirectory = directory.Path();
  sources.headends = {"gw-x", "[::1]:8443"};
  const Loaded loaded(sources);
  const auto candidates = findCandidates();
  ASSERT_EQ(candidates.size(), 3U);
  EXPECT_EQ(candidates[0].headend, "[::1]:8443");
  EXPECT_EQ(candidates[0].place, Place("::1", 8443));
  EXPECT_EQ(candidates[1].name, "c");
  EXPECT_EQ(candidates[2].place, Place("gw-x", 443));
}

TEST(HostEntries, OfTheCommandLineTakePartAndHaveNoFile) {
  PreferenceMgr::Sources sources;
  sources.headends = {"gw-x"};
  const Loaded loaded(sources);
  const auto entries = findHostEntries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_TRUE(entries[0].takesPart);
  EXPECT_EQ(entries[0].file, "");
  EXPECT_EQ(entries[0].address, "gw-x");
}

TEST(Candidates, WithoutAPreferenceManagerThereAreNone) {
  EXPECT_THAT(findHostEntries(), IsEmpty());
  EXPECT_THAT(findCandidates(), IsEmpty());
}

TEST(NameBeside, IsEmptyWhereTheNameIsTheAddressInAnySpelling) {
  EXPECT_EQ(nameBeside("gw.example.com", "gw.example.com"), "");
  EXPECT_EQ(nameBeside("gw.example.com", "GW.example.com"), "");
  EXPECT_EQ(nameBeside("gw.example.com:8443", "https://gw.example.com:8443/group"), "");
  EXPECT_EQ(nameBeside("gw.example.com:8443", "gw.example.com"), "gw.example.com");
  EXPECT_EQ(nameBeside("gw.example.com", "Bern"), "Bern");
}
