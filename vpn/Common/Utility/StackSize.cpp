// Apart from the creation of threads, which tests replace.

#include "vpn/Common/Utility/StackSize.h"

#include <sys/resource.h>

std::size_t callbackStackSize() noexcept {
  constexpr std::size_t Usual = std::size_t{8} * 1024 * 1024;
  rlimit stack{};
  const bool isLimited = getrlimit(RLIMIT_STACK, &stack) == 0 && stack.rlim_cur != RLIM_INFINITY;
  return isLimited ? stack.rlim_cur : Usual;
}
