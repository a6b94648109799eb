// libxml2 runs out of memory, at every allocation in turn or with every amount of it left. What it
// reads and what it writes is then whole or is not handed out. libxml2 lets
// a program bring its allocator; the library's own allocations come from the same amount.

#include <gtest/gtest.h>
#include <libxml/xmlmemory.h>
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <string>

#include "tests/support/TemporaryDirectory.h"
#include "tests/support/private_access.h"
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Api/ProfileFile.h"

AHS_EXPOSE(DocumentOf, &CSelectionCache::documentOf);

// libxml2 2.9 forgets the element that it could not put on its stack, and the buffer that it could
// not copy a document into.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
  return "leak:xmlTextWriterStartElement\nleak:xmlBufCreateSize\n";
}

namespace {

// Which allocation of libxml2 from now on fails; 0: none. One thread only.
unsigned long failing = 0;
bool hasFailed = false;

// What may still be allocated, by libxml2 and by operator new together.
constexpr std::size_t Unlimited = std::numeric_limits<std::size_t>::max();
std::size_t bytesLeft = Unlimited;

bool fails(std::size_t size) {
  const bool now = failing == 1 || size > bytesLeft;
  failing -= failing != 0 ? 1 : 0;
  hasFailed = hasFailed || now;
  return now;
}

void take(std::size_t size) { bytesLeft -= bytesLeft == Unlimited ? 0 : std::min(size, bytesLeft); }
void giveBack(std::size_t size) { bytesLeft += bytesLeft == Unlimited ? 0 : size; }

void* allocate(std::size_t size) {
  void* memory = fails(size) ? nullptr : std::malloc(size);
  take(malloc_usable_size(memory));
  return memory;
}

void release(void* memory) {
  giveBack(malloc_usable_size(memory));
  std::free(memory);
}

void* reallocate(void* memory, std::size_t size) {
  const std::size_t before = malloc_usable_size(memory);
  if (size > before && fails(size - before)) {
    return nullptr;
  }
  void* grown = std::realloc(memory, size);
  giveBack(before);
  take(malloc_usable_size(grown));
  return grown;
}

char* duplicate(const char* text) {
  const std::size_t size = std::strlen(text) + 1;
  auto* copy = static_cast<char*>(allocate(size));
  return copy == nullptr ? nullptr : static_cast<char*>(std::memcpy(copy, text, size));
}

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

/// Calls `use` with less memory than it takes, none, then a little more, and so on until it was
/// enough. @return how often it was not.
template <class Use>
unsigned long starve(Use use) {
  constexpr std::size_t Step = 192;
  unsigned long number = 0;
  do {
    hasFailed = false;
    bytesLeft = number * Step;
    use();
    bytesLeft = Unlimited;
    ++number;
  } while (hasFailed && !testing::Test::HasFailure());
  return number - 1;
}

class XmlMemory : public testing::Test {
 protected:
  // What is left from before was allocated by the same malloc.
  XmlMemory() { xmlMemSetup(release, allocate, reallocate, duplicate); }
};

/// A selection whose document outgrows the first buffers and is read in several pieces.
SelectionFiles::Selection largeSelection() {
  CCacheEntry entry;
  std::string candidates;
  for (int i = 0; i < 20; ++i) {
    const std::string name = "a & b" + std::string(500, 'k') + std::to_string(i);
    candidates += name + ";";
    entry.AddHeadend(CHeadendRTT(name, 7));
  }
  entry.SetKnownHeadends(candidates);
  entry.SetTimestamp(1700000000);
  return {"nameserver 192.0.2.1", entry, {}};
}

std::string documentOf(const SelectionFiles::Selection& selection) {
  return exposed(tests::DocumentOf{})(selection);
}

TEST_F(XmlMemory, ASelectionIsReadWholeOrNotAtAll) {
  const SelectionFiles::Selection complete = largeSelection();
  const std::string document = documentOf(complete);
  bool isRead = false;
  const unsigned long failures = failEach([&] {
    SelectionFiles::Selection selection;
    std::string problem;
    try {
      isRead = SelectionFiles::parse(document, selection, problem);
    } catch (const std::bad_alloc&) {
      isRead = false;
    }
    failing = 0;
    EXPECT_EQ(selection.place, isRead ? complete.place : "");
    EXPECT_EQ(selection.entry.toString(), (isRead ? complete.entry : CCacheEntry()).toString());
  });
  EXPECT_TRUE(isRead);
  EXPECT_GT(failures, 10U);
}

TEST_F(XmlMemory, ADocumentIsWrittenWholeOrNotAtAll) {
  const SelectionFiles::Selection selection = largeSelection();
  const std::string complete = documentOf(selection);
  EXPECT_NE(complete, "");
  const unsigned long failures = failEach([&] {
    try {
      const std::string document = documentOf(selection);
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
  const auto read = [&file] {
    ProfileFile profile;
    std::vector<FileProblem> problems;
    try {
      EXPECT_TRUE(readConfigurationFile(file, ConfigurationKind::Profile, profile, problems));
      EXPECT_EQ(profile.hosts.size(), 2U);
      for (const FileProblem& problem : problems) {
        ADD_FAILURE() << problem.toString();
      }
    } catch (const std::bad_alloc&) {
    }
  };
  read();  // makes the format's table, which is kept
  EXPECT_GT(starve(read), 50U);
}

}  // namespace

void* operator new(std::size_t size) {
  void* memory = allocate(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}
void operator delete(void* memory) noexcept { release(memory); }
void operator delete(void* memory, std::size_t) noexcept { release(memory); }
