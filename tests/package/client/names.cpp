// The client's second object: what templates and inline functions the library and both objects have
// in common is defined in each of the three.

#include "names.h"

#include <map>

#include "vpn/Api/ProxyProviders.h"

long worthOfProbe(long value) { return value * value; }

std::string numberOf(const std::string& word) {
  const auto numbers = std::make_shared<std::map<std::string, unsigned long>>();
  numbers->emplace("seven", 7);
  return std::to_string(numbers->at(word));
}

std::unique_ptr<ProxyIfc> providerOfAnotherObject() {
  return std::make_unique<CBasicProxyProvider>(SecureString<std::string>("anna"),
                                               SecureString<std::string>("secret"));
}
