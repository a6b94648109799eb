#pragma once

namespace tests {

/// What can be made to fail. A value stands for a family of library functions that fail alike; see
/// the sources that bring them.
enum class Call {
  None,
  CreateThread,   ///< pthread_create
  LookUpName,     ///< getaddrinfo
  Allocate,       ///< operator new
  AllocateInC,    ///< malloc, calloc, realloc
  Open,           ///< open, openat, fopen, opendir
  Read,           ///< read
  Write,          ///< write
  Close,          ///< close
  Rename,         ///< renameat
  MakeDirectory,  ///< mkdir
  LookAt,         ///< stat, lstat, fstat
  ReadResolver,   ///< res_ninit
  Socket,         ///< socket, socketpair
  Connect,        ///< connect
  SocketOption,   ///< setsockopt, getsockopt
  Watch,          ///< epoll_create1, eventfd, epoll_ctl
  Send,           ///< send to another process
  Receive,        ///< recv
};

/// A name that this program knows, and no other: its getaddrinfo asks no name server for it.
/// libcurl knows "localhost" by itself.
inline constexpr const char* KnownName = "gateway.test";
inline constexpr const char* KnownAddress = "127.0.0.1";

/// Calls of one kind that fail.
struct Fault {
  /// In place of an error: a write that takes only a part.
  static constexpr int ShortWrite = -1;

  Call call = Call::None;
  unsigned long first = 0;  ///< the first call that fails, counted from 1; 0: they are only counted
  bool lasting = false;     ///< all calls from the first one on fail, not that one alone
  int error = 0;            ///< errno value, getaddrinfo's result, or `ShortWrite`
};

/// Makes calls fail from now on, on every thread that is not exempt.
void arm(const Fault& fault) noexcept;

struct Seen {
  unsigned long calls = 0;   ///< of the kind in question
  unsigned long failed = 0;  ///< those of them that were made to fail
};

/// Lets everything succeed again. @return what has been called since `arm`.
Seen disarm() noexcept;

/// For the functions that can fail: counts the call. @return whether it is to fail; errno is then
/// set to the fault's error.
bool strikes(Call call) noexcept;

/// The error of the fault that strikes.
int strikingError() noexcept;

/// Exempts this thread, or makes it subject to faults again, for the length of a scope. What a test
/// does itself, and what a client does in its callback, is exempt; threads begin subject.
class Exemption {
 public:
  explicit Exemption(bool exempt = true) noexcept;
  ~Exemption();
  Exemption(const Exemption&) = delete;
  Exemption& operator=(const Exemption&) = delete;

 private:
  const bool m_before;
};

/// Blocks that operator new has given and operator delete has not had back.
long liveBlocks() noexcept;

}  // namespace tests
