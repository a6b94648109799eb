#include "cli/select/HostList.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <sstream>

#include "cli/Console.h"
#include "vpn/Common/Trust/FileTrust.h"
#include "vpn/include/StringUtils.h"

namespace {

// A thousand headends with the longest names fit four times.
constexpr std::size_t MostBytes = 1024UL * 1024;

/// @return an empty string, or why it cannot be read.
std::string readAll(int descriptor, std::string& text) {
  std::array<char, 4096> piece{};
  for (;;) {
    const ssize_t count = read(descriptor, piece.data(), piece.size());
    if (count < 0 && errno != EINTR) {
      return strerrordesc_np(errno);
    }
    if (count == 0) {
      return "";
    }
    text.append(piece.data(), count < 0 ? 0 : static_cast<std::size_t>(count));
    if (text.size() > MostBytes) {
      return "it is longer than 1 MiB";
    }
  }
}

std::string listFrom(int descriptor, const std::string& name, std::vector<ListedHost>& hosts) {
  std::string text;
  const std::string problem = descriptor < 0 ? strerrordesc_np(errno) : readAll(descriptor, text);
  if (!problem.empty()) {
    return "the hosts of " + Console::inQuotes(name) + " cannot be read: " + problem +
           ". Name a file with one host a line, as in '@hosts.txt'.";
  }
  const std::size_t before = hosts.size();
  std::istringstream stream(text);
  std::size_t number = 1;
  for (std::string line; std::getline(stream, line); ++number) {
    const std::string host(CStringUtils::trimmed(line.substr(0, line.find('#'))));
    if (!host.empty()) {
      hosts.push_back({host, Console::visible(name) + ":" + std::to_string(number) + ": "});
    }
  }
  return hosts.size() > before ? "" : "there is no host in " + Console::inQuotes(name) + ".";
}

}  // namespace

std::string listHosts(const std::vector<std::string>& typed, std::vector<ListedHost>& hosts) {
  std::string error;
  for (auto word = typed.begin(); error.empty() && word != typed.end(); ++word) {
    if (*word == "-") {
      error = listFrom(STDIN_FILENO, "standard input", hosts);
    } else if (word->starts_with('@')) {
      const std::string name = word->substr(1);
      const FileTrust::Descriptor file(open(name.c_str(), O_RDONLY | O_CLOEXEC));
      error = listFrom(file.get(), name, hosts);
    } else {
      hosts.push_back({*word, ""});
    }
  }
  return error;
}
