// The bytes of a configuration file and the words of messages about it. Whoever wrote the file, the
// checks take time and memory in proportion to its size, and no message can forge a line of a log.

#include "vpn/Api/ConfigurationText.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <system_error>
#include <utility>

#include "vpn/Common/Logging/LegibleText.h"
#include "vpn/include/StringUtils.h"

namespace {

// As much of a file's text as a reader needs to find it again, in bytes.
constexpr std::size_t MaxQuotedLength = 80;

// Names longer than this are no misspelling of ours, and the comparison takes the square of it.
constexpr std::size_t MaxNameToCompare = 64;

class FileDescriptor {
 public:
  explicit FileDescriptor(const std::string& path)
      // Without O_NONBLOCK, opening a FIFO would wait for its writer.
      : m_descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {}
  ~FileDescriptor() {
    if (m_descriptor >= 0) {
      ::close(m_descriptor);
    }
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  int get() const { return m_descriptor; }

 private:
  const int m_descriptor;
};

std::string systemError(const char* what, int error) {
  // strerror(3) is not for threads.
  return std::string(what) + ": " + std::generic_category().message(error);
}

std::string tooLarge(std::size_t maxSize) {
  return "is larger than " + std::to_string(maxSize / (1024 * 1024)) +
         " MiB, the most that is read";
}

std::string readAll(const FileDescriptor& file, std::size_t maxSize, std::string& contents) {
  constexpr std::size_t step = std::size_t{64} * 1024;
  // One byte more than allowed shows a file that has grown since its size was taken.
  const std::size_t limit = maxSize + 1;
  while (contents.size() < limit) {
    const std::size_t filled = contents.size();
    contents.resize(std::min(limit, filled + step));
    const ssize_t count = ::read(file.get(), contents.data() + filled, contents.size() - filled);
    const int error = errno;
    contents.resize(filled + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    if (count == 0) {
      return {};
    }
    if (count < 0 && error != EINTR) {
      return systemError("cannot be read", error);
    }
  }
  return tooLarge(maxSize);
}

unsigned char byteAt(std::string_view text, std::size_t index) {
  return static_cast<unsigned char>(text[index]);
}

std::size_t announcedLength(unsigned char lead) {
  if (lead < 0x80) {
    return 1;
  }
  if (lead < 0xC2 || lead > 0xF4) {
    return 0;
  }
  return lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
}

/// The length of the UTF-8 sequence at `index` (RFC 3629, section 4); 0 if it is none.
std::size_t utf8Length(std::string_view text, std::size_t index) {
  const unsigned char lead = byteAt(text, index);
  const std::size_t length = announcedLength(lead);
  if (length <= 1) {
    return length;
  }
  if (text.size() - index < length) {
    return 0;
  }
  const unsigned char least = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const unsigned char most = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  if (byteAt(text, index + 1) < least || byteAt(text, index + 1) > most) {
    return 0;
  }
  for (std::size_t i = 2; i < length; ++i) {
    if ((byteAt(text, index + i) & 0xC0U) != 0x80) {
      return 0;
    }
  }
  return length;
}

unsigned int lineOf(std::string_view contents, std::size_t offset) {
  const std::string_view before = contents.substr(0, offset);
  return static_cast<unsigned int>(1 + std::count(before.begin(), before.end(), '\n'));
}

/// How many letters must be inserted, removed, replaced or swapped with their neighbour to turn one
/// text into the other.
std::size_t editDistance(std::string_view from, std::string_view to) {
  std::vector<std::size_t> beforeLast(to.size() + 1);
  std::vector<std::size_t> last(to.size() + 1);
  std::vector<std::size_t> row(to.size() + 1);
  for (std::size_t j = 0; j <= to.size(); ++j) {
    last[j] = j;
  }
  for (std::size_t i = 1; i <= from.size(); ++i) {
    row[0] = i;
    for (std::size_t j = 1; j <= to.size(); ++j) {
      const std::size_t replaced = last[j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, replaced});
      if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1]) {
        row[j] = std::min(row[j], beforeLast[j - 2] + 1);
      }
    }
    beforeLast.swap(last);
    last.swap(row);
  }
  return last[to.size()];
}

}  // namespace

std::string ConfigurationText::readRegularFile(const std::string& path, std::size_t maxSize,
                                               std::string& contents) {
  const FileDescriptor file(path);
  struct stat status = {};
  if (file.get() < 0 || ::fstat(file.get(), &status) != 0) {
    return systemError("cannot be opened", errno);
  }
  if (!S_ISREG(status.st_mode)) {
    return "is not a regular file";
  }
  if (status.st_size > static_cast<off_t>(maxSize)) {
    return tooLarge(maxSize);
  }
  contents.clear();
  contents.reserve(static_cast<std::size_t>(status.st_size) + 1);
  return readAll(file, maxSize, contents);
}

ConfigurationText::ByteProblem ConfigurationText::findByteProblem(std::string_view contents) {
  if (isBlank(contents)) {
    return {0, "is empty"};
  }
  std::size_t lastOpen = 0;
  for (std::size_t i = 0; i < contents.size();) {
    const std::size_t length = utf8Length(contents, i);
    if (length == 0 || contents[i] == '\0') {
      return {lineOf(contents, i), "the byte " +
                                       CStringUtils::printable(std::string(1, contents[i])) +
                                       " is not UTF-8 text; save the file as UTF-8"};
    }
    lastOpen = contents[i] == '<' ? i : lastOpen;
    if (i - lastOpen > MaxTagLength) {
      return {lineOf(contents, lastOpen), "a tag, text or comment is longer than " +
                                              std::to_string(MaxTagLength / 1024) +
                                              " KiB, the most that is allowed"};
    }
    i += length;
  }
  return {};
}

bool ConfigurationText::isBlank(std::string_view text) {
  return text.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

std::string ConfigurationText::oneLine(const std::string& text, std::size_t maxLength) {
  // Escaped before it is cut: an escape is longer than what it stands for.
  std::string line;
  for (const char c : text) {
    line += c == '\n' || c == '\t' ? CStringUtils::printable(std::string(1, c)) : std::string(1, c);
  }
  return legible(std::move(line), maxLength);
}

std::string ConfigurationText::quoted(const std::string& text) {
  return "\"" + oneLine(text, MaxQuotedLength) + "\"";
}

const char* ConfigurationText::nearest(const std::string& found,
                                       const std::vector<const char*>& candidates) {
  if (found.size() > MaxNameToCompare) {
    return nullptr;
  }
  const char* best = nullptr;
  std::size_t bestDistance = std::numeric_limits<std::size_t>::max();
  for (const char* candidate : candidates) {
    const std::size_t distance =
        editDistance(CStringUtils::toLower(found), CStringUtils::toLower(candidate));
    const std::size_t tolerated = std::max<std::size_t>(1, std::strlen(candidate) / 3);
    if (distance <= tolerated && distance < bestDistance) {
      best = candidate;
      bestDistance = distance;
    }
  }
  return best;
}
