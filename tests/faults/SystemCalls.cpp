// The C library's functions that a selection calls and that can fail: each either fails as planned,
// without having done anything, or passes the call on. Closing is the exception: as with the
// kernel, a descriptor whose closing fails is closed all the same.

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <resolv.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "tests/faults/Injection.h"

namespace {

using tests::Call;
using tests::Fault;
using tests::strikes;
using tests::strikingError;

/// The function that this program's own stands in front of.
template <class Signature>
Signature* original(const char* name) {
  return reinterpret_cast<Signature*>(dlsym(RTLD_NEXT, name));
}

/// Whether a write is to be cut short instead of failing.
bool isCutShort() { return strikingError() == Fault::ShortWrite; }

/// The mode of an open(2) that creates; 0 for others.
mode_t modeOf(int flags, va_list arguments) {
  return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

}  // namespace

// Threads and names.

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*body)(void*), void* argument) noexcept {
  static auto* const real =
      original<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
  return strikes(Call::CreateThread) ? strikingError() : real(thread, attributes, body, argument);
}

extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                           addrinfo** result) {
  static auto* const real =
      original<int(const char*, const char*, const addrinfo*, addrinfo**)>("getaddrinfo");
  if (!strikes(Call::LookUpName)) {
    const bool isKnownHere = node != nullptr && std::strcmp(node, tests::KnownName) == 0;
    return real(isKnownHere ? tests::KnownAddress : node, service, hints, result);
  }
  errno = EMFILE;  // what EAI_SYSTEM refers to
  return strikingError();
}

extern "C" int __res_ninit(res_state state) noexcept {
  static auto* const real = original<int(res_state)>("__res_ninit");
  return strikes(Call::ReadResolver) ? -1 : real(state);
}

// Files.

extern "C" int open(const char* path, int flags, ...) {
  static auto* const real = original<int(const char*, int, ...)>("open");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = modeOf(flags, arguments);
  va_end(arguments);
  return strikes(Call::Open) ? -1 : real(path, flags, mode);
}

extern "C" int openat(int directory, const char* path, int flags, ...) {
  static auto* const real = original<int(int, const char*, int, ...)>("openat");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = modeOf(flags, arguments);
  va_end(arguments);
  return strikes(Call::Open) ? -1 : real(directory, path, flags, mode);
}

extern "C" int mkostemp(char* path, int flags) {
  static auto* const real = original<int(char*, int)>("mkostemp");
  return strikes(Call::Open) ? -1 : real(path, flags);
}

extern "C" FILE* fopen(const char* path, const char* mode) {
  static auto* const real = original<FILE*(const char*, const char*)>("fopen");
  return strikes(Call::Open) ? nullptr : real(path, mode);
}

extern "C" DIR* opendir(const char* path) {
  static auto* const real = original<DIR*(const char*)>("opendir");
  return strikes(Call::Open) ? nullptr : real(path);
}

extern "C" ssize_t read(int descriptor, void* buffer, std::size_t size) {
  static auto* const real = original<ssize_t(int, void*, std::size_t)>("read");
  return strikes(Call::Read) ? -1 : real(descriptor, buffer, size);
}

extern "C" ssize_t write(int descriptor, const void* data, std::size_t size) {
  static auto* const real = original<ssize_t(int, const void*, std::size_t)>("write");
  if (!strikes(Call::Write)) {
    return real(descriptor, data, size);
  }
  return isCutShort() ? real(descriptor, data, std::max<std::size_t>(size / 2, 1)) : -1;
}

extern "C" std::size_t fwrite(const void* data, std::size_t size, std::size_t count, FILE* stream) {
  static auto* const real =
      original<std::size_t(const void*, std::size_t, std::size_t, FILE*)>("fwrite");
  if (!strikes(Call::Write)) {
    return real(data, size, count, stream);
  }
  return isCutShort() ? real(data, size, count / 2, stream) : 0;
}

extern "C" int fflush(FILE* stream) {
  static auto* const real = original<int(FILE*)>("fflush");
  return strikes(Call::Flush) ? EOF : real(stream);
}

extern "C" int close(int descriptor) {
  static auto* const real = original<int(int)>("close");
  const bool fails = strikes(Call::Close);
  const int error = errno;
  const int result = real(descriptor);
  errno = fails ? error : errno;
  return fails ? -1 : result;
}

extern "C" int fclose(FILE* stream) {
  static auto* const real = original<int(FILE*)>("fclose");
  const bool fails = strikes(Call::Close);
  const int error = errno;
  const int result = real(stream);
  errno = fails ? error : errno;
  return fails ? EOF : result;
}

extern "C" int rename(const char* from, const char* to) noexcept {
  static auto* const real = original<int(const char*, const char*)>("rename");
  return strikes(Call::Rename) ? -1 : real(from, to);
}

extern "C" int mkdir(const char* path, mode_t mode) noexcept {
  static auto* const real = original<int(const char*, mode_t)>("mkdir");
  return strikes(Call::MakeDirectory) ? -1 : real(path, mode);
}

extern "C" int stat(const char* path, struct stat* result) noexcept {
  static auto* const real = original<int(const char*, struct stat*)>("stat");
  return strikes(Call::LookAt) ? -1 : real(path, result);
}

extern "C" int fstatat(int directory, const char* path, struct stat* result, int flags) noexcept {
  static auto* const real = original<int(int, const char*, struct stat*, int)>("fstatat");
  return strikes(Call::LookAt) ? -1 : real(directory, path, result, flags);
}

extern "C" int lstat(const char* path, struct stat* result) noexcept {
  static auto* const real = original<int(const char*, struct stat*)>("lstat");
  return strikes(Call::LookAt) ? -1 : real(path, result);
}

extern "C" int fstat(int descriptor, struct stat* result) noexcept {
  static auto* const real = original<int(int, struct stat*)>("fstat");
  return strikes(Call::LookAt) ? -1 : real(descriptor, result);
}

// The log's library asks for its file's size by this name.
extern "C" int fstat64(int descriptor, struct stat64* result) noexcept {
  static auto* const real = original<int(int, struct stat64*)>("fstat64");
  return strikes(Call::LookAt) ? -1 : real(descriptor, result);
}

// Sockets.

extern "C" int fcntl(int descriptor, int command, ...) {
  static auto* const real = original<int(int, int, ...)>("fcntl");
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);  // whatever it is, it fits a pointer
  va_end(arguments);
  return strikes(Call::Control) ? -1 : real(descriptor, command, argument);
}

extern "C" int socket(int domain, int type, int protocol) noexcept {
  static auto* const real = original<int(int, int, int)>("socket");
  return strikes(Call::Socket) ? -1 : real(domain, type, protocol);
}

extern "C" int socketpair(int domain, int type, int protocol, int* ends) noexcept {
  static auto* const real = original<int(int, int, int, int*)>("socketpair");
  return strikes(Call::Socket) ? -1 : real(domain, type, protocol, ends);
}

extern "C" int connect(int descriptor, const sockaddr* address, socklen_t length) {
  static auto* const real = original<int(int, const sockaddr*, socklen_t)>("connect");
  return strikes(Call::Connect) ? -1 : real(descriptor, address, length);
}

extern "C" int setsockopt(int descriptor, int level, int name, const void* value,
                          socklen_t length) noexcept {
  static auto* const real = original<int(int, int, int, const void*, socklen_t)>("setsockopt");
  return strikes(Call::SocketOption) ? -1 : real(descriptor, level, name, value, length);
}

extern "C" int getsockopt(int descriptor, int level, int name, void* value,
                          socklen_t* length) noexcept {
  static auto* const real = original<int(int, int, int, void*, socklen_t*)>("getsockopt");
  return strikes(Call::SocketOption) ? -1 : real(descriptor, level, name, value, length);
}

extern "C" int getsockname(int descriptor, sockaddr* address, socklen_t* length) noexcept {
  static auto* const real = original<int(int, sockaddr*, socklen_t*)>("getsockname");
  return strikes(Call::SocketName) ? -1 : real(descriptor, address, length);
}

extern "C" int getpeername(int descriptor, sockaddr* address, socklen_t* length) noexcept {
  static auto* const real = original<int(int, sockaddr*, socklen_t*)>("getpeername");
  return strikes(Call::SocketName) ? -1 : real(descriptor, address, length);
}

extern "C" int poll(pollfd* entries, nfds_t count, int timeout) {
  static auto* const real = original<int(pollfd*, nfds_t, int)>("poll");
  return strikes(Call::Poll) ? -1 : real(entries, count, timeout);
}

namespace {

/// Whether a socket connects parts of this process. By such a one libcurl's resolver tells that it
/// has done; if that fails, libcurl up to 7.88 loses the addresses, which would be found as a leak.
bool isLocal(int descriptor) {
  static auto* const ask = original<int(int, int, int, void*, socklen_t*)>("getsockopt");
  int domain = AF_UNSPEC;
  socklen_t length = sizeof domain;
  return ask(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 && domain == AF_UNIX;
}

}  // namespace

extern "C" ssize_t send(int descriptor, const void* data, std::size_t size, int flags) {
  static auto* const real = original<ssize_t(int, const void*, std::size_t, int)>("send");
  return !isLocal(descriptor) && strikes(Call::Send) ? -1 : real(descriptor, data, size, flags);
}

extern "C" ssize_t recv(int descriptor, void* buffer, std::size_t size, int flags) {
  static auto* const real = original<ssize_t(int, void*, std::size_t, int)>("recv");
  return strikes(Call::Receive) ? -1 : real(descriptor, buffer, size, flags);
}
