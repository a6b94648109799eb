// Writes a line for each descriptor that it was given beyond the standard three: what it is. The
// two ends of a socket pair, which lead nowhere but to each other, are told from other sockets.

#include <dirent.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

bool isNameless(int (*name)(int, sockaddr*, socklen_t*), int descriptor) {
  sockaddr_un address{};
  socklen_t length = sizeof address;
  return name(descriptor, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
         address.sun_family == AF_UNIX && length == offsetof(sockaddr_un, sun_path);
}

std::string describe(int descriptor) {
  if (isNameless(getsockname, descriptor) && isNameless(getpeername, descriptor)) {
    return "pair";
  }
  char target[512];
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  const ssize_t length = readlink(link.c_str(), target, sizeof target);
  return length > 0 ? std::string(target, static_cast<std::size_t>(length)) : "unknown";
}

}  // namespace

int main() {
  DIR* const directory = opendir("/proc/self/fd");
  if (directory == nullptr) {
    return EXIT_FAILURE;
  }
  while (const dirent* const entry = readdir(directory)) {
    const int descriptor = std::atoi(entry->d_name);
    if (descriptor > STDERR_FILENO && descriptor != dirfd(directory)) {
      std::puts(describe(descriptor).c_str());
    }
  }
  closedir(directory);
  return EXIT_SUCCESS;
}
