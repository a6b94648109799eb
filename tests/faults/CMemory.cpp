// The C library's allocator for a program in which it can fail: under the C++ runtime, libcurl,
// OpenSSL and libxml2 alike. The memory is the C library's own, so that free stays as it is.

#include <cstddef>

#include "tests/faults/Injection.h"

// glibc's own names for its allocator, for programs that bring theirs.
extern "C" void* __libc_malloc(std::size_t size);
extern "C" void* __libc_calloc(std::size_t count, std::size_t size);
extern "C" void* __libc_realloc(void* memory, std::size_t size);

extern "C" void* malloc(std::size_t size) noexcept {
  return tests::strikes(tests::Call::AllocateInC) ? nullptr : __libc_malloc(size);
}

extern "C" void* calloc(std::size_t count, std::size_t size) noexcept {
  return tests::strikes(tests::Call::AllocateInC) ? nullptr : __libc_calloc(count, size);
}

extern "C" void* realloc(void* memory, std::size_t size) noexcept {
  // Giving back and shrinking to nothing do not fail.
  return size != 0 && tests::strikes(tests::Call::AllocateInC) ? nullptr
                                                               : __libc_realloc(memory, size);
}
