// What is shipped calls checked variants of the C library's functions (_FORTIFY_SOURCE). In a
// program with this source they are the plain functions, which doubles replace.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>

extern "C" int __open_2(const char* path, int flags) { return open(path, flags); }

extern "C" int __openat_2(int directory, const char* path, int flags) {
  return openat(directory, path, flags);
}

extern "C" ssize_t __read_chk(int descriptor, void* buffer, std::size_t count, std::size_t) {
  return read(descriptor, buffer, count);
}

extern "C" ssize_t __recv_chk(int socket, void* buffer, std::size_t count, std::size_t, int flags) {
  return recv(socket, buffer, count, flags);
}
