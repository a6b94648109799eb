// The progress line. It owns the terminal's current line from its first drawing until it is
// removed; whoever else writes to the terminal removes it first.

#include "cli/ProgressLine.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "cli/Console.h"

namespace {

constexpr const char* EraseLine = "\r\x1b[K";
constexpr const char* Bold = "\x1b[1m";
constexpr const char* Plain = "\x1b[0m";
// What a terminal that does not tell its width is taken for.
constexpr std::size_t UsualWidth = 80;
// How often, and how far apart, the end of the process looks whether a drawing that is under way is
// done. A terminal that takes longer than these 200 ms is stopped, and nothing can be erased on it.
constexpr int DrawingAttempts = 20;
constexpr std::chrono::milliseconds DrawingPause{10};

bool isSet(const char* variable) {
  const char* value = getenv(variable);
  return value != nullptr && value[0] != '\0';
}

std::size_t terminalWidth() {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) {
    return UsualWidth;
  }
  return size.ws_col;
}

}  // namespace

std::string progressText(const ProgressState& state, std::size_t width, bool colour) {
  const auto left = std::max(state.budget - state.elapsed, std::chrono::milliseconds(0));
  const std::string answered =
      std::to_string(state.answered) + " of " + std::to_string(state.headends);
  char rest[96];
  snprintf(rest, sizeof rest, " headends answered, %u probe%s done, %.1f s left", state.probesEnded,
           state.probesEnded == 1 ? "" : "s", static_cast<double>(left.count()) / 1000.0);
  const std::string text = "Measuring: " + answered + rest;
  if (text.size() + 1 > width) {
    return text.substr(0, width > 0 ? width - 1 : 0);
  }
  return colour ? "Measuring: " + (Bold + answered) + Plain + rest : text;
}

bool ProgressLine::isPossible() {
  const char* terminal = getenv("TERM");
  return isatty(STDERR_FILENO) == 1 && terminal != nullptr && *terminal != '\0' &&
         strcmp(terminal, "dumb") != 0;
}

ProgressLine::ProgressLine() : m_colour(!isSet("NO_COLOR")), m_isDrawn(false), m_isClosed(false) {}

void ProgressLine::draw(const ProgressState& state) {
  // A job in the background must not scribble over what its user is typing.
  if (tcgetpgrp(STDERR_FILENO) != getpgrp()) {
    return;
  }
  const CAutoLockT<CManualLock> guard(m_lock);
  if (!m_isClosed) {
    m_isDrawn = true;
    static_cast<void>(
        Console::write(STDERR_FILENO, EraseLine + progressText(state, terminalWidth(), m_colour)));
  }
}

void ProgressLine::close() {
  const CAutoLockT<CManualLock> guard(m_lock);
  eraseForGood();
}

void ProgressLine::closeInHaste() {
  if (lockInHaste()) {
    eraseForGood();
    m_lock.Unlock();
  }
}

void ProgressLine::eraseInHaste() {
  if (lockInHaste()) {
    erase();
    m_lock.Unlock();
  }
}

bool ProgressLine::lockInHaste() {
  for (int attempt = 0; attempt < DrawingAttempts; ++attempt) {
    if (m_lock.TryLock()) {
      return true;
    }
    std::this_thread::sleep_for(DrawingPause);
  }
  return false;
}

void ProgressLine::eraseForGood() {
  erase();
  m_isClosed = true;
}

void ProgressLine::erase() {
  if (m_isDrawn) {
    static_cast<void>(Console::write(STDERR_FILENO, EraseLine));
  }
  m_isDrawn = false;
}
