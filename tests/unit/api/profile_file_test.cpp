// Profiles as people write them, right and wrong: what is taken from the file, and what the person
// is told.

#include "tests/unit/api/api_fixture.h"
#include "vpn/Common/Utility/URL.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using tests::ProblemAt;
using tests::ProfileReading;
using tests::profileText;
using tests::profileWithHosts;
using tests::TemporaryDirectory;
using Pieces = std::vector<std::string>;

namespace {

class ProfileFileTest : public testing::Test {
 protected:
  ProfileReading read(const std::string& contents) {
    return tests::readProfile(m_directory.Write("profile.xml", contents));
  }

  TemporaryDirectory m_directory;
};

Preference* switchOf(const ProfileFile& profile) {
  Preference* preference = nullptr;
  profile.preferences.getPreference(EnableAutomaticServerSelection, preference);
  return preference;
}

}  // namespace

TEST_F(ProfileFileTest, NamesAddressesLinesAndPreferencesAreRead) {
  const ProfileReading reading = read(
      "<profile version=\"1\">\n"
      "  <preferences>\n"
      "    <preference name=\"EnableAutomaticServerSelection\" value=\"true\" "
      "user-controllable=\"true\"/>\n"
      "  </preferences>\n"
      "  <hosts>\n"
      "    <host name=\"Amsterdam\" address=\"gw-ams.example.com:8443\"/>\n"
      "    <host name=\"gw-par.example.com\"/>\n"
      "  </hosts>\n"
      "</profile>\n");
  EXPECT_TRUE(reading.usable);
  EXPECT_THAT(reading.problems, IsEmpty());
  ASSERT_THAT(reading.profile.hosts, SizeIs(2));
  EXPECT_EQ(reading.profile.hosts[0].name, "Amsterdam");
  EXPECT_EQ(reading.profile.hosts[0].address, "gw-ams.example.com:8443");
  EXPECT_EQ(reading.profile.hosts[0].line, 6U);
  EXPECT_EQ(reading.profile.hosts[1].address, "");
  EXPECT_EQ(reading.profile.hosts[1].line, 7U);
  ASSERT_NE(switchOf(reading.profile), nullptr);
  EXPECT_EQ(switchOf(reading.profile)->getPreferenceValue(), PreferenceBase::PreferenceEnabled);
  EXPECT_TRUE(switchOf(reading.profile)->isUserControllable());
}

TEST_F(ProfileFileTest, UserControllableIsFalseUnlessItIsWritten) {
  const ProfileReading reading = read(profileWithHosts(""));
  ASSERT_NE(switchOf(reading.profile), nullptr);
  EXPECT_FALSE(switchOf(reading.profile)->isUserControllable());
}

TEST_F(ProfileFileTest, AProfileWithoutAnythingInItIsAProfile) {
  const ProfileReading reading = read("<profile version=\"1\"/>");
  EXPECT_TRUE(reading.usable);
  EXPECT_THAT(reading.problems, IsEmpty());
  EXPECT_EQ(switchOf(reading.profile), nullptr);
}

TEST_F(ProfileFileTest, HostsMayStandBeforePreferencesAndInSeveralGroups) {
  const ProfileReading reading = read(profileText(
      "<hosts><host name=\"a\"/></hosts><preferences/><hosts><host name=\"b\"/></hosts>"));
  EXPECT_THAT(reading.problems, IsEmpty());
  EXPECT_THAT(tests::hostNames(reading.profile), ElementsAre("a", "b"));
}

TEST_F(ProfileFileTest, CommentsAndAByteOrderMarkAreNoMatter) {
  const ProfileReading reading =
      read("\xEF\xBB\xBF<!-- ours --><profile version=\"1\"><!-- none yet --></profile>");
  EXPECT_TRUE(reading.usable);
  EXPECT_THAT(reading.problems, IsEmpty());
}

TEST_F(ProfileFileTest, AMistakeIsToldWithThePlaceWhereTheTagAttributeOrTextBegins) {
  const ProfileReading reading = read(
      "\xEF\xBB\xBF<profile version='1'>\n"
      "\t<hosts>\n"
      "  <host name=\"Zürich\" adress=\"gw\"/><hsot/>\n"
      "  <host\n"
      "      name=\"a name&#61;b\"\n"
      "      address='g w'/> text\n"
      "  <host name='东京'/><host address=\"name\" />\r\n"
      "  <host name=\"b\"><![CDATA[in]]></host>\n"
      "  </hosts></profile>");
  std::vector<std::string> places;
  for (const FileProblem& problem : reading.problems) {
    places.push_back(std::to_string(problem.line) + ":" + std::to_string(problem.column) + " " +
                     problem.text.substr(0, 12));
  }
  EXPECT_THAT(places, ElementsAre("3:23 unknown attr", "3:36 unknown elem", "6:7 the host ent",
                                  "6:23 text inside ", "7:20 a <host> wit", "8:18 text inside "));
}

TEST_F(ProfileFileTest, AMistakeInXmlIsToldWithItsPlaceAndWhatToDo) {
  struct Case {
    const char* text;
    const char* message;
  };
  constexpr Case cases[] = {
      {"<profile version=\"1\">\n<hosts>\n</host>", "hosts .*host"},
      {"<profile version=\"1\">\n<hosts>\n", "end of data in tag hosts"},
      {"<profile version=\"1\"/>\n<hosts/>", "content at the end"},
      {"<profile version=1/>", "a quotation mark"},
      {"<profile version/>", "value for attribute version"},
      {"<profile version=\"1/>\n<hosts/>", "the closing quotation mark before it is missing"},
      {"<profile version=\"1\"><hosts><host name=\"R&D\"/></hosts></profile>", "written as &lt;"},
      {"<profile version=\"1\" version=\"1\"/>", "version redefined"},
      {"<profile version=\"1\"><x:hosts/></profile>", "prefix x on hosts"},
      {"<profile version=\"1\"><!-- a -- b --></profile>", "within comment"},
      {"<profile version=\"1\">\x01</profile>", "not well-formed"},
      {"<profile version=\"1\"><host name=\"Zürich address=\"x\"/></profile>",
       "a quotation mark, a blank"},
      {"profile", "Start tag expected"},
  };
  for (const Case& wrong : cases) {
    const ProfileReading reading = read(wrong.text);
    EXPECT_FALSE(reading.usable) << wrong.text;
    ASSERT_THAT(reading.problems, SizeIs(1)) << wrong.text;
    EXPECT_THAT(reading.problems[0].text, testing::ContainsRegex(wrong.message));
    EXPECT_GT(reading.problems[0].line, 0U) << wrong.text;
    EXPECT_GT(reading.problems[0].column, 0U) << wrong.text;
  }
}

TEST_F(ProfileFileTest, EntriesWithAMistakeAreKeptAsideWithTheReason) {
  const ProfileReading reading =
      read(profileWithHosts("<host name=\"a\" address=\"g w\"/><host name=\"b\" adress=\"gw\"/>"));
  EXPECT_THAT(reading.profile.hosts, IsEmpty());
  ASSERT_THAT(reading.profile.leftOut, SizeIs(2));
  EXPECT_EQ(reading.profile.leftOut[0].name, "a");
  EXPECT_THAT(reading.profile.leftOut[0].reason, testing::HasSubstr("\"g w\" cannot be used"));
  EXPECT_EQ(reading.profile.leftOut[1].name, "b");
  EXPECT_EQ(reading.profile.leftOut[1].reason, "it has a mistake");
}

TEST_F(ProfileFileTest, AFileOfEitherKindIsToldByItsOutermostElement) {
  ProfileFile contents;
  std::vector<FileProblem> problems;
  const auto isRead = [&](const std::string& text) {
    return readConfigurationFile(m_directory.Write("p", text), ConfigurationKind::Unknown, contents,
                                 problems);
  };
  EXPECT_TRUE(isRead(profileText("")));
  EXPECT_TRUE(isRead(tests::preferencesText("")));
  EXPECT_THAT(problems, IsEmpty());
  EXPECT_FALSE(isRead("<profil/>"));
  EXPECT_THAT(problems, ElementsAre(ProblemAt(1, Pieces{"<profil>", "<profile>, <preferences>",
                                                        "did you mean <profile>?"})));
}

TEST_F(ProfileFileTest, WindowsLineEndsAreCountedOnce) {
  const ProfileReading reading = read(
      "<profile version=\"1\">\r\n<hosts>\r\n<host name=\"a\"/>\r\n</hosts>\r\n</profile>\r\n");
  EXPECT_THAT(reading.problems, IsEmpty());
  ASSERT_THAT(reading.profile.hosts, SizeIs(1));
  EXPECT_EQ(reading.profile.hosts[0].line, 3U);
}

TEST_F(ProfileFileTest, LinesBeyondSixteenBitsAreCountedRight) {
  std::string lines;
  for (int i = 0; i < 70000; ++i) {
    lines += "<!-- -->\n";
  }
  const ProfileReading reading = read(profileWithHosts(lines + "<host name=\"a\"/><host/>"));
  ASSERT_THAT(reading.profile.hosts, SizeIs(1));
  EXPECT_EQ(reading.profile.hosts[0].line, 70004U);
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(70004, Pieces{"without \"name\""})));
}

TEST_F(ProfileFileTest, NamesOfAnyLanguageAreTakenByteForByte) {
  const ProfileReading reading =
      read(profileWithHosts("<host name=\"Zürich\" address=\"gw\"/>"
                            "<host name=\"東京\" address=\"gw\"/>"
                            "<host name=\"zürich\" address=\"gw\"/>"));
  EXPECT_THAT(reading.problems, IsEmpty());
  EXPECT_THAT(tests::hostNames(reading.profile), ElementsAre("Zürich", "東京", "zürich"));
}

TEST_F(ProfileFileTest, ReferencesInAnAttributeAreDecodedOnce) {
  const ProfileReading reading = read(
      profileWithHosts("<host name=\"R&amp;D\" address=\"gw/?a&amp;b&#38;c&amp;#38;d&lt;\"/>"));
  EXPECT_THAT(reading.problems, IsEmpty());
  ASSERT_THAT(reading.profile.hosts, SizeIs(1));
  EXPECT_EQ(reading.profile.hosts[0].name, "R&D");
  EXPECT_EQ(reading.profile.hosts[0].address, "gw/?a&b&c&#38;d<");
}

TEST_F(ProfileFileTest, AnEntryWithoutANameIsLeftOutAndTheRestUsed) {
  const ProfileReading reading = read(profileWithHosts(
      "<host address=\"gw1\"/>\n<host name=\"\" address=\"gw2\"/>\n<host name=\"  \"/>\n"
      "<host name=\"right\" address=\"gw3\"/>"));
  EXPECT_TRUE(reading.usable);
  EXPECT_THAT(tests::hostNames(reading.profile), ElementsAre("right"));
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(4, Pieces{"without \"name\"", "is left out"}),
                                            ProblemAt(5, Pieces{"\"\"", "not blanks alone"}),
                                            ProblemAt(6, Pieces{"\"  \"", "not blanks alone"})));
}

TEST_F(ProfileFileTest, AnAddressThatCannotBeParsedLeavesItsEntryOut) {
  const ProfileReading reading = read(profileWithHosts(
      "<host name=\"Amsterdam\" address=\"gw ams\"/>\n<host name=\"port\" address=\"gw:70000\"/>\n"
      "<host name=\"slash\" address=\"/path\"/>\n<host name=\"right\" address=\"gw\"/>"));
  EXPECT_THAT(tests::hostNames(reading.profile), ElementsAre("right"));
  EXPECT_THAT(reading.problems,
              ElementsAre(ProblemAt(4, Pieces{"\"Amsterdam\" is left out", "address \"gw ams\"",
                                              URL::findError("gw ams").substr(0, 20)}),
                          ProblemAt(5, Pieces{"\"port\"", "\"gw:70000\""}),
                          ProblemAt(6, Pieces{"\"slash\"", "\"/path\""})));
}

TEST_F(ProfileFileTest, ABlankAddressCountsAsNone) {
  for (const char* blank : {"", "  ", "&#9;", "&#10; &#13;"}) {
    const ProfileReading reading = read(
        profileWithHosts("<host name=\"gw.example\" address=\"" + std::string(blank) + "\"/>"));
    EXPECT_THAT(reading.problems, IsEmpty());
    ASSERT_THAT(reading.profile.hosts, SizeIs(1));
    EXPECT_EQ(reading.profile.hosts[0].address, "") << blank;
  }
}

TEST_F(ProfileFileTest, ABlankNameWithABlankAddressIsToldWithItsPlaceAndTheRemedy) {
  const ProfileReading reading =
      read(profileWithHosts("<host name=\"a\"/>\n<host name=\" \" address=\"&#9;\"/>"));
  EXPECT_THAT(tests::hostNames(reading.profile), ElementsAre("a"));
  EXPECT_THAT(
      reading.problems,
      ElementsAre(ProblemAt(5, Pieces{"must be 1 to 255 bytes", "not blanks alone", "left out"})));
}

TEST_F(ProfileFileTest, ANameThatStandsForTheAddressMustBeOne) {
  const ProfileReading reading = read(profileWithHosts("<host name=\"Paris office\"/>"));
  EXPECT_THAT(reading.profile.hosts, IsEmpty());
  EXPECT_THAT(reading.problems,
              ElementsAre(ProblemAt(4, Pieces{"\"Paris office\"", "no address"})));
}

TEST_F(ProfileFileTest, ControlCharactersInANameLeaveItsEntryOutAndTheMessageInOneLine) {
  const ProfileReading reading =
      read(profileWithHosts("<host name=\"a&#10;b\" address=\"gw\"/>"
                            "<host name=\"a\x7F"
                            "b\" address=\"gw\"/>"
                            "<host name=\"a\xC2\x9B"
                            "b\" address=\"gw\"/>"));
  EXPECT_THAT(reading.profile.hosts, IsEmpty());
  ASSERT_THAT(reading.problems, SizeIs(3));
  EXPECT_THAT(reading.problems[0], ProblemAt(4, Pieces{"a\\x0ab"}));
  EXPECT_THAT(reading.problems[1], ProblemAt(4, Pieces{"a\\x7fb"}));
  EXPECT_THAT(reading.problems[2], ProblemAt(4, Pieces{"a\\xc2\\x9bb"}));
}

TEST_F(ProfileFileTest, ANameMayHaveTwoHundredAndFiftyFiveBytesAndNoMore) {
  const std::string longest(MaxHostNameLength, 'n');
  const ProfileReading reading =
      read(profileWithHosts("<host name=\"" + longest + "\" address=\"gw\"/><host name=\"" +
                            longest + "n\" address=\"gw\"/>"));
  EXPECT_THAT(tests::hostNames(reading.profile), ElementsAre(longest));
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(4, Pieces{"must be 1 to 255 bytes"})));
}

TEST_F(ProfileFileTest, AMisspeltAddressLeavesItsEntryOutBecauseTheNameIsAnotherGateway) {
  const ProfileReading reading =
      read(profileWithHosts("<host name=\"amsterdam\" adress=\"gw-ams\"/>"));
  EXPECT_THAT(reading.profile.hosts, IsEmpty());
  EXPECT_THAT(reading.problems,
              ElementsAre(ProblemAt(4, Pieces{"\"adress\"", "<host>", "\"name\", \"address\"",
                                              "did you mean \"address\"?"})));
}

TEST_F(ProfileFileTest, AMisspeltElementIsPassedOverWithAllThatIsInIt) {
  const ProfileReading reading = read(profileText(
      "<hosts><hsot name=\"a\"/></hosts>\n<host name=\"b\"/>\n"
      "<Preferences><preference name=\"EnableAutomaticServerSelection\" value=\"true\"/>"
      "</Preferences>\n<hosts><host name=\"c\"/></hosts>"));
  EXPECT_THAT(tests::hostNames(reading.profile), ElementsAre("c"));
  EXPECT_EQ(switchOf(reading.profile), nullptr);
  EXPECT_THAT(reading.problems,
              ElementsAre(ProblemAt(3, Pieces{"<hsot>", "inside <hosts>", "did you mean <host>?"}),
                          ProblemAt(4, Pieces{"<host>", "inside <profile>",
                                              "<preferences>, <hosts>", "did you mean <hosts>?"}),
                          ProblemAt(5, Pieces{"<Preferences>", "did you mean <preferences>?"})));
}

TEST_F(ProfileFileTest, AMisspeltPreferenceIsLeftOutWithTheNearestRightName) {
  const ProfileReading reading =
      read(profileText("<preferences>\n"
                       "<preference name=\"EnableAutomaticServerSelektion\" value=\"true\"/>\n"
                       "<preference name=\"enableautomaticserverselection\" value=\"true\"/>\n"
                       "<preference name=\"Colour\" value=\"true\"/>\n</preferences>"));
  EXPECT_EQ(switchOf(reading.profile), nullptr);
  ASSERT_THAT(reading.problems, SizeIs(3));
  const Pieces meant{"did you mean \"EnableAutomaticServerSelection\"?"};
  EXPECT_THAT(reading.problems[0], ProblemAt(4, meant));
  EXPECT_THAT(reading.problems[1], ProblemAt(5, meant));
  EXPECT_THAT(
      reading.problems[2],
      ProblemAt(6, Pieces{"\"Colour\"", "allowed here: \"EnableAutomaticServerSelection\""}));
  EXPECT_EQ(reading.problems[2].text.find("did you mean"), std::string::npos);
}

TEST_F(ProfileFileTest, AMistakeIsToldWithWhatItCostsAndTheMeantNameBeforeTheAllowedOnes) {
  const ProfileReading reading =
      read(profileText("<preferences>\n"
                       "<preference name=\"EnableAutomaticServerSelektion\" value=\"true\"/>\n"
                       "<preference name=\"EnableAutomaticServerSelection\" value=\"ture\"/>\n"
                       "<preference name=\"SelectionImprovement\" value=\"x\"/>\n"
                       "<preference name=\"RoundTripTime\" value=\"x\"/>\n"
                       "</preferences>\n<host/>"));
  std::vector<std::string> texts;
  for (const FileProblem& problem : reading.problems) {
    texts.push_back(problem.text);
  }
  using testing::StartsWith;
  EXPECT_THAT(
      texts,
      ElementsAre(
          StartsWith("unknown preference \"EnableAutomaticServerSelektion\" is ignored (did you "
                     "mean \"EnableAutomaticServerSelection\"?); allowed here: \"Enable"),
          "the value \"ture\" of EnableAutomaticServerSelection (did you mean \"true\"?) must be "
          "\"true\" or \"false\"; it counts as \"false\"",
          "the value \"x\" of SelectionImprovement must be a whole number from 0 to 1000 "
          "(percent); it counts as \"20\"",
          "the value \"x\" of RoundTripTime must be \"network\" or \"response\"; it is left out",
          "unknown element <host> inside <profile> is passed over (did you mean <hosts>?); allowed "
          "here: <preferences>, <hosts>"));
}

TEST_F(ProfileFileTest, AHostThatBeginsWithAHyphenLeavesItsEntryOut) {
  const ProfileReading reading =
      read(profileWithHosts("<host name=\"a\" address=\"-oProxy\"/><host name=\"-oProxy\"/>"));
  EXPECT_THAT(reading.profile.hosts, IsEmpty());
  const Pieces reason{"begins with \"-\""};
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(4, reason), ProblemAt(4, reason)));
}

TEST_F(ProfileFileTest, APreferenceOfThePreferencesFileIsSentThere) {
  const ProfileReading reading = read(
      profileText("<preferences><preference name=\"ProxyHost\" value=\"proxy\"/></preferences>"));
  Preference* preference = nullptr;
  EXPECT_FALSE(reading.profile.preferences.getPreference(ProxyHost, preference));
  EXPECT_THAT(reading.problems,
              ElementsAre(ProblemAt(3, Pieces{"\"ProxyHost\"", "a preferences file"})));
}

TEST_F(ProfileFileTest, ASwitchThatIsNeitherOnNorOffIsReportedAndKeptAsItIsWritten) {
  const ProfileReading reading =
      read(profileText("<preferences><preference name=\"EnableAutomaticServerSelection\" "
                       "value=\"True\" user-controllable=\"true\"/></preferences>"));
  ASSERT_NE(switchOf(reading.profile), nullptr);
  EXPECT_EQ(switchOf(reading.profile)->getPreferenceValue(), "True");
  EXPECT_TRUE(switchOf(reading.profile)->isUserControllable());
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(3, Pieces{"\"True\"", "\"true\" or \"false\"",
                                                                "did you mean \"true\"?"})));
}

TEST_F(ProfileFileTest, UserControllableWithAnotherWordCountsAsFalse) {
  const ProfileReading reading =
      read(profileText("<preferences><preference name=\"EnableAutomaticServerSelection\" "
                       "value=\"true\" user-controllable=\"yes\"/></preferences>"));
  ASSERT_NE(switchOf(reading.profile), nullptr);
  EXPECT_FALSE(switchOf(reading.profile)->isUserControllable());
  EXPECT_THAT(reading.problems,
              ElementsAre(ProblemAt(3, Pieces{"\"yes\"", "counts as if it were not there"})));
}

TEST_F(ProfileFileTest, APreferenceWithAnUnknownAttributeIsUsedWithoutIt) {
  const ProfileReading reading =
      read(profileText("<preferences><preference name=\"EnableAutomaticServerSelection\" "
                       "value=\"true\" user-controlable=\"true\"/></preferences>"));
  ASSERT_NE(switchOf(reading.profile), nullptr);
  EXPECT_FALSE(switchOf(reading.profile)->isUserControllable());
  EXPECT_THAT(reading.problems,
              ElementsAre(ProblemAt(3, Pieces{"did you mean \"user-controllable\"?"})));
}

TEST_F(ProfileFileTest, ThePreferenceThatComesFirstCounts) {
  const ProfileReading reading =
      read(profileText("<preferences>\n<preference name=\"EnableAutomaticServerSelection\" "
                       "value=\"true\"/>\n<preference name=\"EnableAutomaticServerSelection\" "
                       "value=\"false\"/></preferences>"));
  ASSERT_NE(switchOf(reading.profile), nullptr);
  EXPECT_EQ(switchOf(reading.profile)->getPreferenceValue(), "true");
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(5, Pieces{"already in line 4"})));
}

TEST_F(ProfileFileTest, APreferenceWithoutNameOrValueIsLeftOut) {
  const ProfileReading reading =
      read(profileText("<preferences>\n<preference value=\"true\"/>\n"
                       "<preference name=\"EnableAutomaticServerSelection\"/></preferences>"));
  EXPECT_EQ(switchOf(reading.profile), nullptr);
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(4, Pieces{"without \"name\""}),
                                            ProblemAt(5, Pieces{"without \"value\""})));
}

TEST_F(ProfileFileTest, TextBetweenElementsIsReportedAndOneInsideAHostLeavesTheEntryOut) {
  const ProfileReading reading =
      read(profileWithHosts("Amsterdam<host name=\"a\"/><host name=\"b\">gw</host>"
                            "<host name=\"c\"><![CDATA[gw]]></host>"));
  EXPECT_THAT(tests::hostNames(reading.profile), ElementsAre("a"));
  const Pieces leftOut{"<host>", "\"gw\"", "the entry is left out"};
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(4, Pieces{"<hosts>", "\"Amsterdam\""}),
                                            ProblemAt(4, leftOut), ProblemAt(4, leftOut)));
}

TEST_F(ProfileFileTest,
       AnAddressWrittenAsAnElementLeavesItsEntryOutBecauseTheNameIsAnotherGateway) {
  const ProfileReading reading = read(profileWithHosts(
      "<host name=\"gw8\"><address>real</address></host>\n<host name=\"b\"> <!-- --> </host>"));
  EXPECT_THAT(tests::hostNames(reading.profile), ElementsAre("b"));
  ASSERT_THAT(reading.profile.leftOut, SizeIs(1));
  EXPECT_EQ(reading.profile.leftOut[0].name, "gw8");
  EXPECT_THAT(reading.problems,
              ElementsAre(ProblemAt(4, Pieces{"<address> inside <host>", "as an attribute",
                                              "the entry is left out"})));
}

TEST_F(ProfileFileTest, ANamespaceDeclarationIsAnUnknownAttribute) {
  const ProfileReading reading = read(
      "<profile version=\"1\" xmlns=\"urn:other\"><hosts><host name=\"a\"/></hosts></profile>");
  EXPECT_THAT(tests::hostNames(reading.profile), ElementsAre("a"));
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(1, Pieces{"\"xmlns\"", "\"version\""})));
}

TEST_F(ProfileFileTest, AMissingVersionIsReportedAndTheFileUsed) {
  const ProfileReading reading = read("<profile><hosts><host name=\"a\"/></hosts></profile>");
  EXPECT_TRUE(reading.usable);
  EXPECT_THAT(tests::hostNames(reading.profile), ElementsAre("a"));
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(1, Pieces{"<profile version=\"1\">"})));
}

TEST_F(ProfileFileTest, AnotherVersionSkipsTheFile) {
  const ProfileReading reading =
      read("<profile version=\"2\"><hosts><host name=\"a\"/></hosts></profile>");
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.profile.hosts, IsEmpty());
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(1, Pieces{"\"2\"", "file is skipped"})));
  EXPECT_THAT(reading.problems[0].text, testing::Not(testing::HasSubstr("did you mean")));
}

TEST_F(ProfileFileTest, AnotherOutermostElementSkipsTheFile) {
  const ProfileReading reading = read("<?xml version=\"1.0\"?>\n<preferences version=\"1\"/>");
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(2, Pieces{"<preferences>", "<profile>"})));
}

TEST_F(ProfileFileTest, AFileThatIsNotWellFormedIsSkippedAsAWhole) {
  const ProfileReading reading = read(
      "<profile version=\"1\">\n<hosts>\n<host name=\"a\" address=\"gw\"/>\n<host name=\"b\">\n"
      "</hosts>\n</profile>");
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.profile.hosts, IsEmpty());
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(5, Pieces{"not well-formed XML", "host"})));
}

TEST_F(ProfileFileTest, AFileThatCannotBeUsedLeavesTheResultAlone) {
  ProfileFile profile;
  profile.hosts.push_back({"before", "", 0, 0});
  std::vector<FileProblem> problems(1);
  EXPECT_FALSE(readConfigurationFile(m_directory.Write("p.xml", profileWithHosts("<")),
                                     ConfigurationKind::Profile, profile, problems));
  EXPECT_THAT(tests::hostNames(profile), ElementsAre("before"));
  EXPECT_THAT(problems, SizeIs(2));
}

TEST_F(ProfileFileTest, AMissingFileIsReportedWithTheReason) {
  const ProfileReading reading = tests::readProfile(m_directory.File("none.xml"));
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(0, Pieces{"No such file or directory"})));
}

TEST_F(ProfileFileTest, AProblemReadsAsFileLineColumnAndText) {
  const ProfileReading reading = read(profileWithHosts("<host/>"));
  ASSERT_THAT(reading.problems, SizeIs(1));
  EXPECT_EQ(reading.problems[0].toString(),
            m_directory.File("profile.xml") + ":4:1: " + reading.problems[0].text);
}

TEST(FileProblem, WithoutALineTheFileAndTheTextAreLeft) {
  EXPECT_EQ((FileProblem{"a.xml", 0, 0, "is empty"}.toString()), "a.xml: is empty");
}

TEST(FileProblem, AFileNameCannotForgeALine) {
  EXPECT_EQ((FileProblem{"a\nb.xml", 7, 3, "is empty"}.toString()), "a\\x0ab.xml:7:3: is empty");
}
