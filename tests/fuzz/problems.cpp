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

}  // namespace

// It costs a few microseconds a text, and /proc gives each reader a position of its own.
const std::string& fileOf(const std::string& text) {
  static const int descriptor = memfd_create("text", MFD_CLOEXEC);
  // Never freed, like all that lives until the process ends.
  static const std::string& path = *new std::string("/proc/self/fd/" + std::to_string(descriptor));
  REQUIRE(ftruncate(descriptor, 0) == 0);
  REQUIRE(pwrite(descriptor, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
  return path;
}

void requireHelpfulProblems(const std::vector<FileProblem>& problems, const std::string& path,
                            const std::string& text) {
  // The last message but one says that there are more, and the last why the file is skipped.
  REQUIRE(problems.size() <= MaxProblemsPerFile + 1);
  const auto lines = 1 + static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  for (const FileProblem& problem : problems) {
    requireHelpful(problem, path, lines);
  }
}

bool sameProblems(const std::vector<FileProblem>& a, const std::vector<FileProblem>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](const FileProblem& first, const FileProblem& second) {
                      return first.toString() == second.toString();
                    });
}

}  // namespace tests
