// The C library's allocator for a program that counts what its threads take. The memory stays the
// C library's own; what is counted is what a block can hold, which is at least what was asked for.
// Blocks of an alignment, for which nobody here asks, are not counted.

#include "tests/integration/counted_memory.h"

#include <malloc.h>

#include <algorithm>
#include <thread>

// glibc's own names for its allocator, for programs that bring theirs.
extern "C" void* __libc_malloc(std::size_t size);
extern "C" void* __libc_calloc(std::size_t count, std::size_t size);
extern "C" void* __libc_realloc(void* memory, std::size_t size);
extern "C" void __libc_free(void* memory);

namespace {

// A block of another thread that this one frees would count below zero, so they are signed.
thread_local constinit long long t_taken = 0;
thread_local constinit long long t_most = 0;

long long sizeOf(void* memory) {
  return memory == nullptr ? 0 : static_cast<long long>(malloc_usable_size(memory));
}

void* counted(void* memory) {
  t_taken += sizeOf(memory);
  t_most = std::max(t_most, t_taken);
  return memory;
}

}  // namespace

extern "C" void* malloc(std::size_t size) noexcept { return counted(__libc_malloc(size)); }

extern "C" void* calloc(std::size_t count, std::size_t size) noexcept {
  return counted(__libc_calloc(count, size));
}

extern "C" void* realloc(void* memory, std::size_t size) noexcept {
  const long long before = sizeOf(memory);
  void* const grown = __libc_realloc(memory, size);
  if (grown == nullptr && size != 0) {
    return nullptr;  // the old block is still there
  }
  t_taken -= before;
  return counted(grown);
}

extern "C" void free(void* memory) noexcept {
  t_taken -= sizeOf(memory);
  __libc_free(memory);
}

namespace tests {

std::optional<std::size_t> mostMemoryOf(const std::function<void()>& function) {
  long long most = 0;
  std::thread thread([&] {
    t_taken = 0;
    t_most = 0;
    function();
    most = t_most;
  });
  thread.join();
  return static_cast<std::size_t>(most);
}

}  // namespace tests
