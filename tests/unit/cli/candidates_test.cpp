// The candidates as the tool sees them, from a real profile file; which take part is shown by
// `ahs profile list`.

#include "vpn/Api/AHS/Candidates.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TemporaryDirectory.h"
#include "vpn/Api/PreferenceMgr.h"

namespace {

using testing::IsEmpty;

constexpr const char* Profile =
    "<profile version=\"1\"><preferences><preference name=\"EnableAutomaticServerSelection\" "
    "value=\"true\"/></preferences><hosts><host name=\"gw.example.com:444\"/>"
    "<host name=\"gw.example.com:445\" address=\" &#10;\"/></hosts></profile>\n";

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

}  // namespace

TEST(Candidates, AreOfTheProfilesAndOfTheCommandLineAndWithoutAnAddressReachedByName) {
  const tests::TemporaryDirectory directory;
  directory.Write("on.xml", Profile);
  PreferenceMgr::Sources sources;
  sources.profileDirectory = directory.Path();
  sources.headends = {"gw-x", "[::1]:8443"};
  const Loaded loaded(sources);
  const auto candidates = findCandidates();
  ASSERT_EQ(candidates.size(), 4U);
  EXPECT_EQ(candidates[0].headend, "[::1]:8443");
  EXPECT_EQ(candidates[0].place, Place("::1", 8443));
  EXPECT_EQ(candidates[2].name, "gw.example.com:444");
  EXPECT_EQ(candidates[2].headend, "gw.example.com:444");
  EXPECT_EQ(candidates[2].place, Place("gw.example.com", 444));
  EXPECT_EQ(candidates[3].place, Place("gw.example.com", 445));
  EXPECT_EQ(candidates[1].place, Place("gw-x", 443));
  const auto entries = findHostEntries();
  ASSERT_EQ(entries.size(), 4U);
  EXPECT_TRUE(entries[1].takesPart);
  EXPECT_EQ(entries[1].file, "");
  EXPECT_EQ(entries[1].address, "gw-x");
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
