#include "cli/show/SelectionTable.h"

#include "cli/Console.h"
#include "cli/Wording.h"

namespace {

using Cells = std::vector<std::string>;

std::string cellText(const std::string& text, char separator) {
  // What begins like this, a spreadsheet would compute.
  const bool isFormula = !text.empty() && std::string("=+-@").find(text.front()) != text.npos;
  std::string visible = (isFormula ? "'" : "") + Console::visible(text);
  if (separator != ',' || visible.find_first_of(",\"") == std::string::npos) {
    return visible;
  }
  std::string quoted = "\"";
  for (const char c : visible) {
    quoted += c == '"' ? "\"\"" : std::string(1, c);
  }
  return quoted + "\"";
}

std::string lineText(const Cells& cells, char separator) {
  std::string line;
  for (const std::string& cell : cells) {
    line += cellText(cell, separator) + separator;
  }
  line.back() = '\n';
  return line;
}

std::string msCell(long long microseconds) {
  return microseconds < 0 ? "" : Wording::fixed(static_cast<double>(microseconds) / 1000, 3);
}

Cells cellsOf(const HeadendResult& headend, const std::string& rank) {
  static const HttpProbe::Report noProbe;
  const HttpProbe::Report* const nearest = nearestProbe(headend);
  const HttpProbe::Report& probe = nearest == nullptr ? noProbe : *nearest;
  return {rank,
          headend.headend,
          headend.name,
          headend.metricMs ? std::to_string(*headend.metricMs) : "",
          samplesText(headend.samplesMs, " "),
          std::to_string(headend.probes.size()),
          std::to_string(lostProbes(headend)),
          probe.address,
          msCell(probe.networkRttUs),
          msCell(probe.responseRttUs),
          probe.httpStatus == 0 ? "" : std::to_string(probe.httpStatus),
          outcomeName(headend.outcome)};
}

}  // namespace

std::string separatedOutput(const SelectionResult& result, char separator) {
  std::string text = lineText({"rank", "headend", "name", "metricMs", "samplesMs", "probes", "lost",
                               "address", "networkRttMs", "responseRttMs", "httpStatus", "outcome"},
                              separator);
  const std::vector<std::size_t> ranks = ranksOf(result);
  std::size_t place = 0;
  for (const HeadendResult& headend : result.results) {
    const bool isRanked =
        place < ranks.size() && headend.headend == result.headends[place] && headend.metricMs;
    text += lineText(cellsOf(headend, isRanked ? std::to_string(ranks[place]) : ""), separator);
    place += isRanked ? 1 : 0;
  }
  return text;
}
