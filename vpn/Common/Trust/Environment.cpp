// The one place that reads the environment.

#include "vpn/Common/Trust/Environment.h"

#include <stdlib.h>
#include <sys/auxv.h>

#include <atomic>

namespace {

constinit std::atomic<bool> isIgnored{false};

}  // namespace

void Environment::prepare(bool ignored) {
  if (ignored) {
    isIgnored = true;
  }
  if (hasRightsOfFile()) {
    unsetenv("SSLKEYLOGFILE");  // libcurl opens that file as it starts
  }
}

bool Environment::isShut() { return isIgnored || hasRightsOfFile(); }

bool Environment::hasRightsOfFile() { return getauxval(AT_SECURE) != 0; }

const char* Environment::get(const char* name) {
  const char* const value = isShut() ? nullptr : getenv(name);
  return value != nullptr && *value != '\0' ? value : nullptr;
}
