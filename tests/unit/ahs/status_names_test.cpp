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

TEST(StatusName, EveryCodeOfTheHeadersHasItsOwnNameAndAForeignOneNone) {
  for (const char* header : {"vpn/Api/AHS/HeadendSelectionErrors.h", "vpn/Api/PreferenceMgr.h",
                             "vpn/Common/Utility/ExecutionContext.h", "vpn/Common/Utility/Thread.h",
                             "vpn/Common/Utility/TimerList.h", "vpn/include/HttpSession.h"}) {
    const auto codes = codesOf(header);
    EXPECT_FALSE(codes.empty()) << header;
    for (const auto& [name, code] : codes) {
      EXPECT_EQ(statusCodeName(code), name);
    }
  }
  EXPECT_STREQ(statusCodeName(0), "HEADENDSELECTION_SUCCESS");
  EXPECT_STREQ(statusCodeName(0xFE46000C), "HTTP_SESSION_ERROR_CONNECT");
  EXPECT_STREQ(statusCodeName(0xFE460017), "HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE");
  EXPECT_STREQ(statusCodeName(0xFE460019), "HTTP_SESSION_ERROR_DNS_RESOLUTION");
  EXPECT_STREQ(statusCodeName(0xFE46001A), "HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED");
  EXPECT_STREQ(statusCodeName(0xFE46001B), "HTTP_SESSION_ERROR_TIMEOUT");
  EXPECT_STREQ(statusCodeName(0xFE46001C), "HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE");
  EXPECT_STREQ(statusCodeName(0xFE46001D), "HTTP_SESSION_ERROR_CANNOT_CONNECT");
  for (const STATUSCODE foreign : {1L, -1L, 0xFE530012L}) {
    EXPECT_STREQ(statusCodeName(foreign), "UNKNOWN");
  }
}
