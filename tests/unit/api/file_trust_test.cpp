// Files that another user could have written, and those that nobody else could: who owns them, who
// may write them and the directories on the way, where links lead, and what the refusal says.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "tests/unit/api/api_fixture.h"
#include "vpn/Api/FileTrust.h"

using FileTrust::Check;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Key;
using tests::ProblemAt;
using tests::profileWithHosts;
using tests::TemporaryDirectory;
using Pieces = std::vector<std::string>;

namespace {

constexpr uid_t Nobody = 65534;

class FileTrustTest : public testing::Test {
 protected:
  FileTrustTest()
      : m_inner(m_directory.MakeDirectory("inner")),
        m_file(m_directory.Write("inner/file.xml", "text")) {}

  /// Why a file is refused; empty if it is not.
  static std::string refusalOf(const std::string& path, Check check = Check::Strict) {
    FileTrust::Descriptor file;
    FileTrust::Refusal refusal;
    return FileTrust::openFile(path, check, file, refusal) ? "" : refusal.text;
  }

  static void setMode(const std::string& path, mode_t mode) {
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
  }

  const TemporaryDirectory m_directory;
  const std::string m_inner;
  const std::string m_file;
};

bool isRoot() { return ::geteuid() == 0; }

}  // namespace

TEST_F(FileTrustTest, AFileOfTheUserThatNobodyElseMayWriteIsOpenedForReading) {
  FileTrust::Descriptor file;
  FileTrust::Refusal refusal;
  ASSERT_TRUE(FileTrust::openFile(m_file, Check::Strict, file, refusal)) << refusal.text;
  char text[8] = {};
  EXPECT_EQ(::read(file.get(), text, sizeof text), 4);
  EXPECT_STREQ(text, "text");
}

TEST_F(FileTrustTest, AFileThatTheGroupMayWriteIsRefusedWithTheRemedy) {
  setMode(m_file, 0664);
  EXPECT_THAT(refusalOf(m_file), HasSubstr(m_file + " may be written by group " +
                                           std::to_string(::getegid()) + " (mode 0664)"));
  EXPECT_THAT(refusalOf(m_file), HasSubstr("'chmod g-w " + m_file + "'"));
  EXPECT_THAT(refusalOf(m_file), HasSubstr("--trust-profiles"));
}

TEST_F(FileTrustTest, AFileThatEverybodyMayWriteIsRefusedWithTheRemedy) {
  setMode(m_file, 0666);
  EXPECT_THAT(refusalOf(m_file), HasSubstr("may be written by every user (mode 0666)"));
  EXPECT_THAT(refusalOf(m_file), HasSubstr("'chmod go-w " + m_file + "'"));
  setMode(m_file, 0646);
  EXPECT_THAT(refusalOf(m_file), HasSubstr("'chmod o-w " + m_file + "'"));
}

TEST_F(FileTrustTest, TheStickyBitIsNoExcuseForAFile) {
  setMode(m_file, 01666);
  EXPECT_THAT(refusalOf(m_file), HasSubstr("may be written by every user"));
}

TEST_F(FileTrustTest, ADirectoryOnTheWayThatOthersMayWriteIsNamed) {
  const std::string deep = m_directory.MakeDirectory("inner/deep");
  const std::string file = m_directory.Write("inner/deep/file.xml", "text");
  setMode(m_inner, 0775);
  EXPECT_THAT(refusalOf(file), HasSubstr(m_inner + " may be written by group"));
  EXPECT_THAT(refusalOf(file), HasSubstr("'chmod g-w " + m_inner + "'"));
}

TEST_F(FileTrustTest, ADirectoryInWhichOnlyOwnEntriesChangeIsTrusted) {
  setMode(m_inner, 01777);
  EXPECT_EQ(refusalOf(m_file), "");
}

TEST_F(FileTrustTest, AFileOfAnotherUserIsRefusedAlsoInSuchADirectory) {
  if (!isRoot()) {
    GTEST_SKIP() << "giving files away takes root";
  }
  setMode(m_inner, 01777);
  ASSERT_EQ(::chown(m_file.c_str(), Nobody, static_cast<gid_t>(-1)), 0);
  EXPECT_THAT(refusalOf(m_file), HasSubstr(m_file + " belongs to user 65534"));
  EXPECT_THAT(refusalOf(m_file), HasSubstr("'chown 0 " + m_file + "'"));
}

TEST_F(FileTrustTest, ADirectoryOfAnotherUserIsRefused) {
  if (!isRoot()) {
    GTEST_SKIP() << "giving files away takes root";
  }
  ASSERT_EQ(::chown(m_inner.c_str(), Nobody, static_cast<gid_t>(-1)), 0);
  EXPECT_THAT(refusalOf(m_file), HasSubstr(m_inner + " belongs to user 65534"));
}

TEST_F(FileTrustTest, WithRootsFilesAnotherUserIsContent) {
  if (!isRoot()) {
    GTEST_SKIP() << "becoming another user takes root";
  }
  setMode(m_directory.Path(), 0755);
  ASSERT_EQ(::seteuid(Nobody), 0);
  const std::string refusal = refusalOf(m_file);
  ASSERT_EQ(::seteuid(0), 0);
  EXPECT_EQ(refusal, "");
}

TEST_F(FileTrustTest, OfALinkTheDirectoryItStandsInAndTheOneItLeadsToCount) {
  const std::string other = m_directory.MakeDirectory("other");
  const std::string link = other + "/link.xml";
  std::filesystem::create_symlink("../inner/file.xml", link);
  EXPECT_EQ(refusalOf(link), "");
  setMode(other, 0777);
  EXPECT_THAT(refusalOf(link), HasSubstr(other + " may be written by every user"));
  setMode(other, 0755);
  setMode(m_inner, 0777);
  EXPECT_THAT(refusalOf(link), HasSubstr(m_inner + " may be written by every user"));
}

TEST_F(FileTrustTest, ALinkOfAnotherUserIsRefused) {
  if (!isRoot()) {
    GTEST_SKIP() << "giving files away takes root";
  }
  const std::string link = m_inner + "/link.xml";
  std::filesystem::create_symlink(m_file, link);
  EXPECT_EQ(refusalOf(link), "");
  ASSERT_EQ(::lchown(link.c_str(), Nobody, static_cast<gid_t>(-1)), 0);
  EXPECT_THAT(refusalOf(link), HasSubstr(link + " belongs to user 65534"));
}

TEST_F(FileTrustTest, LinksToDirectoriesAreFollowedAbsoluteAndRelative) {
  std::filesystem::create_symlink(m_inner, m_directory.File("absolute"));
  std::filesystem::create_symlink("./absolute/", m_directory.File("relative"));
  EXPECT_EQ(refusalOf(m_directory.File("relative") + "//./../inner/file.xml"), "");
  setMode(m_file, 0664);
  EXPECT_THAT(refusalOf(m_directory.File("relative") + "/file.xml"), HasSubstr(m_file));
}

TEST_F(FileTrustTest, LinksThatLeadNowhereOrInACircleAreTold) {
  std::filesystem::create_symlink("nowhere", m_inner + "/dangling");
  std::filesystem::create_symlink("circle", m_inner + "/circle");
  EXPECT_THAT(refusalOf(m_inner + "/dangling"), HasSubstr("No such file"));
  EXPECT_THAT(refusalOf(m_inner + "/circle"), HasSubstr("Too many levels of symbolic links"));
}

TEST_F(FileTrustTest, ARelativePathIsCheckedFromTheRootToo) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(m_inner);
  EXPECT_EQ(refusalOf("file.xml"), "");
  setMode(m_inner, 0775);
  const std::string refusal = refusalOf("./file.xml");
  std::filesystem::current_path(before);
  EXPECT_THAT(refusal, HasSubstr(m_inner + " may be written by group"));
}

TEST_F(FileTrustTest, AFileInThePlaceOfADirectoryAndTheOtherWayRoundAreTold) {
  EXPECT_THAT(refusalOf(m_file + "/more"), HasSubstr("Not a directory"));
  EXPECT_THAT(refusalOf(m_inner), HasSubstr("not a regular file"));
  EXPECT_THAT(refusalOf(""), HasSubstr("No such file"));
  FileTrust::Descriptor directory;
  FileTrust::Refusal refusal;
  EXPECT_FALSE(FileTrust::openDirectory(m_file, Check::Strict, directory, refusal));
  EXPECT_EQ(refusal.error, ENOTDIR);
}

TEST_F(FileTrustTest, WaivedTheFileIsReadWhoeverCouldHaveWrittenIt) {
  setMode(m_file, 0666);
  setMode(m_inner, 0777);
  EXPECT_EQ(refusalOf(m_file, Check::Waived), "");
}

TEST_F(FileTrustTest, ANameThatCouldForgeALineIsShownInOne) {
  const std::string file = m_directory.Write("inner/a\nb", "text");
  setMode(file, 0666);
  EXPECT_THAT(refusalOf(file), HasSubstr("a\\x0ab"));
  EXPECT_THAT(refusalOf(file), testing::Not(HasSubstr("\n")));
}

// ---- Profiles and preferences -----------------------------------------------------------------

TEST_F(FileTrustTest, AProfileThatOthersMayWriteIsSkippedAndTheOthersUsed) {
  setMode(m_directory.Write("inner/file.xml", profileWithHosts("<host name=\"bad\"/>")), 0664);
  m_directory.Write("inner/good.xml", profileWithHosts("<host name=\"good\"/>"));
  ProfileMgr profiles;
  profiles.loadDirectory(m_inner);
  EXPECT_THAT(profiles.getHostProfileMap(), ElementsAre(Key("good")));
  EXPECT_THAT(profiles.getProblems(),
              ElementsAre(ProblemAt(0, Pieces{"another user could have changed it", m_file,
                                              "the whole file is skipped"})));
}

TEST_F(FileTrustTest, ADirectoryThatOthersMayWriteIsRefusedOnceAndAsAWhole) {
  m_directory.Write("inner/file.xml", profileWithHosts("<host name=\"a\"/>"));
  m_directory.Write("inner/good.xml", profileWithHosts("<host name=\"b\"/>"));
  setMode(m_inner, 0777);
  ProfileMgr profiles;
  profiles.loadDirectory(m_inner);
  EXPECT_THAT(profiles.getFileInitMap(), IsEmpty());
  EXPECT_THAT(profiles.getProblems(),
              ElementsAre(ProblemAt(0, Pieces{"the directory is refused", m_inner})));
  ProfileMgr trusting;
  trusting.trustFiles();
  trusting.loadDirectory(m_inner);
  EXPECT_THAT(trusting.getHostProfileMap(), ElementsAre(Key("a"), Key("b")));
  EXPECT_THAT(trusting.getProblems(), IsEmpty());
}

TEST_F(FileTrustTest, PreferencesThatOthersMayWriteCountAsNotThereUnlessTheCallerTrustsThem) {
  PreferenceMgr::Sources sources;
  const std::string text =
      tests::preferencesText(tests::preferenceElement("SelectionImprovement", "5"));
  sources.userPreferencesFile = m_directory.Write("user.xml", text);
  sources.globalPreferencesFile = m_directory.Write("global.xml", text);
  setMode(sources.userPreferencesFile, 0666);
  setMode(sources.globalPreferencesFile, 0666);
  std::string value;
  {
    const tests::ScopedPreferenceMgr preferences(sources);
    EXPECT_EQ(preferences->getPreferenceValue(SelectionImprovement, value), 0);
    EXPECT_EQ(value, "20");
    EXPECT_THAT(preferences->getProblems(),
                ElementsAre(ProblemAt(0, Pieces{sources.userPreferencesFile}),
                            ProblemAt(0, Pieces{sources.globalPreferencesFile})));
  }
  sources.trustFiles = true;
  const tests::ScopedPreferenceMgr preferences(sources);
  EXPECT_EQ(preferences->getPreferenceValue(SelectionImprovement, value), 0);
  EXPECT_EQ(value, "5");
  EXPECT_THAT(preferences->getProblems(), IsEmpty());
}
