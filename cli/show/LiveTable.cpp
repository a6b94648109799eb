// The live table on the terminal. It owns the lines at the terminal's cursor from its first drawing
// until it is removed; whoever else writes to the terminal removes it first. No line is as wide as
// the terminal, so that none is wrapped and all can be found again; when the terminal has become
// narrower since, it is known how many rows each of them takes now.

#include "cli/show/LiveTable.h"

#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "cli/Console.h"
#include "cli/show/LiveLines.h"

namespace {

constexpr const char* EraseToEndOfLine = "\x1b[K";
constexpr const char* EraseBelow = "\x1b[J";
// What a terminal that does not tell its size is taken for.
constexpr unsigned short UsualWidth = 80;
constexpr unsigned short UsualHeight = 24;
winsize terminalSize() {
  winsize size{};
  static_cast<void>(ioctl(STDERR_FILENO, TIOCGWINSZ, &size));
  size.ws_col = size.ws_col == 0 ? UsualWidth : size.ws_col;
  size.ws_row = size.ws_row == 0 ? UsualHeight : size.ws_row;
  return size;
}

/// Whether the terminal that becomes narrower wraps what stands on it, as most do; the others cut
/// it off.
bool wrapsAnew() {
  const char* terminal = getenv("TERM");
  const bool isConsole = terminal != nullptr && strcmp(terminal, "linux") == 0;
  return getenv("TMUX") != nullptr ||
         (getenv("STY") == nullptr && getenv("XTERM_VERSION") == nullptr && !isConsole);
}

/// What moves the cursor from where a drawing leaves it to the start of the first line.
std::string toFirstLine(const std::vector<std::size_t>& columnsDrawn, std::size_t width) {
  const bool wraps = wrapsAnew();
  std::size_t rows = 0;
  for (std::size_t i = 0; i + 1 < columnsDrawn.size(); ++i) {
    rows += wraps ? std::max<std::size_t>((columnsDrawn[i] + width - 1) / width, 1) : 1;
  }
  return rows > 0 ? "\r\x1b[" + std::to_string(rows) + "A" : "\r";
}

}  // namespace

bool LiveTable::isPossible() {
  const char* terminal = getenv("TERM");
  return isatty(STDERR_FILENO) == 1 && terminal != nullptr && *terminal != '\0' &&
         strcmp(terminal, "dumb") != 0;
}

void LiveTable::draw(const LiveState& state) {
  // A job in the background must not scribble over what its user is typing.
  if (tcgetpgrp(STDERR_FILENO) != getpgrp()) {
    return;
  }
  const winsize size = terminalSize();
  const CAutoLockT<CManualLock> guard(m_lock);
  if (m_isClosed) {
    return;
  }
  // Over the old one rather than in place of it: a table that goes and comes flickers.
  std::string text = toFirstLine(m_columnsDrawn, size.ws_col);
  m_columnsDrawn.clear();
  for (const std::string& line : liveTable(state, size.ws_col, size.ws_row)) {
    text += (m_columnsDrawn.empty() ? "" : "\n") + line + EraseToEndOfLine;
    m_columnsDrawn.push_back(columnsOf(line));
  }
  // At the start of its line the cursor stays where it is when the terminal wraps the line.
  static_cast<void>(Console::write(STDERR_FILENO, text + EraseBelow + "\r"));
}

void LiveTable::erase() {
  const CAutoLockT<CManualLock> guard(m_lock);
  eraseLocked();
}

void LiveTable::close() {
  const CAutoLockT<CManualLock> guard(m_lock);
  eraseLocked();
  m_isClosed = true;
}

void LiveTable::eraseLocked() {
  if (!m_columnsDrawn.empty()) {
    const std::string start = toFirstLine(m_columnsDrawn, terminalSize().ws_col);
    static_cast<void>(Console::write(STDERR_FILENO, start + EraseBelow));
  }
  m_columnsDrawn.clear();
}
