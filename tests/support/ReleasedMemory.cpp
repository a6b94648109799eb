// Replaces operator new and delete for the whole program: a block is looked at before it is given
// back. So this is compiled into test programs one by one.

#include "tests/support/ReleasedMemory.h"

#include <malloc.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <stdexcept>

namespace tests {

namespace {

std::array<char, 64> g_text{};
std::atomic<std::size_t> g_length{0};  // 0: nothing is looked for
std::atomic<int> g_leaks{0};
std::atomic<int> g_blocks{0};
/// Which allocation from now on fails; 0: none.
std::atomic<long> g_failing{0};

// Volatile, so that what the program has written to memory that it was about to give up is what is
// seen. Not instrumented: a block's slack behind what was asked for is not the program's to read.
__attribute__((no_sanitize("address", "thread", "undefined"))) bool found(const void* memory,
                                                                          std::size_t size,
                                                                          const char* text,
                                                                          std::size_t length) {
  const auto* const bytes = static_cast<const volatile char*>(memory);
  for (std::size_t at = 0; at + length <= size; ++at) {
    std::size_t same = 0;
    while (same < length && bytes[at + same] == text[same]) {
      ++same;
    }
    if (same == length) {
      return true;
    }
  }
  return false;
}

void* allocate(std::size_t size) {
  void* block = nullptr;
  if (g_failing <= 0 || --g_failing != 0) {
    block = std::malloc(size != 0 ? size : 1);
  }
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  return block;
}

void release(void* block) noexcept {
  const std::size_t length = g_length;
  if (block != nullptr && length != 0) {
    ++g_blocks;
    if (found(block, malloc_usable_size(block), g_text.data(), length)) {
      ++g_leaks;
    }
  }
  std::free(block);
}

}  // namespace

bool holds(const void* memory, std::size_t size, std::string_view text) {
  return found(memory, size, text.data(), text.size());
}

LeakWatch::LeakWatch(std::string_view text) {
  if (text.empty() || text.size() >= g_text.size() || g_length != 0) {
    throw std::logic_error("cannot watch for this");
  }
  std::copy(text.begin(), text.end(), g_text.begin());
  g_leaks = 0;
  g_blocks = 0;
  g_length = text.size();
}

LeakWatch::~LeakWatch() { g_length = 0; }

int LeakWatch::Leaks() const { return g_leaks; }

int LeakWatch::Blocks() const { return g_blocks; }

FailingAllocation::FailingAllocation(long number) { g_failing = number; }

FailingAllocation::~FailingAllocation() { g_failing = 0; }

bool FailingAllocation::HasFailed() const { return g_failing == 0; }

}  // namespace tests

// Not inlined: the compiler would see malloc and free meet operator delete and new, and warn.
[[gnu::noinline]] void* operator new(std::size_t size) { return tests::allocate(size); }
[[gnu::noinline]] void operator delete(void* block) noexcept { tests::release(block); }
[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept { tests::release(block); }
