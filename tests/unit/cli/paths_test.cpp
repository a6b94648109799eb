// Where files are looked for, by environment.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "cli/files/FileOptions.h"
#include "tests/support/TemporaryDirectory.h"

TEST(Paths, FollowTheXdgVariablesOrElseStandBelowTheHomeDirectory) {
  struct Case {
    const char *config, *cache, *home;
    std::string userConfig, userCache;
  };
  for (const Case& each :
       {Case{nullptr, nullptr, "/home/kim", "/home/kim/.config/ahs", "/home/kim/.cache/ahs"},
        Case{"/conf", "/cache", "/home/kim", "/conf/ahs", "/cache/ahs"},
        Case{"", "cache", "/home/kim", "/home/kim/.config/ahs", "/home/kim/.cache/ahs"},
        Case{nullptr, nullptr, nullptr, "", ""}, Case{"config", "cache", "home/kim", "", ""},
        Case{"config", "cache", ".", "", ""}, Case{"config", "cache", "", "", ""}}) {
    SCOPED_TRACE(each.userConfig + " " + (each.home == nullptr ? "no home" : each.home));
    const DefaultPaths paths = defaultPathsFor(each.config, each.cache, each.home);
    const bool hasOwn = !each.userConfig.empty();
    EXPECT_EQ(paths.userProfiles, hasOwn ? each.userConfig + "/profiles" : "");
    EXPECT_EQ(paths.userPreferences, hasOwn ? each.userConfig + "/preferences.xml" : "");
    EXPECT_EQ(paths.cacheDirectory, each.userCache);
    EXPECT_EQ(paths.systemProfiles, "/etc/ahs/profiles");
    EXPECT_EQ(paths.globalPreferences, "/etc/ahs/preferences.xml");
  }
}

TEST(Paths, WhatIsNotThereOrOfAnotherKindIsNotUsedNorWaitedFor) {
  const tests::TemporaryDirectory directory;
  const std::string file = directory.Write("file", "");
  ASSERT_EQ(mkfifo(directory.File("fifo").c_str(), 0600), 0);
  EXPECT_EQ(findDirectoryError(directory.Path()), "");
  EXPECT_EQ(findFileError(file), "");
  EXPECT_EQ(findDirectoryError(file), "it is not a directory");
  EXPECT_EQ(findFileError(directory.Path()), "it is a directory, not a file");
  EXPECT_EQ(findDirectoryError("/no/such"), "No such file or directory");
  EXPECT_EQ(findFileError(""), "No such file or directory");
  EXPECT_EQ(findFileError(directory.File("fifo")), "it is not a regular file");
}
