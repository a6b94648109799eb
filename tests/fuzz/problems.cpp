// What every message about a file owes to the person who has to mend it.

#include "tests/fuzz/problems.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "tests/fuzz/require.h"

namespace tests {

namespace {

// Two quoted texts, a list of all names that are allowed, and the sentence around them.
constexpr std::size_t LongestProblem = 2048;

void requireHelpful(const FileProblem& problem, const std::string& path, std::size_t lines) {
  REQUIRE(problem.file == path);
  REQUIRE(problem.line <= lines);
  REQUIRE(!problem.text.empty());
  REQUIRE(problem.text.size() <= LongestProblem);
  const std::string line = problem.toString();
  REQUIRE(isLegible(line));
  REQUIRE(line.ends_with(problem.text));
  REQUIRE((problem.line == 0) == (problem.column == 0));
  const std::string place =
      problem.line == 0 ? ""
                        : std::to_string(problem.line) + ":" + std::to_string(problem.column) + ":";
  REQUIRE(line.starts_with(path + ":" + place + " "));
}

// It costs a few microseconds a text, and /proc gives each reader a position of its own.
const std::string& fileOf(const std::string& text) {
  static const int descriptor = memfd_create("text", MFD_CLOEXEC);
  // Never freed, like all that lives until the process ends.
  static const std::string& path = *new std::string("/proc/self/fd/" + std::to_string(descriptor));
  REQUIRE(ftruncate(descriptor, 0) == 0);
  REQUIRE(pwrite(descriptor, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
  return path;
}

Reading read(ConfigurationKind kind, const std::string& text) {
  Reading reading;
  reading.file = fileOf(text);
  reading.usable = readConfigurationFile(reading.file, kind, reading.contents, reading.problems,
                                         FileTrust::Check::Waived);
  return reading;
}

/// All that a reading tells, as one text.
std::string textOf(const Reading& reading) {
  std::string text = reading.usable ? "usable\n" : "";
  for (const FileProblem& problem : reading.problems) {
    text += problem.toString() + '\n';
  }
  for (const ProfileFile::Host& host : reading.contents.hosts) {
    text += host.name + '\n' + host.address + '\n' + std::to_string(host.line) + ':' +
            std::to_string(host.column) + '\n';
  }
  return text;
}

}  // namespace

Reading requireReading(ConfigurationKind kind, const std::string& text) {
  const Reading reading = read(kind, text);
  REQUIRE(reading.usable || !reading.problems.empty());
  REQUIRE(textOf(read(kind, text)) == textOf(reading));
  // The last message but one says that there are more, and the last why the file is skipped.
  REQUIRE(reading.problems.size() <= MaxProblemsPerFile + 1);
  const auto lines = 1 + static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  for (const FileProblem& problem : reading.problems) {
    requireHelpful(problem, reading.file, lines);
  }
  return reading;
}

}  // namespace tests
