#include "tests/capi/c_door_fixture.h"

#include <algorithm>

namespace tests {

ahs::Options optionsFor(std::vector<ahs::Headend> headends, Preferences preferences) {
  for (const ahs::Preference& own : Preferences{{"SelectionConnectTimeout", "600000"},
                                                {"SelectionReconnectTimeout", "600000"},
                                                {"SelectionPingTimeout", "60000"},
                                                {"SelectionTestPingTimeout", "60"},
                                                {"SelectionPingsPerHeadend", "1"}}) {
    if (std::ranges::find(preferences, own.name, &ahs::Preference::name) == preferences.end()) {
      preferences.push_back(own);
    }
  }
  return {.headends = std::move(headends), .preferences = std::move(preferences), .proxy = ""};
}

ahs::Selection Client::Select(ahs::Library& library, ahs::Request request) {
  request.onSocket = atSocket;
  request.onProgress = [this](const ahs::Probe& probe) {
    {
      const std::lock_guard<std::mutex> guard(m_mutex);
      m_wasToldTooLate = m_wasToldTooLate || !m_results.empty();
      m_probes.push_back(probe);
    }
    if (atProbe) {
      atProbe(probe);
    }
  };
  return library.select(request, [this](const ahs::Result& result) {
    {
      const std::lock_guard<std::mutex> guard(m_mutex);
      m_results.push_back(result);
    }
    if (atResult) {
      atResult();
    }
  });
}

bool Client::WaitUntilTold() const {
  return eventually([this] { return !Results().empty(); });
}

std::vector<ahs::Result> Client::Results() const {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_results;
}

std::vector<ahs::Probe> Client::Probes() const {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_probes;
}

ahs::Status Client::Status() const {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_results.size() == 1 && !m_wasToldTooLate ? m_results.front().status : ahs::Status{1};
}

void Signal::Give() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  m_given = true;
  m_changed.notify_all();
}

bool Signal::Wait() {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_changed.wait_for(lock, Limit, [this] { return m_given; });
}

}  // namespace tests
