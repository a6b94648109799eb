// An allocator for a program whose memory is to be searched. It gives every block out once and
// never takes one back, so a freed block, and one that was outgrown, stays as whoever had it left
// it.

#include <errno.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t Alignment = alignof(std::max_align_t);
constexpr std::size_t PieceSize = 16UL * 1024 * 1024;

/// Stands before each block, Alignment bytes long.
struct Header {
  std::size_t size;
};
static_assert(sizeof(Header) <= Alignment);

/// What is left of the piece of memory that blocks are cut from.
std::atomic_flag g_taken = ATOMIC_FLAG_INIT;
std::uintptr_t g_next = 0;
std::uintptr_t g_end = 0;

std::uintptr_t aligned(std::uintptr_t address, std::size_t alignment) {
  return (address + alignment - 1) & ~(alignment - 1);
}

bool takePiece(std::size_t size) {
  size = aligned(size, PieceSize);
  void* const piece =
      mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (piece == MAP_FAILED) {
    return false;
  }
  g_next = reinterpret_cast<std::uintptr_t>(piece);
  g_end = g_next + size;
  return true;
}

void* cut(std::size_t size, std::size_t alignment) {
  if (size > PTRDIFF_MAX - 2 * alignment - PieceSize) {
    errno = ENOMEM;
    return nullptr;
  }
  alignment = std::max(alignment, Alignment);
  while (g_taken.test_and_set(std::memory_order_acquire)) {
  }
  void* block = nullptr;
  if (g_end - g_next >= size + 2 * alignment || takePiece(size + 2 * alignment)) {
    const std::uintptr_t start = aligned(g_next + Alignment, alignment);
    // A block is as large as its neighbour allows, as the C library's are.
    g_next = aligned(start + std::max(size, Alignment), Alignment);
    reinterpret_cast<Header*>(start - Alignment)->size = g_next - start;
    block = reinterpret_cast<void*>(start);
  }
  g_taken.clear(std::memory_order_release);
  if (block == nullptr) {
    errno = ENOMEM;
  }
  return block;
}

std::size_t sizeOf(void* block) {
  return reinterpret_cast<Header*>(reinterpret_cast<std::uintptr_t>(block) - Alignment)->size;
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) noexcept { return cut(size, Alignment); }

void free(void* /*block*/) noexcept {}

// Memory from the kernel is zero, and no block has been another one before.
void* calloc(std::size_t count, std::size_t size) noexcept {
  std::size_t bytes = 0;
  if (__builtin_mul_overflow(count, size, &bytes)) {
    errno = ENOMEM;
    return nullptr;
  }
  return cut(bytes, Alignment);
}

void* realloc(void* block, std::size_t size) noexcept {
  void* const moved = cut(size, Alignment);
  if (moved != nullptr && block != nullptr) {
    std::memcpy(moved, block, std::min(size, sizeOf(block)));
  }
  return moved;
}

void* memalign(std::size_t alignment, std::size_t size) noexcept { return cut(size, alignment); }

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  return cut(size, alignment);
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) noexcept {
  *block = cut(size, alignment);
  return *block == nullptr ? ENOMEM : 0;
}

std::size_t malloc_usable_size(void* block) noexcept {
  return block == nullptr ? 0 : sizeOf(block);
}
}
