// The memory of the transport: what malloc's functions do, and that nothing is left in what is
// given back. The program's own free looks at every block that it is handed.

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "tests/support/OwnStack.h"
#include "vpn/Common/IP/TransportMemory.h"

namespace {

constexpr std::string_view Secret = "correct-horse-battery-staple";

/// Of the block that was given back last.
const void* g_freed = nullptr;
bool g_freedIsZero = false;

std::size_t zeros(const void* memory, std::size_t size) {
  const auto* const bytes = static_cast<const volatile char*>(memory);
  std::size_t count = 0;
  for (std::size_t i = 0; i < size; ++i) {
    count += bytes[i] == 0 ? 1U : 0U;
  }
  return count;
}

void fill(void* block, std::size_t size) { std::memset(block, 'x', size); }

}  // namespace

extern "C" void __real_free(void* block);
extern "C" void __wrap_free(void* block);
void __wrap_free(void* block) {
  if (block != nullptr) {
    g_freed = block;
    const std::size_t size = malloc_usable_size(block);
    g_freedIsZero = zeros(block, size) == size;
  }
  __real_free(block);
}

namespace {

TEST(TransportMemory, AllocatedMemoryCanBeUsedAndIsWipedInWholeWhenItIsFreed) {
  for (const std::size_t size :
       {std::size_t{0}, std::size_t{1}, std::size_t{100}, std::size_t{1} << 20}) {
    void* const block = malloc(size);
    ASSERT_NE(block, nullptr);
    fill(block, malloc_usable_size(block));
    TransportMemory::free(block);
    EXPECT_EQ(g_freed, block);
    EXPECT_TRUE(g_freedIsZero) << size;
  }
}

TEST(TransportMemory, TheWatchSeesWhatIsNotWiped) {
  void* const block = malloc(100);
  fill(block, 100);
  free(block);
  EXPECT_EQ(g_freed, block);
  EXPECT_FALSE(g_freedIsZero);
}

TEST(TransportMemory, FreeingNothingDoesNothing) {
  g_freed = &g_freed;
  TransportMemory::free(nullptr);
  EXPECT_EQ(g_freed, &g_freed);
}

TEST(TransportMemory, AGrownBlockKeepsItsTextAndTheOldOneIsWiped) {
  void* const block = malloc(Secret.size());
  std::memcpy(block, Secret.data(), Secret.size());
  void* const grown = TransportMemory::resize(block, 5000);
  ASSERT_NE(grown, nullptr);
  EXPECT_EQ(g_freed, block);
  EXPECT_TRUE(g_freedIsZero);
  EXPECT_EQ(std::memcmp(grown, Secret.data(), Secret.size()), 0);
  fill(grown, 5000);
  TransportMemory::free(grown);
  EXPECT_TRUE(g_freedIsZero);
}

TEST(TransportMemory, AShrunkBlockKeepsItsBeginningAndLeavesNothingOfTheRest) {
  for (const std::size_t size : {std::size_t{4000}, std::size_t{10}}) {
    void* const block = malloc(5000);
    fill(block, 5000);
    void* const shrunk = TransportMemory::resize(block, size);
    ASSERT_NE(shrunk, nullptr);
    EXPECT_EQ(zeros(shrunk, size), 0U);
    EXPECT_TRUE(shrunk == block || g_freedIsZero);
    TransportMemory::free(shrunk);
    EXPECT_TRUE(g_freedIsZero);
  }
}

TEST(TransportMemory, ResizingNothingAllocates) {
  void* const block = TransportMemory::resize(nullptr, 100);
  ASSERT_NE(block, nullptr);
  fill(block, 100);
  TransportMemory::free(block);
}

TEST(TransportMemory, ABlockThatCannotGrowStaysAsItIs) {
  void* const block = malloc(Secret.size());
  std::memcpy(block, Secret.data(), Secret.size());
  const volatile std::size_t tooMuch = PTRDIFF_MAX;
  EXPECT_EQ(TransportMemory::resize(block, tooMuch), nullptr);
  EXPECT_EQ(std::memcmp(block, Secret.data(), Secret.size()), 0);
  TransportMemory::free(block);
}

/// Puts the secret on the stack, `depth` bytes below its caller's frame.
template <std::size_t Depth>
[[gnu::noinline]] void leaveOnStack() {
  std::array<char, Depth> frame{};
  std::copy(Secret.begin(), Secret.end(), frame.begin());
  asm volatile("" : : "r"(frame.data()) : "memory");
}

constexpr std::size_t Shallow = 100;
constexpr std::size_t Deep = 23UL * 1024;

template <std::size_t Depth, bool Wipe>
void* useStack(void*) {
  leaveOnStack<Depth>();
  if (Wipe) {
    TransportMemory::wipeStack();
  }
  return nullptr;
}

TEST(TransportMemory, WipingTheStackLeavesNothingOfWhatWasCalledBefore) {
  tests::OwnStack shallow;
  shallow.Run(useStack<Shallow, true>);
  EXPECT_FALSE(shallow.Holds("staple"));
  tests::OwnStack deep;
  deep.Run(useStack<Deep, true>);
  EXPECT_FALSE(deep.Holds("staple"));
}

TEST(TransportMemory, WithoutWipingTheStackKeepsIt) {
  tests::OwnStack shallow;
  shallow.Run(useStack<Shallow, false>);
  EXPECT_TRUE(shallow.Holds("staple"));
  tests::OwnStack deep;
  deep.Run(useStack<Deep, false>);
  EXPECT_TRUE(deep.Holds("staple"));
}

TEST(TransportMemory, WipingTheStackEmptiesTheRegistersThatTextIsCopiedWith) {
  std::array<char, 16> left{};
  std::memcpy(left.data(), Secret.data(), left.size());
  asm volatile("movdqu %0, %%xmm3" : : "m"(left) : "xmm3");
  TransportMemory::wipeStack();
  asm volatile("movdqu %%xmm3, %0" : "=m"(left));
  EXPECT_EQ(zeros(left.data(), left.size()), left.size());
}

}  // namespace
