// What the tests of the selection cache stand on: real files in a directory of their own and real
// preferences; only the resolver's settings are made up.

#include "tests/unit/ahs/cache_fixture.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/unit/ahs/resolver_double.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/PreferenceMgr.h"
#include "vpn/Common/Logging/AppLog.h"

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

STATUSCODE keep(const CacheHold& cache, CCacheEntry& entry) {
  const STATUSCODE status = cache->AddEntry(entry);
  return status == HEADENDSELECTION_ERROR_CACHE_FAILURE ? cache->WaitForStores() : status;
}

bool hasWriter() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::any_of(begin(tasks), end(tasks), [](const auto& task) {
    // A stream would throw when the thread ends before it is read.
    const int comm = open((task.path() / "comm").c_str(), O_RDONLY | O_CLOEXEC);
    std::array<char, 16> name{};
    const ssize_t length = comm < 0 ? -1 : ::read(comm, name.data(), name.size());
    if (comm >= 0) {
      close(comm);
    }
    return length > 0 && std::string(name.data(), static_cast<std::size_t>(length)) == "ahs\n";
  });
}

void waitForWriters() {
  EXPECT_TRUE(eventually([] { return !hasWriter(); }));
}

int inProcess(const std::function<int()>& body) {
  waitForWriters();
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

void CacheTest::SetUp() {
  std::string pattern = (std::filesystem::temp_directory_path() / "ahs-cache-XXXXXX").string();
  ASSERT_NE(mkdtemp(pattern.data()), nullptr);
  m_directory = pattern;
  m_file = m_directory + "/selections.xml";
  setResolverPlace({"nameserver 192.0.2.1", "search home.test"});
  usePreferences(m_file);
  CAppLog::SetListener([this](const CAppLog::Record& record) {
    if (record.severity == Logging::DBG_Warning || record.severity == Logging::DBG_Error) {
      m_warnings.push_back(record.message);
    }
  });
}

void CacheTest::TearDown() {
  CAppLog::SetListener({});
  EXPECT_EQ(CSelectionCache::acquireInstance(), nullptr) << "an acquisition was not given back";
  if (m_preferences != nullptr) {
    m_preferences->releaseInstance();
  }
  std::filesystem::remove_all(m_directory);
}

void CacheTest::usePreferences(const std::string& cacheFile,
                               const std::string& userPreferencesFile) {
  if (m_preferences != nullptr) {
    m_preferences->releaseInstance();
    m_preferences = nullptr;
  }
  PreferenceMgr::Sources sources;
  sources.cacheFile = cacheFile;
  sources.userPreferencesFile = userPreferencesFile;
  ASSERT_EQ(PreferenceMgr::createInstance(sources), 0);
  m_preferences = PreferenceMgr::acquireInstance();
  m_preferences->releaseInstance();
}

STATUSCODE CacheTest::store(const std::string& knownHeadends, const Records& records) {
  const CacheHold cache;
  CCacheEntry entry = entryOf(knownHeadends, records);
  return keep(cache, entry);
}

bool CacheTest::find(const std::string& knownHeadends, Records& records) {
  bool found = false;
  {
    const CacheHold cache;
    std::string key = knownHeadends;
    CCacheEntry entry;
    found = cache->IsInCache(key, entry);
    records = recordsOf(entry);
  }
  waitForWriters();
  return found;
}

bool CacheTest::has(const std::string& knownHeadends) {
  Records records;
  return find(knownHeadends, records);
}

std::string CacheTest::read(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

void CacheTest::write(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  chmod(path.c_str(), 0600);
}

bool CacheTest::exists(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

void CacheTest::writeSelection(long age) const {
  write(m_file,
        "<selectionCache version=\"1\">"
        "<selection place=\"nameserver 192.0.2.1 search home.test\" knownHeadends=\"gw-a;\""
        " stored=\"" +
            std::to_string(std::time(nullptr) - age) +
            "\"><headend name=\"gw-a\" rtt=\"7\"/></selection></selectionCache>");
}

}  // namespace tests
