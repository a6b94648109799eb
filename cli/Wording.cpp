#include "cli/Wording.h"

#include <arpa/inet.h>
#include <stdio.h>
#include <time.h>

#include <algorithm>
#include <sstream>

#include "cli/Console.h"
#include "cli/Table.h"
#include "vpn/Common/Utility/NearestName.h"
#include "vpn/Common/Utility/URL.h"

std::string Wording::joined(const std::vector<std::string>& words, const std::string& between) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : between) + word;
  }
  return text;
}

std::string Wording::counted(std::size_t number, const std::string& one, const std::string& many) {
  return std::to_string(number) + " " + (number == 1 ? one : many.empty() ? one + "s" : many);
}

std::string Wording::wrapped(const std::string& lines, std::size_t more) {
  constexpr std::size_t Width = 80;
  std::string result;
  std::istringstream stream(lines);
  for (std::string line; std::getline(stream, line); result += line + "\n") {
    const std::size_t indent = std::min(line.find_first_not_of(' '), line.size()) + more;
    while (widthOf(line) > Width) {
      std::size_t end = Width;
      while (widthOf(line.substr(0, end)) < Width) {
        ++end;
      }
      std::size_t blank = line.rfind(' ', end);
      if (blank == std::string::npos || blank < line.find_first_not_of(' ')) {
        blank = line.find(' ', end);
      }
      const std::size_t next = line.find_first_not_of(' ', blank);
      if (next == std::string::npos) {
        break;
      }
      result += line.substr(0, line.find_last_not_of(' ', blank) + 1) + "\n";
      line = std::string(indent, ' ') + line.substr(next);
    }
  }
  return result;
}

std::string Wording::asHost(const std::string& text) {
  const std::size_t zone = std::min(text.find('%'), text.size());
  in6_addr ignored{};
  if (inet_pton(AF_INET6, text.substr(0, zone).c_str(), &ignored) != 1) {
    const std::size_t end = std::min(text.rfind(':'), text.size());
    const bool hasDot = end > 1 && text[end - 1] == '.';
    return hasDot ? text.substr(0, end - 1) + text.substr(end) : text;
  }
  return "[" + text.substr(0, zone) + (zone < text.size() ? "%25" + text.substr(zone + 1) : "") +
         "]";
}

std::string Wording::hostError(const std::string& host) {
  const std::string error = host.empty() ? "it is empty." : URL::findError(host);
  return error.empty()
             ? ""
             : "the host " + Console::inQuotes(host) + " cannot be used: " + error +
                   " A host is a name or an address, with an optional port: gw.example.com, "
                   "192.0.2.7:8443, 2001:db8::7, [2001:db8::7]:8443.";
}

std::string Wording::errorAmong(const std::string& value, const std::vector<std::string>& words) {
  if (std::ranges::find(words, value) != words.end()) {
    return "";
  }
  const std::string* const meant = nearestName(value, words);
  return Console::inQuotes(value) + " is none of " + joined(words) +
         (meant != nullptr ? "; did you mean '" + *meant + "'?" : "");
}

std::string Wording::fixed(double value, int digits) {
  char text[64];
  snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

std::string Wording::duration(std::size_t seconds) {
  constexpr std::size_t SecondsPerMinute = 60;
  constexpr std::size_t SecondsPerHour = 3600;
  constexpr std::size_t SecondsPerDay = 86400;
  if (seconds >= 2 * SecondsPerDay) {
    return counted(seconds / SecondsPerDay, "day");
  }
  if (seconds >= 2 * SecondsPerHour) {
    return counted(seconds / SecondsPerHour, "hour");
  }
  return seconds >= 2 * SecondsPerMinute ? counted(seconds / SecondsPerMinute, "minute")
                                         : counted(seconds, "second");
}

std::string Wording::localTime(bool withZone) {
  tzset();  // the time zone may have changed since
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  char text[64] = "";
  if (localtime_r(&now, &parts) != nullptr) {
    std::strftime(text, sizeof text, withZone ? "%Y-%m-%d %H:%M:%S %z" : "%Y-%m-%d %H:%M:%S",
                  &parts);
  }
  return text;
}

std::string Wording::utc(const std::tm& parts) {
  char text[64];  // long enough for any year
  return {text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

std::string Wording::utc(std::time_t time) {
  std::tm parts{};
  return gmtime_r(&time, &parts) == nullptr ? std::to_string(time) + " s" : utc(parts);
}
