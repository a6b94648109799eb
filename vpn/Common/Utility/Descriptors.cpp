// Counts descriptors where the kernel lists them.

#include "vpn/Common/Utility/Descriptors.h"

#include <dirent.h>
#include <sys/resource.h>

#include <cerrno>
#include <climits>
#include <memory>

namespace {

/// @param most what to say if there is no descriptor to look with.
long countOpen(long most) noexcept {
  const std::unique_ptr<DIR, int (*)(DIR*)> listed(opendir("/proc/self/fd"), closedir);
  if (!listed) {
    return errno == EMFILE || errno == ENFILE ? most : 0;
  }
  long count = -1;  // the list's own
  while (const dirent* entry = readdir(listed.get())) {
    count += static_cast<const char*>(entry->d_name)[0] != '.' ? 1 : 0;
  }
  return count;
}

}  // namespace

long Descriptors::limit() noexcept {
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) != 0 || files.rlim_cur > LONG_MAX) {
    return LONG_MAX;
  }
  return static_cast<long>(files.rlim_cur);
}

bool Descriptors::areFew() noexcept {
  constexpr long Few = 512;
  return limit() <= Few;
}

long Descriptors::left() noexcept {
  const long most = limit();
  return most - countOpen(most) - HostsShare;
}
