// The ranking's chart and page: cases beyond a browser test, such as names that look like markup.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <memory>

#include "cli/show/ResultPage.h"
#include "tests/unit/cli/some_results.h"
#include "vpn/include/HttpSession.h"

namespace {

using testing::HasSubstr;
using testing::Not;

bool isWellFormed(const std::string& xml) {
  const std::unique_ptr<xmlDoc, void (*)(xmlDoc*)> document(
      xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "chart.svg", nullptr,
                    XML_PARSE_NONET | XML_PARSE_NOERROR),
      xmlFreeDoc);
  return document != nullptr;
}

std::size_t countOf(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

}  // namespace

TEST(Chart, HasABarForEachMetricAndADotForEachSample) {
  const std::string svg = chartOf(measured(
      {headend("gw-a", 20, {20, 25, 21}), headend("gw-b", 40, {40}), headend("gw-c", {})}));
  EXPECT_TRUE(isWellFormed(svg));
  EXPECT_EQ(countOf(svg, "<rect"), 2U);
  EXPECT_EQ(countOf(svg, "<circle"), 4U);
  EXPECT_EQ(countOf(svg, "class=\"first\""), 1U);
  EXPECT_THAT(svg, HasSubstr(">timed out</text>"));
}

TEST(Chart, HasAScaleForEverySizeAndForNothing) {
  for (const unsigned int metric : {0U, 1U, 6U, 7U, 99U, 9'999U, 4'294'967'295U}) {
    const std::string svg = chartOf(measured({headend("gw-a", metric, {metric})}));
    EXPECT_TRUE(isWellFormed(svg)) << metric;
    EXPECT_LE(countOf(svg, "class=\"grid\""), 8U) << metric;
    EXPECT_GE(countOf(svg, "class=\"grid\""), 2U) << metric;
    EXPECT_THAT(svg, Not(HasSubstr("nan")));
    EXPECT_THAT(svg, Not(HasSubstr("inf")));
  }
  EXPECT_TRUE(isWellFormed(chartOf(SelectionResult())));
}

TEST(Chart, DrawsAHundredHeadendsAndCountsTheRest) {
  std::vector<HeadendResult> results;
  for (int i = 0; i < 1'000; ++i) {
    results.push_back(headend("gw-" + std::to_string(i), 10 + i, {}));
  }
  const std::string svg = chartOf(measured(results));
  EXPECT_EQ(countOf(svg, "<rect"), 100U);
  EXPECT_THAT(svg, HasSubstr(">and 900 more</text>"));
}

TEST(Chart, CutsALongNameBetweenCharactersAndKeepsItAsTheTitle) {
  std::string name;
  for (int i = 0; i < 40; ++i) {
    name += "\u00fc";
  }
  const std::string svg = chartOf(measured({headend(name, 10)}));
  EXPECT_TRUE(isWellFormed(svg));
  EXPECT_THAT(svg, HasSubstr("<title>" + name + ": answered"));
  EXPECT_THAT(svg, HasSubstr(">" + name.substr(0, 64) + "\u2026</text>"));
}

TEST(Chart, ShowsMarkupControlCharactersAndWrongUtf8OfNamesAsText) {
  HeadendResult both = headend(
      "<script>alert('&\"')</script>a\x1b\xff\n\uffff"
      "b",
      10);
  both.name = "<script>";
  const std::string svg = chartOf(measured({both}));
  EXPECT_TRUE(isWellFormed(svg));
  EXPECT_THAT(svg, Not(HasSubstr("<script")));
  EXPECT_THAT(svg, HasSubstr("&lt;script&gt;"));
  EXPECT_THAT(svg, HasSubstr("a\\x1b\\xff\\x0a\\xef\\xbf\\xbfb"));
}

TEST(ResultPage, ShowsMarkupInNamesAsTextEverywhere) {
  SelectionResult result = measured({headend("<b>gw</b>", 10)});
  result.results[0].name = "<script src='x'>";
  result.last = "</pre><script>";
  result.extraInfo = "<i>";
  const std::string page = pageOf(result, "<now>");
  for (const char* markup : {"<b>", "<script", "<i>", "<now>"}) {
    EXPECT_THAT(page, Not(HasSubstr(markup)));
  }
  EXPECT_THAT(page, HasSubstr("&lt;now&gt;"));
}

TEST(ResultPage, RanksWhatWasDeliveredListsTheRestAndHasAColumnForNamesWhereThereAreAny) {
  SelectionResult result =
      measured({headend("gw-a", 20, {20, 25}), headend("gw-b", 40), headend("gw-c", {})});
  result.results[0].probes.resize(1);
  result.results[0].probes[0].status = HTTP_SESSION_ERROR_TIMEOUT;
  std::string page = pageOf(result, "now");
  EXPECT_THAT(page, HasSubstr("<tr class=\"chosen\"><td class=\"n\">1</td><td>gw-a</td>"
                              "<td class=\"n\">20</td><td>20 25 (1 lost)</td>"));
  EXPECT_THAT(page, HasSubstr("<tr><td class=\"n\">2</td><td>gw-b</td>"));
  EXPECT_THAT(page, HasSubstr("<tr><td class=\"n\"></td><td>gw-c</td><td class=\"n\"></td>"
                              "<td></td><td>timed out</td>"));
  EXPECT_THAT(page, Not(HasSubstr("<th>name</th>")));
  result.results[1].name = "Bern";
  page = pageOf(result, "now");
  EXPECT_THAT(page, HasSubstr("<th>headend</th><th>name</th>"));
  EXPECT_THAT(page, HasSubstr("<td>gw-a</td><td></td>"));
  EXPECT_THAT(page, HasSubstr("<td>gw-b</td><td>Bern</td>"));
}
