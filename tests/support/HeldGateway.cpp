#include "tests/support/HeldGateway.h"

#include <chrono>
#include <climits>

#include "tests/support/Eventually.h"

namespace tests {

namespace {

constexpr std::chrono::milliseconds PollInterval{1};

}  // namespace

HeldGateway::HeldGateway(unsigned int answers)
    : m_answers(answers), m_server([this](Connection& connection) { Serve(connection); }) {}

HeldGateway::~HeldGateway() { Release(); }

std::string HeldGateway::Address() const { return "127.0.0.1:" + std::to_string(m_server.port()); }

bool HeldGateway::WaitUntilAsked() {
  return eventually([this] { return m_waiting.load() != 0; });
}

void HeldGateway::Release() { m_answers = UINT_MAX; }

void HeldGateway::Serve(Connection& connection) {
  if (connection.readHead().empty()) {
    return;
  }
  const unsigned int number = ++m_requests;
  if (number > m_answers) {
    ++m_waiting;
    while (number > m_answers) {
      connection.wait(PollInterval);
    }
  }
  connection.send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
  connection.waitForPeer();
}

}  // namespace tests
