// The base of the cache's tests: real files in a test's own directory and real preferences; only
// the resolver's settings are faked.

#include "tests/unit/ahs/cache_fixture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "tests/support/private_access.h"
#include "tests/unit/ahs/network_double.h"
#include "vpn/Api/AHS/SelectionKey.h"
#include "vpn/Api/PreferenceMgr.h"
#include "vpn/Common/Logging/AppLog.h"

AHS_EXPOSE(HasWarned, &CSelectionCache::sm_hasWarned);

namespace tests {

CCacheEntry entryOf(const std::string& knownHeadends, const Records& records) {
  CCacheEntry entry;
  entry.SetKnownHeadends(knownHeadends);
  for (const auto& [headend, metric] : records) {
    entry.AddHeadend(CHeadendRTT(headend, metric));
  }
  return entry;
}

Records recordsOf(const CCacheEntry& entry) {
  std::vector<CHeadendRTT> headends;
  entry.GetHeadendList(headends);
  Records records;
  for (const CHeadendRTT& headend : headends) {
    records.emplace_back(headend.GetHeadend(), headend.GetRTT());
  }
  return records;
}

CacheHold::CacheHold() : m_cache(nullptr) {
  EXPECT_EQ(CSelectionCache::createSingletonInstance(m_cache), 0);
}

CacheHold::~CacheHold() { m_cache->releaseInstance(); }

int inProcess(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(body());
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
    return -1;
  }
  return WEXITSTATUS(status);
}

int asNobody(const std::function<int()>& body) {
  constexpr uid_t nobody = 65534;
  return inProcess(
      [&] { return geteuid() == 0 && setresuid(nobody, nobody, nobody) != 0 ? -1 : body(); });
}

void CacheTest::SetUp() {
  setNetworkPlace({"nameserver 192.0.2.1", "search home.test"});
  usePreferences(m_directory);
  forgetWarnings();
  CAppLog::setListener([this](const CAppLog::Record& record) {
    if (record.severity == Logging::DBG_Warning || record.severity == Logging::DBG_Error) {
      m_warnings.push_back(record.message);
    }
  });
}

void CacheTest::TearDown() {
  CAppLog::setListener({});
  EXPECT_EQ(CSelectionCache::acquireInstance(), nullptr) << "an acquisition was not given back";
  endPreferences();
}

void CacheTest::endPreferences() {
  if (m_preferences != nullptr) {
    m_preferences->releaseInstance();
    m_preferences = nullptr;
  }
}

void CacheTest::usePreferences(const std::string& cacheDirectory,
                               const std::string& userPreferencesFile) {
  endPreferences();
  PreferenceMgr::Sources sources;
  sources.cacheDirectory = cacheDirectory;
  sources.userPreferencesFile = userPreferencesFile;
  ASSERT_EQ(PreferenceMgr::createInstance(sources), 0);
  m_preferences = PreferenceMgr::acquireInstance();
  m_preferences->releaseInstance();
}

STATUSCODE CacheTest::store(const std::string& knownHeadends, const Records& records) {
  const CacheHold cache;
  CCacheEntry entry = entryOf(knownHeadends, records);
  return cache->AddEntry(entry);
}

Records CacheTest::find(const std::string& knownHeadends) {
  const CacheHold cache;
  std::string key = knownHeadends;
  CCacheEntry entry;
  return cache->IsInCache(key, entry) ? recordsOf(entry) : Records{};
}

namespace {

std::string candidatesIn(const std::string& knownHeadends) {
  std::string text;
  for (const std::string& name : SelectionKey::candidatesOf(knownHeadends)) {
    text += "<candidate name=\"" + name + "\"/>";
  }
  return text;
}

}  // namespace

std::string CacheTest::fileOf(const std::string& knownHeadends) {
  std::string& file = m_files[knownHeadends];
  if (file.empty()) {
    const std::vector<std::string> before = names();
    EXPECT_EQ(store(knownHeadends), 0);
    for (const std::string& name : names()) {
      file = std::ranges::count(before, name) == 0 ? m_directory + "/" + name : file;
    }
  }
  return file;
}

void CacheTest::storeAged(const std::string& knownHeadends, long stored, long used,
                          bool isPartial) {
  const std::string file = fileOf(knownHeadends);
  const long now = std::time(nullptr);
  write(file, "<selection place=\"nameserver 192.0.2.1 search home.test\" stored=\"" +
                  std::to_string(now - stored) + (isPartial ? "\" partial=\"true" : "") + "\">" +
                  candidatesIn(knownHeadends) + "<result name=\"gw\" rtt=\"7\"/></selection>");
  const timespec times[2] = {{now - used, 0}, {now - used, 0}};
  EXPECT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
}

void CacheTest::forgetWarnings() {
  exposed(HasWarned{})->clear();
  m_warnings.clear();
}

void CacheTest::write(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  chmod(path.c_str(), 0600);
}

std::vector<std::string> CacheTest::names() const {
  std::vector<std::string> all;
  for (const auto& item : std::filesystem::directory_iterator(m_directory)) {
    all.push_back(item.path().filename());
  }
  std::ranges::sort(all);
  return all;
}

}  // namespace tests
