// Files that another user could have written, and files that nobody else could: owners, permissions
// of files and directories, targets of links, and the text of a refusal.

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>

#include "tests/unit/api/api_fixture.h"
#include "vpn/Common/Trust/FileTrust.h"

namespace tests {
namespace {

using FileTrust::Check;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Key;

constexpr uid_t Nobody = 65534;

class FileTrustTest : public FileTest {
 protected:
  FileTrustTest()
      : m_inner(m_directory.MakeDirectory("inner")),
        m_file(m_directory.Write("inner/file.xml", "text")) {}

  /// Why a file is refused; empty if it is accepted.
  static std::string refusalOf(const std::string& path, Check check = Check::Strict) {
    FileTrust::Descriptor file;
    FileTrust::Refusal refusal;
    return FileTrust::openFile(path, check, file, refusal) ? "" : refusal.text;
  }

  static void setMode(const std::string& path, mode_t mode) {
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
  }

  /// Needs root. @return whether the file now belongs to another user.
  static bool giveAway(const std::string& path) {
    return ::lchown(path.c_str(), Nobody, static_cast<gid_t>(-1)) == 0;
  }

  const std::string m_inner;
  const std::string m_file;
};

}  // namespace

TEST_F(FileTrustTest, WhatOthersMayWriteIsNamedWithTheRemedy) {
  const std::string group = " may be written by group " + std::to_string(::getegid());
  const std::string everybody = " may be written by every user";
  struct Case {
    const char* name;
    std::string path;
    mode_t mode;
    std::string refusal;
    std::string remedy;
  };
  const Case cases[] = {
      {"file of a group", m_file, 0664, group + " (mode 0664)", "chmod g-w"},
      {"file of everybody", m_file, 0666, everybody + " (mode 0666)", "chmod go-w"},
      {"file of the others", m_file, 0646, everybody, "chmod o-w"},
      {"the sticky bit is no excuse for a file", m_file, 01666, everybody, "chmod go-w"},
      {"directory of a group", m_inner, 0775, group, "chmod g-w"},
      {"directory of everybody", m_inner, 0777, everybody, "chmod go-w"},
  };
  const std::string deep = m_directory.MakeDirectory("inner/deep") + "/../file.xml";
  for (const Case& one : cases) {
    SCOPED_TRACE(one.name);
    setMode(one.path, one.mode);
    EXPECT_THAT(refusalOf(deep), HasSubstr(one.path + one.refusal));
    EXPECT_THAT(refusalOf(deep), HasSubstr("'" + one.remedy + " " + one.path + "'"));
    EXPECT_THAT(refusalOf(deep), HasSubstr("--trust-profiles"));
    EXPECT_EQ(refusalOf(deep, Check::Waived), "");
    setMode(one.path, 0700);
    EXPECT_EQ(refusalOf(deep), "");
  }
}

/// Gives user 65534 rights to a file by an access control list (acl(5)) with this mask. @return
/// whether the file system has such lists.
bool grant(const std::string& path, unsigned short rights, unsigned short mask) {
  struct Entry {
    std::uint16_t tag;
    std::uint16_t rights;
    std::uint32_t id;
  };
  // As linux/posix_acl_xattr.h describes it.
  const struct {
    std::uint32_t version = 2;
    std::array<Entry, 5> entries;
  } list{2,
         {{{0x01, 7, ~0U},
           {0x02, rights, Nobody},
           {0x04, 0, ~0U},
           {0x10, mask, ~0U},
           {0x20, 0, ~0U}}}};
  return ::setxattr(path.c_str(), "system.posix_acl_access", &list, sizeof list, 0) == 0;
}

TEST_F(FileTrustTest, WhatAnAccessControlListLetsAnotherUserWriteIsRefused) {
  constexpr unsigned short Read = 4;
  constexpr unsigned short Write = 6;
  setMode(m_file, 0600);
  if (!grant(m_file, Write, Write)) {
    GTEST_SKIP() << "the file system has no access control lists";
  }
  EXPECT_THAT(refusalOf(m_file), HasSubstr(" may be written by group"));
  ASSERT_EQ(std::system(("chmod g-w " + m_file).c_str()), 0) << "the remedy";
  EXPECT_EQ(refusalOf(m_file), "");
  ASSERT_TRUE(grant(m_file, Write, Read));
  EXPECT_EQ(refusalOf(m_file), "") << "the mask takes the right to write away";
  ASSERT_TRUE(grant(m_inner, Write, Write));
  EXPECT_THAT(refusalOf(m_file), HasSubstr(m_inner + " may be written by group"));
}

TEST_F(FileTrustTest, ADirectoryInWhichOnlyOwnEntriesChangeIsTrustedButNoFileOfAnotherUserInIt) {
  setMode(m_inner, 01777);
  EXPECT_EQ(refusalOf(m_file), "");
  if (!giveAway(m_file)) {
    GTEST_SKIP() << "giving files away takes root";
  }
  EXPECT_THAT(refusalOf(m_file), HasSubstr(m_file + " belongs to user 65534"));
  EXPECT_THAT(refusalOf(m_file), HasSubstr("Look at what it holds, and use a copy of your own"));
}

TEST_F(FileTrustTest, ADirectoryOrALinkOfAnotherUserIsRefused) {
  const std::string link = m_inner + "/link.xml";
  std::filesystem::create_symlink(m_file, link);
  EXPECT_EQ(refusalOf(link), "");
  if (!giveAway(link)) {
    GTEST_SKIP() << "giving files away takes root";
  }
  EXPECT_THAT(refusalOf(link), HasSubstr(link + " belongs to user 65534"));
  ASSERT_TRUE(giveAway(m_inner));
  EXPECT_THAT(refusalOf(m_file), HasSubstr(m_inner + " belongs to user 65534"));
}

TEST_F(FileTrustTest, WithRootsFilesAnotherUserIsContent) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "becoming another user takes root";
  }
  setMode(m_directory.Path(), 0755);
  setMode(m_inner, 0755);
  setMode(m_file, 0644);
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

TEST_F(FileTrustTest, LinksToDirectoriesAreFollowedAbsoluteAndRelative) {
  std::filesystem::create_symlink(m_inner, m_directory.File("absolute"));
  std::filesystem::create_symlink("./absolute/", m_directory.File("relative"));
  EXPECT_EQ(refusalOf(m_directory.File("relative") + "//./../inner/file.xml"), "");
  setMode(m_file, 0664);
  EXPECT_THAT(refusalOf(m_directory.File("relative") + "/file.xml"), HasSubstr(m_file));
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

TEST_F(FileTrustTest, APathThatLeadsToNoFileIsTold) {
  std::filesystem::create_symlink("nowhere", m_inner + "/dangling");
  std::filesystem::create_symlink("circle", m_inner + "/circle");
  EXPECT_THAT(refusalOf(m_inner + "/dangling"), HasSubstr("No such file"));
  EXPECT_THAT(refusalOf(m_inner + "/circle"), HasSubstr("Too many levels of symbolic links"));
  EXPECT_THAT(refusalOf(m_file + "/more"), HasSubstr("Not a directory"));
  EXPECT_THAT(refusalOf(m_inner), HasSubstr("not a regular file"));
  EXPECT_THAT(refusalOf(""), HasSubstr("No such file"));
  FileTrust::Descriptor directory;
  FileTrust::Refusal refusal;
  EXPECT_FALSE(FileTrust::openDirectory(m_file, Check::Strict, directory, refusal));
  EXPECT_EQ(refusal.error, ENOTDIR);
}

TEST_F(FileTrustTest, ANameThatCouldForgeALineOrACommandIsQuoted) {
  for (const auto& [name, remedy] : {std::pair("a\nb", "chmod go-w $'%/a\\x0ab''"),
                                     std::pair("a;b c", "chmod go-w '%/a;b c''")}) {
    const std::string file = m_directory.Write(std::string("inner/") + name, "text");
    setMode(file, 0666);
    const std::string text = refusalOf(file);
    EXPECT_THAT(text,
                HasSubstr(std::string(remedy).replace(std::string(remedy).find('%'), 1, m_inner)));
    EXPECT_THAT(text, testing::Not(HasSubstr("\n")));
  }
}

TEST_F(FileTrustTest, AProfileThatOthersMayWriteIsSkippedAndTheOthersUsed) {
  setMode(m_directory.Write("inner/file.xml", profileWithHosts("<host name=\"bad\"/>")), 0664);
  m_directory.Write("inner/good.xml", profileWithHosts("<host name=\"good\"/>"));
  ProfileMgr profiles;
  profiles.loadDirectory(m_inner);
  EXPECT_THAT(profiles.getHostProfileMap(), ElementsAre(Key("good")));
  EXPECT_THAT(
      profiles.getProblems(),
      Tell({{0, {"another user could have changed it", m_file, "the whole file is skipped"}}}));
}

TEST_F(FileTrustTest, ADirectoryThatOthersMayWriteIsRefusedOnceAndAsAWhole) {
  m_directory.Write("inner/file.xml", profileWithHosts("<host name=\"a\"/>"));
  m_directory.Write("inner/good.xml", profileWithHosts("<host name=\"b\"/>"));
  setMode(m_inner, 0777);
  ProfileMgr profiles;
  profiles.loadDirectory(m_inner);
  EXPECT_THAT(profiles.getFileInitMap(), IsEmpty());
  EXPECT_THAT(profiles.getProblems(), Tell({{0, {"the directory is refused", m_inner}}}));
  ProfileMgr trusting;
  trusting.trustFiles();
  trusting.loadDirectory(m_inner);
  EXPECT_THAT(trusting.getHostProfileMap(), ElementsAre(Key("a"), Key("b")));
  EXPECT_THAT(trusting.getProblems(), IsEmpty());
}

TEST_F(FileTrustTest, PreferencesThatOthersMayWriteCountAsNotThereUnlessTheCallerTrustsThem) {
  PreferenceMgr::Sources sources;
  const std::string text = preferencesText(preferenceElement("SelectionImprovement", "5"));
  sources.userPreferencesFile = m_directory.Write("user.xml", text);
  sources.globalPreferencesFile = m_directory.Write("global.xml", text);
  setMode(sources.userPreferencesFile, 0666);
  setMode(sources.globalPreferencesFile, 0666);
  {
    const ScopedPreferenceMgr preferences(sources);
    EXPECT_EQ(preferences.Value(SelectionImprovement), "20");
    EXPECT_THAT(preferences->getProblems(),
                Tell({{0, {sources.userPreferencesFile}}, {0, {sources.globalPreferencesFile}}}));
  }
  sources.trustFiles = true;
  const ScopedPreferenceMgr preferences(sources);
  EXPECT_EQ(preferences.Value(SelectionImprovement), "5");
  EXPECT_THAT(preferences->getProblems(), IsEmpty());
}

}  // namespace tests
