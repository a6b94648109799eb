// Malicious files: each is refused or bounded, with a message, in time and memory proportional to
// its size. A time-out of the test program catches a hang.

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "tests/unit/api/api_fixture.h"

namespace tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class HostileFileTest : public FileTest {};

/// The number of each of `count` pieces between `before` and `after`.
std::string repeated(const std::string& before, const std::string& after, std::size_t count) {
  std::string all;
  for (std::size_t i = 0; i < count; ++i) {
    all += before + std::to_string(i) + after;
  }
  return all;
}

constexpr std::size_t Many = 400000;
const std::vector<std::string> NoDocumentType{"<!DOCTYPE", "file is skipped"};
const std::vector<std::string> TooManyNames{"more than 1000 different names", "file is skipped"};

std::string hostNamed(const std::string& name) {
  return profileWithHosts("<host name=\"" + name + "\" address=\"gw\"/>");
}

}  // namespace

TEST_F(HostileFileTest, IsSkippedWithTheReason) {
  // A FIFO without a writer: opening it would block.
  const std::string fifo = m_directory.File("profile.dtd");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const std::string root = "<profile version=\"1\">";
  const std::string instructions = repeated("<?p", "?>", Many);
  const auto expect = [this](const char* name, const std::string& text, const Told& last) {
    SCOPED_TRACE(name);
    ASSERT_LT(text.size(), MaxConfigurationFileSize);
    const Reading reading = read(text);
    EXPECT_FALSE(reading.usable);
    ASSERT_FALSE(reading.problems.empty());
    EXPECT_LE(reading.problems.size(), MaxProblemsPerFile + 1);
    EXPECT_THAT(reading.problems.back(), IsTold(last));
  };
  expect("an entity bomb",
         "\n<!DOCTYPE profile [<!ENTITY a \"ha\"><!ENTITY b \"" + times("&a;", 1000) +
             "\"><!ENTITY c \"" + times("&b;", 1000) + "\">]>\n<profile version=\"&c;\"/>",
         {2, NoDocumentType});
  expect("an external entity",
         "<!DOCTYPE profile [<!ENTITY x SYSTEM \"file://" + fifo + "\">]>" + root + "&x;</profile>",
         {1, NoDocumentType});
  expect("an external document type",
         "<!DOCTYPE profile SYSTEM \"" + fifo + "\">" + root + "</profile>", {1, NoDocumentType});
  expect("an undeclared entity", hostNamed("&x;"), {4, {"not well-formed", "Entity 'x'"}});
  expect("Latin-1", hostNamed("Z\xFCrich"), {4, {"not UTF-8", "\\x"}});
  expect("a lone continuation byte", hostNamed("\x80"), {4, {"not UTF-8", "\\x"}});
  expect("an overlong slash", hostNamed("\xC0\xAF"), {4, {"not UTF-8", "\\x"}});
  expect("a surrogate", hostNamed("\xED\xA0\x80"), {4, {"not UTF-8", "\\x"}});
  expect("beyond Unicode", hostNamed("\xF4\x90\x80\x80"), {4, {"not UTF-8", "\\x"}});
  expect("a character cut off", hostNamed("\xE2\x82"), {4, {"not UTF-8", "\\x"}});
  for (std::size_t before = 0; before < 9; ++before) {
    for (const char wrong : {'\0', '\x80'}) {
      const std::string name = std::string(before, 'a') + wrong + "aaaaaaaa";
      expect("a byte among eight", hostNamed(name), {4, {"not UTF-8"}});
    }
  }
  expect("UTF-16", std::string("<\0p\0r\0", 6), {1, {"not UTF-8"}});
  expect("UTF-16 with its mark", std::string("\xFF\xFE<\0p\0", 6), {1, {"not UTF-8"}});
  expect("nothing", "", {0, {"is empty"}});
  expect("blanks", " \n\t\r\n", {0, {"is empty"}});
  expect("deep nesting", profileText(times("<a>", 100000)), {3, {"nested more than 16 deep"}});
  expect("seventeen levels", profileText(times("<a>", 16) + times("</a>", 16)), {3, {"16 deep"}});
  expect("an endless tag", profileWithHosts("<host" + repeated(" a", "=\"\"", Many) + "/>"),
         {4, {"longer than 16 KiB"}});
  expect("seventeen attributes", profileWithHosts("<host" + repeated(" a", "=\"\"", 17) + "/>"),
         {4, {"more than 16 attributes"}});
  expect("names of elements", profileText(repeated("<e", "/>", Many)), {3, TooManyNames});
  expect("names of attributes",
         profileText("<preferences>" + repeated("<preference a", "=\"\"/>", Many / 2) +
                     "</preferences>"),
         {3, TooManyNames});
  expect("names of instructions before", instructions + root + "</profile>", {1, TooManyNames});
  expect("names of instructions inside", root + instructions + "</profile>", {1, TooManyNames});
  expect("names of instructions behind", root + "</profile>" + instructions, {1, TooManyNames});
}

TEST_F(HostileFileTest, ThatIsNoRegularFileIsRefusedWithoutWaitingAlsoBehindALink) {
  const std::string fifo = m_directory.File("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  sockaddr_un address{AF_UNIX, {}};
  const std::string socket = m_directory.File("socket");
  socket.copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const std::string link = m_directory.File("link.xml");
  for (const std::string& target : {fifo, socket, m_directory.Path(), std::string("/dev/zero")}) {
    std::filesystem::create_symlink(target, link);
    EXPECT_THAT(readProfile(target).problems, Tell({{0, {"not a regular file"}}}));
    EXPECT_THAT(readProfile(link).problems, Tell({{0, {"not a regular file"}}}));
    std::filesystem::remove(link);
  }
  ::close(listener);
}

TEST_F(HostileFileTest, TheLargestFileIsReadAndOneByteMoreIsNot) {
  std::string contents = "<profile version=\"1\"><hosts><host name=\"a\"/></hosts></profile>\n";
  contents += times("<!--  -->\n", (MaxConfigurationFileSize - contents.size()) / 10);
  contents.append(MaxConfigurationFileSize - contents.size(), ' ');
  EXPECT_THAT(read(contents).Hosts(), ElementsAre("a"));
  EXPECT_THAT(read(contents + "\n").problems, Tell({{0, {"larger than 8 MiB"}}}));
}

TEST_F(HostileFileTest, AFileThatSaysItIsEmptyIsReadOnlyUpToTheLimit) {
  // A file of /proc has a size of 0, whatever its contents.
  const Reading reading = readProfile("/proc/self/maps");
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems, SizeIs(1));
}

TEST_F(HostileFileTest, WhatIsWithinTheBoundsIsRead) {
  EXPECT_TRUE(read(profileText(times("<a>", 15) + times("</a>", 15))).usable) << "16 levels";
  EXPECT_THAT(read(repeated("<?p", "?>", 900) + "<profile version=\"1\"/>").problems, IsEmpty());
  const Reading reading =
      read(profileWithHosts(repeated("<host name=\"g", "\"/>\n", MaxHostsPerFile + 5)));
  EXPECT_TRUE(reading.usable);
  EXPECT_THAT(reading.profile.hosts, SizeIs(MaxHostsPerFile));
  EXPECT_EQ(reading.profile.hosts.back().line, MaxHostsPerFile + 3);
  EXPECT_THAT(reading.problems, Tell({{MaxHostsPerFile + 4, {"more than 100000 host entries"}}}));
}

TEST_F(HostileFileTest, AThousandMistakesAreToldAHundredTimesAndThenWhyTheFileIsSkipped) {
  const std::string wrong = times("<host/>\n", 1000);
  const Reading used = read(profileWithHosts(wrong + "<host name=\"a\"/>"));
  EXPECT_THAT(used.Hosts(), ElementsAre("a"));
  ASSERT_THAT(used.problems, SizeIs(MaxProblemsPerFile));
  EXPECT_THAT(used.problems.back(), IsTold(Told{103, {"from here on are not listed"}}));
  EXPECT_TRUE(used.problems.back().endsList);
  EXPECT_FALSE(used.problems.front().endsList);
  const Reading skipped = read(profileWithHosts(wrong + "<host"));
  ASSERT_THAT(skipped.problems, SizeIs(MaxProblemsPerFile + 1));
  EXPECT_THAT(skipped.problems.back().text, testing::HasSubstr("not well-formed"));
}

TEST_F(HostileFileTest, NoTextOfAFileMakesAMessageLongOrTwoLines) {
  const std::string evil = std::string(3000, 'x') + "&#10;2025-01-01 forged";
  const Reading reading = read(profileText(
      "<preferences>" + preferenceElement(evil, "true") +
      preferenceElement("EnableAutomaticServerSelection", evil) + "</preferences><hosts>" +
      "<host name=\"" + evil + "\"/><host name=\"a\" address=\"" + evil + "\"/>" + "<host name=\"" +
      times("&#10;", 200) + "\"/>" + evil + "</hosts>"));
  ASSERT_THAT(reading.problems, SizeIs(6));
  for (const FileProblem& problem : reading.problems) {
    EXPECT_EQ(problem.text.find('\n'), std::string::npos);
    EXPECT_LT(problem.text.size(), 700U) << problem.text;
  }
}

TEST_F(HostileFileTest, AFileCutAtAnyByteIsRefusedOrUsedButNeverHalf) {
  const std::string whole = profileWithHosts(
      "<host name=\"a&amp;b\" address=\"gw\"/><!-- c --><host name=\"Zürich\" address=\"gw\"/>");
  const std::size_t complete = whole.find("</profile>") + 10;
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const Reading reading = read(whole.substr(0, length));
    EXPECT_EQ(reading.usable, length >= complete) << length;
    EXPECT_EQ(reading.profile.hosts.size(), length >= complete ? 2U : 0U) << length;
    EXPECT_EQ(reading.problems.empty(), length >= complete) << length;
  }
}

}  // namespace tests
