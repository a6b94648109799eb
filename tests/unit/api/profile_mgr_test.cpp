// A directory of profiles: order, names that meet, files that are no profiles, and the bounds.

#include <sys/stat.h>

#include <filesystem>
#include <sstream>

#include "tests/unit/api/api_fixture.h"
#include "vpn/Api/ProfileMgr.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::SizeIs;
using tests::ProblemAt;
using tests::profileText;
using tests::profileWithHosts;
using tests::TemporaryDirectory;
using Pieces = std::vector<std::string>;

namespace {

class ProfileMgrTest : public testing::Test {
 protected:
  void load() { m_profiles.loadDirectory(m_directory.Path()); }

  const HostProfile& host(const std::string& name) {
    return *m_profiles.getHostProfileMap().at(name);
  }

  TemporaryDirectory m_directory;
  ProfileMgr m_profiles;
};

}  // namespace

TEST_F(ProfileMgrTest, AnEmptyManagerHasNoProfileAndNoHost) {
  EXPECT_THAT(m_profiles.getFileInitMap(), IsEmpty());
  EXPECT_THAT(m_profiles.getHostProfileMap(), IsEmpty());
  EXPECT_EQ(m_profiles.getProfileNameFromHost("a"), "");
  EXPECT_THAT(m_profiles.getProblems(), IsEmpty());
}

TEST_F(ProfileMgrTest, EachFileIsAProfileNamedLikeIt) {
  m_directory.Write("europe.xml", profileWithHosts("<host name=\"Paris\" address=\"gw-par\"/>"));
  m_directory.Write("asia.old.xml", profileText("<hosts><host name=\"tokyo\"/></hosts>"));
  load();
  EXPECT_THAT(m_profiles.getFileInitMap(), ElementsAre(Key("asia.old"), Key("europe")));
  EXPECT_THAT(m_profiles.getHostProfileMap(), ElementsAre(Key("Paris"), Key("tokyo")));
  EXPECT_EQ(m_profiles.getProfileNameFromHost("Paris"), "europe");
  EXPECT_EQ(m_profiles.getProfileNameFromHost("tokyo"), "asia.old");
  EXPECT_EQ(m_profiles.getProfileNameFromHost("TOKYO"), "");
  EXPECT_EQ(host("Paris").getProfileName(), "europe");
  EXPECT_EQ(host("Paris").getHostName(), "Paris");
  EXPECT_EQ(host("Paris").getHostAddress(), "gw-par");
  EXPECT_EQ(host("Paris").getLine(), 4U);
  EXPECT_EQ(host("tokyo").getHostAddress(), "");
  EXPECT_THAT(m_profiles.getProblems(), IsEmpty());
}

TEST_F(ProfileMgrTest, TheSettingsOfAProfileAreItsPreferences) {
  m_directory.Write("on.xml", profileWithHosts(""));
  m_directory.Write("user.xml",
                    profileText("<preferences><preference name=\"EnableAutomaticServerSelection\" "
                                "value=\"false\" user-controllable=\"true\"/></preferences>"));
  m_directory.Write("without.xml", profileText(""));
  load();
  const auto& settings = m_profiles.getFileInitMap();
  Preference* preference = nullptr;
  ASSERT_TRUE(settings.at("on")->getPreferences().getPreference(EnableAutomaticServerSelection,
                                                                preference));
  EXPECT_EQ(preference->getPreferenceValue(), PreferenceBase::PreferenceEnabled);
  EXPECT_FALSE(settings.at("on")->isEnabled(EnableAutomaticServerSelection, UserControllable));
  ASSERT_TRUE(settings.at("user")->getPreferences().getPreference(EnableAutomaticServerSelection,
                                                                  preference));
  EXPECT_EQ(preference->getPreferenceValue(), "false");
  EXPECT_TRUE(settings.at("user")->isEnabled(EnableAutomaticServerSelection, UserControllable));
  EXPECT_FALSE(settings.at("without")->getPreferences().getPreference(
      EnableAutomaticServerSelection, preference));
}

TEST_F(ProfileMgrTest, ADirectoryThatDoesNotExistIsEmpty) {
  m_profiles.loadDirectory(m_directory.File("none"));
  EXPECT_THAT(m_profiles.getFileInitMap(), IsEmpty());
  EXPECT_THAT(m_profiles.getProblems(), IsEmpty());
}

TEST_F(ProfileMgrTest, AFileInThePlaceOfTheDirectoryIsReported) {
  m_profiles.loadDirectory(m_directory.Write("file", ""));
  EXPECT_THAT(m_profiles.getProblems(),
              ElementsAre(ProblemAt(0, Pieces{"directory cannot be opened"})));
}

TEST_F(ProfileMgrTest, OtherAndHiddenFilesArePassedOver) {
  m_directory.Write("profile.XML", "no profile");
  m_directory.Write("profile.xml~", "no profile");
  m_directory.Write("xml", "no profile");
  m_directory.Write(".hidden.xml", "no profile");
  m_directory.Write(".xml", "no profile");
  load();
  EXPECT_THAT(m_profiles.getFileInitMap(), IsEmpty());
  EXPECT_THAT(m_profiles.getProblems(), IsEmpty());
}

TEST_F(ProfileMgrTest, AFileThatIsNoProfileIsSkippedAndTheOthersUsed) {
  m_directory.Write("a.xml", "<profile version=\"1\">\n<hosts>");
  m_directory.MakeDirectory("b.xml");
  ASSERT_EQ(::mkfifo(m_directory.File("c.xml").c_str(), 0600), 0);
  std::filesystem::create_symlink("nowhere", m_directory.File("d.xml"));
  m_directory.Write("e.xml", profileWithHosts("<host name=\"e\"/>"));
  load();
  EXPECT_THAT(m_profiles.getFileInitMap(), ElementsAre(Key("e")));
  EXPECT_THAT(m_profiles.getHostProfileMap(), ElementsAre(Key("e")));
  EXPECT_THAT(m_profiles.getProblems(), ElementsAre(ProblemAt(2, Pieces{"not well-formed"}),
                                                    ProblemAt(0, Pieces{"not a regular file"}),
                                                    ProblemAt(0, Pieces{"not a regular file"}),
                                                    ProblemAt(0, Pieces{"No such file"})));
  EXPECT_EQ(m_profiles.getProblems()[0].file, m_directory.File("a.xml"));
}

TEST_F(ProfileMgrTest, ANameInTwoFilesBelongsToTheFirstInByteOrder) {
  m_directory.Write("a.xml", profileWithHosts("<host name=\"gw\" address=\"lower\"/>"));
  m_directory.Write("B.xml", profileWithHosts("\n<host name=\"gw\" address=\"upper\"/>"));
  load();
  EXPECT_EQ(m_profiles.getProfileNameFromHost("gw"), "B");
  EXPECT_EQ(host("gw").getHostAddress(), "upper");
  EXPECT_THAT(m_profiles.getFileInitMap(), ElementsAre(Key("B"), Key("a")));
  EXPECT_THAT(m_profiles.getProblems(),
              ElementsAre(ProblemAt(4, Pieces{"\"gw\"", m_directory.File("B.xml") + ":5"})));
  EXPECT_EQ(m_profiles.getProblems()[0].file, m_directory.File("a.xml"));
}

TEST_F(ProfileMgrTest, ANameTwiceInOneFileBelongsToTheFirstEntry) {
  m_directory.Write("a.xml", profileWithHosts("<host name=\"gw\" address=\"one\"/>\n"
                                              "<host name=\"gw\" address=\"two\"/>"));
  load();
  EXPECT_EQ(host("gw").getHostAddress(), "one");
  EXPECT_THAT(m_profiles.getProblems(),
              ElementsAre(ProblemAt(5, Pieces{m_directory.File("a.xml") + ":4"})));
}

TEST_F(ProfileMgrTest, NamesThatDifferInCaseAreTwo) {
  m_directory.Write("a.xml", profileWithHosts("<host name=\"GW\"/><host name=\"gw\"/>"));
  load();
  EXPECT_THAT(m_profiles.getHostProfileMap(), ElementsAre(Key("GW"), Key("gw")));
  EXPECT_THAT(m_profiles.getProblems(), IsEmpty());
}

TEST_F(ProfileMgrTest, AProfileNameInTwoDirectoriesBelongsToTheFirst) {
  m_directory.MakeDirectory("one");
  m_directory.MakeDirectory("two");
  m_directory.Write("one/a.xml", profileWithHosts("<host name=\"first\"/>"));
  m_directory.Write("two/a.xml", profileWithHosts("<host name=\"second\"/>"));
  m_profiles.loadDirectory(m_directory.File("one"));
  m_profiles.loadDirectory(m_directory.File("two"));
  EXPECT_THAT(m_profiles.getHostProfileMap(), ElementsAre(Key("first")));
  EXPECT_THAT(m_profiles.getProblems(),
              ElementsAre(ProblemAt(0, Pieces{"\"a\"", m_directory.File("one/a.xml")})));
}

TEST_F(ProfileMgrTest, GivenHeadendsMakeAProfileThatTakesPart) {
  m_profiles.addHeadends("line", {"gw1:8443", "[::1]"});
  EXPECT_THAT(m_profiles.getHostProfileMap(), ElementsAre(Key("[::1]"), Key("gw1:8443")));
  EXPECT_EQ(m_profiles.getProfileNameFromHost("gw1:8443"), "line");
  EXPECT_EQ(host("gw1:8443").getHostAddress(), "gw1:8443");
  Preference* preference = nullptr;
  ASSERT_TRUE(m_profiles.getFileInitMap().at("line")->getPreferences().getPreference(
      EnableAutomaticServerSelection, preference));
  EXPECT_EQ(preference->getPreferenceValue(), PreferenceBase::PreferenceEnabled);
  EXPECT_FALSE(preference->isUserControllable());
  EXPECT_THAT(m_profiles.getProblems(), IsEmpty());
}

TEST_F(ProfileMgrTest, GivenHeadendsThatAreNoneOrThereAlreadyAreReported) {
  m_profiles.addHeadends("line", {"gw1", "g w", "", "gw1"});
  EXPECT_THAT(m_profiles.getHostProfileMap(), ElementsAre(Key("gw1")));
  EXPECT_THAT(m_profiles.getProblems(), SizeIs(3));
}

TEST_F(ProfileMgrTest, OfAHundredThousandFilesTheFirstTenThousandAreRead) {
  constexpr int files = 100000;
  constexpr int mostLinks = 50000;  // a file system may allow no more than 65,000
  std::string profile;
  for (int i = 0; i < files; ++i) {
    if (i % mostLinks == 0) {
      profile = m_directory.Write("profile" + std::to_string(i), "<profile version=\"1\"/>");
    }
    std::filesystem::create_hard_link(profile,
                                      m_directory.File("p" + std::to_string(100000 + i) + ".xml"));
  }
  load();
  EXPECT_THAT(m_profiles.getFileInitMap(), SizeIs(ProfileMgr::MaxProfiles));
  EXPECT_EQ(m_profiles.getFileInitMap().rbegin()->first, "p109999");
  EXPECT_THAT(m_profiles.getProblems(), ElementsAre(ProblemAt(0, Pieces{"100000", "10000"})));
}

TEST_F(ProfileMgrTest, ProfilesBeyondTheTotalSizeAreNotRead) {
  const std::string last = "<profile version=\"1\"><hosts><host name=\"last\"/></hosts></profile>";
  for (int i = 0; i < 8; ++i) {
    const std::string path = m_directory.Write("p" + std::to_string(i) + ".xml", "");
    std::filesystem::resize_file(path, MaxConfigurationFileSize);
  }
  m_directory.Write("q.xml", last);
  load();
  EXPECT_THAT(m_profiles.getHostProfileMap(), IsEmpty());
  ASSERT_THAT(m_profiles.getProblems(), SizeIs(9));
  EXPECT_EQ(m_profiles.getProblems().back().file, m_directory.File("q.xml"));
  EXPECT_THAT(m_profiles.getProblems().back(), ProblemAt(0, Pieces{"64 MiB"}));
}

TEST_F(ProfileMgrTest, AFileThatIsRefusedForItsSizeTakesNoneOfTheOthersWithIt) {
  std::filesystem::resize_file(m_directory.Write("a.xml", ""), std::uintmax_t{1} << 30U);
  m_directory.Write("b.xml", profileWithHosts("<host name=\"b\"/>"));
  load();
  EXPECT_THAT(m_profiles.getHostProfileMap(), ElementsAre(Key("b")));
  EXPECT_THAT(m_profiles.getProblems(), ElementsAre(ProblemAt(0, Pieces{"larger than 8 MiB"})));
  EXPECT_EQ(m_profiles.getProblems()[0].file, m_directory.File("a.xml"));
}

TEST_F(ProfileMgrTest, EntriesBeyondAHundredThousandAltogetherAreLeftOut) {
  std::ostringstream hosts;
  for (std::size_t i = 0; i < ProfileMgr::MaxHosts - 1; ++i) {
    hosts << "<host name=\"g" << i << "\"/>";
  }
  m_directory.Write("a.xml", profileWithHosts(hosts.str()));
  m_directory.Write("b.xml", profileWithHosts("<host name=\"b1\"/>\n<host name=\"b2\"/>"));
  m_directory.Write("c.xml", profileWithHosts("<host name=\"c\"/>"));
  load();
  EXPECT_THAT(m_profiles.getHostProfileMap(), SizeIs(ProfileMgr::MaxHosts));
  EXPECT_EQ(m_profiles.getProfileNameFromHost("b1"), "b");
  EXPECT_EQ(m_profiles.getProfileNameFromHost("b2"), "");
  EXPECT_THAT(m_profiles.getProblems(), ElementsAre(ProblemAt(5, Pieces{"100000"})));
}

TEST_F(ProfileMgrTest, ThousandsOfMistakesAreToldAThousandTimes) {
  for (int i = 0; i < 20; ++i) {
    std::string hosts;
    for (int j = 0; j < 99; ++j) {
      hosts += "<host/>";
    }
    m_directory.Write("p" + std::to_string(i) + ".xml", profileWithHosts(hosts));
  }
  load();
  ASSERT_THAT(m_profiles.getProblems(), SizeIs(ProfileMgr::MaxProblems));
  EXPECT_THAT(m_profiles.getProblems().back().text, testing::HasSubstr("not listed"));
}
