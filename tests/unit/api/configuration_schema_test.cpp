// The schemas that are built into the library: what they say of an element, and that they are
// asked.

#include <atomic>
#include <stdexcept>
#include <thread>

#include "tests/unit/api/api_fixture.h"
#include "vpn/Api/ConfigurationSchema.h"
#include "vpn/Api/XmlScope.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const ElementRule& childOf(const ElementRule& rule, const std::string& name) {
  for (const ElementRule& child : rule.children) {
    if (child.name == name) {
      return child;
    }
  }
  throw std::runtime_error("no element " + name);
}

const ElementRule& root() { return CConfigurationSchema::profile().root(); }
const ElementRule& hosts() { return childOf(root(), "hosts"); }
const ElementRule& host() { return childOf(hosts(), "host"); }

class SchemaValidatorTest : public testing::Test {
 protected:
  SchemaValidatorTest() : m_validator(CConfigurationSchema::profile()) {
    EXPECT_TRUE(m_validator.start(root(), {{"version", "1"}}));
    EXPECT_TRUE(m_validator.start(hosts(), {}));
  }

  bool accepts(const std::vector<CSchemaValidator::Attribute>& attributes) {
    const bool isAccepted = m_validator.start(host(), attributes);
    m_validator.end(host());
    return isAccepted;
  }

  const CXmlScope m_library;
  CSchemaValidator m_validator;
};

}  // namespace

TEST(ConfigurationSchema, SaysWhatAnElementMayHold) {
  EXPECT_EQ(root().name, "profile");
  ASSERT_EQ(root().attributes.size(), 1U);
  EXPECT_EQ(root().attributes[0].name, "version");
  EXPECT_TRUE(root().attributes[0].isRequired);
  EXPECT_THAT(root().attributes[0].words, ElementsAre("1"));
  ASSERT_EQ(host().attributes.size(), 2U);
  EXPECT_EQ(host().attributes[0].name, "name");
  EXPECT_THAT(host().attributes[0].rule, testing::StartsWith("must be 1 to 255 bytes"));
  EXPECT_FALSE(host().attributes[1].isRequired);
  EXPECT_THAT(host().children, IsEmpty());
}

TEST_F(SchemaValidatorTest, AnElementIsAcceptedForItsAttributes) {
  EXPECT_TRUE(accepts({{"name", "a"}}));
  EXPECT_TRUE(accepts({{"name", "a"}, {"address", "gw"}}));
  EXPECT_FALSE(accepts({}));
  EXPECT_FALSE(accepts({{"name", " \t"}}));
  EXPECT_FALSE(accepts({{"name", std::string(256, 'n')}}));
  EXPECT_FALSE(accepts({{"name", "a"}, {"adress", "gw"}}));
}

TEST_F(SchemaValidatorTest, ARejectedElementDoesNotHideTheNext) {
  EXPECT_FALSE(accepts({}));
  EXPECT_TRUE(accepts({{"name", "a"}}));
  EXPECT_FALSE(m_validator.text("text"));
  EXPECT_FALSE(accepts({{"nam", "a"}}));
}

TEST(ConfigurationSchemas, ManyThreadsMayUseThemAtOnce) {
  const tests::TemporaryDirectory directory;
  const std::string path = directory.Write(
      "a.xml", tests::profileWithHosts("<host name=\"a\"/><host/><host name=\" \"/>"));
  std::atomic<int> wrong{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&] {
      for (int j = 0; j < 50; ++j) {
        const tests::ProfileReading reading = tests::readProfile(path);
        wrong += reading.problems.size() == 2 && reading.profile.hosts.size() == 1 ? 0 : 1;
      }
    });
  }
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_EQ(wrong, 0);
}
