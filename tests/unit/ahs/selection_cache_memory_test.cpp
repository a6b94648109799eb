// Memory runs out at every allocation in turn: the cache reports it and throws nothing.

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>

#include "tests/unit/ahs/cache_fixture.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"

namespace {

constexpr unsigned long Never = ~0UL;
// Allocations of this thread that still succeed.
thread_local unsigned long allocationsLeft = Never;

/// Lets `count` allocations of this thread succeed and the others fail, for the length of a scope.
class ShortMemory {
 public:
  explicit ShortMemory(unsigned long count) { allocationsLeft = count; }
  ~ShortMemory() { allocationsLeft = Never; }
  /// Whether an allocation has failed.
  static bool ranOut() { return allocationsLeft == 0; }
};

void* allocate(std::size_t size) {
  if (allocationsLeft != Never) {
    if (allocationsLeft == 0) {
      throw std::bad_alloc();
    }
    --allocationsLeft;
  }
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) { return allocate(size); }
[[gnu::noinline]] void* operator new[](std::size_t size) { return allocate(size); }
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return allocate(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete[](void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

namespace tests {
namespace {

/// More allocations than any operation of the cache makes here.
constexpr unsigned long ManyAllocations = 5000;

class SelectionCacheMemory : public CacheTest {};

}  // namespace

TEST_F(SelectionCacheMemory, AnInstanceThatCannotBeMadeIsReported) {
  unsigned long failures = 0;
  for (unsigned long count = 0; count < ManyAllocations; ++count) {
    CSelectionCache* cache = nullptr;
    STATUSCODE status = 0;
    {
      const ShortMemory memory(count);
      status = CSelectionCache::createSingletonInstance(cache);
    }
    if (status == 0) {
      ASSERT_NE(cache, nullptr);
      cache->releaseInstance();
      break;
    }
    ++failures;
    ASSERT_EQ(status, HEADENDSELECTION_ERROR_MEMALLOC_FAILED);
    ASSERT_EQ(cache, nullptr);
    ASSERT_EQ(CSelectionCache::acquireInstance(), nullptr);
  }
  EXPECT_GE(failures, 1U);
}

TEST_F(SelectionCacheMemory, ALookUpThatCannotBeMadeIsAMissThatLeavesTheEntryAlone) {
  store("gw-a;", {{"gw-a-with-a-long-name", 40}, {"gw-b-with-a-long-name", 46}});
  unsigned long misses = 0;
  for (unsigned long count = 0; count < ManyAllocations; ++count) {
    const CacheHold cache;
    std::string key = "gw-a;";
    CCacheEntry entry = entryOf("mine", {{"gw-x", 1}});
    bool found = false;
    {
      const ShortMemory memory(count);
      found = cache->IsInCache(key, entry);
    }
    if (found) {
      EXPECT_EQ(entry.GetListSize(), 2U);
      break;
    }
    ++misses;
    ASSERT_EQ(entry.GetKnownHeadends(), "mine");
    ASSERT_EQ(entry.GetListSize(), 1U);
    ASSERT_TRUE(cache->IsInCache(key, entry)) << "the next look-up reads the file again";
  }
  EXPECT_GE(misses, 1U);
}

TEST_F(SelectionCacheMemory, AStoreAndAReleaseThatCannotBeMadeLoseNoOtherSelection) {
  store("steady;", {{"gw-a-with-a-long-name", 40}});
  unsigned long failures = 0;
  bool isDone = false;
  for (unsigned long count = 0; count < ManyAllocations && !isDone; ++count) {
    CSelectionCache* cache = nullptr;
    ASSERT_EQ(CSelectionCache::createSingletonInstance(cache), 0);
    CCacheEntry entry = entryOf("gw-b;", {{"gw-b-with-a-long-name", 46}});
    STATUSCODE status = 0;
    {
      const ShortMemory memory(count);
      status = cache->AddEntry(entry);
      cache->releaseInstance();
      isDone = !ShortMemory::ranOut();
    }
    ASSERT_TRUE(has("steady;"));
    failures += status != 0 ? 1 : 0;
  }
  EXPECT_GE(failures, 1U);
  EXPECT_TRUE(has("gw-b;"));
}

}  // namespace tests
