// A result as a chart and as a web page. They hold only text and drawings of numbers. Texts from
// files and networks are escaped, so that a headend's name cannot become markup. Coordinates are
// multiples of 0.1 pixels, so that the same result gives the same bytes on every machine.

#include "cli/show/ResultPage.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <span>

#include "cli/Console.h"
#include "cli/Wording.h"
#include "cli/show/Explanation.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/Api/AHS/SelectionRules.h"

namespace {

/// Escapes visible text for use between tags or in a quoted attribute.
std::string escaped(const std::string& text) {
  static const std::map<char, const char*> markup = {
      {'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}, {'\'', "&#39;"}};
  std::string result;
  for (const char c : text) {
    const auto found = markup.find(c);
    result += found == markup.end() ? std::string(1, c) : found->second;
  }
  return result;
}

/// Escapes any text: invalid UTF-8 and control characters become \xNN.
std::string asXmlText(const std::string& text) { return escaped(Console::visible(text)); }

// ---- The picture ------------------------------------------------------------------------------

constexpr std::size_t MostRows = 100;
// Characters of a name before the bars; the row's title has the whole name.
constexpr std::size_t NameColumn = 32;

constexpr int Width = 760;
constexpr int BarsStart = 250;
constexpr int BarsEnd = 680;
constexpr int RowHeight = 24;
// Distance from the middle of a row to its text's base line.
constexpr int Base = 4;
constexpr int BarHeight = 12;
constexpr int Margin = 12;
constexpr int AxisHeight = 34;
constexpr int DotRadius = 3;
constexpr int MostTicks = 6;

constexpr const char* ChartStyle =
    "<style>.ahs{--ink:#1f2933;--soft:#6b7785;--line:#d8dee6;--bar:#a9bdd6;--first:#2f7d4f;"
    "--dot:#1d4f91;font:13px system-ui,'DejaVu Sans',sans-serif}"
    "@media(prefers-color-scheme:dark){.ahs{--ink:#e3e8ee;--soft:#93a0ae;--line:#3a4450;"
    "--bar:#4d6480;--first:#5fbd85;--dot:#bcd3f2}}"
    ".ahs text{fill:var(--ink)}.ahs .soft{fill:var(--soft)}.ahs .grid{stroke:var(--line)}"
    ".ahs .bar{fill:var(--bar)}.ahs .first{fill:var(--first)}.ahs .dot{fill:var(--dot)}</style>\n";

/// A number with at most one decimal, which is omitted if it is 0.
std::string number(double value) {
  const double rounded = std::round(value * 10) / 10;
  return Wording::fixed(rounded, rounded == std::floor(rounded) ? 0 : 1);
}

std::string attribute(const char* name, double value) {
  return std::string(" ") + name + "=\"" + number(value) + "\"";
}

std::string text(double x, double y, const std::string& classes, const std::string& content) {
  return "<text" + attribute("x", x) + attribute("y", y) +
         (classes.empty() ? "" : " class=\"" + classes + "\"") + ">" + content + "</text>\n";
}

/// Cuts between UTF-8 characters.
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

/// The scale of the bars: from 0 to the first tick that is not below any value.
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

std::string row(const HeadendResult& headend, const Scale& scale, double middle, bool isFirst) {
  // People look for the name; the row's title has name and address.
  const std::string name = nameBeside(headend.headend, headend.name);
  const std::string outcome = asXmlText(outcomeInWords(headend));
  return "<g><title>" + asXmlText(titleOf(headend)) + ": " + outcome + "</title>\n" +
         text(Margin, middle + Base, "",
              asXmlText(shortened(Console::visible(name.empty() ? headend.headend : name)))) +
         (headend.metricMs ? bar(headend, scale, middle, isFirst)
                           : text(BarsStart + 6, middle + Base, "soft", outcome)) +
         "</g>\n";
}

// ---- The page ---------------------------------------------------------------------------------

constexpr const char* Style = R"(<style>
:root{color-scheme:light dark}
body{overflow-wrap:anywhere;font:15px/1.5 system-ui,'DejaVu Sans',sans-serif;margin:2em auto;max-width:60em;padding:0 1em;
background:#fff;color:#1f2933}
@media(prefers-color-scheme:dark){body{background:#15191e;color:#e3e8ee}}
h1{font-size:1.35em;margin:0 0 .2em}
.note{opacity:.7}
.wide{overflow-x:auto}
svg{max-width:100%;height:auto}
table{border-collapse:collapse;width:100%;font-size:.9em;font-variant-numeric:tabular-nums}
th,td{text-align:left;padding:.25em .6em .25em 0;border-bottom:1px solid #8884;vertical-align:top;
overflow-wrap:normal}
td.n,th.n{text-align:right}
tr.chosen td{font-weight:600}
pre{white-space:pre-wrap;padding:1em;background:#8882;border-radius:6px}
</style>
)";

std::string cell(const std::string& content, bool isNumber = false) {
  return (isNumber ? "<td class=\"n\">" : "<td>") + asXmlText(content) + "</td>";
}

std::string inMs(long long microseconds) {
  return microseconds < 0 ? "" : Wording::fixed(static_cast<double>(microseconds) / 1000, 1);
}

std::string rowOf(const HeadendResult& headend, std::size_t rank, bool isChosen, bool named) {
  static const HttpProbe::Report noProbe;
  const HttpProbe::Report* nearest = nearestProbe(headend);
  const HttpProbe::Report& probe = nearest == nullptr ? noProbe : *nearest;
  const std::size_t lost = headend.samplesMs.empty() ? 0 : lostProbes(headend);
  return std::string(isChosen ? "<tr class=\"chosen\">" : "<tr>") +
         cell(rank == 0 ? "" : std::to_string(rank), true) + cell(headend.headend) +
         (named ? cell(nameBeside(headend.headend, headend.name)) : "") +
         cell(headend.metricMs ? std::to_string(*headend.metricMs) : "", true) +
         cell(samplesText(headend.samplesMs, " ") +
              (lost == 0 ? "" : " (" + std::to_string(lost) + " lost)")) +
         cell(outcomeInWords(headend)) + cell(inMs(probe.networkRttUs), true) +
         cell(inMs(probe.responseRttUs), true) + cell(probe.address) + "</tr>\n";
}

std::string tableOf(const SelectionResult& result) {
  const bool named = hasNames(result);
  std::string table =
      std::string("<div class=\"wide\"><table>\n<thead><tr><th class=\"n\">#</th>") +
      "<th>headend</th>" + (named ? "<th>name</th>" : "") +
      "<th class=\"n\">metric, ms</th><th>samples, ms</th><th>outcome</th>"
      "<th class=\"n\">network, ms</th><th class=\"n\">answer, ms</th><th>address</th></tr>"
      "</thead>\n<tbody>\n";
  const std::vector<std::size_t> ranks = ranksOf(result);
  std::size_t place = 0;
  for (const HeadendResult& headend : result.results) {
    const bool isRanked = place < ranks.size() && headend.headend == result.headends[place];
    table += rowOf(headend, isRanked ? ranks[place] : 0, isRanked && place == 0, named);
    place += isRanked ? 1 : 0;
  }
  return table + "</tbody></table></div>\n";
}

}  // namespace

std::string chartOf(const SelectionResult& result) {
  const std::size_t rows = std::min(result.results.size(), MostRows);
  const std::size_t left = result.results.size() - rows;
  const Scale scale = scaleFor(result);
  const auto drawn = std::span(result.results).first(rows);
  const double bottom = Margin + static_cast<double>(rows) * RowHeight;
  const double height = bottom + AxisHeight + (left > 0 ? RowHeight : 0);
  std::string svg = "<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"ahs\" role=\"img\"" +
                    attribute("width", Width) + attribute("height", height) + " viewBox=\"0 0 " +
                    number(Width) + " " + number(height) + "\" aria-label=\"" +
                    asXmlText(decisionInWords(result)) + "\">\n" + ChartStyle + axis(scale, bottom);
  double middle = Margin + RowHeight / 2.0;
  for (const HeadendResult& headend : drawn) {
    const bool isFirst = !result.headends.empty() && headend.headend == result.headends.front();
    svg += row(headend, scale, middle, isFirst);
    middle += RowHeight;
  }
  if (left > 0) {
    svg += text(Margin, height - 8, "soft", "and " + std::to_string(left) + " more");
  }
  return svg + "</svg>\n";
}

std::string pageOf(const SelectionResult& result, const std::string& when) {
  const std::string decision = asXmlText(decisionInWords(result));
  return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
         "<meta name=\"viewport\" content=\"width=device-width\">\n<title>" +
         decision + "</title>\n" + Style + "</head><body>\n<h1>" + decision +
         "</h1>\n<p class=\"note\">" + asXmlText(when) + " \u00b7 " +
         asXmlText(statusInWords(result)) + " (" + statusAsHex(result.status) + " " +
         statusCodeName(result.status) + ")</p>\n<div class=\"wide\">" + chartOf(result) +
         "</div>\n<h2>Headends</h2>\n" + tableOf(result) + "<h2>Why</h2>\n<pre>" +
         escaped(reasonsInWords(result)) + "</pre>\n</body></html>\n";
}
