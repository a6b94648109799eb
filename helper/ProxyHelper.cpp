// The program ahs-proxy: asks libproxy for the way to one URL and ends. libproxy loads modules,
// runs scripts and may fetch a file, so before that this program gives up all rights over others,
// and a thread ends it as soon as the asker hangs up.
//
// Descriptor 0 is a socket: one message in, the URL; one message out, the entries, a line each.

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <poll.h>
#include <proxy.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <string>
#include <string_view>
#include <thread>

namespace {

constexpr uid_t Nobody = 65534;
constexpr int Failure = 1;

/// Becomes the user who started the program; root becomes nobody. Where there is no nobody (a
/// namespace of one user), root without capabilities is that user.
bool becomeSomebody() {
  const uid_t user = getuid() != 0 ? getuid() : geteuid();
  if (user != 0) {
    const gid_t group = getuid() != 0 ? getgid() : getegid();
    if (getuid() == 0 && (seteuid(0) != 0 || setgroups(0, nullptr) != 0)) {
      return false;  // root's groups would stay
    }
    return setresgid(group, group, group) == 0 && setresuid(user, user, user) == 0;
  }
  if (setresgid(Nobody, Nobody, Nobody) != 0) {
    return errno == EINVAL;
  }
  return setgroups(0, nullptr) == 0 && setresuid(Nobody, Nobody, Nobody) == 0;
}

bool giveUpRights() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  const std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
  return becomeSomebody() && prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) == 0 &&
         syscall(SYS_capset, &header, none.data()) == 0 &&
         prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
}

/// What a new program usually finds: modules may start some.
void makeUsual() {
  for (int number = 1; number < NSIG; ++number) {
    signal(number, SIG_DFL);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  const rlimit noCore{0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
  [[maybe_unused]] const int moved = chdir("/");  // elsewhere will do as well
  setsid();                                       // modules cannot type at the host's terminal
}

/// Closes what is the host's, and moves the socket away from the standard streams, which modules
/// may use.
int takeSocket() {
  closefrom(STDIN_FILENO + 1);
  const int asker = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  close(STDIN_FILENO);
  open("/dev/null", O_RDWR);
  dup2(STDIN_FILENO, STDOUT_FILENO);
  dup2(STDIN_FILENO, STDERR_FILENO);
  return asker;
}

/// An entry without a user name and a password: what stands between the scheme and the last "@".
std::string withoutCredentials(std::string_view entry) {
  constexpr std::string_view SchemeEnd = "://";
  const std::size_t scheme = entry.find(SchemeEnd);
  const std::size_t start = scheme == std::string_view::npos ? 0 : scheme + SchemeEnd.size();
  const std::size_t at = entry.rfind('@');
  const bool names = at != std::string_view::npos && at >= start;
  return std::string(entry.substr(0, start)).append(entry.substr(names ? at + 1 : start));
}

/// Empty if libproxy gives no list.
std::string ask(const std::string& url) {
  std::string answer;
  pxProxyFactory* const factory = px_proxy_factory_new();
  char** const list =
      factory != nullptr ? px_proxy_factory_get_proxies(factory, url.c_str()) : nullptr;
  for (char** entry = list; entry != nullptr && *entry != nullptr; ++entry) {
    answer += withoutCredentials(*entry) + "\n";
  }
  if (factory != nullptr) {
    px_proxy_factory_free(factory);  // some modules have processes of their own
  }
  return answer;
}

int answerOne(int asker) {
  std::string url(64UL * 1024, '\0');
  const ssize_t length = recv(asker, url.data(), url.size(), 0);
  if (length <= 0) {
    return Failure;
  }
  url.resize(static_cast<std::size_t>(length));
  std::thread([asker] {
    pollfd hangUp{asker, 0, 0};
    while (poll(&hangUp, 1, -1) <= 0) {
    }
    _exit(Failure);
  }).detach();
  const std::string answer = ask(url);
  return send(asker, answer.data(), answer.size(), MSG_NOSIGNAL) > 0 ? 0 : Failure;
}

}  // namespace

int main() {
  int status = Failure;
  if (giveUpRights()) {
    makeUsual();
    try {
      status = answerOne(takeSocket());
    } catch (...) {
      // A module that throws has no answer.
    }
  }
  _exit(status);
}
