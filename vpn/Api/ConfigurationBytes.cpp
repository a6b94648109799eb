// The bytes of a configuration file. Whoever wrote it, reading and checking take time and memory in
// proportion to its size.

#include "vpn/Api/ConfigurationBytes.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <system_error>
#include <tuple>

#include "vpn/include/StringUtils.h"
#include "vpn/include/Utf8.h"

namespace {

std::string systemError(const char* what, int error) {
  // strerror(3) is not for threads.
  return std::string(what) + ": " + std::generic_category().message(error);
}

/// Reads a file of that size and at most one byte more, which shows that the file has grown.
std::string readAll(const FileTrust::Descriptor& file, std::size_t size, std::string& contents) {
  contents.resize(size + 1);
  std::size_t filled = 0;
  while (filled < contents.size()) {
    const ssize_t count = ::read(file.get(), contents.data() + filled, contents.size() - filled);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      return systemError("cannot be read", errno);
    }
    if (count == 0) {
      break;
    }
    filled += static_cast<std::size_t>(count);
  }
  contents.resize(filled);
  return {};
}

/// What differs when a file has changed.
auto stampOf(const struct stat& status) {
  return std::tuple(status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec,
                    status.st_ctim.tv_sec, status.st_ctim.tv_nsec);
}

bool continues(char c) { return (static_cast<unsigned char>(c) & 0xC0U) == 0x80; }

/// How many characters a piece of UTF-8 has: continuation bytes do not count.
unsigned int characters(std::string_view text) {
  return static_cast<unsigned int>(text.size()) -
         static_cast<unsigned int>(std::ranges::count_if(text, continues));
}

/// Where a text has a NUL or ceases to be UTF-8; its size if it does not. Eight bytes at once, as
/// long as all are ASCII.
std::size_t findNoText(std::string_view text) {
  constexpr std::uint64_t Lowest = 0x0101010101010101;
  constexpr std::uint64_t Highest = 0x8080808080808080;
  std::size_t i = 0;
  while (i < text.size()) {
    std::uint64_t eight = 0;
    if (text.size() - i >= sizeof eight) {
      std::memcpy(&eight, text.data() + i, sizeof eight);
    }
    // Subtracting borrows from the highest bit of a NUL.
    if (((eight | (eight - Lowest)) & Highest) == 0) {
      i += sizeof eight;
      continue;
    }
    const std::size_t length = utf8CharacterAt(text, i).length;
    if (length == 0 || text[i] == '\0') {
      return i;
    }
    i += length;
  }
  return i;
}

}  // namespace

std::string ConfigurationBytes::readRegularFile(const std::string& path, std::size_t maxSize,
                                                FileTrust::Check check, std::string& contents) {
  // A file written in place is complete soon, or never.
  constexpr int MaxReadings = 3;
  for (int reading = 0; reading < MaxReadings; ++reading) {
    FileTrust::Descriptor file;
    FileTrust::Refusal refusal;
    if (!FileTrust::openFile(path, check, file, refusal)) {
      return refusal.text;
    }
    struct stat before = {};
    struct stat after = {};
    if (::fstat(file.get(), &before) != 0) {
      return systemError("cannot be read", errno);
    }
    if (before.st_size > static_cast<off_t>(maxSize)) {
      return "is larger than " + std::to_string(maxSize / (1024 * 1024)) +
             " MiB, the most that is read";
    }
    const auto size = static_cast<std::size_t>(before.st_size);
    std::string error = readAll(file, size, contents);
    if (!error.empty()) {
      return error;
    }
    if (contents.size() == size && ::fstat(file.get(), &after) == 0 &&
        stampOf(before) == stampOf(after)) {
      return {};
    }
  }
  return "changes while it is read; write it elsewhere and rename it";
}

ConfigurationBytes::Place ConfigurationBytes::PlaceFinder::placeOf(std::size_t offset) {
  const std::size_t wanted = std::min(offset, m_text.size());
  const bool isForward = wanted >= m_offset;
  const std::string_view between =
      m_text.substr(std::min(wanted, m_offset), isForward ? wanted - m_offset : m_offset - wanted);
  const auto lines = static_cast<unsigned int>(std::count(between.begin(), between.end(), '\n'));
  m_offset = wanted;
  if (lines == 0) {
    m_place.column =
        isForward ? m_place.column + characters(between) : m_place.column - characters(between);
  } else {
    m_place.line = isForward ? m_place.line + lines : m_place.line - lines;
    const std::string_view before = m_text.substr(0, wanted);
    const std::size_t lineEnd = before.rfind('\n');
    m_place.column = 1 + characters(before.substr(lineEnd + 1));  // npos + 1 is 0
  }
  return m_place;
}

ConfigurationBytes::ByteProblem ConfigurationBytes::findByteProblem(std::string_view contents) {
  if (CStringUtils::trimmed(contents).empty()) {
    return {{}, "is empty"};
  }
  PlaceFinder places(contents);
  const std::size_t wrong = findNoText(contents);
  std::size_t next = 0;
  for (std::size_t open = 0; open < wrong; open = next) {
    next = std::min(contents.find('<', open + 1), wrong);
    if (next - open > MaxTagLength + 1) {
      return {places.placeOf(open), "a tag, text or comment is longer than " +
                                        std::to_string(MaxTagLength / 1024) +
                                        " KiB, the most that is allowed"};
    }
  }
  if (wrong < contents.size()) {
    return {places.placeOf(wrong), "the byte " +
                                       CStringUtils::printable(std::string(1, contents[wrong])) +
                                       " is not UTF-8 text; save the file as UTF-8"};
  }
  return {};
}
