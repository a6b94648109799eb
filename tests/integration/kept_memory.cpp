// The C library's allocator for a program whose memory is to be searched: no block is ever taken
// back, so a freed one, and one that was outgrown, stays as whoever had it left it.

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

extern "C" {

void free(void* /*block*/) noexcept {}

void* realloc(void* block, std::size_t size) noexcept {
  void* const moved = malloc(size);
  if (moved != nullptr && block != nullptr) {
    std::memcpy(moved, block, std::min(size, malloc_usable_size(block)));
  }
  return moved;
}
}
