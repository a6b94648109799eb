// libxml2 runs out of memory at every allocation in turn. What it reads is then not taken for
// wrong, and what it writes is whole or is not handed out. libxml2 lets a program bring its
// allocator.

#include <gtest/gtest.h>
#include <libxml/xmlmemory.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <string>

#include "tests/support/TemporaryDirectory.h"
#include "vpn/Api/AHS/CacheDocument.h"
#include "vpn/Api/ProfileFile.h"
#include "vpn/Api/SaxWriterIfc.h"

// libxml2 2.9 forgets the element that it could not put on its stack.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() { return "leak:xmlTextWriterStartElement\n"; }

namespace {

// Which allocation of libxml2 from now on fails; 0: none. One thread only.
unsigned long failing = 0;
bool hasFailed = false;

bool fails() {
  const bool now = failing == 1;
  failing -= failing != 0 ? 1 : 0;
  hasFailed = hasFailed || now;
  return now;
}

void* allocate(std::size_t size) { return fails() ? nullptr : std::malloc(size); }
void* reallocate(void* memory, std::size_t size) {
  return fails() ? nullptr : std::realloc(memory, size);
}
char* duplicate(const char* text) { return fails() ? nullptr : ::strdup(text); }

/// Calls `use` with one allocation of libxml2 failing, the first one, then the second one, and so
/// on until none did. @return how many did.
template <class Use>
unsigned long failEach(Use use) {
  unsigned long number = 0;
  do {
    hasFailed = false;
    failing = ++number;
    use();
    failing = 0;
  } while (hasFailed && !testing::Test::HasFailure());
  return number - 1;
}

class XmlMemory : public testing::Test {
 protected:
  // What is left from before was allocated by the same malloc.
  XmlMemory() { xmlMemSetup(std::free, allocate, reallocate, duplicate); }
};

using Entries = std::map<std::string, CCacheEntry>;

/// A document that is read in several pieces and outgrows the first buffers.
std::string largeDocument() {
  CSaxMemoryWriter writer;
  writer.startElement(CacheDocument::RootName);
  writer.addAttribute(CacheDocument::VersionAttribute, CacheDocument::Version);
  for (int selection = 0; selection < 20; ++selection) {
    writer.startElement(CacheDocument::SelectionName);
    writer.addAttribute(CacheDocument::PlaceAttribute, "nameserver 192.0.2.1");
    writer.addAttribute(CacheDocument::KnownHeadendsAttribute,
                        std::string(2000, 'k') + std::to_string(selection));
    writer.addAttribute(CacheDocument::StoredAttribute, "1700000000");
    writer.startElement(CacheDocument::HeadendName);
    writer.addAttribute(CacheDocument::NameAttribute, "gw" + std::to_string(selection));
    writer.addAttribute(CacheDocument::MetricAttribute, "7");
    writer.endElement();
    writer.endElement();
  }
  std::string document;
  return writer.finish(document) ? document : "";
}

TEST_F(XmlMemory, ACacheDocumentIsReadWholeOrNotAtAllAndIsNotCalledWrong) {
  const std::string document = largeDocument();
  Entries complete;
  ASSERT_EQ(CacheDocument::parse(document, complete), "");
  ASSERT_EQ(complete.size(), 20U);
  const unsigned long failures = failEach([&document] {
    Entries entries;
    try {
      EXPECT_EQ(CacheDocument::parse(document, entries), "");
      EXPECT_EQ(entries.size(), 20U);
    } catch (const std::bad_alloc&) {
      EXPECT_EQ(entries.size(), 0U);
    }
  });
  EXPECT_GT(failures, 10U);
}

TEST_F(XmlMemory, ADocumentIsWrittenWholeOrNotAtAll) {
  const std::string complete = largeDocument();
  const unsigned long failures = failEach([&complete] {
    try {
      const std::string document = largeDocument();
      EXPECT_TRUE(document.empty() || document == complete) << document;
    } catch (const std::bad_alloc&) {
    }
  });
  EXPECT_GT(failures, 10U);
}

TEST_F(XmlMemory, AProfileIsReadWholeOrNotAtAllAndIsNotCalledWrong) {
  const tests::TemporaryDirectory directory;
  const std::string file = directory.Write(
      "a.xml",
      "<profile version=\"1\"><preferences><preference"
      " name=\"EnableAutomaticServerSelection\" value=\"true\"/></preferences>"
      "<hosts><host name=\"" +
          std::string(200, 'n') + "\" address=\"gw:8443\"/><host name=\"b\"/></hosts></profile>");
  const unsigned long failures = failEach([&file] {
    ProfileFile profile;
    std::vector<FileProblem> problems;
    try {
      EXPECT_TRUE(readProfileFile(file, profile, problems));
      EXPECT_EQ(profile.hosts.size(), 2U);
      for (const FileProblem& problem : problems) {
        ADD_FAILURE() << problem.toString();
      }
    } catch (const std::bad_alloc&) {
    }
  });
  EXPECT_GT(failures, 5U);
}

}  // namespace
