// Reads the description of a scene. Checks all ranges, so that no later step has to.

#include "simulator/Scene.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <fstream>

namespace simulator {
namespace {

/// A longer time is useless in a network and hides a wrong unit.
constexpr double MostMilliseconds = 60'000;
/// Far beyond the largest scene (some 10,000 lines); a wrong file is refused before it is read.
constexpr std::streamoff MostFileBytes = 16 * 1024 * 1024;
/// RFC 1035.
constexpr std::size_t MostNameLength = 253;

using Words = std::vector<std::string_view>;

Words split(std::string_view line) {
  constexpr std::string_view Separators = " \t\r,";
  Words words;
  for (std::size_t begin = 0; begin < line.size();) {
    begin = line.find_first_not_of(Separators, begin);
    if (begin == std::string_view::npos) break;
    const std::size_t end = std::min(line.find_first_of(Separators, begin), line.size());
    words.push_back(line.substr(begin, end - begin));
    begin = end;
  }
  return words;
}

[[noreturn]] void refuse(std::string_view word, std::string_view expected) {
  throw SceneError("'" + std::string(word) + "': " + std::string(expected));
}

/// The value of `key=value`; none if the word has another key.
std::optional<std::string_view> valueOf(std::string_view word, std::string_view key) {
  if (!word.starts_with(key) || word.size() <= key.size() || word[key.size()] != '=') return {};
  return word.substr(key.size() + 1);
}

double parseNumber(std::string_view text, double most, std::string_view expected) {
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  // This form of the comparison refuses a NaN.
  const bool inRange = number >= 0 && number <= most;
  if (error != std::errc() || end != text.data() + text.size() || !inRange) refuse(text, expected);
  return number;
}

std::chrono::nanoseconds parseMilliseconds(std::string_view text) {
  const double milliseconds =
      parseNumber(text, MostMilliseconds, "expected milliseconds, 0 to 60000");
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::duration<double, std::milli>(milliseconds));
}

IpAddress parseAddress(std::string_view text) {
  const auto address = IpAddress::parse(text);
  if (!address) refuse(text, "expected an IPv4 or IPv6 address");
  return *address;
}

std::string parseName(std::string_view text) {
  const bool wellFormed =
      !text.empty() && text.size() <= MostNameLength && std::ranges::all_of(text, [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '-' || c == '.' || c == '_';
      });
  if (!wellFormed) refuse(text, "expected a host name of letters, digits, '-', '_' and '.'");
  return std::string(text);
}

Path parsePath(const Words& words) {
  Path path;
  for (std::size_t i = 2; i < words.size(); ++i) {
    if (const auto rtt = valueOf(words[i], "rtt")) {
      path.roundTrip = parseMilliseconds(*rtt);
    } else if (const auto opening = valueOf(words[i], "opening")) {
      path.opening = parseMilliseconds(*opening);
    } else if (const auto jitter = valueOf(words[i], "jitter")) {
      path.jitter = parseMilliseconds(*jitter);
    } else if (const auto loss = valueOf(words[i], "loss")) {
      path.loss = parseNumber(*loss, 100, "expected per cent, 0 to 100") / 100;
    } else if (words[i] == "reorder") {
      path.reorder = true;
    } else {
      refuse(words[i], "a path has rtt=MS, opening=MS, jitter=MS, loss=PERCENT and reorder");
    }
  }
  return path;
}

Link parseLink(const Words& words) {
  constexpr double Most = 1'000'000;
  Link link;
  for (std::size_t i = 1; i < words.size(); ++i) {
    if (const auto syns = valueOf(words[i], "syns")) {
      link.openings = parseNumber(*syns, Most, "expected SYNs a second");
    } else if (const auto mbit = valueOf(words[i], "mbit")) {
      link.bitRate = 1e6 * parseNumber(*mbit, Most, "expected megabits a second");
    } else if (const auto queue = valueOf(words[i], "queue")) {
      link.queue = static_cast<std::size_t>(parseNumber(*queue, Most, "expected packets"));
    } else {
      refuse(words[i], "a link has syns=PER-SECOND, mbit=NUMBER and queue=PACKETS");
    }
  }
  return link;
}

Gateway parseGateway(const Words& words) {
  constexpr std::string_view Expected = "expected ADDRESS:PORT, an IPv6 address in brackets";
  std::string_view host = words[1];
  const std::size_t colon = host.rfind(':');
  if (colon == std::string_view::npos) refuse(host, Expected);
  const std::string_view port = host.substr(colon + 1);
  host = host.substr(0, colon);
  if (host.starts_with('[') && host.ends_with(']')) {
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != std::string_view::npos) {
    refuse(words[1], Expected);
  }

  Gateway gateway;
  gateway.address = parseAddress(host);
  const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), gateway.port);
  if (error != std::errc() || end != port.data() + port.size()) refuse(words[1], Expected);
  for (std::size_t i = 2; i < words.size(); ++i) {
    if (const auto delay = valueOf(words[i], "delay")) {
      gateway.delay = parseMilliseconds(*delay);
    } else if (const auto behaviour = valueOf(words[i], "behaviour")) {
      gateway.behaviour = *behaviour;
    } else {
      refuse(words[i], "a gateway has delay=MS and behaviour=NAME");
    }
  }
  return gateway;
}

NameAnswer parseAnswer(const Words& words) {
  using Manner = NameAnswer::Manner;
  static const std::map<std::string_view, Manner> manners = {{"failure", Manner::Failure},
                                                             {"silence", Manner::Silence},
                                                             {"loop", Manner::Loop},
                                                             {"odd-name", Manner::OddName},
                                                             {"garbage", Manner::Garbage}};
  NameAnswer answer;
  std::size_t first = 2;
  if (const auto manner = manners.find(words[first]); manner != manners.end()) {
    answer.manner = manner->second;
    ++first;
  }
  for (std::size_t i = first; i < words.size(); ++i) {
    answer.addresses.push_back(parseAddress(words[i]));
  }
  return answer;
}

std::string inLowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

std::optional<IpAddress> IpAddress::parse(std::string_view text) {
  const std::string terminated(text);
  unsigned char bytes[16];
  if (inet_pton(AF_INET, terminated.c_str(), bytes) == 1) return fromV4(bytes);
  if (inet_pton(AF_INET6, terminated.c_str(), bytes) == 1) return fromV6(bytes);
  return {};
}

IpAddress IpAddress::fromV4(const unsigned char* bytes) {
  IpAddress address;
  address.m_bytes[10] = address.m_bytes[11] = 0xFF;
  std::copy_n(bytes, 4, address.m_bytes.begin() + 12);
  return address;
}

IpAddress IpAddress::fromV6(const unsigned char* bytes) {
  IpAddress address;
  std::copy_n(bytes, 16, address.m_bytes.begin());
  return address;
}

bool IpAddress::isV4() const {
  constexpr unsigned char Mapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
  return std::equal(std::begin(Mapped), std::end(Mapped), m_bytes.begin());
}

std::string IpAddress::text() const {
  char text[INET6_ADDRSTRLEN] = {};
  if (isV4()) {
    inet_ntop(AF_INET, m_bytes.data() + 12, text, sizeof text);
  } else {
    inet_ntop(AF_INET6, m_bytes.data(), text, sizeof text);
  }
  return text;
}

socklen_t IpAddress::toSocketAddress(std::uint16_t port, sockaddr_storage& result) const {
  result = {};
  if (isV4()) {
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(port);
    std::memcpy(&v4.sin_addr, m_bytes.data() + 12, 4);
    std::memcpy(&result, &v4, sizeof v4);
    return sizeof v4;
  }
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  v6.sin6_port = htons(port);
  std::memcpy(&v6.sin6_addr, m_bytes.data(), 16);
  std::memcpy(&result, &v6, sizeof v6);
  return sizeof v6;
}

void Scene::addLine(std::string_view line) {
  const Words words = split(line.substr(0, line.find('#')));
  if (words.empty()) return;
  const std::string_view kind = words[0];
  const auto expectWords = [&](std::size_t least, std::size_t most, std::string_view grammar) {
    if (words.size() < least || words.size() > most) refuse(kind, grammar);
  };
  if (kind == "path") {
    expectWords(2, 7,
                "expected: path ADDRESS|default [rtt=MS] [opening=MS] [jitter=MS] [loss=PERCENT] "
                "[reorder]");
    if (words[1] == "default") {
      defaultPath = parsePath(words);
    } else {
      paths[parseAddress(words[1])] = parsePath(words);
    }
  } else if (kind == "link") {
    expectWords(2, 4, "expected: link [syns=PER-SECOND] [mbit=NUMBER] [queue=PACKETS]");
    link = parseLink(words);
  } else if (kind == "gateway") {
    expectWords(2, 4, "expected: gateway ADDRESS:PORT [delay=MS] [behaviour=NAME]");
    gateways.push_back(parseGateway(words));
  } else if (kind == "name") {
    expectWords(3, 3, "expected: name NAME ADDRESS");
    names.push_back({parseName(words[1]), parseAddress(words[2])});
  } else if (kind == "resolver") {
    expectWords(2, 2, "expected: resolver ADDRESS");
    resolver = parseAddress(words[1]);
  } else if (kind == "answer") {
    constexpr std::size_t MostAddresses = 1000;
    expectWords(3, 3 + MostAddresses,
                "expected: answer NAME [failure|silence|loop|odd-name|garbage] [ADDRESS...]");
    answers[words[1] == "*" ? "*" : inLowerCase(parseName(words[1]))] = parseAnswer(words);
  } else {
    refuse(kind, "expected path, link, gateway, name, resolver or answer");
  }
}

void Scene::addFile(const std::string& path) {
  std::ifstream file(path);
  if (!file.seekg(0, std::ios::end)) throw SceneError(path + ": cannot be read");
  if (file.tellg() > MostFileBytes) throw SceneError(path + ": larger than 16 MiB");
  file.seekg(0);
  std::string line;
  for (unsigned int number = 1; std::getline(file, line); ++number) {
    try {
      addLine(line);
    } catch (const SceneError& error) {
      throw SceneError(path + ":" + std::to_string(number) + ": " + error.what());
    }
  }
  if (file.bad()) throw SceneError(path + ": cannot be read");
}

}  // namespace simulator
