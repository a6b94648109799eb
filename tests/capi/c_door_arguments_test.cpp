// Arguments that are wrong, handles that are none, and clients of an older and a newer header.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <cstdint>
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
  EXPECT_STREQ(ahs_outcome_name(AHS_OUTCOME_NOT_IN_CACHE + 1), "unknown");
  for (std::uint32_t outcome = 0; outcome <= AHS_OUTCOME_NOT_IN_CACHE; ++outcome) {
    EXPECT_STRNE(ahs_outcome_name(outcome), "unknown") << outcome;
  }
}

/// Options or a request that are refused, and what the reason names.
template <class Structure>
struct Wrong {
  const char* name;
  std::function<void(Structure&)> change;
  const char* says;
};

/// A third headend beside two that are good.
Wrong<ahs_options> thirdHeadend(const char* testName, const char* name, const char* address) {
  const auto change = [=](ahs_options& options) {
    static ahs_headend headends[] = {{nullptr, "192.0.2.1"}, {"two", "192.0.2.2"}, {}};
    headends[2] = {name, address};
    options.headends = headends;
    options.headend_count = std::size(headends);
  };
  return {testName, change, "headends[2]"};
}

TEST(WrongOptions, AreRefusedAndSaidWhy) {
  static constexpr ahs_preference nameless = {nullptr, "1"};
  const Wrong<ahs_options> rows[] = {
      {"SizeOfNone", [](ahs_options& o) { o.size = 0; }, "size"},
      {"HeadendsThatAreMissing", [](ahs_options& o) { o.headend_count = 1; }, "headends"},
      {"PreferencesThatAreMissing", [](ahs_options& o) { o.preference_count = 1; }, "preferences"},
      {"PreferenceWithoutAName",
       [](ahs_options& o) {
         o.preferences = &nameless;
         o.preference_count = 1;
       },
       "preferences[0]"},
      {"LogLevel", [](ahs_options& o) { o.log_level = 3; }, "log_level"},
      thirdHeadend("HeadendWithoutAnAddress", "name", nullptr),
      thirdHeadend("HeadendOfAnEmptyAddress", nullptr, ""),
      thirdHeadend("HeadendOfAnIPv6AddressWithoutBrackets", nullptr, "::1"),
      thirdHeadend("HeadendOfAHostWithABlank", "name", "bad host"),
      thirdHeadend("HeadendWithALineInItsName", "a\nb", "192.0.2.3"),
      thirdHeadend("HeadendOfANameThatIsTakenInAnotherLetterCase", "TWO", "192.0.2.3"),
      thirdHeadend("HeadendOfANameThatIsAnAddressAbove", "192.0.2.1", "192.0.2.3")};
  for (const Wrong<ahs_options>& wrong : rows) {
    SCOPED_TRACE(wrong.name);
    ahs_options options = AHS_OPTIONS_INIT;
    wrong.change(options);
    ahs_library* library = reinterpret_cast<ahs_library*>(&options);
    EXPECT_EQ(ahs_start(&options, &library), AHS_ERROR_BAD_PARAMETER);
    EXPECT_EQ(library, nullptr);
    EXPECT_THAT(ahs_error_text(), HasSubstr(wrong.says));
    ahs_stop(library);
  }
}

TEST(WrongRequest, IsRefusedAndSaidWhy) {
  const Wrong<ahs_request> rows[] = {
      {"SizeOfNone", [](ahs_request& r) { r.size = 0; }, "size"},
      {"Reason", [](ahs_request& r) { r.reason = 6; }, "reason"},
      {"ProxyType", [](ahs_request& r) { r.proxy_type = 4; }, "proxy_type"},
      {"KerberosWithoutAUser", [](ahs_request& r) { r.proxy_type = AHS_PROXY_KERBEROS; },
       "proxy_user"},
      {"KerberosWithAnEmptyUser",
       [](ahs_request& r) {
         r.proxy_type = AHS_PROXY_KERBEROS;
         r.proxy_user = "";
       },
       "proxy_user"}};
  const Library library({});
  for (const Wrong<ahs_request>& wrong : rows) {
    SCOPED_TRACE(wrong.name);
    ahs_request request = AHS_REQUEST_INIT;
    wrong.change(request);
    ahs_selection* selection = reinterpret_cast<ahs_selection*>(&request);
    EXPECT_EQ(ahs_select(library.Get(), &request, ahs_no_callback, nullptr, &selection),
              AHS_ERROR_BAD_PARAMETER);
    EXPECT_EQ(selection, nullptr);
    EXPECT_THAT(ahs_error_text(), HasSubstr(wrong.says));
    ahs_free(selection);
  }
}

TEST(NullPointers, AreRefusedWhereTheyStandForNothing) {
  const Library library({});
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
}

TEST(NullPointers, AreIgnoredWhereTheyAreGivenBack) {
  EXPECT_EQ(ahs_stop(nullptr), AHS_SUCCESS);
  EXPECT_EQ(ahs_free(nullptr), AHS_SUCCESS);
}

TEST(NullOptions, NameNothing) {
  ahs_library* library = nullptr;
  ASSERT_EQ(ahs_start(nullptr, &library), AHS_SUCCESS);
  const ahs_options options = AHS_OPTIONS_INIT;
  ahs_library* second = nullptr;
  EXPECT_EQ(ahs_start(&options, &second), AHS_SUCCESS) << "they are equal";
  EXPECT_EQ(ahs_stop(second), AHS_SUCCESS);
  EXPECT_EQ(ahs_stop(library), AHS_SUCCESS);
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

TEST(Handles, ThatWereGivenBackAreRefused) {
  Library library({});
  Client client;
  Selection selection(library, client);
  ahs_selection* const freed = selection.Get();
  EXPECT_EQ(selection.Free(), AHS_SUCCESS);
  expectNoSelection(freed);
  ahs_library* const stopped = library.Get();
  library.Stop();
  expectNoLibrary(stopped);
  const Library again({});
  expectNoLibrary(stopped == again.Get() ? nullptr : stopped);
  EXPECT_EQ(selectOnce(again).status, AHS_ERROR_NO_HEADENDS) << "the refusals harm nothing";
}

TEST(Handles, ThatNeverWereAreRefused) {
  const Library library({});
  Client client;
  const Selection selection(library, client);
  std::byte memory[64] = {};
  expectNoSelection(reinterpret_cast<ahs_selection*>(memory));
  expectNoSelection(reinterpret_cast<ahs_selection*>(1));
  expectNoSelection(reinterpret_cast<ahs_selection*>(library.Get()));
  expectNoLibrary(reinterpret_cast<ahs_library*>(memory));
  expectNoLibrary(reinterpret_cast<ahs_library*>(1));
  expectNoLibrary(reinterpret_cast<ahs_library*>(selection.Get()));
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

/// A structure that a later version has made longer.
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

/// A text that is made illegible when the function that it was given to has returned.
class Lent {
 public:
  explicit Lent(std::string text) : m_text(std::move(text)) {}
  const char* Get() const { return m_text.c_str(); }
  void TakeBack() { m_text.assign(m_text.size(), '?'); }

 private:
  std::string m_text;
};

TEST(Arguments, AreCopied) {
  Gateway gateway(Gateway::silent());
  const TemporaryDirectory directory;
  Lent texts[] = {
      Lent("Oslo"), Lent(gateway.Address()), Lent("SelectionPingsPerHeadend"), Lent("3"),
      Lent("OSLO"), Lent("127.0.0.2"),       Lent(directory.File("cache")),    Lent("lo")};
  ahs_headend headend = {texts[0].Get(), texts[1].Get()};
  ahs_preference preference = {texts[2].Get(), texts[3].Get()};
  ahs_options options = AHS_OPTIONS_INIT;
  options.headends = &headend;
  options.headend_count = 1;
  options.preferences = &preference;
  options.preference_count = 1;
  options.cache_directory = texts[6].Get();
  ahs_request request = AHS_REQUEST_INIT;
  request.reason = AHS_REASON_RECONNECTION;
  request.last_headend = texts[4].Get();
  request.source_address = texts[5].Get();
  request.interface_name = texts[7].Get();
  ahs_library* library = nullptr;
  ahs_selection* selection = nullptr;
  ASSERT_EQ(ahs_start(&options, &library), AHS_SUCCESS);
  ASSERT_EQ(ahs_select(library, &request, ahs_no_callback, nullptr, &selection), AHS_SUCCESS);
  headend = {};
  preference = {};
  options = {};
  request = {};
  for (Lent& text : texts) {
    text.TakeBack();
  }

  gateway.Answer(UINT_MAX);
  const ahs_result* const result = ahs_wait(selection, AHS_WAIT_FOREVER);
  ASSERT_NE(result, nullptr);
  ASSERT_EQ(result->candidate_count, 1U);
  EXPECT_STREQ(result->candidates[0]->name, "Oslo");
  EXPECT_EQ(result->candidates[0]->headend, gateway.Address());
  EXPECT_EQ(result->candidates[0]->sample_count, 3U);
  EXPECT_THAT(gateway.Peers(), testing::Each("127.0.0.2"));
  ahs_free(selection);
  ahs_stop(library);
  EXPECT_FALSE(std::filesystem::is_empty(directory.File("cache")));
}

TEST(AClientInC, SelectsAndIsTold) {
  const Gateway gateway;
  const TemporaryDirectory directory;
  const std::string output = directory.File("output");
  ChildProcess client({AHS_C_CLIENT, gateway.Address()}, output, directory.Path());
  ASSERT_TRUE(client.WaitForEnd(Limit));
  EXPECT_EQ(client.ExitStatus(), 0);
  EXPECT_EQ(readFile(output), "AHS_ADDED_TO_CACHE " + gateway.Address() + "\n");
}

}  // namespace
}  // namespace tests
