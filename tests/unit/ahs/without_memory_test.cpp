// Memory runs out at each allocation in turn, of libxml2 and of the library, or with every possible
// amount left. Reading and writing then gives whole results or none, and throws nothing. libxml2
// accepts a program's allocator; the library's own allocations share its amount.

#include <gtest/gtest.h>
#include <libxml/xmlmemory.h>
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <utility>

#include "tests/unit/ahs/cache_fixture.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/PreferenceMgr.h"

// libxml2 2.9 leaks the element that did not fit its stack, and the buffer for a document's copy.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
  return "leak:xmlTextWriterStartElement\nleak:xmlBufCreateSize\n";
}

namespace {

// Number of the failing allocation, counted from now; 0: none. One thread only.
unsigned long failing = 0;
bool hasFailed = false;

// The bytes that libxml2 and operator new together may still allocate.
constexpr std::size_t Unlimited = std::numeric_limits<std::size_t>::max();
std::size_t bytesLeft = Unlimited;

bool fails(std::size_t size) {
  const bool now = failing == 1 || size > bytesLeft;
  failing -= failing != 0 ? 1 : 0;
  hasFailed = hasFailed || now;
  return now;
}

void take(std::size_t size) { bytesLeft -= bytesLeft == Unlimited ? 0 : std::min(size, bytesLeft); }
void giveBack(std::size_t size) { bytesLeft += bytesLeft == Unlimited ? 0 : size; }

void* allocate(std::size_t size) {
  void* memory = fails(size) ? nullptr : std::malloc(size);
  take(malloc_usable_size(memory));
  return memory;
}

void release(void* memory) {
  giveBack(malloc_usable_size(memory));
  std::free(memory);
}

void* reallocate(void* memory, std::size_t size) {
  const std::size_t before = malloc_usable_size(memory);
  if (size > before && fails(size - before)) {
    return nullptr;
  }
  void* grown = std::realloc(memory, size);
  giveBack(before);
  take(malloc_usable_size(grown));
  return grown;
}

char* duplicate(const char* text) {
  const std::size_t size = std::strlen(text) + 1;
  auto* copy = static_cast<char*>(allocate(size));
  return copy == nullptr ? nullptr : static_cast<char*>(std::memcpy(copy, text, size));
}

/// Repeats `use` with more and more memory, until nothing fails. @return the number of failures.
template <class Use>
unsigned long repeat(Use use, void (*makeScarce)(unsigned long)) {
  unsigned long number = 0;
  do {
    hasFailed = false;
    makeScarce(number++);
    use();
    failing = 0;
    bytesLeft = Unlimited;
  } while (hasFailed && !testing::Test::HasFailure());
  return number - 1;
}

/// Lets one allocation fail: the first, then the second, and so on.
template <class Use>
unsigned long failEach(Use use) {
  return repeat(use, [](unsigned long number) { failing = number + 1; });
}

/// Limits the memory: to nothing, then a little more, and so on.
template <class Use>
unsigned long starve(Use use) {
  return repeat(use, [](unsigned long number) { bytesLeft = number * 192; });
}

class WithoutMemory : public tests::CacheTest {
 protected:
  // Safe for earlier blocks: they come from the same malloc.
  WithoutMemory() { xmlMemSetup(release, allocate, reallocate, duplicate); }
};

/// Results whose document outgrows the first buffers and is read in pieces.
tests::Records manyRecords() {
  tests::Records records;
  for (int i = 0; i < 20; ++i) {
    records.emplace_back("a & b" + std::string(500, 'k') + std::to_string(i), 7);
  }
  return records;
}

TEST_F(WithoutMemory, AStartEndsWithItsCodeWhateverIsBeingReadAndTheNextOneSucceeds) {
  endPreferences();
  PreferenceMgr::Sources sources;
  sources.profileDirectory = m_directory;
  const std::string begin = "<profile version=\"1\"><hosts>";
  const std::string twice = "<host name=\"twice\" address=\"gw\"/>";
  write(m_directory + "/a.xml", begin +
                                    "<host name=\"a long name of a gateway\" address=\"gw\"/>"
                                    "<hsot/><host adress=\"\"/><host name=\"a b\"/>text"
                                    "</hosts></profile>");
  write(m_directory + "/b.xml", begin + twice + twice + "</hosts></profile>");
  write(m_directory + "/c.xml", begin + "<");
  sources.userPreferencesFile = m_directory + "/user";
  write(sources.userPreferencesFile,
        "<preferences version=\"1\"><preference name=\"SelectionImprovement\" value=\"-1\"/>"
        "<preference name=\"ProxyHost\" value=\"a b\"/></preferences>");
  std::size_t complete = 0;
  const auto start = [&] {
    const STATUSCODE status = PreferenceMgr::createInstance(sources);
    failing = 0;
    bytesLeft = Unlimited;
    ASSERT_TRUE(status == PREFERENCEMGR_SUCCESS ||
                (hasFailed && status == PREFERENCEMGR_ERROR_MEMALLOC_FAILED));
    PreferenceMgr* instance = PreferenceMgr::acquireInstance();
    ASSERT_EQ(instance != nullptr, status == PREFERENCEMGR_SUCCESS);
    if (instance != nullptr) {
      complete = complete == 0 ? instance->getProblems().size() : complete;
      EXPECT_EQ(instance->getProblems().size(), complete);
      instance->releaseInstance();
      instance->releaseInstance();
    }
  };
  start();
  EXPECT_GE(complete, 8U);
  EXPECT_GT(failEach(start), 100U);
  EXPECT_GT(starve(start), 100U);
}

TEST_F(WithoutMemory, ACacheThatCannotBeMadeIsReported) {
  EXPECT_GT(failEach([] {
              CSelectionCache* cache = nullptr;
              const STATUSCODE status = CSelectionCache::createSingletonInstance(cache);
              failing = 0;
              EXPECT_TRUE(status == 0 || status == HEADENDSELECTION_ERROR_MEMALLOC_FAILED);
              EXPECT_EQ(status != 0, hasFailed);
              ASSERT_EQ(cache != nullptr, status == 0);
              EXPECT_EQ(CSelectionCache::acquireInstance() != nullptr, status == 0);
              if (cache != nullptr) {
                cache->releaseInstance();  // as acquired above
                cache->releaseInstance();
              }
            }),
            0U);
}

TEST_F(WithoutMemory, ALookUpThatCannotBeMadeIsAMissThatLeavesTheEntryAlone) {
  const tests::Records complete = manyRecords();
  store("gw-a;", complete);
  const auto lookUp = [&] {
    const unsigned long number = std::exchange(failing, 0);
    const tests::CacheHold cache;
    std::string key = "gw-a;";
    CCacheEntry entry = tests::entryOf("mine", {{"gw-x", 1}});
    failing = number;
    const bool found = cache->IsInCache(key, entry);
    failing = 0;
    EXPECT_EQ(entry.GetKnownHeadends(), found ? "gw-a;" : "mine");
    EXPECT_EQ(tests::recordsOf(entry), found ? complete : (tests::Records{{"gw-x", 1}}));
    EXPECT_TRUE(cache->IsInCache(key, entry)) << "the next look-up reads the file again";
  };
  EXPECT_GT(failEach(lookUp), 10U);
}

TEST_F(WithoutMemory, AStoreAndAReleaseThatCannotBeMadeLoseNoOtherSelectionAndWriteNoHalfOne) {
  const tests::Records old = {{"gw-old", 1}};
  const tests::Records complete = manyRecords();
  store("steady;");
  store("gw-b;", old);
  unsigned long failures = 0;
  failEach([&] {
    const unsigned long number = std::exchange(failing, 0);
    CSelectionCache* cache = nullptr;
    ASSERT_EQ(CSelectionCache::createSingletonInstance(cache), 0);
    CCacheEntry entry = tests::entryOf("gw-b;", complete);
    failing = number;
    failures += cache->AddEntry(entry) != 0 ? 1 : 0;
    cache->releaseInstance();
    failing = 0;
    EXPECT_TRUE(has("steady;"));
    const tests::Records found = find("gw-b;");
    EXPECT_TRUE(found == old || found == complete);
  });
  EXPECT_GT(failures, 0U);
  EXPECT_EQ(find("gw-b;"), complete);
}

}  // namespace

void* operator new(std::size_t size) {
  void* memory = allocate(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}
void operator delete(void* memory) noexcept { release(memory); }
void operator delete(void* memory, std::size_t) noexcept { release(memory); }
