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

TEST(NearestName, ALetterMissingAddedReplacedOrSwappedIsForgivenInEveryLetterCase) {
  for (const char* misspelt : {"slect", "selects", "selekt", "sleect", "SELECT"}) {
    EXPECT_EQ(nearest(misspelt), "select") << misspelt;
  }
}

TEST(NearestName, TheNearestOfSeveralIsTaken) {
  const std::vector<std::string> names = {"--proxy-user", "--profiles"};
  EXPECT_EQ(*nearestName("--profile", names), "--profiles");
}

TEST(NearestName, WhatSharesNoLetterOrIsTooLongToBeAMisspellingIsNotMeant) {
  for (const std::string& other :
       {std::string("xyzzy"), std::string("x"), std::string(), std::string(1'000'000, 's')}) {
    EXPECT_EQ(nearest(other), "none");
  }
  EXPECT_EQ(nearestName("a", {}), nullptr);
}

}  // namespace
