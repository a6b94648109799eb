// The table that is drawn while headends are measured. It owns the lines at the terminal's cursor
// from its first drawing until it is removed; whoever else writes to the terminal removes it first.
// No line is as wide as the terminal, so that none is wrapped and all can be found again.

#include "cli/select/LiveTable.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "cli/Console.h"
#include "cli/select/SelectionResult.h"
#include "vpn/include/HttpSession.h"

namespace {

constexpr const char* EraseToEndOfLine = "\x1b[K";
constexpr const char* EraseBelow = "\x1b[J";
constexpr const char* Bold = "\x1b[1m";
constexpr const char* Green = "\x1b[32m";
constexpr const char* Plain = "\x1b[0m";
// What a terminal that does not tell its size is taken for.
constexpr std::size_t UsualWidth = 80;
constexpr std::size_t UsualHeight = 24;
// How often, and how far apart, the end of the process looks whether a drawing that is under way is
// done. A terminal that takes longer than these 200 ms is stopped, and nothing can be erased on it.
constexpr int DrawingAttempts = 20;
constexpr std::chrono::milliseconds DrawingPause{10};

// Columns between the parts of a row, and of its round trip ("9999 ms").
constexpr std::size_t Gap = 2;
constexpr std::size_t NumberColumns = 7;
// Below this a bar tells nothing, and its columns are better used for words.
constexpr std::size_t NarrowestBar = 8;
constexpr std::size_t WidestBar = 30;
// The second failure to connect ends a worker.
constexpr long FailuresThatEnd = 2;

bool isSet(const char* variable) {
  const char* value = getenv(variable);
  return value != nullptr && value[0] != '\0';
}

/// Whether the terminal is told to take UTF-8, by the variables that setlocale(3) reads, in order.
bool takesUtf8() {
  for (const char* variable : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* value = getenv(variable);
    if (value != nullptr && value[0] != '\0') {
      return strcasestr(value, "utf-8") != nullptr || strcasestr(value, "utf8") != nullptr;
    }
  }
  return false;
}

winsize terminalSize() {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) {
    size.ws_col = UsualWidth;
    size.ws_row = UsualHeight;
  }
  return size;
}

/// Columns that a character takes, by its first byte in UTF-8; 0 within a character. Letters up to
/// U+07FF take one, later ones may take two.
std::size_t columnsOf(char byte) {
  const auto value = static_cast<unsigned char>(byte);
  return value < 0x80 ? 1 : (value & 0xC0U) == 0x80U ? 0 : value < 0xE0 ? 1 : 2;
}

std::size_t columnsOf(const std::string& text) {
  std::size_t columns = 0;
  for (const char byte : text) {
    columns += columnsOf(byte);
  }
  return columns;
}

/// Columns that a text takes beyond `columnsOf` on a terminal that draws foreign letters wide.
std::size_t surplusOf(const std::string& text) {
  return static_cast<std::size_t>(std::ranges::count_if(text, [](char byte) {
    return columnsOf(byte) == 1 && static_cast<unsigned char>(byte) >= 0x80;
  }));
}

/// As much of `text` as fits, cut between characters.
std::string cut(const std::string& text, std::size_t columns) {
  std::size_t used = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    used += columnsOf(text[i]);
    if (used > columns) {
      return text.substr(0, i);
    }
  }
  return text;
}

std::string padded(const std::string& text, std::size_t columns) {
  const std::string fitting = cut(text, columns);
  return fitting + std::string(columns - columnsOf(fitting), ' ');
}

std::string headline(const LiveState& state, const char* before, const char* after) {
  const auto left = std::max(state.budget - state.elapsed, std::chrono::milliseconds(0));
  char rest[96];
  snprintf(rest, sizeof rest, " headends answered, %u probe%s done, %.1f s left", state.probesEnded,
           state.probesEnded == 1 ? "" : "s", static_cast<double>(left.count()) / 1000.0);
  return "Measuring: " + (before + std::to_string(state.answered)) + " of " +
         std::to_string(state.rows.size()) + after + rest;
}

unsigned int smallestOf(const LiveRow& row) {
  return row.samplesMs.empty() ? 0 : *std::ranges::min_element(row.samplesMs);
}

/// Nearest first, then those without a sample; each in their own order.
std::vector<const LiveRow*> ordered(const std::vector<LiveRow>& rows) {
  std::vector<const LiveRow*> sorted;
  sorted.reserve(rows.size());
  for (const LiveRow& row : rows) {
    sorted.push_back(&row);
  }
  std::ranges::stable_sort(sorted, [](const LiveRow* a, const LiveRow* b) {
    if (a->samplesMs.empty() != b->samplesMs.empty()) {
      return b->samplesMs.empty();
    }
    return smallestOf(*a) < smallestOf(*b);
  });
  return sorted;
}

/// The columns of a table, and what one of the bar's stands for.
struct Layout {
  std::size_t width = 0;
  std::size_t headend = 0;
  std::size_t name = 0;  // 0 for none
  std::size_t bar = 0;   // 0 for none
  unsigned int largest = 1;
};

/// Columns that address and name take.
std::size_t startOf(const Layout& layout) {
  return layout.headend + (layout.name == 0 ? 0 : Gap + layout.name);
}

Layout layOut(const std::vector<const LiveRow*>& rows, const LiveLook& look) {
  Layout layout;
  layout.width = look.width > 0 ? look.width - 1 : 0;
  std::size_t name = 0;
  std::size_t surplus = 0;
  for (const LiveRow* row : rows) {
    const std::string headend = Console::visible(row->headend);
    const std::string ownName = Console::visible(row->name);
    layout.headend = std::max(layout.headend, columnsOf(headend));
    name = std::max(name, columnsOf(ownName));
    surplus = std::max(surplus, surplusOf(headend + ownName));
    layout.largest = std::max(layout.largest, smallestOf(*row));
  }
  layout.width -= std::min(layout.width, surplus);
  // The rest is for what changes.
  const std::size_t half = layout.width / 2;
  layout.headend = std::min(layout.headend, half);
  layout.name = layout.headend + Gap + name <= half ? name : 0;
  // A quarter of the rest: the words at the end need more.
  constexpr std::size_t Share = 4;
  const std::size_t bar = (layout.width - startOf(layout)) / Share;
  layout.bar = bar < NarrowestBar ? 0 : std::min(bar, WidestBar);
  return layout;
}

std::string bar(const LiveRow& row, const Layout& layout, const LiveLook& look) {
  if (layout.bar == 0) {
    return "";
  }
  // At least one, so that what has answered is seen.
  const std::size_t filled =
      row.samplesMs.empty()
          ? 0
          : std::max<std::size_t>(1, std::size_t{smallestOf(row)} * layout.bar / layout.largest);
  std::string drawn;
  for (std::size_t i = 0; i < filled; ++i) {
    drawn += look.blocks ? "\u2588" : "#";
  }
  const std::string coloured = look.colour && filled > 0 ? Green + drawn + Plain : drawn;
  return coloured + std::string(layout.bar - filled + Gap, ' ');
}

std::string rowLine(const LiveRow& row, const Layout& layout, const LiveLook& look) {
  const std::string number = row.samplesMs.empty() ? "" : std::to_string(smallestOf(row)) + " ms";
  const std::size_t shift = NumberColumns - std::min(NumberColumns, number.size());
  std::string words =
      std::string(shift, ' ') + number + std::string(Gap, ' ') + samplesText(row.samplesMs, " ");
  words += row.waitsFor.empty() ? "" : (row.samplesMs.empty() ? "" : "  ") + row.waitsFor;
  const std::size_t used = startOf(layout) + Gap + (layout.bar == 0 ? 0 : layout.bar + Gap);
  std::string start = padded(Console::visible(row.headend), layout.headend);
  if (layout.name > 0) {
    start += std::string(Gap, ' ') + padded(Console::visible(row.name), layout.name);
  }
  if (used >= layout.width) {
    return cut(start, layout.width);
  }
  return start + std::string(Gap, ' ') + bar(row, layout, look) + cut(words, layout.width - used);
}

}  // namespace

std::vector<std::string> liveTable(const LiveState& state, const LiveLook& look) {
  const std::string plain = headline(state, "", "");
  const bool fits = plain.size() < look.width;
  std::vector<std::string> lines = {!fits         ? cut(plain, look.width > 0 ? look.width - 1 : 0)
                                    : look.colour ? headline(state, Bold, Plain)
                                                  : plain};
  std::vector<const LiveRow*> rows = ordered(state.rows);
  // The headline, and the line that counts the rest; one is left free for the shell's prompt.
  constexpr std::size_t OtherLines = 3;
  const std::size_t room = look.height > OtherLines ? look.height - OtherLines : 0;
  const std::size_t left = rows.size() - std::min(rows.size(), room);
  rows.resize(rows.size() - left);
  const Layout layout = layOut(rows, look);
  for (const LiveRow* row : rows) {
    lines.push_back(rowLine(*row, layout, look));
  }
  if (left > 0 && room > 0) {
    lines.push_back(cut("and " + std::to_string(left) + " more", layout.width));
  }
  return lines;
}

std::string liveLine(const LiveState& state) { return headline(state, "", ""); }

LiveRow liveRowOf(const Candidate& candidate, const ProbeRecorder::Track* track,
                  unsigned int probes) {
  LiveRow row;
  row.headend = candidate.headend;
  row.name = nameBeside(candidate.headend, candidate.name);
  if (track == nullptr) {
    row.waitsFor = "waits to be measured";
    return row;
  }
  long failures = 0;
  bool isUnknown = false;
  for (const HttpProbe::Report& probe : track->ended) {
    isUnknown = isUnknown || probe.status == HTTP_SESSION_ERROR_DNS_RESOLUTION;
    if (ProbeRecorder::isSample(probe.status)) {
      row.samplesMs.push_back(probe.rttMs);
    } else {
      ++failures;
    }
  }
  if (isUnknown || failures >= FailuresThatEnd) {
    row.waitsFor = outcomeOf(track, false, false);
  } else if (track->ended.size() < probes) {
    row.waitsFor = "waits for answer " + std::to_string(track->ended.size() + 1) + " of " +
                   std::to_string(probes);
  }
  return row;
}

bool LiveTable::isPossible() {
  const char* terminal = getenv("TERM");
  return isatty(STDERR_FILENO) == 1 && terminal != nullptr && *terminal != '\0' &&
         strcmp(terminal, "dumb") != 0;
}

LiveTable::LiveTable()
    : m_colour(!isSet("NO_COLOR")), m_blocks(takesUtf8()), m_linesDrawn(0), m_isClosed(false) {}

void LiveTable::draw(const LiveState& state) {
  // A job in the background must not scribble over what its user is typing.
  if (tcgetpgrp(STDERR_FILENO) != getpgrp()) {
    return;
  }
  const winsize size = terminalSize();
  const std::vector<std::string> lines =
      liveTable(state, {size.ws_col, size.ws_row, m_colour, m_blocks});
  const CAutoLockT<CManualLock> guard(m_lock);
  if (m_isClosed) {
    return;
  }
  // Over the old one rather than in place of it: a table that goes and comes flickers.
  std::string text = m_linesDrawn > 1 ? "\r\x1b[" + std::to_string(m_linesDrawn - 1) + "A" : "\r";
  for (std::size_t i = 0; i < lines.size(); ++i) {
    text += (i == 0 ? "" : "\n") + lines[i] + EraseToEndOfLine;
  }
  m_linesDrawn = lines.size();
  static_cast<void>(Console::write(STDERR_FILENO, text + EraseBelow));
}

void LiveTable::close() {
  const CAutoLockT<CManualLock> guard(m_lock);
  eraseForGood();
}

void LiveTable::closeInHaste() {
  if (lockInHaste()) {
    eraseForGood();
    m_lock.Unlock();
  }
}

void LiveTable::eraseInHaste() {
  if (lockInHaste()) {
    erase();
    m_lock.Unlock();
  }
}

bool LiveTable::lockInHaste() {
  for (int attempt = 0; attempt < DrawingAttempts; ++attempt) {
    if (m_lock.TryLock()) {
      return true;
    }
    std::this_thread::sleep_for(DrawingPause);
  }
  return false;
}

void LiveTable::eraseForGood() {
  erase();
  m_isClosed = true;
}

void LiveTable::erase() {
  if (m_linesDrawn > 0) {
    const std::string up =
        m_linesDrawn > 1 ? "\x1b[" + std::to_string(m_linesDrawn - 1) + "A" : std::string();
    static_cast<void>(Console::write(STDERR_FILENO, "\r" + up + EraseBelow));
  }
  m_linesDrawn = 0;
}
