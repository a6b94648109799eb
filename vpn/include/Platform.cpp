// What the other sources take for granted: elsewhere this one does not compile, rather than that
// the product fails.

#include <bit>
#include <climits>

#if !defined(__linux__)
#error "ahs needs Linux: epoll(7), eventfd(2), rtnetlink(7), proc(5), and TCP_INFO of tcp(7)"
#endif
#if !defined(__GLIBC__)
#error "ahs needs the GNU C library: res_ninit(3), strerrordesc_np(3), malloc_usable_size(3)"
#endif

static_assert(sizeof(void*) == 8 && sizeof(long) == 8 && CHAR_BIT == 8,
              "sizes and times are counted in 64 bits");
static_assert(std::endian::native == std::endian::little,
              "nobody has tried it with the other order of bytes");
