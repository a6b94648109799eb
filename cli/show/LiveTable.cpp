// The live table on the terminal. It owns the lines at the cursor from its first drawing until its
// removal; other output to the terminal removes it first. Lines are narrower than the terminal, so
// that none wraps. A wide line is cut between words, because part of a number is another number; an
// address is cut in the middle, because addresses differ at both ends.

#include "cli/show/LiveTable.h"

#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <wchar.h>

#include <algorithm>

#include "cli/Console.h"
#include "cli/Wording.h"
#include "cli/show/SelectionResult.h"
#include "vpn/Api/AHS/SelectionRules.h"
#include "vpn/Common/Trust/Environment.h"
#include "vpn/Common/Utility/Utf8Locale.h"

namespace {

constexpr const char* EraseToEndOfLine = "\x1b[K";
constexpr const char* EraseBelow = "\x1b[J";
// Assumed for a terminal that does not tell its size.
constexpr unsigned short UsualWidth = 80;
constexpr unsigned short UsualHeight = 24;

winsize terminalSize() {
  winsize size{};
  static_cast<void>(ioctl(STDERR_FILENO, TIOCGWINSZ, &size));
  size.ws_col = size.ws_col == 0 ? UsualWidth : size.ws_col;
  size.ws_row = size.ws_row == 0 ? UsualHeight : size.ws_row;
  return size;
}

constexpr std::size_t Gap = 2;
// Width of a round trip: "9999 ms".
constexpr std::size_t NumberColumns = 7;
// A narrower address cannot be recognised.
constexpr std::size_t NarrowestHeadend = 8;

struct Character {
  std::size_t bytes;
  std::size_t columns;
};

Character characterAt(const std::string& text, std::size_t at) {
  const Utf8Locale utf8;
  wchar_t character = 0;
  mbstate_t state{};
  const std::size_t bytes = mbrtowc(&character, text.data() + at, text.size() - at, &state);
  if (bytes == 0 || bytes > text.size() - at) {
    return {1, 1};
  }
  return {bytes, static_cast<std::size_t>(std::max(wcwidth(character), 0))};
}

/// The start of `text` that fits, cut between characters.
std::string startOf(const std::string& text, std::size_t columns) {
  std::size_t end = 0;
  while (end < text.size()) {
    const Character next = characterAt(text, end);
    if (next.columns > columns) {
      break;
    }
    columns -= next.columns;
    end += next.bytes;
  }
  return text.substr(0, end);
}

std::string cutBetweenWords(const std::string& line, std::size_t columns) {
  const std::string start = startOf(line, columns);
  const bool isWhole = start.size() == line.size() || line[start.size()] == ' ';
  return isWhole ? start : start.substr(0, start.rfind(' '));
}

std::string cutInTheMiddle(const std::string& text, std::size_t columns) {
  if (columnsOf(text) <= columns) {
    return text;
  }
  const std::string dots = "...";
  std::string end = text;
  while (columnsOf(end) > (columns - dots.size()) / 2) {
    end.erase(0, characterAt(end, 0).bytes);
  }
  return startOf(text, columns - dots.size() - columnsOf(end)) + dots + end;
}

std::string padded(const std::string& text, std::size_t columns) {
  return text + std::string(columns - columnsOf(text), ' ');
}

unsigned int smallestOf(const LiveRow& row) { return *std::ranges::min_element(row.samplesMs); }

bool isNearer(const LiveRow& a, const LiveRow& b) {
  return !a.samplesMs.empty() && (b.samplesMs.empty() || smallestOf(a) < smallestOf(b));
}

/// Widths of addresses and names; 0 for no names.
struct Layout {
  std::size_t headend = 0;
  std::size_t name = 0;
};

Layout layOut(const std::vector<LiveRow>& rows, std::size_t width) {
  Layout layout;
  for (const LiveRow& row : rows) {
    layout.headend = std::max(layout.headend, columnsOf(Console::visible(row.headend)));
    layout.name = std::max(layout.name, columnsOf(Console::visible(row.name)));
  }
  constexpr std::size_t RoundTrip = Gap + NumberColumns;
  layout.headend =
      std::min(layout.headend, std::max(width, NarrowestHeadend + RoundTrip) - RoundTrip);
  // Samples and state need the other half.
  layout.name = layout.headend + Gap + layout.name <= width / 2 ? layout.name : 0;
  return layout;
}

std::string rowLine(const LiveRow& row, const Layout& layout) {
  const std::string gap(Gap, ' ');
  std::string line =
      padded(cutInTheMiddle(Console::visible(row.headend), layout.headend), layout.headend) + gap;
  if (layout.name > 0) {
    line += padded(Console::visible(row.name), layout.name) + gap;
  }
  const std::string best = row.samplesMs.empty() ? "" : std::to_string(smallestOf(row)) + " ms";
  line += std::string(NumberColumns - std::min(NumberColumns, best.size()), ' ') + best;
  for (const std::string& part : {samplesText(row.samplesMs, " "), row.waitsFor}) {
    line += part.empty() ? "" : gap + part;
  }
  return line;
}

}  // namespace

LiveRow liveRowOf(const Candidate& candidate, const SelectionRecord::Track* track,
                  unsigned int probes) {
  LiveRow row;
  row.headend = candidate.headend;
  row.name = nameBeside(candidate.headend, candidate.name);
  if (track == nullptr) {
    row.waitsFor = "waits to be measured";
    return row;
  }
  if (track->started == 0 && track->testing > 0) {
    row.waitsFor = "waits for the test of the way there";
    return row;
  }
  SelectionRules::Tally tally;
  for (const HttpProbe::Report& probe : track->ended) {
    tally.take(probe.status, probe.rttMs);
  }
  row.samplesMs = tally.samplesMs;
  if (tally.hasGivenUp) {
    row.waitsFor = outcomeName(outcomeOf(track, false, false));
  } else if (track->ended.size() < probes) {
    row.waitsFor = "waits for answer " + std::to_string(track->ended.size() + 1) + " of " +
                   std::to_string(probes);
  } else if (!track->ended.empty() && isServerError(track->ended.back().httpStatus)) {
    row.waitsFor = outcomeInWords(HeadendOutcome::Answered, track->ended.back().httpStatus);
  }
  return row;
}

std::size_t columnsOf(const std::string& text) {
  std::size_t columns = 0;
  for (std::size_t at = 0; at < text.size();) {
    const Character next = characterAt(text, at);
    columns += next.columns;
    at += next.bytes;
  }
  return columns;
}

std::string liveLine(const LiveState& state) {
  const auto left = std::max(state.budget - state.elapsed, std::chrono::milliseconds(0));
  return "Measuring: " + std::to_string(state.answered) + " of " +
         std::to_string(state.rows.size()) + " answered, " +
         Wording::fixed(static_cast<double>(left.count()) / 1000, 1) + " s left, " +
         Wording::counted(state.probesEnded, "probe") + " done";
}

std::vector<std::string> liveTable(const LiveState& state, std::size_t width, std::size_t height) {
  std::vector<LiveRow> rows = state.rows;
  std::ranges::stable_sort(rows, isNearer);
  // The headline, the line with the number of other headends, and a free line for the prompt.
  constexpr std::size_t OtherLines = 3;
  const std::size_t room = height > OtherLines ? height - OtherLines : 0;
  const std::size_t left = rows.size() - std::min(rows.size(), room);
  rows.resize(rows.size() - left);
  const std::size_t usable = width > 0 ? width - 1 : 0;
  const Layout layout = layOut(rows, usable);
  std::vector<std::string> lines = {liveLine(state)};
  for (const LiveRow& row : rows) {
    lines.push_back(rowLine(row, layout));
  }
  if (left > 0 && room > 0) {
    lines.push_back("and " + std::to_string(left) + " more");
  }
  for (std::string& line : lines) {
    line = cutBetweenWords(line, usable);
  }
  return lines;
}

bool LiveTable::isPossible() {
  const char* const terminal = Environment::get("TERM");
  return isatty(STDERR_FILENO) == 1 && terminal != nullptr && strcmp(terminal, "dumb") != 0;
}

void LiveTable::draw(const LiveState& state) {
  // A background job must not draw over its user's typing.
  if (tcgetpgrp(STDERR_FILENO) != getpgrp()) {
    return;
  }
  const winsize size = terminalSize();
  const CAutoLockT<CManualLock> guard(m_lock);
  if (m_isClosed) {
    return;
  }
  // Overwrites the old table: erasing it first would flicker.
  std::string text = toFirstLine();
  m_linesDrawn = 0;
  for (const std::string& line : liveTable(state, size.ws_col, size.ws_row)) {
    text += (m_linesDrawn++ == 0 ? "" : "\n") + line + EraseToEndOfLine;
  }
  static_cast<void>(Console::write(STDERR_FILENO, text + EraseBelow + "\r"));
}

void LiveTable::erase() {
  const CAutoLockT<CManualLock> guard(m_lock);
  if (m_linesDrawn > 0) {
    static_cast<void>(Console::write(STDERR_FILENO, toFirstLine() + EraseBelow));
  }
  m_linesDrawn = 0;
}

void LiveTable::close() {
  {
    const CAutoLockT<CManualLock> guard(m_lock);
    m_isClosed = true;
  }
  erase();
}

/// Moves the cursor from the end of a drawing to the start of its first line.
std::string LiveTable::toFirstLine() const {
  return m_linesDrawn > 1 ? "\r\x1b[" + std::to_string(m_linesDrawn - 1) + "A" : "\r";
}
