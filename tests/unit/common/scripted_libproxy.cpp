// libproxy's functions for the helper program, played by the name of the host that is asked for.

#include <fcntl.h>
#include <proxy.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using Entries = std::vector<std::string>;

/// What this program started with and may do, of which nothing may be the host's.
Entries surroundings() {
  Entries found;
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    for (const char* name : {"Uid:", "Gid:", "Groups:", "SigBlk:", "SigIgn:", "CapInh:", "CapPrm:",
                             "CapEff:", "CapAmb:", "NoNewPrivs:"}) {
      if (line.starts_with(name)) {
        found.push_back(line);
      }
    }
  }
  for (int descriptor = 0; descriptor < 1024; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) >= 0) {
      found.push_back("descriptor " + std::to_string(descriptor));
    }
  }
  for (char** variable = environ; *variable != nullptr; ++variable) {
    found.emplace_back(*variable);
  }
  return found;
}

Entries answerTo(const std::string& url) {
  const std::string host = url.substr(7, url.find(':', 7) - 7);
  if (host == "names") {
    return {"http://user:secret@a:1",
            "http://us%40er:se:c@r@et@b:2",
            "user:secret@c:3",
            "http://user:sec/ret@d:4",
            "@",
            "http://@e:5",
            "socks5://f:6",
            "direct://"};
  }
  if (host == "tells") {
    return surroundings();
  }
  if (host == "speaks") {
    std::fputs("not an answer\n", stdout);
    std::fflush(stdout);
    return {"direct://"};
  }
  if (host == "talks") {
    return {std::string(std::size_t{1} << 17, 'x')};
  }
  if (host == "throws") {
    throw std::runtime_error("a module's trouble");
  }
  if (host == "crashes") {
    raise(SIGSEGV);
  }
  if (host == "exits") {
    std::exit(0);
  }
  if (host == "hangs") {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, nullptr);
    for (;;) {
      std::this_thread::yield();
    }
  }
  return {};
}

}  // namespace

// The type behind the handle has another name in each release.
pxProxyFactory* px_proxy_factory_new() { return reinterpret_cast<pxProxyFactory*>(new char); }

void px_proxy_factory_free(pxProxyFactory* self) { delete reinterpret_cast<char*>(self); }

char** px_proxy_factory_get_proxies(pxProxyFactory* /*self*/, const char* url) {
  const Entries entries = answerTo(url);
  if (entries.empty()) {
    return nullptr;
  }
  auto** const list = new char*[entries.size() + 1]();
  for (std::size_t i = 0; i < entries.size(); ++i) {
    list[i] = strdup(entries[i].c_str());
  }
  return list;
}
