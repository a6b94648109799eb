// The global operators new and delete of a program whose memory can run out. All forms end in two
// functions, so that every block is counted once on its way out and once on its way back.

#include <atomic>
#include <cstdlib>
#include <new>

#include "tests/faults/Injection.h"

namespace {

constinit std::atomic<long> blockCount{0};

void* allocateOrThrow(std::size_t size, std::size_t alignment) {
  const std::size_t some = size != 0 ? size : 1;
  void* memory = nullptr;
  if (!tests::strikes(tests::Call::Allocate)) {
    memory = alignment <= __STDCPP_DEFAULT_NEW_ALIGNMENT__
                 ? std::malloc(some)
                 : std::aligned_alloc(alignment, (some + alignment - 1) / alignment * alignment);
  }
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  blockCount.fetch_add(1, std::memory_order_relaxed);
  return memory;
}

void release(void* memory) noexcept {
  if (memory != nullptr) {
    blockCount.fetch_sub(1, std::memory_order_relaxed);
    std::free(memory);
  }
}

}  // namespace

long tests::liveBlocks() noexcept { return blockCount.load(std::memory_order_relaxed); }

// The other forms call these. Not inlined: the compiler would see malloc and free meet operator
// delete and new, and warn.
[[gnu::noinline]] void* operator new(std::size_t size) { return allocateOrThrow(size, 1); }
[[gnu::noinline]] void* operator new(std::size_t size, std::align_val_t alignment) {
  return allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { release(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { release(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::align_val_t) noexcept { release(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
  release(memory);
}
