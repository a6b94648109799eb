// The documentation matches the program: the examples load without messages and stand unchanged in
// the text, and the table of preferences has each with its default and range.

#include <regex>
#include <set>

#include "tests/unit/api/api_fixture.h"
#include "vpn/Api/ConfigurationFormat.h"
#include "vpn/Api/ProfileMgr.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Key;

namespace {

const std::string Root = AHS_SOURCE_DIR;

std::string formats() { return tests::readFile(Root + "/docs/profiles.md"); }

/// The row of a preference in the table, empty if it has none.
std::string rowOf(const std::string& text, const char* name) {
  const std::size_t begin = text.find("\n| `" + std::string(name) + "` |");
  return begin == std::string::npos ? ""
                                    : text.substr(begin + 1, text.find('\n', begin + 1) - begin);
}

using Words = std::set<std::string>;

/// All parts of an element: its name, its attributes, a "!" after each required one, and their
/// values.
void collect(const ElementRule& rule, Words& words) {
  words.insert(rule.name);
  for (const ElementRule::Attribute& attribute : rule.attributes) {
    words.insert(attribute.name + (attribute.isRequired ? "!" : ""));
    words.insert(attribute.words.begin(), attribute.words.end());
  }
  for (const ElementRule& child : rule.children) {
    collect(child, words);
  }
}

/// The same parts from a schema.
Words wordsOfSchema(const std::string& name) {
  const std::string text = tests::readFile(Root + "/vpn/Api/schema/" + name);
  const std::regex declaration(
      R"re(<xs:(?:element name|attribute name|enumeration value)="([^"]*)"([^>]*use="required")?)re");
  Words words;
  for (std::sregex_iterator found(text.begin(), text.end(), declaration), end; found != end;
       ++found) {
    words.insert((*found)[1].str() + ((*found)[2].matched ? "!" : ""));
  }
  return words;
}

std::string placesOf(const PreferenceBase::Definition& preference) {
  return !preference.isForProfiles     ? "preferences"
         : preference.isForPreferences ? "both"
                                       : "profile";
}

}  // namespace

TEST(Documents, TheExampleProfilesLoadWithoutAProblem) {
  ProfileMgr profiles;
  profiles.trustFiles();  // a checkout may be anybody's
  profiles.loadDirectory(Root + "/examples/profiles");
  EXPECT_THAT(profiles.getProblems(), IsEmpty());
  EXPECT_THAT(profiles.getFileInitMap(), ElementsAre(Key("europe"), Key("laboratory")));
  EXPECT_THAT(profiles.getHostProfileMap(),
              ElementsAre(Key("192.0.2.7"), Key("Amsterdam"), Key("Laboratory"), Key("Zürich")));
}

TEST(Documents, TheExamplePreferencesLoadWithoutAProblem) {
  const tests::Reading reading =
      tests::readAs(ConfigurationKind::Preferences, Root + "/examples/preferences.xml");
  EXPECT_THAT(reading.problems, IsEmpty());
  EXPECT_EQ(reading.Value(SelectionImprovement), "30");
}

TEST(Documents, TheFormatsShowTheExamplesAsTheyAre) {
  for (const char* example : {"/examples/profiles/europe.xml", "/examples/preferences.xml"}) {
    EXPECT_THAT(formats(), HasSubstr(tests::readFile(Root + example)));
  }
}

TEST(Documents, TheSchemasForEditorsSayWhatIsRead) {
  for (const auto& [kind, schema] : {std::pair(ConfigurationKind::Profile, "profile.xsd"),
                                     {ConfigurationKind::Preferences, "preferences.xsd"}}) {
    Words words;
    collect(ConfigurationFormat::rootOf(kind), words);
    EXPECT_EQ(wordsOfSchema(schema), words);
  }
}

TEST(Documents, TheTableHasEveryPreferenceWithUnitRangeDefaultAndPlace) {
  const std::string text = formats().substr(formats().find("\n## All preferences\n"));
  for (const PreferenceBase::Definition& definition : PreferenceBase::definitions()) {
    const std::string row = rowOf(text, definition.name);
    EXPECT_THAT(row, HasSubstr("| " + placesOf(definition) + " |"));
    if (definition.unit != nullptr) {
      const std::string unit = *definition.unit != '\0' ? std::string(" ") + definition.unit : "";
      EXPECT_THAT(row, HasSubstr("|" + unit + " | " + std::to_string(definition.least) + " to " +
                                 std::to_string(definition.most)));
    }
    for (const std::string& word : definition.words) {
      EXPECT_THAT(row, HasSubstr("`" + word + "`"));
    }
    const std::string defaultValue =
        *definition.defaultValue != '\0' ? definition.defaultValue : "nothing";
    EXPECT_THAT(row, testing::AnyOf(HasSubstr("| " + defaultValue + " |"),
                                    HasSubstr("| `" + defaultValue + "` |")));
  }
}
