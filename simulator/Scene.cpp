// Reads the description of a scene. Whatever it accepts is in range: no later step checks an
// address, a time or a name again.

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

/// Longer ones are no use in a network and would only hide a mistake in the unit.
constexpr double kMostMilliseconds = 60'000;
/// Far beyond the largest scene (some 10,000 lines); a wrong file is refused before it is read.
constexpr std::streamoff kMostFileBytes = 16 * 1024 * 1024;
/// RFC 1035.
constexpr std::size_t kMostNameLength = 253;

using Words = std::vector<std::string_view>;

Words Split(std::string_view line) {
  constexpr std::string_view kSeparators = " \t\r,";
  Words words;
  for (std::size_t begin = 0; begin < line.size();) {
    begin = line.find_first_not_of(kSeparators, begin);
    if (begin == std::string_view::npos) break;
    const std::size_t end = std::min(line.find_first_of(kSeparators, begin), line.size());
    words.push_back(line.substr(begin, end - begin));
    begin = end;
  }
  return words;
}

[[noreturn]] void Refuse(std::string_view word, std::string_view expected) {
  throw SceneError("'" + std::string(word) + "': " + std::string(expected));
}

/// The value of `key=value` if the word has this key.
std::optional<std::string_view> ValueOf(std::string_view word, std::string_view key) {
  if (!word.starts_with(key) || word.size() <= key.size() || word[key.size()] != '=') return {};
  return word.substr(key.size() + 1);
}

double ParseNumber(std::string_view text, double most, std::string_view expected) {
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  // Written so that a NaN is refused.
  const bool inRange = number >= 0 && number <= most;
  if (error != std::errc() || end != text.data() + text.size() || !inRange) Refuse(text, expected);
  return number;
}

std::chrono::nanoseconds ParseMilliseconds(std::string_view text) {
  const double milliseconds =
      ParseNumber(text, kMostMilliseconds, "expected milliseconds, 0 to 60000");
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::duration<double, std::milli>(milliseconds));
}

IpAddress ParseAddress(std::string_view text) {
  const auto address = IpAddress::Parse(text);
  if (!address) Refuse(text, "expected an IPv4 or IPv6 address");
  return *address;
}

std::string ParseName(std::string_view text) {
  const bool wellFormed =
      !text.empty() && text.size() <= kMostNameLength && std::ranges::all_of(text, [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '-' || c == '.' || c == '_';
      });
  if (!wellFormed) Refuse(text, "expected a host name of letters, digits, '-', '_' and '.'");
  return std::string(text);
}

Path ParsePath(const Words& words) {
  Path path;
  for (std::size_t i = 2; i < words.size(); ++i) {
    if (const auto rtt = ValueOf(words[i], "rtt")) {
      path.roundTrip = ParseMilliseconds(*rtt);
    } else if (const auto jitter = ValueOf(words[i], "jitter")) {
      path.jitter = ParseMilliseconds(*jitter);
    } else if (const auto loss = ValueOf(words[i], "loss")) {
      path.loss = ParseNumber(*loss, 100, "expected per cent, 0 to 100") / 100;
    } else if (words[i] == "reorder") {
      path.reorder = true;
    } else {
      Refuse(words[i], "a path has rtt=MS, jitter=MS, loss=PERCENT and reorder");
    }
  }
  return path;
}

Gateway ParseGateway(const Words& words) {
  constexpr std::string_view kExpected = "expected ADDRESS:PORT, an IPv6 address in brackets";
  std::string_view host = words[1];
  const std::size_t colon = host.rfind(':');
  if (colon == std::string_view::npos) Refuse(host, kExpected);
  const std::string_view port = host.substr(colon + 1);
  host = host.substr(0, colon);
  if (host.starts_with('[') && host.ends_with(']')) {
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != std::string_view::npos) {
    Refuse(words[1], kExpected);
  }

  Gateway gateway;
  gateway.address = ParseAddress(host);
  const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), gateway.port);
  if (error != std::errc() || end != port.data() + port.size()) Refuse(words[1], kExpected);
  for (std::size_t i = 2; i < words.size(); ++i) {
    if (const auto delay = ValueOf(words[i], "delay")) {
      gateway.delay = ParseMilliseconds(*delay);
    } else if (const auto behaviour = ValueOf(words[i], "behaviour")) {
      gateway.behaviour = *behaviour;
    } else {
      Refuse(words[i], "a gateway has delay=MS and behaviour=NAME");
    }
  }
  return gateway;
}

NameAnswer ParseAnswer(const Words& words) {
  using Manner = NameAnswer::Manner;
  static const std::map<std::string_view, Manner> kManners = {{"failure", Manner::Failure},
                                                              {"silence", Manner::Silence},
                                                              {"loop", Manner::Loop},
                                                              {"odd-name", Manner::OddName},
                                                              {"garbage", Manner::Garbage}};
  NameAnswer answer;
  std::size_t first = 2;
  if (const auto manner = kManners.find(words[first]); manner != kManners.end()) {
    answer.manner = manner->second;
    ++first;
  }
  for (std::size_t i = first; i < words.size(); ++i) {
    answer.addresses.push_back(ParseAddress(words[i]));
  }
  return answer;
}

std::string InLowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

std::optional<IpAddress> IpAddress::Parse(std::string_view text) {
  const std::string terminated(text);
  unsigned char bytes[16];
  if (inet_pton(AF_INET, terminated.c_str(), bytes) == 1) return FromV4(bytes);
  if (inet_pton(AF_INET6, terminated.c_str(), bytes) == 1) return FromV6(bytes);
  return {};
}

IpAddress IpAddress::FromV4(const unsigned char* bytes) {
  IpAddress address;
  address.m_bytes[10] = address.m_bytes[11] = 0xFF;
  std::copy_n(bytes, 4, address.m_bytes.begin() + 12);
  return address;
}

IpAddress IpAddress::FromV6(const unsigned char* bytes) {
  IpAddress address;
  std::copy_n(bytes, 16, address.m_bytes.begin());
  return address;
}

bool IpAddress::IsV4() const {
  constexpr unsigned char kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
  return std::equal(std::begin(kMapped), std::end(kMapped), m_bytes.begin());
}

std::string IpAddress::Text() const {
  char text[INET6_ADDRSTRLEN] = {};
  if (IsV4()) {
    inet_ntop(AF_INET, m_bytes.data() + 12, text, sizeof text);
  } else {
    inet_ntop(AF_INET6, m_bytes.data(), text, sizeof text);
  }
  return text;
}

socklen_t IpAddress::ToSocketAddress(std::uint16_t port, sockaddr_storage& result) const {
  result = {};
  if (IsV4()) {
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

void Scene::AddLine(std::string_view line) {
  const Words words = Split(line.substr(0, line.find('#')));
  if (words.empty()) return;
  const std::string_view kind = words[0];
  const auto expectWords = [&](std::size_t least, std::size_t most, std::string_view grammar) {
    if (words.size() < least || words.size() > most) Refuse(kind, grammar);
  };
  if (kind == "path") {
    expectWords(2, 6,
                "expected: path ADDRESS|default [rtt=MS] [jitter=MS] [loss=PERCENT] [reorder]");
    if (words[1] == "default") {
      defaultPath = ParsePath(words);
    } else {
      paths[ParseAddress(words[1])] = ParsePath(words);
    }
  } else if (kind == "gateway") {
    expectWords(2, 4, "expected: gateway ADDRESS:PORT [delay=MS] [behaviour=NAME]");
    gateways.push_back(ParseGateway(words));
  } else if (kind == "name") {
    expectWords(3, 3, "expected: name NAME ADDRESS");
    names.push_back({ParseName(words[1]), ParseAddress(words[2])});
  } else if (kind == "resolver") {
    expectWords(2, 2, "expected: resolver ADDRESS");
    resolver = ParseAddress(words[1]);
  } else if (kind == "answer") {
    constexpr std::size_t kMostAddresses = 1000;
    expectWords(3, 3 + kMostAddresses,
                "expected: answer NAME [failure|silence|loop|odd-name|garbage] [ADDRESS...]");
    answers[InLowerCase(ParseName(words[1]))] = ParseAnswer(words);
  } else {
    Refuse(kind, "expected path, gateway, name, resolver or answer");
  }
}

void Scene::AddFile(const std::string& path) {
  std::ifstream file(path);
  if (!file.seekg(0, std::ios::end)) throw SceneError(path + ": cannot be read");
  if (file.tellg() > kMostFileBytes) throw SceneError(path + ": larger than 16 MiB");
  file.seekg(0);
  std::string line;
  for (unsigned int number = 1; std::getline(file, line); ++number) {
    try {
      AddLine(line);
    } catch (const SceneError& error) {
      throw SceneError(path + ":" + std::to_string(number) + ": " + error.what());
    }
  }
  if (file.bad()) throw SceneError(path + ": cannot be read");
}

}  // namespace simulator
