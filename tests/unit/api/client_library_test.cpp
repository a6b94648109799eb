// Bringing the client library up and taking it down. The measure of the probes is recorded by a
// double; log, preferences and execution context are the real ones.

#include "tests/unit/api/api_fixture.h"
#include "vpn/Api/ClientLibrary.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/Utility/ExecutionContext.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using tests::LogCapture;
using tests::preferenceElement;
using tests::preferencesText;
using tests::TemporaryDirectory;

namespace {

std::vector<HttpProbe::RoundTripMeasure> g_measures;

class ClientLibraryTest : public testing::Test {
 protected:
  ClientLibraryTest() { g_measures.clear(); }

  TemporaryDirectory m_directory;
  CClientLibrary::Options m_options;
  STATUSCODE m_status = 4711;
};

bool hasPreferences() {
  PreferenceMgr* preferences = PreferenceMgr::acquireInstance();
  if (preferences != nullptr) {
    preferences->releaseInstance();
  }
  return preferences != nullptr;
}

bool hasContext() {
  CExecutionContext* context = CExecutionContext::acquireInstance(API_INSTANCE);
  if (context != nullptr) {
    context->releaseInstance();
  }
  return context != nullptr;
}

}  // namespace

void HttpProbe::setRoundTripMeasure(RoundTripMeasure measure) { g_measures.push_back(measure); }

TEST_F(ClientLibraryTest, PreferencesAndContextLiveAsLongAsTheObject) {
  {
    const CClientLibrary library(m_options, m_status);
    EXPECT_EQ(m_status, 0);
    EXPECT_EQ(m_options.logProblem, "");
    EXPECT_TRUE(hasPreferences());
    EXPECT_TRUE(hasContext());
  }
  EXPECT_FALSE(hasPreferences());
  EXPECT_FALSE(hasContext());
}

TEST_F(ClientLibraryTest, ItCanBeBroughtUpAgain) {
  for (int i = 0; i < 3; ++i) {
    const CClientLibrary library(m_options, m_status);
    EXPECT_EQ(m_status, 0);
  }
}

TEST_F(ClientLibraryTest, TheLogIsOpenBeforeTheFilesAreReadAndClosedAtTheEnd) {
  m_options.log.file = m_directory.File("ahs.log");
  m_options.sources.userPreferencesFile = m_directory.Write("user.xml", "<");
  {
    const CClientLibrary library(m_options, m_status);
    EXPECT_EQ(m_status, 0);
  }
  EXPECT_THAT(tests::readFile(m_options.log.file), HasSubstr("user.xml:1:2: is not well-formed"));
  CAppLog::LogDebugMessage("f", "file", 1, Logging::DBG_Error, "%s", "after the end");
  CAppLog::flush();
  EXPECT_THAT(tests::readFile(m_options.log.file), testing::Not(HasSubstr("after the end")));
}

TEST_F(ClientLibraryTest, ALogThatCannotBeOpenedIsReportedAndDoesNotStopTheStart) {
  m_options.log.file = m_directory.File("no/such/directory/ahs.log");
  const CClientLibrary library(m_options, m_status);
  EXPECT_EQ(m_status, 0);
  EXPECT_THAT(m_options.logProblem, HasSubstr("ahs.log"));
  EXPECT_TRUE(hasContext());
}

TEST_F(ClientLibraryTest, TheProbesMeasureTheNetworkUnlessThePreferenceSaysOtherwise) {
  { const CClientLibrary library(m_options, m_status); }
  m_options.sources.userPreferencesFile = m_directory.Write(
      "user.xml", preferencesText(preferenceElement("RoundTripTime", "response")));
  { const CClientLibrary library(m_options, m_status); }
  EXPECT_THAT(g_measures, ElementsAre(HttpProbe::RoundTripMeasure::Network,
                                      HttpProbe::RoundTripMeasure::Response));
}

TEST_F(ClientLibraryTest, PreferencesThatAreThereAlreadyStopTheStartAndStay) {
  const LogCapture log;
  const tests::ScopedPreferenceMgr other({});
  {
    const CClientLibrary library(m_options, m_status);
    EXPECT_EQ(m_status, PREFERENCEMGR_ERROR_ALREADY_EXISTS);
    EXPECT_FALSE(hasContext());
  }
  EXPECT_TRUE(hasPreferences());
  EXPECT_THAT(g_measures, IsEmpty());
  ASSERT_THAT(log.Lines(), SizeIs(1));
  EXPECT_EQ(log.Lines()[0].function, "CClientLibrary");
  EXPECT_EQ(log.Lines()[0].file, "vpn/Api/ClientLibrary");
  EXPECT_EQ(log.Lines()[0].severity, Logging::DBG_Error);
  EXPECT_THAT(log.Lines()[0].message, HasSubstr("PreferenceMgr::createInstance"));
}

TEST_F(ClientLibraryTest, AContextThatIsThereAlreadyStopsTheStartAndThePreferencesGoAgain) {
  ASSERT_EQ(CExecutionContext::createInstance(API_INSTANCE), EXECUTIONCONTEXT_SUCCESS);
  {
    const CClientLibrary library(m_options, m_status);
    EXPECT_EQ(m_status, EXECUTIONCONTEXT_ERROR_ALREADY_EXISTS);
    EXPECT_TRUE(hasPreferences());
  }
  EXPECT_FALSE(hasPreferences());
  CExecutionContext* context = CExecutionContext::acquireInstance(API_INSTANCE);
  ASSERT_NE(context, nullptr);
  context->releaseInstance();
  context->releaseInstance();
  EXPECT_FALSE(hasContext());
}

TEST_F(ClientLibraryTest, WhoHasAcquiredThePreferencesKeepsThemBeyondTheEnd) {
  PreferenceMgr* kept = nullptr;
  {
    const CClientLibrary library(m_options, m_status);
    kept = PreferenceMgr::acquireInstance();
  }
  ASSERT_NE(kept, nullptr);
  std::string value;
  EXPECT_EQ(kept->getPreferenceValue(SelectionImprovement, value), 0);
  EXPECT_EQ(value, "20");
  kept->releaseInstance();
  EXPECT_FALSE(hasPreferences());
}
