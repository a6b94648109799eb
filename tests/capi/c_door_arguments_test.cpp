// The C header itself: wrong arguments, invalid handles, clients with an older or a newer header.
// The other tests use it through the C++ header.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <utility>

#include "tests/capi/c_door_fixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TemporaryDirectory.h"

namespace tests {
namespace {

using testing::HasSubstr;

/// A library without headends, and a selection of it.
class Library {
 public:
  Library() {
    EXPECT_EQ(ahs_start(nullptr, &m_library), AHS_SUCCESS);
    EXPECT_EQ(ahs_select(m_library, nullptr, ahs_no_callback, nullptr, &m_selection), AHS_SUCCESS);
  }
  ~Library() {
    EXPECT_EQ(ahs_free(m_selection), AHS_SUCCESS);
    EXPECT_EQ(ahs_stop(m_library), AHS_SUCCESS);
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  ahs_library* Get() const { return m_library; }
  ahs_selection* Selection() const { return m_selection; }

 private:
  ahs_library* m_library = nullptr;
  ahs_selection* m_selection = nullptr;
};

TEST(Names, OfTheVersionStatusesAndOutcomes) {
  EXPECT_STREQ(ahs_version(), AHS_PROJECT_VERSION);
  constexpr struct {
    ahs_status status;
    const char* name;
    bool isSuccess;
  } statuses[] = {
      {AHS_SUCCESS, "AHS_SUCCESS", true},
      {AHS_ADDED_TO_CACHE, "AHS_ADDED_TO_CACHE", true},
      {AHS_ERROR_BAD_PARAMETER, "AHS_ERROR_BAD_PARAMETER", false},
      {AHS_ERROR_OUT_OF_MEMORY, "AHS_ERROR_OUT_OF_MEMORY", false},
      {AHS_ERROR_AUTH_PROXY_DETECTED, "AHS_ERROR_AUTH_PROXY_DETECTED", false},
      {AHS_ERROR_TIMEOUT, "AHS_ERROR_TIMEOUT", false},
      {AHS_ERROR_NO_HEADENDS, "AHS_ERROR_NO_HEADENDS", false},
      {AHS_ERROR_SELECTION_FAILURE, "AHS_ERROR_SELECTION_FAILURE", false},
      {AHS_ERROR_ALREADY_STARTED, "AHS_ERROR_ALREADY_STARTED", false},
      {AHS_ERROR_CANCELLED, "AHS_ERROR_CANCELLED", false},
      {0xFE53000C, "HEADENDSELECTION_ERROR_CACHE_FAILURE", false},
      {12345, "UNKNOWN", false},
  };
  for (const auto& [status, name, isSuccess] : statuses) {
    EXPECT_STREQ(ahs_status_name(status), name);
    EXPECT_EQ(ahs_is_success(status) != 0, isSuccess) << name;
    const std::string text = ahs_status_text(status);
    EXPECT_FALSE(text.empty()) << name;
    EXPECT_NE(text.back(), '.') << text;
  }
  EXPECT_STREQ(ahs_outcome_name(AHS_OUTCOME_TIMED_OUT), "timed out");
  EXPECT_STREQ(ahs_outcome_name(AHS_OUTCOME_LACK_OF_MEMORY + 1), "unknown");
  for (std::uint32_t outcome = 0; outcome <= AHS_OUTCOME_LACK_OF_MEMORY; ++outcome) {
    EXPECT_STRNE(ahs_outcome_name(outcome), "unknown") << outcome;
  }
}

void expectRefused(const ahs_options& options, const char* says) {
  ahs_library* library = reinterpret_cast<ahs_library*>(&library);
  EXPECT_EQ(ahs_start(&options, &library), AHS_ERROR_BAD_PARAMETER);
  EXPECT_EQ(library, nullptr);
  EXPECT_THAT(ahs_error_text(), HasSubstr(says));
  ahs_stop(library);
}

TEST(WrongOptions, AreRefusedAndSaidWhy) {
  const std::pair<const char*, std::function<void(ahs_options&)>> members[] = {
      {"size", [](ahs_options& o) { o.size = 0; }},
      {"headends", [](ahs_options& o) { o.headend_count = 1; }},
      {"preferences", [](ahs_options& o) { o.preference_count = 1; }},
      {"log_level", [](ahs_options& o) { o.log_level = 3; }}};
  for (const auto& [says, change] : members) {
    SCOPED_TRACE(says);
    ahs_options options = AHS_OPTIONS_INIT;
    change(options);
    expectRefused(options, says);
  }
  for (const char* proxy : {"a proxy", ":8080", "127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:http",
                            "127.0.0.1:80:80", "::1", "anna@127.0.0.1"}) {
    SCOPED_TRACE(proxy);
    ahs_options options = AHS_OPTIONS_INIT;
    options.proxy = proxy;
    expectRefused(options, "proxy");
  }
}

TEST(WrongOptions, OfAHeadendBesideGoodOnesAreRefusedAndSaidWhy) {
  constexpr struct {
    const char* what;
    ahs_headend headend;
  } rows[] = {{"without an address", {"name", nullptr}},
              {"with an empty address", {nullptr, ""}},
              {"an IPv6 address without brackets", {nullptr, "::1"}},
              {"a host with a blank", {"name", "bad host"}},
              {"a line in its name", {"a\nb", "192.0.2.3"}},
              {"a name that is taken in another letter case", {"TWO", "192.0.2.3"}},
              {"a name that is an address above", {"192.0.2.1", "192.0.2.3"}}};
  for (const auto& [what, headend] : rows) {
    SCOPED_TRACE(what);
    const ahs_headend headends[] = {{nullptr, "192.0.2.1"}, {"two", "192.0.2.2"}, headend};
    ahs_options options = AHS_OPTIONS_INIT;
    options.headends = headends;
    options.headend_count = std::size(headends);
    expectRefused(options, "headends[2]");
  }
}

TEST(WrongOptions, OfAPreferenceAreRefusedAndSaidWhy) {
  constexpr ahs_preference rows[] = {
      {nullptr, "1"},
      {"SelectionImprovment", "20"},
      {"SelectionPingsPerHeadend", "many"},
      {"SelectionPingsPerHeadend", "0"},
      {"SelectionPingsPerHeadend", "101"},
      {"SelectionPingsPerHeadend", ""},
      {"SelectionPingsPerHeadend", nullptr},
      {"RoundTripTime", "sometimes"},
      {"ProxySettings", "perhaps"},
      {"SelectionClearCache", "14 days"},
      {"EnableAutomaticServerSelection", "true"},
  };
  for (const ahs_preference& preference : rows) {
    const bool isWhole = preference.name != nullptr && preference.value != nullptr;
    ahs_options options = AHS_OPTIONS_INIT;
    options.preferences = &preference;
    options.preference_count = 1;
    expectRefused(options, "preferences[0]");
    EXPECT_THAT(ahs_error_text(), HasSubstr(isWhole ? preference.name : ""));
  }
}

TEST(WrongRequest, IsRefusedAndSaidWhy) {
  const std::pair<const char*, std::function<void(ahs_request&)>> rows[] = {
      {"size", [](ahs_request& r) { r.size = 0; }},
      {"reason", [](ahs_request& r) { r.reason = 6; }},
      {"proxy_type", [](ahs_request& r) { r.proxy_type = 4; }},
      {"proxy_user", [](ahs_request& r) { r.proxy_type = AHS_PROXY_KERBEROS; }},
      {"proxy_user",
       [](ahs_request& r) {
         r.proxy_type = AHS_PROXY_KERBEROS;
         r.proxy_user = "";
       }},
      {"interface_name", [](ahs_request& r) { r.interface_name = "nowhere0"; }},
      {"interface_name", [](ahs_request& r) { r.interface_name = "too-long-for-an-interface"; }},
      {"source_address", [](ahs_request& r) { r.source_address = "127.0.0"; }},
      {"source_address", [](ahs_request& r) { r.source_address = "localhost"; }},
      {"source_address", [](ahs_request& r) { r.source_address = "127.0.0.1:80"; }},
      {"source_address", [](ahs_request& r) { r.source_address = "[::1]"; }},
      {"source_address", [](ahs_request& r) { r.source_address = "192.0.2.1"; }}};
  const Library library;
  for (const auto& [says, change] : rows) {
    SCOPED_TRACE(says);
    ahs_request request = AHS_REQUEST_INIT;
    change(request);
    ahs_selection* selection = reinterpret_cast<ahs_selection*>(&request);
    EXPECT_EQ(ahs_select(library.Get(), &request, ahs_no_callback, nullptr, &selection),
              AHS_ERROR_BAD_PARAMETER);
    EXPECT_EQ(selection, nullptr);
    EXPECT_THAT(ahs_error_text(), HasSubstr(says));
    ahs_free(selection);
  }
}

TEST(NullPointers, AreRefusedUnlessTheyAreGivenBack) {
  const Library library;
  ahs_selection* selection = nullptr;
  const ahs_problem* const* problems = nullptr;
  EXPECT_EQ(ahs_start(nullptr, nullptr), AHS_ERROR_BAD_PARAMETER);
  EXPECT_EQ(ahs_select(nullptr, nullptr, ahs_no_callback, nullptr, &selection),
            AHS_ERROR_BAD_PARAMETER);
  EXPECT_THAT(ahs_error_text(), HasSubstr("library"));
  EXPECT_EQ(ahs_select(library.Get(), nullptr, nullptr, nullptr, &selection),
            AHS_ERROR_BAD_PARAMETER);
  EXPECT_THAT(ahs_error_text(), HasSubstr("callback"));
  EXPECT_EQ(ahs_select(library.Get(), nullptr, ahs_no_callback, nullptr, nullptr),
            AHS_ERROR_BAD_PARAMETER);
  EXPECT_THAT(ahs_error_text(), HasSubstr("selection"));
  EXPECT_EQ(ahs_cancel(nullptr), AHS_ERROR_BAD_PARAMETER);
  EXPECT_EQ(ahs_wait(nullptr, AHS_WAIT_FOREVER), nullptr);
  EXPECT_EQ(ahs_dispatch(nullptr), AHS_ERROR_BAD_PARAMETER);
  EXPECT_EQ(ahs_descriptor(nullptr), -1);
  EXPECT_EQ(ahs_problems(nullptr, &problems), 0U);
  EXPECT_EQ(ahs_problems(library.Get(), nullptr), 0U);
  EXPECT_EQ(ahs_stop(nullptr), AHS_SUCCESS);
  EXPECT_EQ(ahs_free(nullptr), AHS_SUCCESS);
}

void expectNoSelection(ahs_selection* selection) {
  EXPECT_EQ(ahs_cancel(selection), AHS_ERROR_BAD_PARAMETER);
  EXPECT_EQ(ahs_wait(selection, AHS_WAIT_FOREVER), nullptr);
  EXPECT_EQ(ahs_free(selection), AHS_ERROR_BAD_PARAMETER);
  EXPECT_STRNE(ahs_error_text(), "");
}

void expectNoLibrary(ahs_library* library) {
  ahs_selection* selection = reinterpret_cast<ahs_selection*>(library);
  const ahs_problem* const* problems = nullptr;
  EXPECT_EQ(ahs_select(library, nullptr, ahs_no_callback, nullptr, &selection),
            AHS_ERROR_BAD_PARAMETER);
  EXPECT_EQ(selection, nullptr);
  EXPECT_EQ(ahs_problems(library, &problems), 0U);
  EXPECT_EQ(ahs_descriptor(library), -1);
  EXPECT_EQ(ahs_dispatch(library), AHS_ERROR_BAD_PARAMETER);
  EXPECT_EQ(ahs_stop(library), AHS_ERROR_BAD_PARAMETER);
}

TEST(Handles, ThatWereGivenBackOrNeverWereAreRefused) {
  ahs_library* stopped = nullptr;
  ahs_selection* freed = nullptr;
  ASSERT_EQ(ahs_start(nullptr, &stopped), AHS_SUCCESS);
  ASSERT_EQ(ahs_select(stopped, nullptr, ahs_no_callback, nullptr, &freed), AHS_SUCCESS);
  EXPECT_EQ(ahs_free(freed), AHS_SUCCESS);
  expectNoSelection(freed);
  EXPECT_EQ(ahs_stop(stopped), AHS_SUCCESS);
  expectNoLibrary(stopped);

  const Library library;
  expectNoLibrary(stopped == library.Get() ? nullptr : stopped);
  std::byte memory[64] = {};
  expectNoSelection(reinterpret_cast<ahs_selection*>(memory));
  expectNoSelection(reinterpret_cast<ahs_selection*>(1));
  expectNoSelection(reinterpret_cast<ahs_selection*>(library.Get()));
  expectNoLibrary(reinterpret_cast<ahs_library*>(memory));
  expectNoLibrary(reinterpret_cast<ahs_library*>(1));
  expectNoLibrary(reinterpret_cast<ahs_library*>(library.Selection()));
  const ahs_result* const result = ahs_wait(library.Selection(), AHS_WAIT_FOREVER);
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->status, AHS_ERROR_NO_HEADENDS) << "the refusals harm nothing";
}

TEST(ErrorText, IsThatOfTheLastCallThatFailed) {
  EXPECT_EQ(ahs_cancel(nullptr), AHS_ERROR_BAD_PARAMETER);
  const std::string first = ahs_error_text();
  EXPECT_EQ(ahs_dispatch(nullptr), AHS_ERROR_BAD_PARAMETER);
  const std::string second = ahs_error_text();
  EXPECT_THAT(first, HasSubstr("selection"));
  EXPECT_THAT(second, HasSubstr("library"));
  EXPECT_EQ(ahs_free(nullptr), AHS_SUCCESS);
  EXPECT_EQ(ahs_error_text(), second) << "a call that succeeds leaves it";
  std::thread([] { EXPECT_STREQ(ahs_error_text(), "") << "nothing has failed here"; }).join();
}

/// A structure that a later version has extended.
template <class Structure>
struct Longer {
  Structure known;
  unsigned char more[24] = {};
};

TEST(StructuresOfALaterVersion, AreTakenUnlessTheyAskForWhatIsNotKnown) {
  Longer<ahs_options> options{AHS_OPTIONS_INIT};
  Longer<ahs_request> request{AHS_REQUEST_INIT};
  options.known.size = sizeof options;
  request.known.size = sizeof request;
  request.known.reason = AHS_REASON_PROCESS_LAUNCH;
  ahs_library* library = nullptr;
  ahs_selection* selection = nullptr;

  options.more[23] = 1;
  EXPECT_EQ(ahs_start(&options.known, &library), AHS_ERROR_BAD_PARAMETER);
  EXPECT_THAT(ahs_error_text(), HasSubstr("options"));
  options.more[23] = 0;
  ASSERT_EQ(ahs_start(&options.known, &library), AHS_SUCCESS);

  request.more[0] = 1;
  EXPECT_EQ(ahs_select(library, &request.known, ahs_no_callback, nullptr, &selection),
            AHS_ERROR_BAD_PARAMETER);
  EXPECT_THAT(ahs_error_text(), HasSubstr("request"));
  request.more[0] = 0;
  ASSERT_EQ(ahs_select(library, &request.known, ahs_no_callback, nullptr, &selection), AHS_SUCCESS);
  const ahs_result* const result = ahs_wait(selection, AHS_WAIT_FOREVER);
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->reason, std::uint32_t{AHS_REASON_PROCESS_LAUNCH});
  ahs_free(selection);
  ahs_stop(library);
}

/// Bytes behind an older client's structure are whatever its memory held.
TEST(StructuresOfAnEarlierVersion, AreTakenWithoutWhatCameLater) {
  ahs_request request = AHS_REQUEST_INIT;
  request.size = offsetof(ahs_request, on_decision);
  std::memset(reinterpret_cast<unsigned char*>(&request) + request.size, 0xA5,
              sizeof request - request.size);
  ahs_options options = AHS_OPTIONS_INIT;
  ahs_library* library = nullptr;
  ahs_selection* selection = nullptr;
  ASSERT_EQ(ahs_start(&options, &library), AHS_SUCCESS);
  ASSERT_EQ(ahs_select(library, &request, ahs_no_callback, nullptr, &selection), AHS_SUCCESS);
  EXPECT_NE(ahs_wait(selection, AHS_WAIT_FOREVER), nullptr);
  ahs_free(selection);
  ahs_stop(library);
}

// The test overwrites its arguments after the call returns.
TEST(Arguments, AreCopiedAndAllThatIsToldHasItsSize) {
  Gateway gateway;
  const TemporaryDirectory directory;
  std::string texts[] = {"Oslo", gateway.Address(), "SelectionPingsPerHeadend", "3",
                         "OSLO", "127.0.0.2",       directory.File("cache"),    "lo"};
  const std::string cache = texts[6];
  ahs_headend headend = {texts[0].c_str(), texts[1].c_str()};
  ahs_preference preference = {texts[2].c_str(), texts[3].c_str()};
  ahs_options options = AHS_OPTIONS_INIT;
  options.headends = &headend;
  options.headend_count = 1;
  options.preferences = &preference;
  options.preference_count = 1;
  options.cache_directory = texts[6].c_str();
  options.on_log = [](const ahs_log_message* told, void*) { EXPECT_EQ(told->size, sizeof *told); };
  ahs_request request = AHS_REQUEST_INIT;
  request.reason = AHS_REASON_RECONNECTION;
  request.last_headend = texts[4].c_str();
  request.source_address = texts[5].c_str();
  request.interface_name = texts[7].c_str();
  request.on_progress = [](const ahs_probe* told, void*) { EXPECT_EQ(told->size, sizeof *told); };
  request.on_decision = [](const ahs_decision* told, void*) {
    EXPECT_EQ(told->size, sizeof *told);
  };
  ahs_library* library = nullptr;
  ahs_selection* selection = nullptr;
  ASSERT_EQ(ahs_start(&options, &library), AHS_SUCCESS);
  ASSERT_EQ(ahs_select(library, &request, ahs_no_callback, nullptr, &selection), AHS_SUCCESS);
  headend = {};
  preference = {};
  options = {};
  request = {};
  for (std::string& text : texts) {
    std::ranges::fill(text, '?');
  }

  gateway.Release();
  const ahs_result* const result = ahs_wait(selection, AHS_WAIT_FOREVER);
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->size, sizeof *result);
  ASSERT_EQ(result->candidate_count, 1U);
  EXPECT_EQ(result->candidates[0]->size, sizeof *result->candidates[0]);
  EXPECT_STREQ(result->candidates[0]->name, "Oslo");
  EXPECT_EQ(result->candidates[0]->headend, gateway.Address());
  EXPECT_EQ(result->candidates[0]->sample_count, 3U);
  EXPECT_THAT(gateway.Peers(), testing::Each("127.0.0.2"));
  ahs_free(selection);
  ahs_stop(library);
  EXPECT_FALSE(std::filesystem::is_empty(cache)) << "it is kept there";
}

TEST(AClientInC, SelectsAndIsTold) {
  const Gateway gateway(Gateway::All);
  const TemporaryDirectory directory;
  const std::string output = directory.File("output");
  ChildProcess client({AHS_C_CLIENT, gateway.Address()}, output, directory.Path());
  ASSERT_TRUE(client.WaitForEnd(Limit));
  EXPECT_EQ(client.ExitStatus(), 0);
  EXPECT_EQ(readFile(output), "AHS_ADDED_TO_CACHE " + gateway.Address() + "\n");
}

}  // namespace
}  // namespace tests
