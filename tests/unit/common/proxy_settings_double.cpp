// libproxy's five functions, scripted. Like libproxy's, lists are arrays of texts that the caller
// may change and must free.

#include "tests/unit/common/proxy_settings_double.h"

#include <proxy.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

struct pxProxyFactory_ {
  std::atomic<bool> inUse{false};
};

namespace tests {
namespace {

/// Never freed: abandoned threads may ask until the process ends.
struct STATE {
  std::mutex mutex;
  ProxySettingsDouble::Script script;
  std::vector<std::string> asked;
  ProxySettingsDouble::Factories factories;
};

STATE& state() {
  static STATE& instance = *new STATE;
  return instance;
}

char** toList(const std::vector<std::string>& entries) {
  auto** const list = new char*[entries.size() + 1];
  for (std::size_t i = 0; i < entries.size(); ++i) {
    list[i] = strdup(entries[i].c_str());
  }
  list[entries.size()] = nullptr;
  return list;
}

}  // namespace

ProxySettingsDouble::ProxySettingsDouble(Script script) {
  const std::lock_guard<std::mutex> guard(state().mutex);
  state().script = std::move(script);
  state().asked.clear();
}

ProxySettingsDouble::~ProxySettingsDouble() {
  const std::lock_guard<std::mutex> guard(state().mutex);
  state().script = nullptr;
}

std::vector<std::string> ProxySettingsDouble::Asked() {
  const std::lock_guard<std::mutex> guard(state().mutex);
  return state().asked;
}

ProxySettingsDouble::Factories& ProxySettingsDouble::factories() { return state().factories; }

}  // namespace tests

pxProxyFactory* px_proxy_factory_new() {
  if (tests::state().factories.failToMake) {
    throw std::runtime_error("a module does not load");
  }
  ++tests::state().factories.made;
  return new pxProxyFactory_;
}

char** px_proxy_factory_get_proxies(pxProxyFactory* self, const char* url) {
  if (self->inUse.exchange(true)) {
    ++tests::state().factories.misused;
  }
  struct Leaving {
    pxProxyFactory* factory;
    ~Leaving() { factory->inUse = false; }
  } const leaving{self};
  tests::ProxySettingsDouble::Script script;
  {
    const std::lock_guard<std::mutex> guard(tests::state().mutex);
    tests::state().asked.emplace_back(url);
    script = tests::state().script;
  }
  try {
    return tests::toList(script ? script(url) : std::vector<std::string>{"direct://"});
  } catch (const tests::ProxySettingsDouble::NoList&) {
    return nullptr;
  }
}

void px_proxy_factory_free_proxies(char** proxies) {
  for (char** entry = proxies; *entry != nullptr; ++entry) {
    tests::state().factories.unwiped += **entry != '\0' ? 1U : 0U;
    free(*entry);
  }
  delete[] proxies;
}

void px_proxy_factory_free(pxProxyFactory*) { ++tests::state().factories.misused; }
