// The result as a page to hand around. Everything in it is text or the chart; what came from files
// and networks is escaped, so that a headend's name cannot become markup.

#include "cli/show/ResultPage.h"

#include "cli/Wording.h"
#include "cli/show/Chart.h"
#include "cli/show/Explanation.h"
#include "cli/show/StatusWords.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/Api/AHS/SelectionRules.h"

namespace {

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

std::string milliseconds(long long microseconds) {
  return microseconds < 0 ? "" : Wording::fixed(static_cast<double>(microseconds) / 1000, 1);
}

/// The probe that gave the smallest round trip; null if none gave one.
const HttpProbe::Report* nearestProbe(const HeadendResult& headend) {
  const HttpProbe::Report* nearest = nullptr;
  for (const HttpProbe::Report& probe : headend.probes) {
    if (SelectionRules::isSample(probe.status) &&
        (nearest == nullptr || probe.rttMs < nearest->rttMs)) {
      nearest = &probe;
    }
  }
  return nearest;
}

std::string rowOf(const HeadendResult& headend, std::size_t rank, bool isChosen, bool named) {
  static const HttpProbe::Report NoProbe;
  const HttpProbe::Report* nearest = nearestProbe(headend);
  const HttpProbe::Report& probe = nearest == nullptr ? NoProbe : *nearest;
  return std::string(isChosen ? "<tr class=\"chosen\">" : "<tr>") +
         cell(rank == 0 ? "" : std::to_string(rank), true) + cell(headend.headend) +
         (named ? cell(nameBeside(headend.headend, headend.name)) : "") +
         cell(headend.metricMs ? std::to_string(*headend.metricMs) : "", true) +
         cell(samplesText(headend.samplesMs, " ")) + cell(outcomeName(headend.outcome)) +
         cell(milliseconds(probe.networkRttUs), true) +
         cell(milliseconds(probe.responseRttUs), true) + cell(probe.address) + "</tr>\n";
}

std::string tableOf(const SelectionResult& result) {
  const bool named = hasNames(result);
  std::string table =
      std::string("<div class=\"wide\"><table>\n<thead><tr><th class=\"n\">#</th>") +
      "<th>headend</th>" + (named ? "<th>name</th>" : "") +
      "<th class=\"n\">metric, ms</th><th>samples, ms</th><th>outcome</th>"
      "<th class=\"n\">network, ms</th><th class=\"n\">answer, ms</th><th>address</th></tr>"
      "</thead>\n<tbody>\n";
  std::size_t rank = 0;
  for (const HeadendResult& headend : result.results) {
    const bool isRanked = rank < result.headends.size() && headend.headend == result.headends[rank];
    rank += isRanked ? 1 : 0;
    table += rowOf(headend, isRanked ? rank : 0, isRanked && rank == 1, named);
  }
  return table + "</tbody></table></div>\n";
}

}  // namespace

std::string pageOf(const SelectionResult& result, const std::string& when) {
  const std::string decision = asXmlText(decisionInWords(result));
  const std::string why = explanation(result);
  std::string reasons;
  // The first line is the decision, which is the headline.
  for (std::size_t start = why.find('\n') + 1; start < why.size();) {
    const std::size_t end = why.find('\n', start);
    reasons += asXmlText(why.substr(start, end - start)) + "\n";
    start = end + 1;
  }
  return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
         "<meta name=\"viewport\" content=\"width=device-width\">\n<title>" +
         decision + "</title>\n" + Style + "</head><body>\n<h1>" + decision +
         "</h1>\n<p class=\"note\">" + asXmlText(when) + " \u00b7 " +
         asXmlText(statusInWords(result)) + " (" + statusAsHex(result.status) + " " +
         statusCodeName(result.status) + ")</p>\n<div class=\"wide\">" + chartOf(result) +
         "</div>\n<h2>Headends</h2>\n" + tableOf(result) + "<h2>Why</h2>\n<pre>" + reasons +
         "</pre>\n</body></html>\n";
}
