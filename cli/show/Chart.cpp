// The ranking as SVG. Coordinates are whole pixels or tenths of one, so that the same result gives
// the same bytes on every machine; all that came from a file or a network is escaped on its way in.

#include "cli/show/Chart.h"

#include <stdio.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <span>

#include "cli/Console.h"
#include "cli/show/Explanation.h"
#include "vpn/Common/Logging/LegibleText.h"

namespace {

constexpr std::size_t MostRows = 100;
// A name of full length (RFC 1035, section 2.3.4) with a port; what is longer is no host.
constexpr std::size_t LongestName = 300;
// Characters of a name that fit before the bars; the whole of it is the row's title.
constexpr std::size_t NameColumn = 32;

constexpr int Width = 760;
constexpr int BarsStart = 250;
constexpr int BarsEnd = 680;
constexpr int LowRow = 24;
// With a name above the address.
constexpr int HighRow = 36;
// From the middle of a row down to the base of a line: of a single one, and of two.
constexpr int Base = 4;
constexpr int UpperBase = -3;
constexpr int LowerBase = 11;
constexpr int BarHeight = 12;
constexpr int Margin = 12;
constexpr int AxisHeight = 34;
constexpr int DotRadius = 3;
constexpr int MostTicks = 6;

constexpr const char* Style =
    "<style>.ahs{--ink:#1f2933;--soft:#6b7785;--line:#d8dee6;--bar:#a9bdd6;--first:#2f7d4f;"
    "--dot:#1d4f91;font:13px system-ui,'DejaVu Sans',sans-serif}"
    "@media(prefers-color-scheme:dark){.ahs{--ink:#e3e8ee;--soft:#93a0ae;--line:#3a4450;"
    "--bar:#4d6480;--first:#5fbd85;--dot:#bcd3f2}}"
    ".ahs text{fill:var(--ink)}.ahs .soft{fill:var(--soft)}.ahs .small{font-size:11px}.ahs "
    ".grid{stroke:var(--line)}"
    ".ahs .bar{fill:var(--bar)}.ahs .first{fill:var(--first)}.ahs .dot{fill:var(--dot)}</style>\n";

/// A number with at most one decimal, without one where it is whole.
std::string number(double value) {
  char text[32];
  const double rounded = std::round(value * 10) / 10;
  snprintf(text, sizeof text, rounded == std::floor(rounded) ? "%.0f" : "%.1f", rounded);
  return text;
}

std::string attribute(const char* name, double value) {
  return std::string(" ") + name + "=\"" + number(value) + "\"";
}

std::string text(double x, double y, const std::string& classes, const std::string& content) {
  return "<text" + attribute("x", x) + attribute("y", y) +
         (classes.empty() ? "" : " class=\"" + classes + "\"") + ">" + content + "</text>\n";
}

/// Cuts after whole characters of UTF-8.
std::string shortened(const std::string& name) {
  std::size_t characters = 0;
  for (std::size_t i = 0; i < name.size(); ++i) {
    const bool startsCharacter = (static_cast<unsigned char>(name[i]) & 0xC0U) != 0x80U;
    if (startsCharacter && ++characters > NameColumn) {
      return name.substr(0, i) + "\u2026";
    }
  }
  return name;
}

/// The scale of the bars: from 0 to the first tick that nothing exceeds.
struct Scale {
  double step = 1;
  double end = 1;

  double place(double ms) const { return BarsStart + ms / end * (BarsEnd - BarsStart); }
};

Scale scaleFor(const SelectionResult& result) {
  unsigned int largest = 1;
  for (const HeadendResult& headend : result.results) {
    largest = std::max(largest, headend.metricMs.value_or(0));
    for (const unsigned int sample : headend.samplesMs) {
      largest = std::max(largest, sample);
    }
  }
  Scale scale;
  // 1, 2, 5, 10, 20, 50, ...
  constexpr std::array<double, 3> Digits = {1, 2, 5};
  double power = 1;
  for (std::size_t i = 0; largest / scale.step > MostTicks; ++i) {
    power *= i > 0 && i % Digits.size() == 0 ? 10 : 1;
    scale.step = Digits.at(i % Digits.size()) * power;
  }
  scale.end = std::ceil(largest / scale.step) * scale.step;
  return scale;
}

std::string axis(const Scale& scale, double bottom) {
  std::string ticks;
  const int count = static_cast<int>(std::lround(scale.end / scale.step));
  for (int i = 0; i <= count; ++i) {
    const double ms = i * scale.step;
    const double x = scale.place(ms);
    ticks += "<line class=\"grid\"" + attribute("x1", x) + attribute("y1", Margin) +
             attribute("x2", x) + attribute("y2", bottom) + "/>\n";
    const bool isLast = i == count;
    ticks += "<text class=\"soft\" text-anchor=\"middle\"" + attribute("x", x) +
             attribute("y", bottom + 18) + ">" + number(ms) + (isLast ? " ms" : "") + "</text>\n";
  }
  return ticks;
}

std::string bar(const HeadendResult& headend, const Scale& scale, double middle, bool isFirst) {
  std::string drawn = std::string("<rect class=\"") + (isFirst ? "first" : "bar") + "\" rx=\"2\"" +
                      attribute("x", BarsStart) + attribute("y", middle - BarHeight / 2.0) +
                      attribute("width", scale.place(*headend.metricMs) - BarsStart) +
                      attribute("height", BarHeight) + "/>\n";
  for (const unsigned int sample : headend.samplesMs) {
    drawn += "<circle class=\"dot\"" + attribute("cx", scale.place(sample)) +
             attribute("cy", middle) + attribute("r", DotRadius) + "/>\n";
  }
  return drawn + text(BarsEnd + 10, middle + Base, "", std::to_string(*headend.metricMs) + " ms");
}

/// A person looks for the name, so it stands above the address.
std::string label(const HeadendResult& headend, double middle) {
  const std::string address = asXmlText(shortened(legible(headend.headend, LongestName)));
  const std::string name = nameBeside(headend.headend, headend.name);
  if (name.empty()) {
    return text(Margin, middle + Base, "", address);
  }
  return text(Margin, middle + UpperBase, "", asXmlText(shortened(legible(name, LongestName)))) +
         text(Margin, middle + LowerBase, "soft small", address);
}

std::string row(const HeadendResult& headend, const Scale& scale, double middle, bool isFirst) {
  // Both names of a headend and the parentheses.
  const std::string title = legible(titleOf(headend), 2 * LongestName + 3);
  return "<g><title>" + asXmlText(title) + ": " + asXmlText(outcomeName(headend.outcome)) +
         "</title>\n" + label(headend, middle) +
         (headend.metricMs ? bar(headend, scale, middle, isFirst)
                           : text(BarsStart + 6, middle + Base, "soft",
                                  asXmlText(outcomeName(headend.outcome)))) +
         "</g>\n";
}

}  // namespace

std::string asXmlText(const std::string& text) {
  std::string escaped;
  for (const char c : Console::visible(legible(text, text.size()))) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&#39;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

std::string chartOf(const SelectionResult& result) {
  const std::size_t rows = std::min(result.results.size(), MostRows);
  const std::size_t left = result.results.size() - rows;
  const Scale scale = scaleFor(result);
  const auto drawn = std::span(result.results).first(rows);
  const bool hasNames = std::ranges::any_of(drawn, [](const HeadendResult& headend) {
    return !nameBeside(headend.headend, headend.name).empty();
  });
  const int rowHeight = hasNames ? HighRow : LowRow;
  const double bottom = Margin + static_cast<double>(rows) * rowHeight;
  const double height = bottom + AxisHeight + (left > 0 ? LowRow : 0);
  std::string svg = "<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"ahs\" role=\"img\"" +
                    attribute("width", Width) + attribute("height", height) + " viewBox=\"0 0 " +
                    number(Width) + " " + number(height) + "\" aria-label=\"" +
                    asXmlText(decisionInWords(result)) + "\">\n" + Style + axis(scale, bottom);
  double middle = Margin + rowHeight / 2.0;
  for (const HeadendResult& headend : drawn) {
    const bool isFirst = !result.headends.empty() && headend.headend == result.headends.front();
    svg += row(headend, scale, middle, isFirst);
    middle += rowHeight;
  }
  if (left > 0) {
    svg += text(Margin, height - 8, "soft", "and " + std::to_string(left) + " more");
  }
  return svg + "</svg>\n";
}
