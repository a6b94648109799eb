// The preference manager: its life, what it hands out, and what it tells of wrong files.

#include "tests/unit/api/api_fixture.h"
#include "vpn/Api/PreferenceMgr.h"
#include "vpn/include/InstanceSmartPtr.h"

namespace tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::SizeIs;

class PreferenceMgrTest : public FileTest {
 protected:
  void writeUser(const std::string& inside) {
    m_sources.userPreferencesFile = m_directory.Write("100%s%n.xml", preferencesText(inside));
  }
  void writeGlobal(const std::string& inside) {
    m_sources.globalPreferencesFile = m_directory.Write("global.xml", preferencesText(inside));
  }

  PreferenceMgr::Sources m_sources;
};

}  // namespace

TEST_F(PreferenceMgrTest, ThereIsOneFromItsCreationUntilTheLastAcquisitionIsGivenBack) {
  EXPECT_EQ(PreferenceMgr::acquireInstance(), nullptr);
  EXPECT_TRUE(CInstanceSmartPtr<PreferenceMgr>() == nullptr);
  ASSERT_EQ(PreferenceMgr::createInstance(m_sources), PREFERENCEMGR_SUCCESS);
  EXPECT_EQ(PreferenceMgr::createInstance(m_sources), PREFERENCEMGR_ERROR_ALREADY_EXISTS);
  PreferenceMgr* first = PreferenceMgr::acquireInstance();
  PreferenceMgr* second = PreferenceMgr::acquireInstance();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first, second);
  first->releaseInstance();
  first->releaseInstance();
  EXPECT_EQ(PreferenceMgr::acquireInstance(), second);
  second->releaseInstance();
  second->releaseInstance();
  EXPECT_EQ(PreferenceMgr::acquireInstance(), nullptr);
}

TEST_F(PreferenceMgrTest, WithoutFilesEveryPreferenceHasItsDefaultAndNoOtherNumberIsOne) {
  m_sources.cacheDirectory = "/var/cache/some";
  const ScopedPreferenceMgr preferences(m_sources);
  for (const PreferenceBase::Definition& definition : PreferenceBase::definitions()) {
    EXPECT_EQ(preferences.Value(definition.id), definition.defaultValue) << definition.name;
  }
  EXPECT_THAT(preferences->getProblems(), IsEmpty());
  EXPECT_EQ(preferences->getCacheDirectory(), "/var/cache/some");
  std::string value = "untouched";
  EXPECT_EQ(preferences->getPreferenceValue(static_cast<PreferenceId>(1), value),
            PREFERENCEMGR_ERROR_BAD_PARAMETER);
  EXPECT_EQ(value, "untouched");
}

TEST_F(PreferenceMgrTest, AProxyInTheUsersPreferencesIsReportedAsWithoutEffect) {
  writeUser(preferenceElement("ProxyHost", "users") + preferenceElement("ProxyPort", "8080"));
  writeGlobal(preferenceElement("ProxyPort", "3128"));
  const ScopedPreferenceMgr preferences(m_sources);
  EXPECT_EQ(preferences.Value(ProxyHost), "");
  EXPECT_EQ(preferences.Value(ProxyPort), "3128");
  ASSERT_THAT(preferences->getProblems(), SizeIs(2)) << "one each";
  EXPECT_EQ(preferences->getProblems()[0].text,
            "ProxyHost has no effect in a user's preferences; set it in the global ones");
  EXPECT_EQ(preferences->getProblems()[0].file, m_sources.userPreferencesFile);
  UserPreferences* user = nullptr;
  UserPreferences* global = nullptr;
  ASSERT_EQ(preferences->getParsedPreferenceFile(User, user), PREFERENCEMGR_SUCCESS);
  ASSERT_EQ(preferences->getParsedPreferenceFile(Global, global), PREFERENCEMGR_SUCCESS);
  EXPECT_EQ(user->getProxyHost(), "users");
  EXPECT_EQ(user->getProxyPort(), "8080");
  EXPECT_EQ(global->getProxyHost(), "");
  EXPECT_EQ(global->getProxyPort(), "3128");
}

TEST_F(PreferenceMgrTest, GivenHeadendsStandBesideTheProfilesAndHaveNamesFirst) {
  m_sources.profileDirectory = m_directory.MakeDirectory("profiles");
  m_directory.Write("profiles/europe.xml",
                    profileWithHosts("<host name=\"gw\"/><host name=\"Given\" address=\"x\"/>"));
  m_sources.headends = {"gw2:8443", {"Given", "gw1"}};
  const ScopedPreferenceMgr preferences(m_sources);
  ProfileMgr* profiles = nullptr;
  ASSERT_EQ(preferences->getProfileMgr(profiles), PREFERENCEMGR_SUCCESS);
  EXPECT_THAT(profiles->getHostProfileMap(), ElementsAre(Key("Given"), Key("gw"), Key("gw2:8443")));
  EXPECT_EQ(profiles->getHostProfileMap().at("Given")->getHostAddress(), "gw1");
  EXPECT_THAT(preferences->getProblems(), SizeIs(1)) << "the profile's entry of that name";
}

TEST_F(PreferenceMgrTest, ProblemsAreKeptInTheOrderOfReadingAndLoggedOneLineEach) {
  writeUser("<preferense/>");
  writeGlobal("<");
  m_sources.profileDirectory = m_directory.MakeDirectory("profiles");
  m_directory.Write("profiles/a.xml", profileWithHosts("<host/>"));
  const LogCapture log;
  const ScopedPreferenceMgr preferences(m_sources);
  EXPECT_EQ(preferences.Status(), PREFERENCEMGR_SUCCESS);
  const std::vector<FileProblem> problems = preferences->getProblems();
  EXPECT_THAT(problems, Tell({{3, {"did you mean <preference>?"}},
                              {3, {"not well-formed"}},
                              {4, {"without \"name\""}}}));
  ASSERT_THAT(log.Lines(), SizeIs(3));
  for (std::size_t i = 0; i < problems.size(); ++i) {
    EXPECT_EQ(log.Lines()[i],
              "vpn/Api/PreferenceMgr: PreferenceMgr: " + std::to_string(Logging::DBG_Warning) +
                  ": " + problems[i].toString());
  }
}

}  // namespace tests
