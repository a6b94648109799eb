// Zeroes memory before it is given back. A block is wiped beyond the size asked for: the C library
// may have made it larger, and it may have been shrunk.

#include "vpn/Common/IP/TransportMemory.h"

#include <alloca.h>
#include <malloc.h>
#include <string.h>

#include <algorithm>
#include <cstdlib>

namespace {

// Twice the depth of a proxy log-in with the TLS handshake after it, and small enough for every
// thread whose stack can do those.
constexpr std::size_t StackDepth = 24UL * 1024;

/// Text that is copied goes through vector registers and stays there; the dynamic linker puts them
/// on the stack when it looks up a function at its first call, a signal whenever it comes.
void wipeVectorRegisters() {
#if defined(__aarch64__)
  // Of v8 to v15 a call preserves the lower halves, which are the callers'.
  asm volatile(
      "movi v0.2d, #0\n\tmovi v1.2d, #0\n\tmovi v2.2d, #0\n\tmovi v3.2d, #0\n\t"
      "movi v4.2d, #0\n\tmovi v5.2d, #0\n\tmovi v6.2d, #0\n\tmovi v7.2d, #0\n\t"
      "mov v8.d[1], xzr\n\tmov v9.d[1], xzr\n\tmov v10.d[1], xzr\n\tmov v11.d[1], xzr\n\t"
      "mov v12.d[1], xzr\n\tmov v13.d[1], xzr\n\tmov v14.d[1], xzr\n\tmov v15.d[1], xzr\n\t"
      "movi v16.2d, #0\n\tmovi v17.2d, #0\n\tmovi v18.2d, #0\n\tmovi v19.2d, #0\n\t"
      "movi v20.2d, #0\n\tmovi v21.2d, #0\n\tmovi v22.2d, #0\n\tmovi v23.2d, #0\n\t"
      "movi v24.2d, #0\n\tmovi v25.2d, #0\n\tmovi v26.2d, #0\n\tmovi v27.2d, #0\n\t"
      "movi v28.2d, #0\n\tmovi v29.2d, #0\n\tmovi v30.2d, #0\n\tmovi v31.2d, #0" ::
          : "v0", "v1", "v2", "v3", "v4", "v5", "v6", "v7", "v16", "v17", "v18", "v19", "v20",
            "v21", "v22", "v23", "v24", "v25", "v26", "v27", "v28", "v29", "v30", "v31");
#elif defined(__x86_64__)
  if (__builtin_cpu_supports("avx512f")) {
    // Not declared as clobbered: a compiler that may not use these registers does not know them. No
    // call preserves them anyway.
    asm volatile(
        "vpxorq %zmm16, %zmm16, %zmm16\n\tvpxorq %zmm17, %zmm17, %zmm17\n\t"
        "vpxorq %zmm18, %zmm18, %zmm18\n\tvpxorq %zmm19, %zmm19, %zmm19\n\t"
        "vpxorq %zmm20, %zmm20, %zmm20\n\tvpxorq %zmm21, %zmm21, %zmm21\n\t"
        "vpxorq %zmm22, %zmm22, %zmm22\n\tvpxorq %zmm23, %zmm23, %zmm23\n\t"
        "vpxorq %zmm24, %zmm24, %zmm24\n\tvpxorq %zmm25, %zmm25, %zmm25\n\t"
        "vpxorq %zmm26, %zmm26, %zmm26\n\tvpxorq %zmm27, %zmm27, %zmm27\n\t"
        "vpxorq %zmm28, %zmm28, %zmm28\n\tvpxorq %zmm29, %zmm29, %zmm29\n\t"
        "vpxorq %zmm30, %zmm30, %zmm30\n\tvpxorq %zmm31, %zmm31, %zmm31");
  }
  if (__builtin_cpu_supports("avx")) {
    asm volatile("vzeroall"
                 :
                 :
                 : "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8", "xmm9",
                   "xmm10", "xmm11", "xmm12", "xmm13", "xmm14", "xmm15");
  }
#else
#error "which registers of this processor hold text that is copied?"
#endif
}

}  // namespace

void TransportMemory::free(void* block) {
  if (block != nullptr) {
    explicit_bzero(block, malloc_usable_size(block));
    std::free(block);
  }
}

void* TransportMemory::resize(void* block, std::size_t size) {
  const std::size_t held = block == nullptr ? 0 : malloc_usable_size(block);
  if (size <= held && size >= held / 2) {
    return block;
  }
  // Never realloc(3), which gives the old block back as it is.
  void* const resized = std::malloc(size);
  if (resized != nullptr && block != nullptr) {
    memcpy(resized, block, std::min(held, size));
    free(block);
  }
  return resized;
}

// Not inlined: its frame then begins where those of the earlier calls began.
[[gnu::noinline]] void TransportMemory::wipeStack() {
  wipeVectorRegisters();  // first: the next call may put them on the stack
  void* const left = alloca(StackDepth);
  explicit_bzero(left, StackDepth);
}
