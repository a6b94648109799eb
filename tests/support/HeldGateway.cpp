#include "tests/support/HeldGateway.h"

#include <unistd.h>

#include "tests/support/Eventually.h"
#include "tests/support/LoopbackSockets.h"

namespace tests {

namespace {

constexpr std::chrono::milliseconds PollInterval{1};
constexpr std::string_view Count = "count\r\n\r\n";

}  // namespace

HeldGateway::HeldGateway(Settings settings)
    : m_settings(std::move(settings)),
      m_answers(m_settings.answers),
      m_server([this](Connection& connection) { Serve(connection); }, m_settings.where) {}

std::string HeldGateway::Address() const {
  return Endpoint{m_settings.where, m_server.port()}.Text();
}

bool HeldGateway::WaitUntilAsked(unsigned int requests) {
  return eventually([&] { return requests == 0 ? m_asked > m_answers : m_asked >= requests; });
}

bool HeldGateway::WaitUntilLeft(unsigned int clients) {
  const auto end = std::chrono::steady_clock::now() + Limit / 2;
  eventually([&] { return m_left >= clients || std::chrono::steady_clock::now() > end; });
  return m_left >= clients;
}

// The kernel hands connections over in the order in which they were made: once one of our own is
// served, all before it have been accepted.
std::size_t HeldGateway::CountConnections() {
  const int counter = connectingSocket({m_settings.where, m_server.port()});
  char byte = 0;
  const bool isServed =
      write(counter, Count.data(), Count.size()) > 0 && read(counter, &byte, 1) > 0;
  close(counter);
  return isServed ? m_server.accepted() - ++m_counts : std::size_t{All};
}

std::vector<std::string> HeldGateway::Peers() const {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_peers;
}

void HeldGateway::Serve(Connection& connection) {
  const std::string head = connection.readHead();
  if (head == Count) {
    connection.send("!");
  }
  if (head.empty() || head == Count) {
    return;
  }
  {
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_peers.push_back(connection.peer());
  }
  const unsigned int number = ++m_asked;
  while (number > m_answers) {
    if (connection.isPeerGone()) {
      ++m_left;
      return;
    }
    connection.wait(PollInterval);
  }
  connection.wait(m_settings.delay);
  connection.send(m_settings.answer);
  connection.waitForPeer();
}

}  // namespace tests
