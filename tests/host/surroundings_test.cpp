// What selections must leave unchanged for the host: locale, umask, environment, working directory,
// signal handling. Compared on the thread that executes the runs.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <locale.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "tests/host/HostScene.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"

namespace tests {
namespace {

/// The signals of a set, and the treatment of every signal.
std::string textOf(const sigset_t& signals) {
  std::ostringstream text;
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    text << sigismember(&signals, signal) << reinterpret_cast<void*>(action.sa_handler)
         << action.sa_flags << ' ';
  }
  return text.str();
}

/// The state of the calling thread and the process.
std::map<std::string, std::string> surroundings() {
  std::map<std::string, std::string> found;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    found["environment"] += std::string(*variable) + "\n";
  }
  sigset_t blocked;
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  found["signal mask and actions"] = textOf(blocked);
  sigpending(&blocked);
  found["pending signals and actions"] = textOf(blocked);
  found["locale"] = setlocale(LC_ALL, nullptr);
  found["locale of the thread"] =
      std::to_string(reinterpret_cast<std::uintptr_t>(uselocale(nullptr)));
  const mode_t mask = ::umask(0);
  ::umask(mask);
  found["umask"] = std::to_string(mask);
  found["working directory"] = std::filesystem::current_path().string();
  found["standard descriptors"] = std::filesystem::read_symlink("/proc/self/fd/0").string() +
                                  std::filesystem::read_symlink("/proc/self/fd/1").string() +
                                  std::filesystem::read_symlink("/proc/self/fd/2").string();
  return found;
}

/// A host with unusual settings, which differ from a new process's.
class PeculiarHost : public testing::Test {
 protected:
  PeculiarHost() {
    ::setenv("AHS_TEST_VARIABLE", "of the host", 1);
    ::setenv("RES_OPTIONS", "timeout:1 attempts:1", 0);
    m_umask = ::umask(0);
    m_locale = newlocale(LC_ALL_MASK, "C.UTF-8", nullptr);
    uselocale(m_locale);
    sigset_t some;
    sigemptyset(&some);
    sigaddset(&some, SIGUSR2);
    sigaddset(&some, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &some, &m_mask);
    std::filesystem::current_path(m_directory.Path());
  }
  ~PeculiarHost() override {
    std::filesystem::current_path("/");
    pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
    uselocale(LC_GLOBAL_LOCALE);
    freelocale(m_locale);
    ::umask(m_umask);
    ::unsetenv("AHS_TEST_VARIABLE");
  }

 private:
  const TemporaryDirectory m_directory;
  mode_t m_umask;
  locale_t m_locale;
  sigset_t m_mask{};
};

TEST_F(PeculiarHost, FindsEverythingAsBeforeAfterSelections) {
  const GatewayProcess gateways({"", "behaviour=resets"});
  const auto before = surroundings();
  {
    Host host;
    // The last candidate has an international name, which is converted on the run's own thread.
    const std::string international = "b\u00fccher.invalid:9";
    host.BringUp({gateways.Addresses()[0], gateways.Addresses()[1], international});
    for (ProxyIfc* const proxy :
         {static_cast<ProxyIfc*>(nullptr), static_cast<ProxyIfc*>(new SecureProvider)}) {
      host.ForgetSelections();
      Client client;
      makeRun(client, AtConnection, international, proxy)->run();
      EXPECT_EQ(client.Status(), HEADENDSELECTION_ERROR_ADDED_TO_CACHE);
    }
    Client cached;
    makeRun(cached)->run();
    EXPECT_EQ(cached.Status(), 0);
    EXPECT_EQ(surroundings(), before) << "while the library is up";
  }
  EXPECT_EQ(surroundings(), before) << "once it is down";
}

}  // namespace
}  // namespace tests
