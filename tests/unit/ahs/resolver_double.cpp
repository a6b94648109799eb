// Stands in for the resolver's settings, so that a test can move the machine to another network.

#include "tests/unit/ahs/resolver_double.h"

#include <mutex>

#include "vpn/Api/AHS/ResolverPlace.h"

namespace {

std::mutex lock;
std::vector<std::string> presentPlace;

}  // namespace

void tests::setResolverPlace(const std::vector<std::string>& place) {
  const std::lock_guard<std::mutex> guard(lock);
  presentPlace = place;
}

bool readResolverPlace(std::vector<std::string>& place) {
  const std::lock_guard<std::mutex> guard(lock);
  place = presentPlace;
  return !place.empty();
}
