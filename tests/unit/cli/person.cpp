// Somebody at a terminal. The reading goes on until the end, so that no program ever waits for room
// on the screen.

#include "tests/unit/cli/person.h"

#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

#include "tests/support/Eventually.h"

Person::Person(Lines lines) : m_lines(std::move(lines)) {
  if (openpty(&m_desk, &m_terminal, nullptr, nullptr, nullptr) != 0) {
    throw std::runtime_error("no pseudo-terminal");
  }
  m_life = std::thread([this] { live(); });
}

Person::~Person() {
  hangUp();
  close(m_terminal);
}

void Person::hangUp() {
  m_leaves = true;
  if (m_life.joinable()) {
    m_life.join();
    close(m_desk);
  }
}

void Person::type(const std::string& text) const {
  if (write(m_desk, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw std::runtime_error("the terminal takes nothing");
  }
}

bool Person::waitFor(const std::string& text) const {
  return tests::eventually([&] { return shown().find(text) != std::string::npos; });
}

std::string Person::shown() const {
  const std::lock_guard<std::mutex> guard(m_lock);
  return m_shown;
}

bool Person::seesWhatIsTyped() const {
  termios state{};
  return tcgetattr(m_terminal, &state) == 0 && (state.c_lflag & ECHO) != 0;
}

void Person::live() {
  constexpr int LookAgainMs = 5;
  std::size_t next = 0;
  std::size_t readSoFar = 0;
  while (!m_leaves) {
    pollfd desk{m_desk, POLLIN, 0};
    if (poll(&desk, 1, LookAgainMs) > 0) {
      char bytes[4096];
      const ssize_t count = read(m_desk, bytes, sizeof bytes);
      const std::lock_guard<std::mutex> guard(m_lock);
      m_shown.append(bytes, count > 0 ? static_cast<std::size_t>(count) : 0);
    }
    const std::string text = shown();
    if (next < m_lines.size() && text.find(m_lines[next].awaited, readSoFar) != std::string::npos) {
      readSoFar = text.size();
      type(m_lines[next++].typed);
    }
  }
}
