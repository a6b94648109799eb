// A directory of profiles: order, equal names, files that are no profiles, and the limits.

#include <sys/stat.h>

#include <filesystem>

#include "tests/unit/api/api_fixture.h"
#include "vpn/Api/ProfileMgr.h"

namespace tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::SizeIs;

class ProfileMgrTest : public FileTest {
 protected:
  void write(const std::string& file, const std::string& hosts) {
    m_directory.Write(file, profileWithHosts(hosts));
  }
  void load() { m_profiles.loadDirectory(m_directory.Path()); }

  const HostProfile& host(const std::string& name) {
    return *m_profiles.getHostProfileMap().at(name);
  }

  ProfileMgr m_profiles;
};

}  // namespace

TEST_F(ProfileMgrTest, EachFileIsAProfileNamedLikeIt) {
  EXPECT_THAT(m_profiles.getFileInitMap(), IsEmpty());
  write("europe.xml", "<host name=\"Paris\" address=\"gw-par\"/>");
  write("asia.old.xml", "<host name=\"tokyo\"/>");
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
  write("on.xml", "");
  m_directory.Write(
      "user.xml",
      profileText("<preferences>" + switchElement(R"(value="no" user-controllable="true")") +
                  "</preferences>"));
  m_directory.Write("without.xml", profileText(""));
  load();
  const auto valueOf = [this](const char* profile) {
    const HostInitSettings& settings = *m_profiles.getFileInitMap().at(profile);
    Preference* preference = nullptr;
    const std::string control =
        settings.isEnabled(EnableAutomaticServerSelection, UserControllable) ? " uc" : "";
    return settings.getPreferences().getPreference(EnableAutomaticServerSelection, preference)
               ? preference->getPreferenceValue() + control
               : "unset" + control;
  };
  EXPECT_EQ(valueOf("on"), PreferenceBase::PreferenceEnabled);
  EXPECT_EQ(valueOf("user"), "no uc");
  EXPECT_EQ(valueOf("without"), "unset");
  const HostInitSettings& settings = *m_profiles.getFileInitMap().at("user");
  EXPECT_FALSE(settings.isEnabled(ProxyHost, UserControllable));
  EXPECT_FALSE(settings.isEnabled(EnableAutomaticServerSelection, PreferenceAttribute{}));
}

TEST_F(ProfileMgrTest, ADirectoryThatDoesNotExistIsEmptyAndAFileInItsPlaceReported) {
  m_profiles.loadDirectory(m_directory.File("none"));
  EXPECT_THAT(m_profiles.getProblems(), IsEmpty());
  m_profiles.loadDirectory(m_directory.Write("file", ""));
  EXPECT_THAT(m_profiles.getFileInitMap(), IsEmpty());
  EXPECT_THAT(m_profiles.getProblems(), Tell({{0, {"directory cannot be opened"}}}));
}

TEST_F(ProfileMgrTest, OtherAndHiddenFilesArePassedOver) {
  for (const char* name : {"profile.XML", "profile.xml~", "xml", ".hidden.xml", ".xml"}) {
    m_directory.Write(name, "no profile");
  }
  load();
  EXPECT_THAT(m_profiles.getFileInitMap(), IsEmpty());
  EXPECT_THAT(m_profiles.getProblems(), IsEmpty());
}

TEST_F(ProfileMgrTest, AFileThatIsNoProfileIsSkippedAndTheOthersUsed) {
  m_directory.Write("a.xml", "<profile version=\"1\">\n<hosts>");
  m_directory.MakeDirectory("b.xml");
  ASSERT_EQ(::mkfifo(m_directory.File("c.xml").c_str(), 0600), 0);
  std::filesystem::create_symlink("nowhere", m_directory.File("d.xml"));
  std::filesystem::create_symlink("e.xml", m_directory.File("e.xml"));
  std::filesystem::resize_file(m_directory.Write("f.xml", ""), std::uintmax_t{1} << 30U);
  write("g.xml", "<host name=\"g\"/>");
  load();
  EXPECT_THAT(m_profiles.getFileInitMap(), ElementsAre(Key("g")));
  EXPECT_THAT(m_profiles.getHostProfileMap(), ElementsAre(Key("g")));
  EXPECT_THAT(m_profiles.getProblems(), Tell({{2, {"not well-formed"}},
                                              {0, {"not a regular file"}},
                                              {0, {"not a regular file"}},
                                              {0, {"No such file"}},
                                              {0, {"Too many levels of symbolic links"}},
                                              {0, {"larger than 8 MiB"}}}));
  EXPECT_EQ(m_profiles.getProblems()[0].file, m_directory.File("a.xml"));
}

TEST_F(ProfileMgrTest, ANameBelongsToTheFirstFileInByteOrderAndInItToTheFirstEntry) {
  write("a.xml", "<host name=\"gw\" address=\"lower\"/><host name=\"GW\"/>");
  write("B.xml", "\n<host name=\"gw\" address=\"one\"/>\n<host name=\"gw\" address=\"two\"/>");
  load();
  EXPECT_EQ(m_profiles.getProfileNameFromHost("gw"), "B");
  EXPECT_EQ(host("gw").getHostAddress(), "one");
  EXPECT_EQ(m_profiles.getProfileNameFromHost("GW"), "a") << "another name";
  EXPECT_THAT(m_profiles.getFileInitMap(), ElementsAre(Key("B"), Key("a")));
  const std::string first = m_directory.File("B.xml") + ":5";
  EXPECT_THAT(m_profiles.getProblems(), Tell({{6, {"\"gw\"", first}}, {4, {"\"gw\"", first}}}));
  EXPECT_EQ(m_profiles.getProblems()[1].file, m_directory.File("a.xml"));
}

TEST_F(ProfileMgrTest, AProfileNameInTwoDirectoriesBelongsToTheFirst) {
  for (const std::string directory : {"one", "two"}) {
    m_directory.MakeDirectory(directory);
    write(directory + "/a.xml", "<host name=\"" + directory + "\"/>");
    m_profiles.loadDirectory(m_directory.File(directory));
  }
  EXPECT_THAT(m_profiles.getHostProfileMap(), ElementsAre(Key("one")));
  EXPECT_THAT(m_profiles.getProblems(), Tell({{0, {"\"a\"", m_directory.File("one/a.xml")}}}));
}

TEST_F(ProfileMgrTest, GivenHeadendsMakeAProfileThatTakesPartAndWhatIsNoneIsReported) {
  m_profiles.addHeadends("line", {"gw1:8443", "[::1]", "g w", "", "gw1:8443"});
  EXPECT_THAT(m_profiles.getHostProfileMap(), ElementsAre(Key("[::1]"), Key("gw1:8443")));
  EXPECT_EQ(m_profiles.getProfileNameFromHost("gw1:8443"), "line");
  EXPECT_EQ(host("gw1:8443").getHostAddress(), "gw1:8443");
  Preference* preference = nullptr;
  ASSERT_TRUE(m_profiles.getFileInitMap().at("line")->getPreferences().getPreference(
      EnableAutomaticServerSelection, preference));
  EXPECT_EQ(preference->getPreferenceValue(), PreferenceBase::PreferenceEnabled);
  EXPECT_FALSE(preference->isUserControllable());
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
  EXPECT_THAT(m_profiles.getProblems(), Tell({{0, {"100000", "10000"}}}));
}

TEST_F(ProfileMgrTest, ProfilesBeyondTheTotalSizeAreNotRead) {
  for (int i = 0; i < 8; ++i) {
    const std::string path = m_directory.Write("p" + std::to_string(i) + ".xml", "");
    std::filesystem::resize_file(path, MaxConfigurationFileSize);
  }
  write("q.xml", "<host name=\"last\"/>");
  load();
  EXPECT_THAT(m_profiles.getHostProfileMap(), IsEmpty());
  ASSERT_THAT(m_profiles.getProblems(), SizeIs(9));
  EXPECT_EQ(m_profiles.getProblems().back().file, m_directory.File("q.xml"));
  EXPECT_THAT(m_profiles.getProblems().back().text, testing::HasSubstr("64 MiB"));
}

TEST_F(ProfileMgrTest, EntriesBeyondAHundredThousandAltogetherAreLeftOut) {
  std::string hosts;
  for (std::size_t i = 0; i < ProfileMgr::MaxHosts - 1; ++i) {
    hosts += "<host name=\"g" + std::to_string(i) + "\"/>";
  }
  write("a.xml", hosts);
  write("b.xml", "<host name=\"b1\"/>\n<host name=\"b2\"/>");
  write("c.xml", "<host name=\"c\"/>");
  load();
  EXPECT_THAT(m_profiles.getHostProfileMap(), SizeIs(ProfileMgr::MaxHosts));
  EXPECT_EQ(m_profiles.getProfileNameFromHost("b1"), "b");
  EXPECT_EQ(m_profiles.getProfileNameFromHost("b2"), "");
  EXPECT_THAT(m_profiles.getProblems(), Tell({{5, {"100000"}}}));
}

TEST_F(ProfileMgrTest, ThousandsOfMistakesAreToldAThousandTimes) {
  for (int i = 0; i < 20; ++i) {
    std::string hosts;
    for (int j = 0; j < 99; ++j) {
      hosts += "<host/>";
    }
    write("p" + std::to_string(i) + ".xml", hosts);
  }
  load();
  ASSERT_THAT(m_profiles.getProblems(), SizeIs(ProfileMgr::MaxProblems));
  EXPECT_THAT(m_profiles.getProblems().back().text, testing::HasSubstr("not listed"));
}

}  // namespace tests
