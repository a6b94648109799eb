// The system's proxy settings, asked in a process of their own. The helper is started so that the
// host notices nothing: by a process that shares our memory and ends at once, and neither tells us
// its end. The one thing that is open to both sides is a socket, which ends the helper when it
// hangs up, so nobody has to be killed or waited for.

#include "vpn/Common/IP/SystemProxy.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <link.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "vpn/Common/Trust/Environment.h"
#include "vpn/Common/Trust/FileTrust.h"
#include "vpn/Common/Utility/MonotonicClock.h"

// clone(2) by the C library's own name: a sanitizer's clone() knows no shared memory.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" int __clone(int (*body)(void*), void* stackEnd, int flags, void* argument, ...) noexcept;

namespace {

constexpr std::size_t MostAnswerBytes = 64UL * 1024;

// Of each process on the way to the helper, which makes a few system calls.
constexpr std::size_t StackBytes = 16UL * 1024;

/// What the processes on the way to the helper share with the thread that starts them, which stands
/// still meanwhile.
struct Start {
  int socket;
  std::array<const char*, 2> programs;  ///< best first; null for none
  char* const* environment;
  char* stackEnd;
  int error = 0;  ///< why there is no helper
};

/// Adds the place of a helper in the directory of a file of ours, which is as trusted as the file,
/// unless others may add files there (/tmp).
void addBeside(std::string_view file, const char* helper, std::vector<std::string>& places) {
  const std::string directory(file.substr(0, file.rfind('/') + 1));
  struct stat status {};
  if (stat(directory.c_str(), &status) == 0 && (status.st_mode & S_ISVTX) == 0) {
    places.push_back(directory + helper);
  }
}

/// Where the helper is. A shared library has it below its own directory. A program has it beside
/// itself in a build tree, else where it was to be installed; the path of a program with rights of
/// its file may be a link that its caller made.
std::vector<std::string> findHelper() {
  std::vector<std::string> places;
  Dl_info self{};
  link_map* object = nullptr;
  std::array<char, PATH_MAX> program{};
  if (dladdr1(reinterpret_cast<const void*>(&findHelper), &self, reinterpret_cast<void**>(&object),
              RTLD_DL_LINKMAP) != 0 &&
      object != nullptr && *object->l_name == '/') {
    addBeside(object->l_name, AHS_HELPER_NAME, places);
  } else if (const ssize_t length = readlink("/proc/self/exe", program.data(), program.size());
             length > 0 && !Environment::hasRightsOfFile()) {
    addBeside({program.data(), static_cast<std::size_t>(length)}, "ahs-proxy", places);
  }
  places.emplace_back(AHS_HELPER);
  return places;
}

/// Becomes the helper. The memory is the host's, so nothing but system calls.
int becomeHelper(void* shared) {
  Start& start = *static_cast<Start*>(shared);
  // The socket becomes descriptor 0; the helper closes all others.
  const long moved = start.socket == STDIN_FILENO
                         ? syscall(SYS_fcntl, start.socket, F_SETFD, 0)
                         : syscall(SYS_dup3, start.socket, STDIN_FILENO, 0);
  if (moved < 0) {
    start.error = errno;
    return 1;
  }
  for (const char* const program : start.programs) {
    if (program != nullptr) {
      const std::array<const char*, 2> arguments = {program, nullptr};
      start.error = 0;  // from here on the helper's memory is its own
      syscall(SYS_execve, program, arguments.data(), start.environment);
      start.error = errno;
      if (start.error != ENOENT && start.error != ENOTDIR) {
        break;
      }
    }
  }
  return 1;
}

constexpr int SharingMemory = CLONE_VM | CLONE_VFORK;  // and no signal at its end

/// The helper's parent. It ends at once, so that the helper, whose end would be signalled, becomes
/// init's child.
int startHelpersProcess(void* shared) {
  Start& start = *static_cast<Start*>(shared);
  const int helper = __clone(becomeHelper, start.stackEnd, SharingMemory, shared);
  if (helper < 0) {
    start.error = errno;
  } else if (start.error != 0) {
    syscall(SYS_wait4, helper, nullptr, __WCLONE, nullptr);
  }
  return 0;
}

/// @return 0, or errno's number; ENOENT if the helper is not installed.
int startHelper(int socket) {
  const std::vector<std::string> places = findHelper();
  char* const empty = nullptr;
  alignas(16) std::array<std::array<char, StackBytes>, 2> stacks;
  Start start{socket, {}, Environment::isShut() ? &empty : environ, &stacks[0].back() + 1};
  std::transform(places.begin(), places.end(), start.programs.begin(),
                 [](const std::string& place) { return place.c_str(); });
  // No handler of the host may run in a process that shares its memory; the helper unblocks them.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const pid_t child = __clone(startHelpersProcess, &stacks[1].back() + 1, SharingMemory, &start);
  if (child < 0) {
    start.error = errno;
  }
  while (child >= 0 && waitpid(child, nullptr, static_cast<int>(__WCLONE)) < 0 && errno == EINTR) {
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return start.error == ENOTDIR ? ENOENT : start.error;
}

SystemProxy::Outcome await(int socket, int cancel, MonotonicClock::time_point deadline) {
  std::array<pollfd, 2> awaited{{{socket, POLLIN, 0}, {cancel, POLLIN, 0}}};
  for (;;) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - MonotonicClock::now()).count();
    if (left <= 0) {
      return SystemProxy::Outcome::Late;
    }
    const int ready =
        poll(awaited.data(), awaited.size(), static_cast<int>(std::min<long>(left, INT_MAX)));
    if (ready > 0) {
      return awaited[1].revents == 0 ? SystemProxy::Outcome::Found : SystemProxy::Outcome::Failed;
    }
    if (ready < 0 && errno != EINTR) {
      return SystemProxy::Outcome::Failed;
    }
  }
}

/// Reads one entry a line; none if the helper has ended without an answer.
SystemProxy::Outcome readAnswer(int socket, std::vector<std::string>& entries) {
  std::string answer(MostAnswerBytes, '\0');
  const ssize_t length = recv(socket, answer.data(), answer.size(), MSG_DONTWAIT | MSG_TRUNC);
  if (length <= 0 || static_cast<std::size_t>(length) > answer.size()) {
    return SystemProxy::Outcome::Failed;
  }
  answer.resize(static_cast<std::size_t>(length));
  for (std::size_t from = 0, end = 0; (end = answer.find('\n', from)) != std::string::npos;
       from = end + 1) {
    entries.push_back(answer.substr(from, end - from));
  }
  return SystemProxy::Outcome::Found;
}

}  // namespace

SystemProxy::Outcome SystemProxy::find(const std::string& url, std::chrono::milliseconds limit,
                                       int cancel, std::vector<std::string>& entries) {
  const MonotonicClock::time_point deadline = MonotonicClock::now() + limit;
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    return Outcome::Failed;
  }
  const FileTrust::Descriptor own(ends[0]);
  {
    const FileTrust::Descriptor helpers(ends[1]);
    const bool isAsked = send(own.get(), url.data(), url.size(), MSG_NOSIGNAL) >= 0;
    const int error = isAsked ? startHelper(helpers.get()) : errno;
    if (error == ENOENT) {
      entries = {"direct://"};
      return Outcome::Found;
    }
    if (error != 0) {
      return Outcome::Failed;
    }
  }
  const Outcome outcome = await(own.get(), cancel, deadline);
  return outcome == Outcome::Found ? readAnswer(own.get(), entries) : outcome;
}
