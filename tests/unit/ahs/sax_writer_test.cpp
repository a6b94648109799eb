// The XML writer: what it writes, a parser reads back.

#include <gtest/gtest.h>

#include <string>

#include "vpn/Api/SaxWriterIfc.h"

TEST(SaxWriter, WritesNestedElementsOneALine) {
  SaxWriterIfc writer;
  writer.startElement("outer");
  writer.addAttribute("version", "1");
  writer.startElement("inner");
  writer.endElement();
  writer.endElement();
  std::string document;
  ASSERT_TRUE(writer.finish(document));
  EXPECT_EQ(document,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<outer version=\"1\">\n"
            " <inner/>\n"
            "</outer>\n");
}

TEST(SaxWriter, EscapesWhatHasAMeaningInXml) {
  SaxWriterIfc writer;
  writer.startElement("e");
  writer.addAttribute("a", "<>&\"'\n");
  std::string document;
  ASSERT_TRUE(writer.finish(document));
  EXPECT_NE(document.find("a=\"&lt;&gt;&amp;&quot;'&#10;\""), std::string::npos) << document;
}

TEST(SaxWriter, EndsElementsThatAreStillOpen) {
  SaxWriterIfc writer;
  writer.startElement("outer");
  writer.startElement("inner");
  std::string document;
  ASSERT_TRUE(writer.finish(document));
  EXPECT_NE(document.find("</outer>"), std::string::npos) << document;
}

TEST(SaxWriter, AnAttributeWithoutAnElementIsAnErrorThatLasts) {
  SaxWriterIfc writer;
  writer.addAttribute("a", "1");
  writer.startElement("e");
  std::string document = "untouched";
  EXPECT_FALSE(writer.finish(document));
  EXPECT_EQ(document, "untouched");
}
