// The C library's fallible functions that a selection calls. Each fails as planned without doing
// anything, or passes the call on. Exception: like the kernel, a failing close still closes the
// descriptor.

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <pthread.h>
#include <resolv.h>
#include <stdio.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
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

/// The original function, which this program's function hides.
template <class Signature>
Signature* original(const char* name) {
  return reinterpret_cast<Signature*>(dlsym(RTLD_NEXT, name));
}

/// Whether to shorten a write instead of failing it.
bool isCutShort() { return strikingError() == Fault::ShortWrite; }

/// The mode of a creating open(2); 0 for others.
mode_t modeOf(int flags, va_list arguments) {
  return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

}  // namespace

/// A function of the C library that returns `failure` while calls of its kind fail.
#define FAILING(kind, failure, Result, name, parameters, arguments, ...) \
  extern "C" Result name parameters __VA_ARGS__ {                        \
    static auto* const real = original<Result parameters>(#name);        \
    return strikes(kind) ? failure : real arguments;                     \
  }                                                                      \
  static_assert(true, "takes a semicolon")

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

FAILING(Call::ReadResolver, -1, int, __res_ninit, (res_state state), (state), noexcept);

// Files.

/// Like FAILING, for a function that takes a mode when it creates.
#define OPENING(name, parameters, arguments)                   \
  extern "C" int name parameters {                             \
    static auto* const real = original<int parameters>(#name); \
    va_list rest;                                              \
    va_start(rest, flags);                                     \
    const mode_t mode = modeOf(flags, rest);                   \
    va_end(rest);                                              \
    return strikes(Call::Open) ? -1 : real arguments;          \
  }                                                            \
  static_assert(true, "takes a semicolon")

OPENING(open, (const char* path, int flags, ...), (path, flags, mode));
OPENING(openat, (int directory, const char* path, int flags, ...), (directory, path, flags, mode));
FAILING(Call::Open, nullptr, FILE*, fopen, (const char* path, const char* mode), (path, mode));
FAILING(Call::Open, nullptr, DIR*, opendir, (const char* path), (path));
FAILING(Call::Read, -1, ssize_t, read, (int descriptor, void* buffer, std::size_t size),
        (descriptor, buffer, size));

extern "C" ssize_t write(int descriptor, const void* data, std::size_t size) {
  static auto* const real = original<ssize_t(int, const void*, std::size_t)>("write");
  if (!strikes(Call::Write)) {
    return real(descriptor, data, size);
  }
  return isCutShort() ? real(descriptor, data, std::max<std::size_t>(size / 2, 1)) : -1;
}

/// Like FAILING, for a function that closes even when it fails.
#define CLOSING(failure, Type, name)                      \
  extern "C" int name(Type opened) {                      \
    static auto* const real = original<int(Type)>(#name); \
    const bool fails = strikes(Call::Close);              \
    const int error = errno;                              \
    const int result = real(opened);                      \
    errno = fails ? error : errno;                        \
    return fails ? failure : result;                      \
  }                                                       \
  static_assert(true, "takes a semicolon")

CLOSING(-1, int, close);
FAILING(Call::Rename, -1, int, renameat, (int in, const char* from, int out, const char* to),
        (in, from, out, to), noexcept);
FAILING(Call::MakeDirectory, -1, int, mkdir, (const char* path, mode_t mode), (path, mode),
        noexcept);
FAILING(Call::LookAt, -1, int, stat, (const char* path, struct stat* result), (path, result),
        noexcept);
FAILING(Call::LookAt, -1, int, fstatat,
        (int directory, const char* path, struct stat* result, int flags),
        (directory, path, result, flags), noexcept);
FAILING(Call::LookAt, -1, int, lstat, (const char* path, struct stat* result), (path, result),
        noexcept);
FAILING(Call::LookAt, -1, int, fstat, (int descriptor, struct stat* result), (descriptor, result),
        noexcept);

// Sockets.

FAILING(Call::Socket, -1, int, socket, (int domain, int type, int protocol),
        (domain, type, protocol), noexcept);
FAILING(Call::Socket, -1, int, socketpair, (int domain, int type, int protocol, int* ends),
        (domain, type, protocol, ends), noexcept);
FAILING(Call::Connect, -1, int, connect,
        (int descriptor, const sockaddr* address, socklen_t length), (descriptor, address, length));
FAILING(Call::SocketOption, -1, int, setsockopt,
        (int descriptor, int level, int name, const void* value, socklen_t length),
        (descriptor, level, name, value, length), noexcept);
FAILING(Call::SocketOption, -1, int, getsockopt,
        (int descriptor, int level, int name, void* value, socklen_t* length),
        (descriptor, level, name, value, length), noexcept);
FAILING(Call::Watch, -1, int, epoll_create1, (int flags), (flags), noexcept);
FAILING(Call::Watch, -1, int, eventfd, (unsigned int count, int flags), (count, flags), noexcept);
FAILING(Call::Watch, -1, int, epoll_ctl,
        (int watcher, int operation, int descriptor, epoll_event* event),
        (watcher, operation, descriptor, event), noexcept);

namespace {

/// Whether a socket connects parts of this process. libcurl's resolver reports its end through such
/// a socket; if that fails, libcurl up to 7.88 leaks the addresses.
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

FAILING(Call::Receive, -1, ssize_t, recv,
        (int descriptor, void* buffer, std::size_t size, int flags),
        (descriptor, buffer, size, flags));
