// Which name a misspelt one was probably meant to be.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "vpn/Common/Utility/NearestName.h"

namespace {

const std::vector<std::string> Names = {"select", "profile", "preferences", "cache", "go"};

std::string nearest(const std::string& found) {
  const std::string* const name = nearestName(found, Names);
  return name != nullptr ? *name : "none";
}

TEST(NearestName, ALetterMissingAddedReplacedOrSwappedIsForgiven) {
  EXPECT_EQ(nearest("slect"), "select");
  EXPECT_EQ(nearest("selects"), "select");
  EXPECT_EQ(nearest("selekt"), "select");
  EXPECT_EQ(nearest("sleect"), "select");
}

TEST(NearestName, LetterCaseDoesNotCount) { EXPECT_EQ(nearest("CACHE"), "cache"); }

TEST(NearestName, TheNearestOfSeveralIsTaken) {
  const std::vector<std::string> names = {"--proxy-user", "--profiles"};
  EXPECT_EQ(*nearestName("--profile", names), "--profiles");
}

TEST(NearestName, WhatSharesNoLetterIsNotMeant) {
  EXPECT_EQ(nearest("xyzzy"), "none");
  EXPECT_EQ(nearest("x"), "none");
  EXPECT_EQ(nearest(""), "none");
}

TEST(NearestName, WhatIsTooLongToBeAMisspellingIsNotCompared) {
  EXPECT_EQ(nearest(std::string(1'000'000, 's')), "none");
}

TEST(NearestName, AmongNoNamesNoneIsNear) { EXPECT_EQ(nearestName("a", {}), nullptr); }

}  // namespace
