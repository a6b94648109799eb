// Every allocation of a start fails once: the start then ends with its own code, whatever was being
// read, and leaves nothing behind.

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "tests/support/TemporaryDirectory.h"
#include "tests/unit/api/api_fixture.h"

namespace {

// Which allocation from now on fails; 0: none. One thread only.
long g_failing = 0;

/// Lets one allocation fail while it lives.
class FailingAllocation {
 public:
  explicit FailingAllocation(long number) { g_failing = number; }
  ~FailingAllocation() { g_failing = 0; }
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;

  bool HasFailed() const { return g_failing == 0; }
};

}  // namespace

// Not inlined: the compiler would see malloc and free meet operator delete and new, and warn.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (g_failing > 0 && --g_failing == 0) {
    throw std::bad_alloc();
  }
  void* const memory = std::malloc(size != 0 ? size : 1);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

TEST(PreferenceMgr, AnyAllocationThatFailsEndsTheStartWithItsCodeAndTheNextStartSucceeds) {
  const tests::TemporaryDirectory directory;
  PreferenceMgr::Sources sources;
  sources.profileDirectory = directory.MakeDirectory("profiles");
  directory.Write("profiles/a.xml",
                  tests::profileWithHosts("<host name=\"a long name of a gateway\" address=\"gw\"/>"
                                          "<hsot/><host adress=\"\"/><host name=\"a b\"/>text"));
  directory.Write("profiles/b.xml", tests::profileWithHosts("<host name=\"twice\" address=\"gw\"/>"
                                                            "<host name=\"twice\" address=\"gw\"/>"
                                                            "<"));
  sources.userPreferencesFile = directory.Write(
      "user.xml", tests::preferencesText(tests::preferenceElement("SelectionImprovement", "-1") +
                                         tests::preferenceElement("ProxyHost", "a b") +
                                         tests::preferenceElement("ProxyHost", "proxy") +
                                         tests::preferenceElement("ProxyHost", "proxy")));
  bool failed = true;
  int failures = 0;
  for (long number = 1; failed; ++number) {
    STATUSCODE status = 0;
    {
      const FailingAllocation failing(number);
      status = PreferenceMgr::createInstance(sources);
      failed = failing.HasFailed();
    }
    failures += failed ? 1 : 0;
    ASSERT_TRUE(status == PREFERENCEMGR_SUCCESS ||
                (failed && status == PREFERENCEMGR_ERROR_MEMALLOC_FAILED))
        << number;
    PreferenceMgr* instance = PreferenceMgr::acquireInstance();
    ASSERT_EQ(instance != nullptr, status == PREFERENCEMGR_SUCCESS) << number;
    if (instance != nullptr) {
      EXPECT_EQ(instance->getProblems().size(), 10U) << number;
      instance->releaseInstance();
      instance->releaseInstance();
    }
  }
  EXPECT_GT(failures, 100);
}
