// The text of a cached selection, which may come from anyone.

#include <gtest/gtest.h>

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

TEST(SelectionText, ThatIsWrongIsRefusedWhole) {
  const auto expectRefused = [](const char* name, const std::string& text) {
    SCOPED_TRACE(name);
    SelectionFiles::Selection selection;
    selection.place = "untouched";
    std::string problem;
    EXPECT_FALSE(SelectionFiles::parse(text, selection, problem));
    EXPECT_NE(problem, "");
    EXPECT_EQ(selection.place, "untouched");
  };
  expectRefused("nothing", "");
  expectRefused("noise", "\x7f\x45\x4c\x46 noise");
  expectRefused("only zeros", std::string(4096, '\0'));
  expectRefused("half a file", documentOf(Right).substr(0, 120));
  expectRefused("two roots", documentOf(Right) + documentOf(Right));
  expectRefused("another root", "<selectionCache version='2'/>");
  expectRefused("no result", documentOf(""));
  expectRefused("a document type", "<!DOCTYPE selection>" + documentOf(Right));
  expectRefused("an entity bomb",
                "<!DOCTYPE a [<!ENTITY b 'bbbbbbbbbb'><!ENTITY c '&b;&b;&b;&b;&b;&b;&b;'>]>" +
                    documentOf("<result name='&c;' rtt='1'/>"));
  expectRefused("an external entity", "<!DOCTYPE a [<!ENTITY b SYSTEM 'file:///etc/hostname'>]>" +
                                          documentOf(std::string(Right) + "&b;"));
  expectRefused("an undeclared entity", documentOf("<result name='&b;' rtt='1'/>"));
  expectRefused("broken UTF-8", documentOf("<result name='\xc3\x28' rtt='1'/>"));
  expectRefused("UTF-16", std::string("\xff\xfe<\0s\0/\0>\0", 10));
  expectRefused("text", documentOf(std::string(Right) + "text"));
  expectRefused("a processing instruction", documentOf(std::string(Right) + "<?a b?>"));
  expectRefused("an unknown element", documentOf(std::string(Right) + "<other/>"));
  expectRefused("an element in an element",
                documentOf("<result name='a' rtt='1'><result name='a' rtt='1'/></result>"));
  expectRefused("deep nesting", repeated("<selection place='p' stored='1'>", 100000));
  expectRefused("no place", rooted("stored='1'"));
  expectRefused("no time stamp", rooted("place='p'"));
  expectRefused("a time stamp of 0", rooted("place='p' stored='0'"));
  expectRefused("a negative time stamp", rooted("place='p' stored='-1'"));
  expectRefused("a time stamp beyond 64 bits",
                rooted("place='p' stored='99999999999999999999999'"));
  expectRefused("a time stamp after the year 9999", rooted("place='p' stored='253402300800'"));
  expectRefused("an attribute of no meaning", rooted("place='p' stored='1' used='1'"));
  expectRefused("no name", documentOf("<result rtt='1'/>"));
  expectRefused("an empty name", documentOf("<result name='' rtt='1'/>"));
  expectRefused("a candidate without a name", documentOf(std::string(Right) + "<candidate/>"));
  expectRefused("an endless name",
                documentOf("<result name='" + std::string(50000, 'a') + "' rtt='1'/>"));
  expectRefused("no metric", documentOf("<result name='a'/>"));
  expectRefused("a negative metric", documentOf("<result name='a' rtt='-1'/>"));
  expectRefused("a metric beyond 32 bits", documentOf("<result name='a' rtt='4294967296'/>"));
  expectRefused("a metric with a unit", documentOf("<result name='a' rtt='12ms'/>"));
  expectRefused("a namespace", documentOf("<result xmlns='n' name='a' rtt='1'/>"));
  expectRefused("a prefix", documentOf("<xml:result name='a' rtt='1'/>"));
  expectRefused("the same attribute twice", documentOf("<result name='a' name='b' rtt='1'/>"));
  expectRefused("names without number", documentOf(counted("<?a", "?>", 1000000)));
  expectRefused("names without number after an error", "</wrong>" + counted("<a", "/>", 1000000));
  expectRefused("a tag without an end",
                documentOf("<result" + counted(" a", "=''", 200000) + "/>"));
  expectRefused("the same in another encoding", "<?xml version='1.0' encoding='UTF-7'?><result" +
                                                    counted("+ACA-a", "=''", 200000) + "/>");
}

}  // namespace tests
