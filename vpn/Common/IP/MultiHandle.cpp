// libcurl offers no handle without the pair of sockets, but goes without where the system gives
// none. So a thread makes the handle that shares no descriptors with the process and has none free.

#include "vpn/Common/IP/MultiHandle.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <semaphore>

#include "vpn/Common/Utility/Descriptors.h"
#include "vpn/Common/Utility/DetachedThread.h"

namespace {

struct Making {
  void* handle = nullptr;  // the maker's until it is done
  std::binary_semaphore done{0};
};

/// Leaves this thread a table of descriptors of its own that is full. By system calls, because
/// ThreadSanitizer takes what the C library opens for descriptors of the whole process.
bool fillOwnTable() noexcept {
  constexpr unsigned int FirstOther = STDERR_FILENO + 1;
  if (syscall(SYS_close_range, FirstOther, UINT_MAX, CLOSE_RANGE_UNSHARE) != 0) {
    return false;  // a kernel before 5.9
  }
  const long any = syscall(SYS_openat, AT_FDCWD, "/", O_PATH | O_CLOEXEC);
  while (syscall(SYS_dup, any) >= 0) {
  }
  return true;
}

void* make(void* job) {
  Making& making = *static_cast<Making*>(job);
  making.handle = fillOwnTable() ? curl_multi_init() : nullptr;
  making.done.release();
  return nullptr;
}

void* makeFrugally() noexcept {
  Making making;
  if (startDetachedThread(make, &making, DefaultStackSize) != 0) {
    return nullptr;
  }
  making.done.acquire();
  return making.handle;
}

}  // namespace

void* makeMultiHandle() noexcept {
  void* const frugal = Descriptors::areFew() ? makeFrugally() : nullptr;
  return frugal != nullptr ? frugal : curl_multi_init();
}
