// Starting and stopping the client library. A double records the measure of the probes; log,
// preferences and execution context are real.

#include "tests/unit/api/api_fixture.h"
#include "vpn/Api/ClientLibrary.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/Utility/ExecutionContext.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tests::LogCapture;
using tests::preferenceElement;
using tests::preferencesText;
using tests::TemporaryDirectory;

namespace {

std::vector<HttpProbe::RoundTripMeasure> g_measures;
std::vector<bool> g_leavesSilent;
std::vector<bool> g_needsService;

class ClientLibraryTest : public testing::Test {
 protected:
  ClientLibraryTest() { g_measures.clear(), g_leavesSilent.clear(), g_needsService.clear(); }

  TemporaryDirectory m_directory;
  CClientLibrary::Options m_options;
  STATUSCODE m_status = 4711;
};

template <class T, class... Which>
bool isThere(Which... which) {
  T* instance = T::acquireInstance(which...);
  if (instance != nullptr) {
    instance->releaseInstance();
  }
  return instance != nullptr;
}

}  // namespace

void HttpProbe::setRoundTripMeasure(RoundTripMeasure measure) { g_measures.push_back(measure); }
void HttpProbe::setLeavesSilent(bool leaves) { g_leavesSilent.push_back(leaves); }
void HttpProbe::setHows(ProbeHows /*hows*/) {}
void HttpProbe::setNeedsService(bool needs) { g_needsService.push_back(needs); }

TEST_F(ClientLibraryTest, PreferencesAndContextLiveAsLongAsTheObjectWhichMayComeAgain) {
  for (int i = 0; i < 3; ++i) {
    {
      const CClientLibrary library(m_options, m_status);
      EXPECT_EQ(m_status, 0);
      EXPECT_EQ(m_options.logProblem, "");
      EXPECT_TRUE(isThere<PreferenceMgr>());
      EXPECT_TRUE(isThere<CExecutionContext>(API_INSTANCE));
    }
    EXPECT_FALSE(isThere<PreferenceMgr>());
    EXPECT_FALSE(isThere<CExecutionContext>(API_INSTANCE));
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
  EXPECT_TRUE(isThere<CExecutionContext>(API_INSTANCE));
}

TEST_F(ClientLibraryTest, TheProbesLookForEvidenceUnlessThePreferenceSaysOtherwise) {
  { const CClientLibrary library(m_options, m_status); }
  for (const char* const measure : {"network", "response"}) {
    m_options.sources.userPreferencesFile = m_directory.Write(
        "user.xml", preferencesText(preferenceElement("RoundTripTime", measure) +
                                    preferenceElement("SilentHeadends", "wait") +
                                    preferenceElement("SelectionNeedsService", "true")));
    const CClientLibrary library(m_options, m_status);
  }
  EXPECT_THAT(g_measures,
              ElementsAre(HttpProbe::RoundTripMeasure::Auto, HttpProbe::RoundTripMeasure::Network,
                          HttpProbe::RoundTripMeasure::Response));
  EXPECT_THAT(g_leavesSilent, ElementsAre(true, false, false));
  EXPECT_THAT(g_needsService, ElementsAre(false, true, true));
}

TEST_F(ClientLibraryTest, PreferencesThatAreThereAlreadyStopTheStartAndStay) {
  const LogCapture log;
  const tests::ScopedPreferenceMgr other({});
  {
    const CClientLibrary library(m_options, m_status);
    EXPECT_EQ(m_status, PREFERENCEMGR_ERROR_ALREADY_EXISTS);
    EXPECT_FALSE(isThere<CExecutionContext>(API_INSTANCE));
  }
  EXPECT_TRUE(isThere<PreferenceMgr>());
  EXPECT_THAT(g_measures, IsEmpty());
  EXPECT_THAT(log.Lines(), ElementsAre(HasSubstr("PreferenceMgr::createInstance")));
}

TEST_F(ClientLibraryTest, AContextThatIsThereAlreadyStopsTheStartAndThePreferencesGoAgain) {
  ASSERT_EQ(CExecutionContext::createInstance(API_INSTANCE), EXECUTIONCONTEXT_SUCCESS);
  {
    const CClientLibrary library(m_options, m_status);
    EXPECT_EQ(m_status, EXECUTIONCONTEXT_ERROR_ALREADY_EXISTS);
    EXPECT_TRUE(isThere<PreferenceMgr>());
  }
  EXPECT_FALSE(isThere<PreferenceMgr>());
  CExecutionContext* context = CExecutionContext::acquireInstance(API_INSTANCE);
  ASSERT_NE(context, nullptr);
  context->releaseInstance();
  context->releaseInstance();
  EXPECT_FALSE(isThere<CExecutionContext>(API_INSTANCE));
}
