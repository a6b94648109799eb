// The text form of the cache: what is right is read to the letter, what is wrong is refused whole.

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "vpn/Api/AHS/CacheDocument.h"

namespace {

using CacheDocument::Contents;
using CacheDocument::Entries;
using CacheDocument::Form;

/// Reads a text. @return what is wrong with it.
std::string parse(const std::string& text, Entries& entries) {
  Contents contents;
  contents.entries = entries;
  std::string problem;
  const Form form = CacheDocument::parse(text, contents, problem);
  EXPECT_EQ(form == Form::Right, problem.empty());
  entries = contents.entries;
  return problem;
}

const char* const RightSelection =
    "<selection place='nameserver 192.0.2.1' knownHeadends='gw-a;' stored='1700000000'>"
    "<headend name='gw-a' rtt='12'/></selection>";

std::string documentOf(const std::string& content) {
  return "<selectionCache version='1'>" + content + "</selectionCache>";
}

std::string selectionOf(const std::string& content) {
  return documentOf("<selection place='p' knownHeadends='k' stored='1'>" + content +
                    "</selection>");
}

/// A document of version 2 with one selection.
std::string usedAt(const std::string& time) {
  return "<selectionCache version='2'><selection place='p' knownHeadends='k' stored='7' used='" +
         time + "'><headend name='a' rtt='1'/></selection></selectionCache>";
}

std::string repeated(const std::string& text, unsigned int times) {
  std::string all;
  for (unsigned int i = 0; i < times; ++i) {
    all += text;
  }
  return all;
}

struct WrongDocument {
  const char* name;
  std::string text;
  /// Makes the text of a large one, which would cost every other test its time at the start.
  std::string (*make)() = nullptr;

  std::string whole() const { return make != nullptr ? make() : text; }
};

void PrintTo(const WrongDocument& document, std::ostream* out) { *out << document.name; }

}  // namespace

TEST(CacheDocument, ReadsASelection) {
  Entries entries;
  ASSERT_EQ(parse(documentOf(RightSelection), entries), "");
  ASSERT_EQ(entries.size(), 1U);
  const auto& [key, entry] = *entries.begin();
  EXPECT_EQ(key, CacheDocument::selectionKey("nameserver 192.0.2.1", "gw-a;"));
  EXPECT_EQ(entry.GetKnownHeadends(), "gw-a;");
  EXPECT_EQ(entry.GetTimestamp(), 1700000000UL);
  std::vector<CHeadendRTT> headends;
  entry.GetHeadendList(headends);
  ASSERT_EQ(headends.size(), 1U);
  EXPECT_EQ(headends[0].GetHeadend(), "gw-a");
  EXPECT_EQ(headends[0].GetRTT(), 12U);
}

TEST(CacheDocument, ReadsTheTimeOfTheLastUse) {
  Contents contents;
  std::string problem;
  ASSERT_EQ(CacheDocument::parse(usedAt("1700000000"), contents, problem), Form::Right) << problem;
  EXPECT_EQ(contents.uses,
            (CacheDocument::Uses{{CacheDocument::selectionKey("p", "k"), 1700000000UL}}));
}

TEST(CacheDocument, OfTheVersionBeforeHasNoTimeOfUse) {
  Contents contents;
  std::string problem;
  ASSERT_EQ(CacheDocument::parse(documentOf(RightSelection), contents, problem), Form::Right);
  EXPECT_EQ(contents.entries.size(), 1U);
  EXPECT_TRUE(contents.uses.empty());
}

TEST(CacheDocument, OfALaterVersionIsToldFromAWrongOneWhateverElseItHolds) {
  for (const std::string text :
       {"<selectionCache version='3'/>", "<selectionCache version='999' and='more'><new/>",
        "<?xml version='1.0'?><!-- later --><selectionCache version='3'><a>text</a></wrong>"}) {
    Contents contents;
    std::string problem;
    EXPECT_EQ(CacheDocument::parse(text, contents, problem), Form::Newer) << text;
    EXPECT_NE(problem.find("later than 2"), std::string::npos) << problem;
  }
}

TEST(CacheDocument, APlaceIsTheSameInAnyOrder) {
  EXPECT_EQ(CacheDocument::placeText({"search b", "nameserver 2", "nameserver 1", "search b"}),
            "nameserver 1 nameserver 2 search b");
  EXPECT_EQ(CacheDocument::placeText({}), "");
}

TEST(CacheDocument, PassesOverTheUseOfASelectionWithoutHeadends) {
  Contents contents;
  std::string problem;
  ASSERT_EQ(CacheDocument::parse("<selectionCache version='2'><selection place='p' "
                                 "knownHeadends='k' stored='7' used='8'/></selectionCache>",
                                 contents, problem),
            Form::Right);
  EXPECT_TRUE(contents.entries.empty());
  EXPECT_TRUE(contents.uses.empty());
}

TEST(CacheDocument, TakesTheWholeRangeOfMetrics) {
  Entries entries;
  ASSERT_EQ(parse(selectionOf("<headend name='a' rtt='0'/><headend name='b' rtt='4294967295'/>"),
                  entries),
            "");
  std::vector<CHeadendRTT> headends;
  entries.begin()->second.GetHeadendList(headends);
  EXPECT_EQ(headends[0].GetRTT(), 0U);
  EXPECT_EQ(headends[1].GetRTT(), 4294967295U);
}

TEST(CacheDocument, PassesOverASelectionWithoutHeadends) {
  Entries entries;
  EXPECT_EQ(parse(selectionOf(""), entries), "");
  EXPECT_TRUE(entries.empty());
}

TEST(CacheDocument, ReadsACandidateSetOfMegabytes) {
  Entries entries;
  const std::string key = repeated("gw&amp;;", 1000000);
  ASSERT_EQ(parse(documentOf("<selection place='p' knownHeadends='" + key +
                             "' stored='1'><headend name='a' rtt='1'/></selection>"),
                  entries),
            "");
  EXPECT_EQ(entries.begin()->second.GetKnownHeadends(), repeated("gw&;", 1000000));
}

TEST(CacheDocument, IsAsciiWhateverItSaysOfItself) {
  Entries entries;
  EXPECT_EQ(parse("<?xml version='1.0' encoding='UTF-7'?>" +
                      selectionOf("<headend name='+AGE-' rtt='1'/>"),
                  entries),
            "");
  std::vector<CHeadendRTT> headends;
  entries.begin()->second.GetHeadendList(headends);
  EXPECT_EQ(headends[0].GetHeadend(), "+AGE-");
}

TEST(CacheDocument, EveryTextSurvivesEncoding) {
  std::string text;
  for (int byte = 0; byte < 256; ++byte) {
    text += static_cast<char>(byte);
  }
  std::string decoded;
  ASSERT_TRUE(CacheDocument::decode(CacheDocument::encode(text), decoded));
  EXPECT_EQ(decoded, text);
  EXPECT_GE(CacheDocument::writtenSize(text), CacheDocument::encode(text).size());
}

TEST(CacheDocument, OneTextHasOneSpelling) {
  for (const std::string text : {"\\x41", "a b", "\\x0A", "a\x7f", "\xc3\xa4"}) {
    std::string decoded = "untouched";
    EXPECT_FALSE(CacheDocument::decode(text, decoded)) << text;
    EXPECT_EQ(decoded, "untouched");
  }
}

TEST(CacheDocument, NamesTheLineOfAnError) {
  Entries entries;
  EXPECT_EQ(parse("<selectionCache version='1'>\n\n<wrong/>\n</selectionCache>", entries),
            "line 3: wrong where a selection belongs");
}

TEST(CacheDocument, LeavesTheEntriesAloneWhenItIsWrong) {
  Entries entries;
  ASSERT_EQ(parse(documentOf(RightSelection), entries), "");
  EXPECT_NE(parse(documentOf(RightSelection + std::string("<wrong/>")), entries), "");
  EXPECT_EQ(entries.size(), 1U);
}

class WrongCacheDocument : public ::testing::TestWithParam<WrongDocument> {};

TEST_P(WrongCacheDocument, IsRefusedWhole) {
  Entries entries;
  EXPECT_NE(parse(GetParam().whole(), entries), "");
  EXPECT_TRUE(entries.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Of, WrongCacheDocument,
    ::testing::Values(
        WrongDocument{"nothing", ""}, WrongDocument{"noise", "\x7f\x45\x4c\x46 noise"},
        WrongDocument{"only zeros", std::string(4096, '\0')},
        WrongDocument{"half a file", documentOf(RightSelection).substr(0, 120)},
        WrongDocument{"two roots", documentOf("") + documentOf("")},
        WrongDocument{"another root", "<other version='1'/>"},
        WrongDocument{"no version", "<selectionCache/>"},
        WrongDocument{"a version of 0", "<selectionCache version='0'/>"},
        WrongDocument{"a version that is no number", "<selectionCache version='new'/>"},
        WrongDocument{"a version beyond all numbers", "<selectionCache version='99999999999'/>"},
        WrongDocument{"a version of no meaning", "<selectionCache version='5000'/>"},
        WrongDocument{"a time of use in version 1",
                      documentOf("<selection place='p' knownHeadends='k' stored='1' used='1'>"
                                 "<headend name='a' rtt='1'/></selection>")},
        WrongDocument{"a time of use of 0", usedAt("0")},
        WrongDocument{"a time of use after the year 9999", usedAt("253402300800")},
        WrongDocument{"a time of use that is no number", usedAt("today")},
        WrongDocument{"a document type", "<!DOCTYPE selectionCache>" + documentOf(RightSelection)},
        WrongDocument{"an entity bomb",
                      "<!DOCTYPE a [<!ENTITY b 'bbbbbbbbbb'><!ENTITY c '&b;&b;&b;&b;&b;&b;&b;'>]>" +
                          selectionOf("<headend name='&c;' rtt='1'/>")},
        WrongDocument{"an external entity",
                      "<!DOCTYPE a [<!ENTITY b SYSTEM 'file:///etc/hostname'>]>" +
                          selectionOf("<headend name='a' rtt='1'/>&b;")},
        WrongDocument{"an undeclared entity", selectionOf("<headend name='&b;' rtt='1'/>")},
        WrongDocument{"broken UTF-8", selectionOf("<headend name='\xc3\x28' rtt='1'/>")},
        WrongDocument{"an unknown element", documentOf("<other/>")},
        WrongDocument{"an unknown element in a selection", selectionOf("<other/>")},
        WrongDocument{"an element in a headend",
                      selectionOf("<headend name='a' rtt='1'><headend/></headend>")},
        WrongDocument{"deep nesting", "",
                      [] { return repeated("<selectionCache version='1'>", 100000); }},
        WrongDocument{"no place",
                      documentOf("<selection knownHeadends='k' stored='1'></selection>")},
        WrongDocument{"a place of two lines",
                      documentOf("<selection place='a&#10;b' knownHeadends='k' stored='1'/>")},
        WrongDocument{"a place that would be unreadable once written again",
                      documentOf("<selection place='a&#127;b' knownHeadends='k' stored='1'>"
                                 "<headend name='a' rtt='1'/></selection>")},
        WrongDocument{"a place of other characters than ASCII",
                      documentOf("<selection place='&#xfc;' knownHeadends='k' stored='1'>"
                                 "<headend name='a' rtt='1'/></selection>")},
        WrongDocument{"an escape where none is needed",
                      selectionOf("<headend name='\\x41' rtt='1'/>")},
        WrongDocument{"a blank in a headend name", selectionOf("<headend name='a b' rtt='1'/>")},
        WrongDocument{"no candidates", documentOf("<selection place='p' stored='1'></selection>")},
        WrongDocument{"no time stamp", documentOf("<selection place='p' knownHeadends='k'/>")},
        WrongDocument{"a time stamp of 0",
                      documentOf("<selection place='p' knownHeadends='k' stored='0'/>")},
        WrongDocument{"a negative time stamp",
                      documentOf("<selection place='p' knownHeadends='k' stored='-1'/>")},
        WrongDocument{"a time stamp beyond 64 bits",
                      documentOf("<selection place='p' knownHeadends='k'"
                                 " stored='99999999999999999999999'/>")},
        WrongDocument{"a time stamp after the year 9999",
                      documentOf("<selection place='p' knownHeadends='k' stored='253402300800'/>")},
        WrongDocument{"no headend name", selectionOf("<headend rtt='1'/>")},
        WrongDocument{"an empty headend name", selectionOf("<headend name='' rtt='1'/>")},
        WrongDocument{"an endless headend name",
                      selectionOf("<headend name='" + std::string(5000, 'a') + "' rtt='1'/>")},
        WrongDocument{"half an escape", selectionOf("<headend name='a\\x4' rtt='1'/>")},
        WrongDocument{"a wrong escape", selectionOf("<headend name='a\\n12' rtt='1'/>")},
        WrongDocument{"an escape that is no number",
                      selectionOf("<headend name='\\xzz' rtt='1'/>")},
        WrongDocument{"no metric", selectionOf("<headend name='a'/>")},
        WrongDocument{"a negative metric", selectionOf("<headend name='a' rtt='-1'/>")},
        WrongDocument{"a metric beyond 32 bits",
                      selectionOf("<headend name='a' rtt='4294967296'/>")},
        WrongDocument{"a metric with a unit", selectionOf("<headend name='a' rtt='12ms'/>")},
        WrongDocument{"a metric with a blank", selectionOf("<headend name='a' rtt=' 12'/>")},
        WrongDocument{"an attribute of no meaning",
                      selectionOf("<headend name='a' rtt='1' jitter='2'/>")},
        WrongDocument{"a namespace", selectionOf("<headend xmlns='n' name='a' rtt='1'/>")},
        WrongDocument{"a prefix", selectionOf("<xml:headend name='a' rtt='1'/>")},
        WrongDocument{"a processing instruction", documentOf("<?a b?>")},
        WrongDocument{"UTF-16", std::string("\xff\xfe<\0s\0/\0>\0", 10)},
        WrongDocument{"the same attribute twice",
                      selectionOf("<headend name='a' name='b' rtt='1'/>")},
        WrongDocument{"the same candidates twice",
                      documentOf(std::string(RightSelection) + RightSelection)},
        WrongDocument{"too many selections",
                      [] {
                        std::string all;
                        for (int i = 0; i < 65; ++i) {
                          all += "<selection place='p' knownHeadends='" + std::to_string(i) +
                                 "' stored='1'><headend name='a' rtt='1'/></selection>";
                        }
                        return documentOf(all);
                      }()},
        WrongDocument{"too many headends", "",
                      [] { return selectionOf(repeated("<headend name='a' rtt='1'/>", 100001)); }},
        WrongDocument{"names without number", "", [] {
                        std::string all;
                        for (int i = 0; i < 2000000; ++i) {
                          all += "<?a" + std::to_string(i) + "?>";
                        }
                        return documentOf(all);
                      }},
        WrongDocument{"names without number after an error", "", [] {
                        std::string all = "</wrong>";
                        for (int i = 0; i < 2000000; ++i) {
                          all += "<a" + std::to_string(i) + "/>";
                        }
                        return documentOf(all);
                      }},
        WrongDocument{"a tag without an end in another encoding", "", [] {
                        std::string tag = "<?xml version='1.0' encoding='UTF-7'?><headend";
                        for (int i = 0; i < 200000; ++i) {
                          tag += "+ACA-a" + std::to_string(i) + "=''";
                        }
                        return tag + "/>";
                      }},
        WrongDocument{"a tag without an end", "", [] {
                        std::string tag = "<headend";
                        for (int i = 0; i < 200000; ++i) {
                          tag += " a" + std::to_string(i) + "=''";
                        }
                        return selectionOf(tag + "/>");
                      }}));
