// The text of a cached selection, which may come from anyone.

#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <string>

#include "vpn/Api/AHS/SelectionFiles.h"

namespace tests {
namespace {

constexpr const char* Right = "<candidate name='gw-a'/><result name='gw-a' rtt='12'/>";

std::string documentOf(const std::string& contents) {
  return "<selection place='nameserver 192.0.2.1' stored='1700000000'>" + contents + "</selection>";
}

std::string repeated(const std::string& text, std::size_t count) {
  std::string all;
  for (std::size_t i = 0; i < count; ++i) {
    all += text;
  }
  return all;
}

struct Wrong {
  const char* name;
  std::string text;
};

void PrintTo(const Wrong& wrong, std::ostream* out) { *out << wrong.name; }

}  // namespace

TEST(SelectionText, IsRead) {
  SelectionFiles::Selection selection;
  std::string problem;
  ASSERT_TRUE(SelectionFiles::parse(
      documentOf("<candidate name='gw-b'/><candidate name='gw-a'/>\n <result name='gw-a' rtt='0'/>"
                 "<result name='&lt;b&#38;' rtt='4294967295'/>"),
      selection, problem))
      << problem;
  EXPECT_EQ(selection.place, "nameserver 192.0.2.1");
  EXPECT_EQ(selection.entry.GetKnownHeadends(), "gw-b;gw-a;");
  EXPECT_EQ(selection.entry.GetTimestamp(), 1700000000UL);
  std::vector<CHeadendRTT> results;
  selection.entry.GetHeadendList(results);
  ASSERT_EQ(results.size(), 2U);
  EXPECT_EQ(results[0].GetRTT(), 0U);
  EXPECT_EQ(results[1].GetHeadend(), "<b&");
  EXPECT_EQ(results[1].GetRTT(), 4294967295U);
}

TEST(SelectionText, OfALargeNetworkIsRead) {
  SelectionFiles::Selection selection;
  std::string problem;
  ASSERT_TRUE(SelectionFiles::parse(documentOf(repeated(Right, 100000)), selection, problem))
      << problem;
  EXPECT_EQ(selection.entry.GetListSize(), 100000U);
}

TEST(SelectionText, ThatIsWrongIsToldByItsLine) {
  SelectionFiles::Selection selection;
  std::string problem;
  EXPECT_FALSE(
      SelectionFiles::parse(documentOf(std::string(Right) + "\n\n<x/>"), selection, problem));
  EXPECT_EQ(problem, "is no selection of the cache, see line 3");
}

class WrongSelectionText : public ::testing::TestWithParam<Wrong> {};

TEST_P(WrongSelectionText, IsRefusedWhole) {
  SelectionFiles::Selection selection;
  selection.place = "untouched";
  std::string problem;
  EXPECT_FALSE(SelectionFiles::parse(GetParam().text, selection, problem));
  EXPECT_NE(problem, "");
  EXPECT_EQ(selection.place, "untouched");
}

std::string counted(const std::string& before, const std::string& after, int count) {
  std::string all;
  for (int i = 0; i < count; ++i) {
    all += before + std::to_string(i) + after;
  }
  return all;
}

std::string rooted(const std::string& attributes) {
  return "<selection " + attributes + ">" + Right + "</selection>";
}

INSTANTIATE_TEST_SUITE_P(
    Of, WrongSelectionText,
    ::testing::Values(
        Wrong{"nothing", ""}, Wrong{"noise", "\x7f\x45\x4c\x46 noise"},
        Wrong{"only zeros", std::string(4096, '\0')},
        Wrong{"half a file", documentOf(Right).substr(0, 120)},
        Wrong{"two roots", documentOf(Right) + documentOf(Right)},
        Wrong{"another root", "<selectionCache version='2'/>"}, Wrong{"no result", documentOf("")},
        Wrong{"a document type", "<!DOCTYPE selection>" + documentOf(Right)},
        Wrong{"an entity bomb",
              "<!DOCTYPE a [<!ENTITY b 'bbbbbbbbbb'><!ENTITY c '&b;&b;&b;&b;&b;&b;&b;'>]>" +
                  documentOf("<result name='&c;' rtt='1'/>")},
        Wrong{"an external entity", "<!DOCTYPE a [<!ENTITY b SYSTEM 'file:///etc/hostname'>]>" +
                                        documentOf(std::string(Right) + "&b;")},
        Wrong{"an undeclared entity", documentOf("<result name='&b;' rtt='1'/>")},
        Wrong{"broken UTF-8", documentOf("<result name='\xc3\x28' rtt='1'/>")},
        Wrong{"UTF-16", std::string("\xff\xfe<\0s\0/\0>\0", 10)},
        Wrong{"text", documentOf(std::string(Right) + "text")},
        Wrong{"a processing instruction", documentOf(std::string(Right) + "<?a b?>")},
        Wrong{"an unknown element", documentOf(std::string(Right) + "<other/>")},
        Wrong{"an element in an element",
              documentOf("<result name='a' rtt='1'><result name='a' rtt='1'/></result>")},
        Wrong{"deep nesting", repeated("<selection place='p' stored='1'>", 100000)},
        Wrong{"no place", rooted("stored='1'")}, Wrong{"no time stamp", rooted("place='p'")},
        Wrong{"a time stamp of 0", rooted("place='p' stored='0'")},
        Wrong{"a negative time stamp", rooted("place='p' stored='-1'")},
        Wrong{"a time stamp beyond 64 bits", rooted("place='p' stored='99999999999999999999999'")},
        Wrong{"a time stamp after the year 9999", rooted("place='p' stored='253402300800'")},
        Wrong{"an attribute of no meaning", rooted("place='p' stored='1' used='1'")},
        Wrong{"no name", documentOf("<result rtt='1'/>")},
        Wrong{"an empty name", documentOf("<result name='' rtt='1'/>")},
        Wrong{"a candidate without a name", documentOf(std::string(Right) + "<candidate/>")},
        Wrong{"an endless name",
              documentOf("<result name='" + std::string(50000, 'a') + "' rtt='1'/>")},
        Wrong{"no metric", documentOf("<result name='a'/>")},
        Wrong{"a negative metric", documentOf("<result name='a' rtt='-1'/>")},
        Wrong{"a metric beyond 32 bits", documentOf("<result name='a' rtt='4294967296'/>")},
        Wrong{"a metric with a unit", documentOf("<result name='a' rtt='12ms'/>")},
        Wrong{"a namespace", documentOf("<result xmlns='n' name='a' rtt='1'/>")},
        Wrong{"a prefix", documentOf("<xml:result name='a' rtt='1'/>")},
        Wrong{"the same attribute twice", documentOf("<result name='a' name='b' rtt='1'/>")},
        Wrong{"names without number", documentOf(counted("<?a", "?>", 1000000))},
        Wrong{"names without number after an error", "</wrong>" + counted("<a", "/>", 1000000)},
        Wrong{"a tag without an end", documentOf("<result" + counted(" a", "=''", 200000) + "/>")},
        Wrong{"the same in another encoding", "<?xml version='1.0' encoding='UTF-7'?><result" +
                                                  counted("+ACA-a", "=''", 200000) + "/>"}));

}  // namespace tests
