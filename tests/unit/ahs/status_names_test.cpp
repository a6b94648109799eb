// The names of status codes, compared with the headers that declare them.

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "vpn/Api/AHS/HeadendSelectionErrors.h"

namespace {

/// The enumerators of a header that are status codes: name, value.
std::vector<std::pair<std::string, STATUSCODE>> codesOf(const std::string& path) {
  std::ifstream header(std::string(AHS_SOURCE_DIRECTORY "/") + path);
  std::vector<std::pair<std::string, STATUSCODE>> codes;
  std::string name;
  std::string word;
  while (header >> word) {
    if (word != "=") {
      name = word;
    } else if (header >> word && word.rfind("0xFE", 0) == 0) {
      codes.emplace_back(name, std::stol(word, nullptr, 16));
    }
  }
  return codes;
}

}  // namespace

class StatusNames : public ::testing::TestWithParam<const char*> {};

TEST_P(StatusNames, EveryCodeOfTheHeaderHasItsOwnName) {
  const auto codes = codesOf(GetParam());
  EXPECT_FALSE(codes.empty());
  for (const auto& [name, code] : codes) {
    EXPECT_EQ(statusCodeName(code), name);
  }
}

INSTANTIATE_TEST_SUITE_P(
    OfEachModule, StatusNames,
    ::testing::Values("vpn/Api/AHS/HeadendSelectionErrors.h", "vpn/Api/PreferenceMgr.h",
                      "vpn/Common/Utility/ExecutionContext.h", "vpn/Common/Utility/Thread.h",
                      "vpn/Common/Utility/TimerList.h", "vpn/include/HttpSession.h"));

TEST(StatusName, ZeroIsSuccess) { EXPECT_STREQ(statusCodeName(0), "HEADENDSELECTION_SUCCESS"); }

TEST(StatusName, AForeignCodeIsUnknown) {
  EXPECT_STREQ(statusCodeName(1), "UNKNOWN");
  EXPECT_STREQ(statusCodeName(-1), "UNKNOWN");
  EXPECT_STREQ(statusCodeName(0xFE530012), "UNKNOWN");
}
