// Profiles as people write them, right and wrong: what is read from the file, and the messages.

#include "tests/unit/api/api_fixture.h"
#include "vpn/Common/Utility/URL.h"

namespace tests {
namespace {

using Texts = std::vector<std::string>;
using testing::ElementsAre;
using testing::StartsWith;

class ProfileFileTest : public FileTest {};

}  // namespace

TEST_F(ProfileFileTest, AnEntryIsTakenAsItIsWrittenOrLeftOutWithTheReason) {
  const std::string longest(MaxHostNameLength, 'n');
  const std::string badAddress = URL::findError("gw ams").substr(0, 20);
  // An entry stands in line 4 of the file.
  const auto expect = [this](const char* name, const std::string& hosts, const Texts& taken,
                             const Texts& told) {
    SCOPED_TRACE(name);
    const Reading reading = read(profileWithHosts(hosts));
    EXPECT_TRUE(reading.usable);
    EXPECT_EQ(reading.Hosts(), taken);
    EXPECT_THAT(reading.problems,
                Tell(told.empty() ? std::vector<Told>{} : std::vector<Told>{{4, told}}));
  };
  expect("without a name", R"(<host address="g"/>)", {}, {"without \"name\"", "is left out"});
  expect("empty name", R"(<host name="" address="g"/>)", {}, {"\"\"", "not blanks alone"});
  expect("blank name and address", R"(<host name="  " address="&#9;"/>)", {},
         {"\"  \"", "must be 1 to 255 bytes", "not blanks alone", "left out"});
  expect("wrong among right ones", "<host/>\n<host name=\"a\"/>", {"a"}, {"without"});
  expect("blank inside the address", R"(<host name="Amsterdam" address="gw ams"/>)", {},
         {"\"Amsterdam\" is left out", "address \"gw ams\"", badAddress});
  expect("wrong port", R"(<host name="a" address="gw:70000"/>)", {}, {"\"a\"", "\"gw:70000\""});
  expect("path alone", R"(<host name="a" address="/path"/>)", {}, {"\"a\"", "\"/path\""});
  expect("empty address counts as none", R"(<host name="gw" address=""/>)", {"gw"}, {});
  expect("blank address counts as none", R"(<host name="gw" address=" &#10; &#13;"/>)", {"gw"}, {});
  expect("a name that stands for the address must be one", R"(<host name="Paris office"/>)", {},
         {"\"Paris office\"", "no address"});
  expect("line feed in the name", R"(<host name="a&#10;b" address="g"/>)", {}, {"a\\x0ab"});
  expect("delete in the name", "<host name=\"a\x7F\" address=\"g\"/>", {}, {"a\\x7f"});
  expect("C1 in the name", "<host name=\"a\xC2\x9B\" address=\"g\"/>", {}, {"a\\xc2\\x9b"});
  expect("255 bytes", "<host name=\"" + longest + "\" address=\"g\"/>", {longest + " @ g"}, {});
  expect("256 bytes", "<host name=\"" + longest + "n\" address=\"g\"/>", {}, {"1 to 255 bytes"});
  expect("misspelt address, for the name is another gateway",
         R"(<host name="amsterdam" adress="gw-ams"/>)", {},
         {"\"adress\"", "<host>", "\"name\", \"address\", \"probe\"", "did you mean \"address\"?"});
  expect("address as an element, for the name is another gateway",
         R"(<host name="gw8"><address>real</address></host>)", {},
         {"<address> inside <host>", "as an attribute", "the entry is left out"});
  expect("nothing but blanks inside", "<host name=\"b\"> <!-- --> </host>", {"b"}, {});
  expect("probes", R"(<host name="a" probe="openvpn" probe-port="1194"/>)", {"a"}, {});
  expect("unknown probe", R"(<host name="a" probe="openvpm"/>)", {},
         {"\"openvpm\"", "did you mean \"openvpn\"?", "the entry is left out"});
  expect("wrong probe port", R"(<host name="a" probe-port="65536"/>)", {},
         {"\"65536\"", "must be a number from 1 to 65535", "left out"});
  expect("hyphen", R"(<host name="a" address="-oProxy"/>)", {}, {"begins with \"-\""});
  expect("hyphen of the name", R"(<host name="-oProxy"/>)", {}, {"begins with \"-\""});
  expect("text beside", "Amsterdam<host name=\"a\"/>", {"a"}, {"<hosts>", "\"Amsterdam\""});
  expect("text inside", "<host name=\"b\">gw</host>", {},
         {"<host>", "\"gw\"", "the entry is left out"});
  expect("CDATA inside", "<host name=\"c\"><![CDATA[gw]]></host>", {}, {"<host>", "\"gw\""});
  expect("misspelt element", "<hsot name=\"a\"/>", {},
         {"<hsot>", "inside <hosts>", "did you mean <host>?"});
  expect(
      "any language, byte for byte",
      R"(<host name="Zürich" address="g"/><host name="東京" address="g"/><host name="zürich" address="g"/>)",
      {"Zürich @ g", "東京 @ g", "zürich @ g"}, {});
  expect("references are decoded once",
         R"(<host name="R&amp;D" address="gw/?a&amp;b&#38;c&amp;#38;d&lt;"/>)",
         {"R&D @ gw/?a&b&c&#38;d<"}, {});
}

TEST_F(ProfileFileTest, ThePreferencesOfAProfileAreItsSwitchAndWhatIsWrongIsTold) {
  const std::string on = R"(value="true")";
  const auto expect = [this](const char* name, const std::string& preferences,
                             const std::string& value, const Texts& told) {
    SCOPED_TRACE(name);
    const Reading reading = read(profileText("<preferences>\n" + preferences + "</preferences>"));
    EXPECT_EQ(reading.Value(EnableAutomaticServerSelection), value);
    EXPECT_EQ(reading.profile.preferences.all().size(), value == "unset" ? 0U : 1U);
    EXPECT_THAT(reading.problems,
                Tell(told.empty() ? std::vector<Told>{} : std::vector<Told>{{4, told}}));
  };
  expect("the user has no control unless it is written", switchElement(on), "true", {});
  expect("the user has control", switchElement(on + R"( user-controllable="true")"), "true uc", {});
  expect("any control but true is none", switchElement(on + R"( user-controllable="yes")"), "true",
         {"\"yes\"", "counts as if it were not there"});
  expect("an unknown attribute is no matter", switchElement(on + R"( user-controlable="true")"),
         "true", {"did you mean \"user-controllable\"?"});
  expect("a wrong value stays as it is written",
         switchElement(R"(value="True" user-controllable="true")"), "True uc",
         {"\"True\"", "\"true\" or \"false\"", "did you mean \"true\"?"});
  expect("the first one counts", switchElement(on) + switchElement(R"(value="false")"), "true",
         {"already in line 4"});
  expect("without a name", R"(<preference value="true"/>)", "unset", {"without \"name\""});
  expect("without a value", switchElement(""), "unset", {"without \"value\""});
  expect("another case", preferenceElement("enableautomaticserverselection", "true"), "unset",
         {"did you mean \"EnableAutomaticServerSelection\"?"});
  expect("far from any name", preferenceElement("Colour", "true"), "unset",
         {"\"Colour\"", "allowed here: \"EnableAuto", "!did you mean"});
  expect("one of the preferences file", preferenceElement("ProxyHost", "proxy"), "unset",
         {"\"ProxyHost\"", "a preferences file"});
}

TEST_F(ProfileFileTest, AFileIsUsedOrSkippedAsAWholeWithThePlaceAndWhatToDo) {
  const auto expect = [this](const char* name, const std::string& text, bool usable,
                             const Texts& taken, const std::vector<Told>& told) {
    SCOPED_TRACE(name);
    const Reading reading = read(text);
    EXPECT_EQ(reading.usable, usable);
    EXPECT_EQ(reading.Hosts(), taken);
    EXPECT_THAT(reading.problems, Tell(told));
  };
  expect("empty profile", R"(<profile version="1"/>)", true, {}, {});
  expect("hosts before preferences and in several groups",
         profileText(
             "<hosts><host name=\"a\"/></hosts><preferences/><hosts><host name=\"b\"/></hosts>"),
         true, {"a", "b"}, {});
  expect("byte order mark and comments",
         "\xEF\xBB\xBF<!-- ours --><profile version=\"1\"><!-- none yet --></profile>", true, {},
         {});
  expect("misspelt group, with all that is in it",
         profileText("<Hosts><host name=\"a\"/></Hosts><hosts><host name=\"c\"/></hosts>"), true,
         {"c"}, {{3, {"<Hosts>", "did you mean <hosts>?"}}});
  expect(
      "another declared encoding is not believed",
      R"(<?xml version="1.0" encoding="UTF-16"?><profile version="1"><hosts><host name="ü" address="g"/></hosts></profile>)",
      true, {"ü @ g"}, {});
  expect("namespace declaration", R"(<profile version="1" xmlns="urn:x"/>)", true, {},
         {{1, {"\"xmlns\"", "\"version\""}}});
  expect("no version", R"(<profile><hosts><host name="a"/></hosts></profile>)", true, {"a"},
         {{1, {"<profile version=\"1\">"}}});
  expect("another version", R"(<profile version="2"><hosts><host name="a"/></hosts></profile>)",
         false, {}, {{1, {"\"2\"", "file is skipped", "!did you mean"}}});
  expect("another outermost element", "\n<preferences version=\"1\"/>", false, {},
         {{2, {"<preferences>", "<profile>"}}});
  expect("crossed tags",
         "<profile version=\"1\">\n<hosts>\n<host name=\"a\"/>\n<host name=\"b\">\n</hosts>", false,
         {}, {{5, {"not well-formed XML", "host"}}});
  expect("open tag", "<profile version=\"1\">\n<hosts>\n", false, {},
         {{3, {"end of data in tag hosts"}}});
  expect("two roots", "<profile version=\"1\"/>\n<hosts/>", false, {},
         {{2, {"content at the end"}}});
  expect("no quotation mark", "<profile version=1/>", false, {}, {{1, {"a quotation mark"}}});
  expect("no value", "<profile version/>", false, {}, {{1, {"value for attribute version"}}});
  expect("open quotation", "<profile version=\"1/>\n<hosts/>", false, {},
         {{2, {"the closing quotation mark before it is missing"}}});
  expect("quotation closed by the next",
         R"(<profile version="1"><host name="Zürich address="x"/></profile>)", false, {},
         {{1, {"a quotation mark, a blank"}}});
  expect("bare ampersand", "<profile version=\"R&D\"/>", false, {}, {{1, {"written as &lt;"}}});
  expect("attribute twice", R"(<profile version="1" version="1"/>)", false, {},
         {{1, {"version redefined"}}});
  expect("prefix", R"(<profile version="1"><x:hosts/></profile>)", false, {},
         {{1, {"prefix x on hosts"}}});
  expect("hyphens", R"(<profile version="1"><!-- a -- b --></profile>)", false, {},
         {{1, {"within comment"}}});
  expect("control", "<profile version=\"1\">\x01</profile>", false, {}, {{1, {"not well-formed"}}});
  expect("no XML", "profile", false, {}, {{1, {"Start tag expected"}}});
}

TEST_F(ProfileFileTest, AMistakeIsToldWithThePlaceWhereTheTagAttributeOrTextBegins) {
  const Reading reading = read(
      "\xEF\xBB\xBF<profile version='1'>\n"
      "\t<hosts>\n"
      "  <host name=\"Zürich\" adress=\"gw\"/><hsot/>\n"
      "  <host\n"
      "      name=\"a name&#61;b\"\n"
      "      address='g w'/> text\n"
      "  <host name='東京'/><host address=\"name\" />\r\n"
      "  <host name=\"b\"><![CDATA[in]]></host>\n"
      "  </hosts></profile>");
  Texts places;
  for (const FileProblem& problem : reading.problems) {
    places.push_back(std::to_string(problem.line) + ":" + std::to_string(problem.column) + " " +
                     problem.text.substr(0, 12));
  }
  EXPECT_THAT(places, ElementsAre("3:23 unknown attr", "3:36 unknown elem", "6:7 the host ent",
                                  "6:23 text inside ", "7:20 a <host> wit", "8:18 text inside "));
}

TEST_F(ProfileFileTest, AMistakeIsToldWithWhatItCostsAndTheMeantNameBeforeTheAllowedOnes) {
  const Reading reading =
      read(profileText("<preferences>\n"
                       "<preference name=\"EnableAutomaticServerSelektion\" value=\"true\"/>\n" +
                       switchElement("value=\"ture\"") +
                       "<preference name=\"SelectionImprovement\" value=\"x\"/>\n"
                       "<preference name=\"RoundTripTime\" value=\"x\"/>\n"
                       "</preferences>\n<host/>"));
  Texts texts;
  for (const FileProblem& problem : reading.problems) {
    texts.push_back(problem.text);
  }
  EXPECT_THAT(
      texts,
      ElementsAre(
          StartsWith("unknown preference \"EnableAutomaticServerSelektion\" is ignored (did you "
                     "mean \"EnableAutomaticServerSelection\"?); allowed here: \"Enable"),
          "the value \"ture\" of EnableAutomaticServerSelection (did you mean \"true\"?) must be "
          "\"true\" or \"false\"; it counts as \"false\"",
          "the value \"x\" of SelectionImprovement must be a whole number from 0 to 1000 "
          "(percent); it counts as \"20\"",
          "the value \"x\" of RoundTripTime must be \"auto\", \"network\" or \"response\"; it "
          "is left out",
          "unknown element <host> inside <profile> is passed over (did you mean <hosts>?); allowed "
          "here: <preferences>, <hosts>"));
}

TEST_F(ProfileFileTest, EntriesWithAMistakeAreKeptAsideWithTheReason) {
  const Reading reading = read(profileWithHosts(
      R"(<host name="a" address="g w"/><host name="b" adress="gw"/><host name="c"><address/></host>)"));
  Texts leftOut;
  for (const auto& entry : reading.profile.leftOut) {
    leftOut.push_back(entry.name + ": " + entry.reason);
  }
  EXPECT_THAT(leftOut, ElementsAre(testing::HasSubstr("a: its address \"g w\" cannot be used"),
                                   "b: it has a mistake", "c: it has a mistake"));
}

TEST_F(ProfileFileTest, AFileOfEitherKindIsToldByItsOutermostElement) {
  const auto readAny = [&](const std::string& text) {
    return readAs(ConfigurationKind::Unknown, m_directory.Write("p", text));
  };
  EXPECT_TRUE(readAny(profileText("")).usable);
  EXPECT_TRUE(readAny(preferencesText("")).usable);
  EXPECT_THAT(readAny("<profil/>").problems,
              Tell({{1, {"<profil>", "<profile>, <preferences>", "did you mean <profile>?"}}}));
}

TEST_F(ProfileFileTest, LinesBeyondSixteenBitsAreCountedRight) {
  const Reading reading =
      read(profileWithHosts(times("<!-- -->\n", 70000) + "<host name=\"a\"/><host/>"));
  ASSERT_THAT(reading.Hosts(), ElementsAre("a"));
  EXPECT_EQ(reading.profile.hosts[0].line, 70004U);
  EXPECT_THAT(reading.problems, Tell({{70004, {"without \"name\""}}}));
}

TEST_F(ProfileFileTest, AFileThatCannotBeUsedLeavesTheResultAlone) {
  ProfileFile profile;
  profile.hosts.push_back({"before", "", 0, 0});
  profile.preferences.set(Preference(SelectionImprovement, "7", false));
  std::vector<FileProblem> problems(1);
  EXPECT_FALSE(readConfigurationFile(m_directory.Write("p.xml", profileWithHosts("<")),
                                     ConfigurationKind::Profile, profile, problems));
  EXPECT_EQ(profile.hosts.size(), 1U);
  EXPECT_EQ(profile.preferences.all().size(), 1U);
  EXPECT_EQ(problems.size(), 2U);
}

TEST_F(ProfileFileTest, AProblemReadsAsFileLineColumnAndTextInOneLine) {
  EXPECT_EQ((FileProblem{"a\nb.xml", 7, 3, "is empty"}.toString()), "a\\x0ab.xml:7:3: is empty");
  EXPECT_EQ((FileProblem{"a.xml", 0, 0, "is empty"}.toString()), "a.xml: is empty");
  const std::string missing = m_directory.File("none.xml");
  EXPECT_EQ(readProfile(missing).problems.at(0).file, missing);
  EXPECT_THAT(readProfile(missing).problems, Tell({{0, {"No such file or directory"}}}));
}

}  // namespace tests
