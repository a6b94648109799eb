// Which host entries of real directories take part in a selection: the run's own list, its key in
// the cache and its last headend, and beside them the list that the tool shows.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "tests/support/TemporaryDirectory.h"
#include "tests/support/private_access.h"
#include "vpn/Api/AHS/Candidates.h"
#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Api/PreferenceMgr.h"

AHS_EXPOSE(HeadendList, &CHeadendSelection::m_headendList);
AHS_EXPOSE(LastHeadend, &CHeadendSelection::m_lastHeadend);
AHS_EXPOSE(Settings, &CHeadendSelection::m_settings);
AHS_EXPOSE(GetKnownHeadends, &CHeadendSelection::getKnownHeadends);

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* On = "value=\"true\"";
constexpr const char* Off = "value=\"false\"";
constexpr const char* OffButUsers = "value=\"false\" user-controllable=\"true\"";
constexpr const char* Missing = "";

class Client : public ClientIfcBase {
  void AHSSelectedHost(unsigned int, const std::vector<std::string>&, long,
                       const std::string&) override {}
};

/// What a run makes of a directory. It is constructed and never started.
struct RunsView {
  std::vector<std::string> headends;
  std::string key;
  std::string last;
  unsigned int improvement = 0;
};

class ProfileRules : public testing::Test {
 protected:
  ~ProfileRules() override {
    if (PreferenceMgr* manager = PreferenceMgr::acquireInstance(); manager != nullptr) {
      manager->releaseInstance();
      manager->releaseInstance();
    }
  }

  void write(const std::string& file, const std::string& switchAttributes, const std::string& hosts,
             const std::string& preferences = "") const {
    m_directory.Write(
        file,
        "<profile version=\"1\"><preferences>" +
            (switchAttributes.empty() ? ""
                                      : "<preference name=\"EnableAutomaticServerSelection\" " +
                                            switchAttributes + "/>") +
            preferences + "</preferences><hosts>" + hosts + "</hosts></profile>");
  }

  RunsView view(const std::string& last = "") {
    PreferenceMgr::Sources sources;
    sources.profileDirectory = m_directory.Path();
    EXPECT_EQ(PreferenceMgr::createInstance(sources), 0);
    long status = -1;
    CHeadendSelection run(&m_client, last, 0, status);
    EXPECT_EQ(status, 0);
    RunsView result;
    for (const URL& url : tests::member<tests::HeadendList>(run)) {
      result.headends.push_back(url.getHostAndPort(false));
    }
    result.key = tests::call<tests::GetKnownHeadends>(run);
    result.last = tests::member<tests::LastHeadend>(run).getHostAndPort(false);
    result.improvement = tests::member<tests::Settings>(run).nImprovement;
    std::vector<std::string> shown;
    for (const Candidate& candidate : findCandidates()) {
      shown.push_back(candidate.headend);
    }
    EXPECT_EQ(shown, result.headends) << "the tool shows another list";
    return result;
  }

  tests::TemporaryDirectory m_directory;
  Client m_client;
};

std::string host(const std::string& name, const std::string& address) {
  return "<host name=\"" + name + "\" address=\"" + address + "\"/>";
}

}  // namespace

TEST_F(ProfileRules, OfSeveralProfilesTheHostsOfThoseTakePartThatAreOnOrLeftToTheUser) {
  write("a.xml", On, host("d", "gw-d"));
  write("b.xml", OffButUsers, host("c", "gw-c:8443"));
  write("c.xml", Off, host("b", "gw-b"));
  write("d.xml", Missing, host("a", "gw-a"));
  const RunsView run = view();
  EXPECT_THAT(run.headends, ElementsAre("gw-c:8443", "gw-d"));
  EXPECT_EQ(run.key, "gw-d;gw-c:8443;");
}

TEST_F(ProfileRules, AValueThatIsNotExactlyTrueIsOff) {
  write("a.xml", "value=\"True\"", host("a", "gw-a"));
  write("b.xml", "value=\"True\" user-controllable=\"true\"", host("b", "gw-b"));
  EXPECT_THAT(view().headends, ElementsAre("gw-b"));
}

TEST_F(ProfileRules, ANameInTwoFilesIsTheFirstFilesAlsoWhenThatOneIsOff) {
  write("a.xml", On, host("shared", "gw-first"));
  write("b.xml", On, host("shared", "gw-second") + host("other", "gw-other"));
  write("c.xml", Off, host("closed", "gw-closed"));
  write("d.xml", On, host("closed", "gw-open"));
  EXPECT_THAT(view().headends, ElementsAre("gw-other", "gw-first"));
}

TEST_F(ProfileRules, NamesThatDifferInCaseAreTwoInByteOrder) {
  write("a.xml", On, host("b", "gw-b") + host("A", "gw-upper") + host("a", "gw-lower"));
  EXPECT_THAT(view().headends, ElementsAre("gw-upper", "gw-lower", "gw-b"));
}

TEST_F(ProfileRules, AnEntryWithoutAddressIsReachedByItsName) {
  write("a.xml", On, "<host name=\"GW.example.com:444\"/><host name=\"b\" address=\"\"/>");
  const RunsView run = view();
  EXPECT_THAT(run.headends, ElementsAre("GW.example.com:444", "b"));
  EXPECT_EQ(run.key, "b;gw.example.com:444;");
}

TEST_F(ProfileRules, NamesOfAnyLanguageAreSortedByTheirBytes) {
  write("a.xml", On,
        host("東京", "gw-tokyo") + host("Zürich", "gw-zurich") + host("Österreich", "gw-o") +
            host("Zug", "gw-zug"));
  EXPECT_THAT(view().headends, ElementsAre("gw-zug", "gw-zurich", "gw-o", "gw-tokyo"));
}

TEST_F(ProfileRules, TheLastHeadendIsFoundByItsNameInAnyCaseOfAsciiLetters) {
  write("a.xml", On, host("ZüRICH", "gw-z:8443") + host("b", "gw-b"));
  EXPECT_EQ(view("züRich").last, "gw-z:8443");
}

TEST_F(ProfileRules, TheLastHeadendIsNotFoundByItsAddressNorAmongEntriesThatTakeNoPart) {
  write("a.xml", On, host("a", "gw-a"));
  write("b.xml", Off, host("b", "gw-b"));
  EXPECT_EQ(view("gw-a").last, "");
}

TEST_F(ProfileRules, AWrongEntryOrFileCostsNoOther) {
  write("a.xml", On, host("a", "g w") + "<host/>" + host("b", "gw-b") + "<hsot name=\"c\"/>");
  m_directory.Write("b.xml", "<profile version=\"1\"><hosts>");
  write("c.xml", On, host("c", "gw-c"));
  EXPECT_THAT(view().headends, ElementsAre("gw-b", "gw-c"));
}

TEST_F(ProfileRules, ADirectoryWithoutProfilesMakesAnEmptyList) {
  const RunsView run = view("a");
  EXPECT_THAT(run.headends, IsEmpty());
  EXPECT_EQ(run.key, "");
  EXPECT_EQ(run.last, "");
}

TEST_F(ProfileRules, APreferenceOfAProfileIsTheRuns) {
  write("a.xml", Off, "", "<preference name=\"SelectionImprovement\" value=\"55\"/>");
  EXPECT_EQ(view().improvement, 55U);
}

TEST_F(ProfileRules, TenThousandEntriesInOneFileAreTenThousandCandidates) {
  std::ostringstream hosts;
  for (int i = 10000; i < 20000; ++i) {
    hosts << host("g" + std::to_string(i), "gw-" + std::to_string(i));
  }
  write("a.xml", On, hosts.str());
  const RunsView run = view();
  ASSERT_THAT(run.headends, SizeIs(10000));
  EXPECT_EQ(run.headends.front(), "gw-10000");
  EXPECT_EQ(run.headends.back(), "gw-19999");
}
