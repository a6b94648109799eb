// The memory of the transport: that its functions act like malloc's, and wipe what they free. The
// program's own free inspects every block.

#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "vpn/Common/IP/TransportMemory.h"

namespace {

constexpr std::string_view Secret = "correct-horse-battery-staple";

/// The block freed last.
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

void* filled(std::size_t size) {
  void* const block = malloc(size);
  return std::memset(block, 'x', malloc_usable_size(block));
}

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

TEST(TransportMemory, MemoryIsWipedInWholeWhenItIsFreed) {
  for (const std::size_t size : {0UL, 1UL, 100UL, 1UL << 20}) {
    void* const block = filled(size);
    TransportMemory::free(block);
    EXPECT_EQ(g_freed, block);
    EXPECT_TRUE(g_freedIsZero) << size;
  }
  free(filled(100));
  EXPECT_FALSE(g_freedIsZero) << "else nothing was shown";
  g_freed = &g_freed;
  TransportMemory::free(nullptr);
  EXPECT_EQ(g_freed, &g_freed);
}

TEST(TransportMemory, AGrownBlockKeepsItsTextAndTheOldOneIsWiped) {
  void* const block = TransportMemory::resize(nullptr, Secret.size());
  std::memcpy(block, Secret.data(), Secret.size());
  const volatile std::size_t tooMuch = PTRDIFF_MAX;
  EXPECT_EQ(TransportMemory::resize(block, tooMuch), nullptr);
  EXPECT_EQ(std::memcmp(block, Secret.data(), Secret.size()), 0) << "it stays as it is";
  void* const grown = TransportMemory::resize(block, 5000);
  ASSERT_NE(grown, nullptr);
  EXPECT_EQ(g_freed, block);
  EXPECT_TRUE(g_freedIsZero);
  EXPECT_EQ(std::memcmp(grown, Secret.data(), Secret.size()), 0);
  std::memset(grown, 'x', 5000);
  TransportMemory::free(grown);
  EXPECT_TRUE(g_freedIsZero);
}

TEST(TransportMemory, AShrunkBlockKeepsItsBeginningAndLeavesNothingOfTheRest) {
  for (const std::size_t size : {4000UL, 10UL}) {
    void* const block = filled(5000);
    void* const shrunk = TransportMemory::resize(block, size);
    ASSERT_NE(shrunk, nullptr);
    EXPECT_EQ(zeros(shrunk, size), 0U);
    EXPECT_TRUE(shrunk == block || g_freedIsZero);
    TransportMemory::free(shrunk);
    EXPECT_TRUE(g_freedIsZero);
  }
}

/// Puts the secret on the stack, `depth` bytes below its caller's frame.
template <std::size_t Depth>
[[gnu::noinline]] void leaveOnStack() {
  std::array<char, Depth> frame{};
  std::copy(Secret.begin(), Secret.end(), frame.begin());
  asm volatile("" : : "r"(frame.data()) : "memory");
}

template <std::size_t Depth, bool Wipe>
void* useStack(void*) {
  leaveOnStack<Depth>();
  if (Wipe) {
    TransportMemory::wipeStack();
  }
  return nullptr;
}

/// What a function leaves on its thread's stack.
std::string leftOnStackBy(void* (*function)(void*)) {
  alignas(4096) static std::array<char, 256UL * 1024> stack;
  stack.fill('\0');
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstack(&attributes, stack.data(), stack.size());
  pthread_t thread{};
  EXPECT_EQ(pthread_create(&thread, &attributes, function, nullptr), 0);
  pthread_attr_destroy(&attributes);
  pthread_join(thread, nullptr);
  asm volatile("" : : "r"(stack.data()) : "memory");
  return {stack.begin(), stack.end()};
}

template <std::size_t Depth>
void expectOnlyWipingToLeaveNothing() {
  EXPECT_EQ(leftOnStackBy(useStack<Depth, true>).find("staple"), std::string::npos);
  EXPECT_NE(leftOnStackBy(useStack<Depth, false>).find("staple"), std::string::npos)
      << "else nothing was shown";
}

TEST(TransportMemory, WipingTheStackLeavesNothingOfWhatWasCalledBefore) {
  expectOnlyWipingToLeaveNothing<100>();
  expectOnlyWipingToLeaveNothing<23UL * 1024>();
}

TEST(TransportMemory, WipingTheStackEmptiesTheRegistersThatTextIsCopiedWith) {
  std::array<char, 16> left{};
  std::memcpy(left.data(), Secret.data(), left.size());
#if defined(__aarch64__)
  asm volatile("ldr q3, %0" : : "m"(left) : "v3");
  TransportMemory::wipeStack();
  asm volatile("str q3, %0" : "=m"(left));
#else
  asm volatile("movdqu %0, %%xmm3" : : "m"(left) : "xmm3");
  TransportMemory::wipeStack();
  asm volatile("movdqu %%xmm3, %0" : "=m"(left));
#endif
  EXPECT_EQ(zeros(left.data(), left.size()), left.size());
}

}  // namespace
