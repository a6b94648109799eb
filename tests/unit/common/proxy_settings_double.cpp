#include "tests/unit/common/proxy_settings_double.h"

#include <mutex>
#include <thread>
#include <utility>

#include "vpn/Common/IP/SystemProxy.h"

namespace tests {
namespace {

struct STATE {
  std::mutex mutex;
  ProxySettingsDouble::Script script;
  std::vector<std::string> asked;
};

STATE& state() {
  static STATE& instance = *new STATE;
  return instance;
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

}  // namespace tests

SystemProxy::Outcome SystemProxy::find(const std::string& url, std::chrono::milliseconds limit,
                                       int /*cancel*/, std::vector<std::string>& entries) {
  tests::ProxySettingsDouble::Script script;
  {
    const std::lock_guard<std::mutex> guard(tests::state().mutex);
    tests::state().asked.emplace_back(url);
    script = tests::state().script;
  }
  try {
    entries = script ? script(url) : std::vector<std::string>{"direct://"};
    return Outcome::Found;
  } catch (const tests::ProxySettingsDouble::Late&) {
    std::this_thread::sleep_for(limit);
    return Outcome::Late;
  } catch (...) {
    return Outcome::Failed;
  }
}
