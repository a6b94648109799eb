// Stands in for the network, so that a test can move the machine elsewhere and end a gateway.

#include "tests/unit/ahs/network_double.h"

#include <mutex>
#include <utility>

#include "vpn/Api/AHS/NetworkPlace.h"
#include "vpn/Common/IP/ConnectionTrial.h"

namespace {

std::mutex lock;
std::vector<std::string> presentPlace;
std::string dead;
std::vector<std::string> trials;

}  // namespace

void tests::setNetworkPlace(const std::vector<std::string>& place) {
  const std::lock_guard<std::mutex> guard(lock);
  presentPlace = place;
}

void tests::setDead(const std::string& hostAndPort) {
  const std::lock_guard<std::mutex> guard(lock);
  dead = hostAndPort;
  trials.clear();
}

std::vector<std::string> tests::takeTrials() {
  const std::lock_guard<std::mutex> guard(lock);
  return std::exchange(trials, {});
}

bool readNetworkPlace(std::vector<std::string>& place) {
  const std::lock_guard<std::mutex> guard(lock);
  place = presentPlace;
  return !place.empty();
}

ConnectionTrial tryConnection(const std::string& host, unsigned short port,
                              std::chrono::milliseconds /*longest*/) noexcept {
  if (host == "198.51.100.251") {
    return ConnectionTrial::Dead;
  }
  const std::lock_guard<std::mutex> guard(lock);
  trials.push_back(host + ":" + std::to_string(port));
  return trials.back() == dead ? ConnectionTrial::Dead : ConnectionTrial::Stands;
}
