// A host that loads the library, selects twice (by the system's proxy, and with a login through a
// proxy of its own), and prints which environment variables were asked for. It replaces the C
// library's functions, for itself and for every library.
// Usage: privileged_host LIBRARY IGNORE PROXY HEADEND

#include <ahs/ahs.h>
#include <dlfcn.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>

namespace {

struct Asked {
  bool isSecure;
  std::array<char, 40> name;
};

// Libraries ask while they are loaded, so nothing here is constructed.
constinit std::array<Asked, 4096> asked{};
constinit std::atomic<std::size_t> count{0};

char* ask(const char* name, bool isSecure) {
  Asked& next = asked.at(count++);
  next.isSecure = isSecure;
  std::strncpy(next.name.data(), name, next.name.size() - 1);
  const std::size_t length = std::strlen(name);
  for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
    if (std::strncmp(*variable, name, length) == 0 && (*variable)[length] == '=') {
      return *variable + length + 1;
    }
  }
  return nullptr;
}

template <class Function>
Function* functionOf(void* library, const char* name) {
  return reinterpret_cast<Function*>(dlsym(library, name));
}

}  // namespace

extern "C" char* getenv(const char* name) noexcept { return ask(name, false); }

extern "C" char* secure_getenv(const char* name) noexcept {
  char* const value = ask(name, true);
  return getauxval(AT_SECURE) != 0 ? nullptr : value;
}

int main(int argc, char** argv) {
  if (argc != 5) {
    return 2;
  }
  std::printf("AT_SECURE %lu\n", getauxval(AT_SECURE));
  for (const char* name : {"RES_OPTIONS", "LOCALDOMAIN", "HOSTALIASES"}) {
    if (ask(name, true) != nullptr) {
      std::printf("set %s\n", name);
    }
  }
  count = 0;
  void* const library = dlopen(argv[1], RTLD_NOW);
  if (library == nullptr) {
    std::puts(dlerror());
    return 2;
  }
  const auto doorStart = functionOf<decltype(ahs_start)>(library, "ahs_start");
  const auto doorSelect = functionOf<decltype(ahs_select)>(library, "ahs_select");
  const auto doorWait = functionOf<decltype(ahs_wait)>(library, "ahs_wait");
  const auto doorStop = functionOf<decltype(ahs_stop)>(library, "ahs_stop");
  const auto doorFree = functionOf<decltype(ahs_free)>(library, "ahs_free");
  const auto ignoreResult = functionOf<decltype(ahs_no_callback)>(library, "ahs_no_callback");

  for (const char* const proxy :
       {static_cast<const char*>(nullptr), const_cast<const char*>(argv[3])}) {
    const ahs_headend headend{nullptr, argv[4]};
    ahs_options options = AHS_OPTIONS_INIT;
    options.headends = &headend;
    options.headend_count = 1;
    options.proxy = proxy;
    options.ignore_environment = *argv[2] == '1' ? 1 : 0;
    ahs_library* up = nullptr;
    doorStart(&options, &up);
    ahs_request request = AHS_REQUEST_INIT;
    request.measure_now = 1;
    request.proxy_user = proxy != nullptr ? "user" : nullptr;
    request.proxy_password = proxy != nullptr ? "password" : nullptr;
    ahs_selection* selection = nullptr;
    doorSelect(up, &request, ignoreResult, nullptr, &selection);
    const ahs_result* const result = doorWait(selection, AHS_WAIT_FOREVER);
    std::printf("result %x\n", result != nullptr ? result->status : 1U);
    doorStop(up);
    doorFree(selection);
  }
  for (std::size_t i = 0; i < count; ++i) {
    std::printf("%s %s\n", asked.at(i).isSecure ? "secure_getenv" : "getenv",
                asked.at(i).name.data());
  }
  return 0;
}
