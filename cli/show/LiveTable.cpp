// The table that is drawn while headends are measured. It owns the lines at the terminal's cursor
// from its first drawing until it is removed; whoever else writes to the terminal removes it first.
// No line is as wide as the terminal, so that none is wrapped and all can be found again; when the
// terminal has become narrower since, it is known how many rows each of them takes now.

#include "cli/show/LiveTable.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <wchar.h>

#include <algorithm>
#include <iterator>
#include <thread>

#include "cli/Console.h"
#include "cli/Wording.h"
#include "cli/show/SelectionResult.h"
#include "vpn/Api/AHS/SelectionRules.h"
#include "vpn/Common/Utility/Utf8Locale.h"

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
constexpr const char* Dots = "...";
// Below this an address is not known again with a round trip beside it.
constexpr std::size_t NarrowestHeadend = 8;

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
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0) {
    size = {};
  }
  size.ws_col = size.ws_col == 0 ? UsualWidth : size.ws_col;
  size.ws_row = size.ws_row == 0 ? UsualHeight : size.ws_row;
  return size;
}

/// Whether the terminal that becomes narrower wraps what stands on it, as most do; the others cut
/// it off.
bool wrapsAnew() {
  const char* terminal = getenv("TERM");
  if (isSet("TMUX")) {
    return true;
  }
  return !isSet("STY") && !isSet("XTERM_VERSION") &&
         (terminal == nullptr || strcmp(terminal, "linux") != 0);
}

/// Columns that a line of UTF-8 takes on a terminal, its colours none. Unlike the estimate that
/// lines are laid out with this goes by each character.
std::size_t columnsShown(const std::string& line) {
  const Utf8Locale utf8;
  std::size_t columns = 0;
  mbstate_t state{};
  for (std::size_t i = 0; i < line.size();) {
    if (line[i] == '\x1b') {
      i = std::min(line.find('m', i), line.size() - 1) + 1;
      continue;
    }
    wchar_t character = 0;
    const std::size_t length = mbrtowc(&character, line.data() + i, line.size() - i, &state);
    const bool isCharacter = length > 0 && length <= line.size() - i;
    const int width = isCharacter ? wcwidth(character) : 1;
    columns += static_cast<std::size_t>(std::max(width, 0));
    i += isCharacter ? length : 1;
    state = isCharacter ? state : mbstate_t{};
  }
  return columns;
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

/// The end of `text`, as much as fits.
std::string lastOf(const std::string& text, std::size_t columns) {
  std::size_t start = text.size();
  std::size_t used = 0;
  for (std::size_t i = text.size(); i-- > 0;) {
    used += columnsOf(text[i]);
    if (used > columns) {
      break;
    }
    start = columnsOf(text[i]) > 0 ? i : start;  // not within a character
  }
  return text.substr(start);
}

/// As much of both ends of `text` as fits: addresses differ in their hosts and in their ports.
std::string cutInTheMiddle(const std::string& text, std::size_t columns) {
  const std::size_t dots = strlen(Dots);
  if (columnsOf(text) <= columns || columns < NarrowestHeadend) {
    return cut(text, columns);
  }
  const std::string end = lastOf(text, (columns - dots) / 2);
  return cut(text, columns - dots - columnsOf(end)) + Dots + end;
}

std::string padded(const std::string& text, std::size_t columns) {
  const std::string fitting = cutInTheMiddle(text, columns);
  return fitting + std::string(columns - columnsOf(fitting), ' ');
}

/// How far the measurement is, around the number of answers.
struct Headline {
  std::string before;
  std::string answered;
  std::string after;

  std::string plain() const { return before + answered + after; }
};

Headline headline(const LiveState& state) {
  const auto left = std::max(state.budget - state.elapsed, std::chrono::milliseconds(0));
  char rest[96];
  snprintf(rest, sizeof rest, " headends answered, %s done, %.1f s left",
           Wording::counted(state.probesEnded, "probe").c_str(),
           static_cast<double>(left.count()) / 1000.0);
  return {"Measuring: ",
          std::to_string(state.answered) + " of " + std::to_string(state.rows.size()), rest};
}

/// The same for a narrow window: without what can be missed.
Headline shortHeadline(const LiveState& state) {
  Headline line = headline(state);
  return {"", line.answered, " answered" + line.after.substr(line.after.rfind(','))};
}

std::string fittingHeadline(const LiveState& state, const LiveLook& look) {
  Headline line = headline(state);
  if (line.plain().size() >= look.width) {
    line = shortHeadline(state);
  }
  if (line.plain().size() >= look.width) {
    return cut(line.plain(), look.width > 0 ? look.width - 1 : 0);
  }
  return look.colour ? line.before + Bold + line.answered + Plain + line.after : line.plain();
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

/// Addresses go before all but the round trip, and where that has no room either before all.
std::size_t widestHeadend(std::size_t width) {
  constexpr std::size_t Rest = Gap + NumberColumns;
  return width < NarrowestHeadend + Rest ? width : width - Rest;
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
  // The other half is for what changes, as far as the addresses leave it.
  const std::size_t half = layout.width / 2;
  layout.headend = std::min(layout.headend, widestHeadend(layout.width));
  layout.name = layout.headend + Gap + name <= half ? name : 0;
  // A quarter of the rest: the words at the end need more.
  constexpr std::size_t Share = 4;
  const std::size_t bar = (layout.width - std::min(layout.width, startOf(layout))) / Share;
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

/// The samples that fit, none of them in part: that would be another number.
std::string fittingSamples(const std::vector<unsigned int>& samplesMs, std::size_t columns) {
  std::string text = samplesText(samplesMs, " ");
  while (text.size() > columns) {
    const std::size_t blank = text.rfind(' ');
    text.resize(blank == std::string::npos ? 0 : blank);
  }
  return text;
}

/// What changes in a row: its smallest round trip, all of them, and what it waits for.
std::string wordsOf(const LiveRow& row, std::size_t columns) {
  const std::string number = row.samplesMs.empty() ? "" : std::to_string(smallestOf(row)) + " ms";
  const std::size_t shift = NumberColumns - std::min(NumberColumns, number.size());
  std::string words = std::string(shift, ' ') + number;
  const std::size_t taken = std::min(columns, words.size() + Gap);
  const std::string samples = fittingSamples(row.samplesMs, columns - taken);
  words += std::string(samples.empty() && row.waitsFor.empty() ? 0 : Gap, ' ') + samples;
  words += row.waitsFor.empty() ? "" : (samples.empty() ? "" : "  ") + row.waitsFor;
  return cut(words, columns);
}

std::string rowLine(const LiveRow& row, const Layout& layout, const LiveLook& look) {
  const std::size_t used = startOf(layout) + Gap + (layout.bar == 0 ? 0 : layout.bar + Gap);
  std::string start = padded(Console::visible(row.headend), layout.headend);
  if (layout.name > 0) {
    start += std::string(Gap, ' ') + padded(Console::visible(row.name), layout.name);
  }
  if (used >= layout.width) {
    return cut(start, layout.width);
  }
  return start + std::string(Gap, ' ') + bar(row, layout, look) + wordsOf(row, layout.width - used);
}

}  // namespace

std::vector<std::string> liveTable(const LiveState& state, const LiveLook& look) {
  std::vector<std::string> lines = {fittingHeadline(state, look)};
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

std::string liveLine(const LiveState& state) { return headline(state).plain(); }

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
  }
  return row;
}

bool LiveTable::isPossible() {
  const char* terminal = getenv("TERM");
  return isatty(STDERR_FILENO) == 1 && terminal != nullptr && *terminal != '\0' &&
         strcmp(terminal, "dumb") != 0;
}

LiveTable::LiveTable()
    : m_colour(!isSet("NO_COLOR")),
      m_wraps(wrapsAnew()),
      m_blocks(takesUtf8()),
      m_isClosed(false) {}

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
  std::string text = toFirstLine(size.ws_col);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    text += (i == 0 ? "" : "\n") + lines[i] + EraseToEndOfLine;
  }
  m_columnsDrawn.clear();
  std::ranges::transform(lines, std::back_inserter(m_columnsDrawn), columnsShown);
  // At the start of its line the cursor stays where it is when the terminal wraps the line.
  static_cast<void>(Console::write(STDERR_FILENO, text + EraseBelow + "\r"));
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

std::string LiveTable::toFirstLine(std::size_t width) const {
  std::size_t rows = 0;
  for (std::size_t i = 0; i + 1 < m_columnsDrawn.size(); ++i) {
    const std::size_t wrapped = m_wraps ? (m_columnsDrawn[i] + width - 1) / width : 1;
    rows += std::max<std::size_t>(wrapped, 1);
  }
  return rows > 0 ? "\r\x1b[" + std::to_string(rows) + "A" : "\r";
}

void LiveTable::erase() {
  if (!m_columnsDrawn.empty()) {
    static_cast<void>(
        Console::write(STDERR_FILENO, toFirstLine(terminalSize().ws_col) + EraseBelow));
  }
  m_columnsDrawn.clear();
}
