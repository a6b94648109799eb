// Where files are looked for, by environment.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "cli/files/FileOptions.h"
#include "tests/support/TemporaryDirectory.h"

TEST(Paths, StandBelowTheHomeDirectory) {
  const DefaultPaths paths = defaultPathsFor(nullptr, nullptr, "/home/kim");
  EXPECT_EQ(paths.userProfiles, "/home/kim/.config/ahs/profiles");
  EXPECT_EQ(paths.userPreferences, "/home/kim/.config/ahs/preferences.xml");
  EXPECT_EQ(paths.cacheDirectory, "/home/kim/.cache/ahs");
  EXPECT_EQ(paths.systemProfiles, "/etc/ahs/profiles");
  EXPECT_EQ(paths.globalPreferences, "/etc/ahs/preferences.xml");
}

TEST(Paths, FollowTheXdgVariables) {
  const DefaultPaths paths = defaultPathsFor("/conf", "/cache", "/home/kim");
  EXPECT_EQ(paths.userProfiles, "/conf/ahs/profiles");
  EXPECT_EQ(paths.userPreferences, "/conf/ahs/preferences.xml");
  EXPECT_EQ(paths.cacheDirectory, "/cache/ahs");
}

TEST(Paths, EmptyOrRelativeXdgVariablesAreNotUsed) {
  const DefaultPaths paths = defaultPathsFor("", "cache", "/home/kim");
  EXPECT_EQ(paths.userProfiles, "/home/kim/.config/ahs/profiles");
  EXPECT_EQ(paths.cacheDirectory, "/home/kim/.cache/ahs");
}

TEST(Paths, AUserWithoutAHomeDirectoryHasTheSystemsOnly) {
  const DefaultPaths paths = defaultPathsFor(nullptr, nullptr, nullptr);
  EXPECT_EQ(paths.userProfiles, "");
  EXPECT_EQ(paths.cacheDirectory, "");
  EXPECT_EQ(paths.systemProfiles, "/etc/ahs/profiles");
}

TEST(Paths, ARelativeHomeDirectoryCountsAsNone) {
  for (const char* home : {"home/kim", ".", ""}) {
    const DefaultPaths paths = defaultPathsFor("config", "cache", home);
    EXPECT_EQ(paths.userProfiles, "") << home;
    EXPECT_EQ(paths.userPreferences, "") << home;
    EXPECT_EQ(paths.cacheDirectory, "") << home;
  }
}

TEST(Paths, ADirectoryIsNotTakenForAFileNorAFileForADirectory) {
  const tests::TemporaryDirectory directory;
  const std::string file = directory.Write("file", "");
  EXPECT_EQ(findDirectoryError(directory.Path()), "");
  EXPECT_EQ(findFileError(file), "");
  EXPECT_EQ(findDirectoryError(file), "it is not a directory");
  EXPECT_EQ(findFileError(directory.Path()), "it is a directory, not a file");
}

TEST(Paths, WhatDoesNotExistIsSaidNotToExist) {
  EXPECT_EQ(findDirectoryError("/no/such"), "No such file or directory");
  EXPECT_EQ(findFileError(""), "No such file or directory");
}

TEST(Paths, AFifoIsNotWaitedFor) {
  const tests::TemporaryDirectory directory;
  ASSERT_EQ(mkfifo(directory.File("fifo").c_str(), 0600), 0);
  EXPECT_EQ(findFileError(directory.File("fifo")), "it is not a regular file");
}
