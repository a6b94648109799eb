// Files that somebody made to do harm: each is refused or bounded, with a message, in a time and a
// memory that its size explains. A time-out of the test program catches what would hang.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "tests/unit/api/api_fixture.h"

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using tests::ProblemAt;
using tests::ProfileReading;
using tests::profileText;
using tests::profileWithHosts;
using tests::TemporaryDirectory;
using Pieces = std::vector<std::string>;

namespace {

class HostileFileTest : public testing::Test {
 protected:
  ProfileReading read(const std::string& contents) {
    return tests::readProfile(m_directory.Write("profile.xml", contents));
  }

  TemporaryDirectory m_directory;
};

const Pieces NoDocumentType{"<!DOCTYPE", "file is skipped"};
const Pieces TooManyNames{"more than 1000 different names", "file is skipped"};

}  // namespace

TEST_F(HostileFileTest, AnEntityBombIsRefusedAtItsDocumentType) {
  std::string bomb = "<?xml version=\"1.0\"?>\n<!DOCTYPE profile [\n<!ENTITY a0 \"ha\">\n";
  for (int i = 1; i < 30; ++i) {
    bomb += "<!ENTITY a" + std::to_string(i) + " \"";
    for (int j = 0; j < 10; ++j) {
      bomb += "&a" + std::to_string(i - 1) + ";";
    }
    bomb += "\">\n";
  }
  bomb += "]>\n<profile version=\"1\"><hosts><host name=\"&a29;\"/></hosts></profile>";
  const ProfileReading reading = read(bomb);
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(2, NoDocumentType)));
}

TEST_F(HostileFileTest, AnExternalEntityIsNeverFetched) {
  const std::string secret = m_directory.Write("secret", "fetched");
  const ProfileReading reading =
      read("<!DOCTYPE profile [<!ENTITY x SYSTEM \"file://" + secret +
           "\">]><profile version=\"1\"><hosts><host name=\"a\">&x;</host></hosts></profile>");
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(1, NoDocumentType)));
}

TEST_F(HostileFileTest, AnExternalDocumentTypeIsNeverFetched) {
  // A FIFO nobody writes to: whoever opened it would wait.
  const std::string fifo = m_directory.File("profile.dtd");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const ProfileReading reading =
      read("<!DOCTYPE profile SYSTEM \"" + fifo + "\"><profile version=\"1\"/>");
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(1, NoDocumentType)));
}

TEST_F(HostileFileTest, AnUndeclaredEntitySkipsTheFile) {
  const ProfileReading reading = read(profileWithHosts("<host name=\"&x;\" address=\"gw\"/>"));
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(4, Pieces{"not well-formed", "Entity 'x'"})));
}

TEST_F(HostileFileTest, AnInclusionIsNotFollowed) {
  const std::string other = m_directory.Write("other.xml", profileWithHosts("<host name=\"b\"/>"));
  const ProfileReading reading =
      read(profileText("<hosts><xi:include xmlns:xi=\"http://www.w3.org/2001/XInclude\" href=\"" +
                       other + "\"/></hosts>"));
  EXPECT_THAT(reading.profile.hosts, IsEmpty());
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(3, Pieces{"<xi:include>"})));
}

TEST_F(HostileFileTest, AFifoIsRefusedWithoutWaitingForItsWriter) {
  const std::string fifo = m_directory.File("profile.xml");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const ProfileReading reading = tests::readProfile(fifo);
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(0, Pieces{"not a regular file"})));
}

TEST_F(HostileFileTest, ADirectoryAndADeviceAreRefused) {
  const Pieces refused{"not a regular file"};
  EXPECT_THAT(tests::readProfile(m_directory.Path()).problems, ElementsAre(ProblemAt(0, refused)));
  EXPECT_THAT(tests::readProfile("/dev/zero").problems, ElementsAre(ProblemAt(0, refused)));
}

TEST_F(HostileFileTest, ASocketIsRefused) {
  const std::string path = m_directory.File("profile.xml");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  path.copy(static_cast<char*>(address.sun_path), path.size());
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_THAT(tests::readProfile(path).problems,
              ElementsAre(ProblemAt(0, Pieces{"not a regular file"})));
  ::close(listener);
}

TEST_F(HostileFileTest, ALinkToADeviceOrAFifoIsRefused) {
  const std::string fifo = m_directory.File("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& target : {std::string("/dev/zero"), fifo}) {
    std::filesystem::create_symlink(target, m_directory.File("profile.xml"));
    EXPECT_THAT(tests::readProfile(m_directory.File("profile.xml")).problems,
                ElementsAre(ProblemAt(0, Pieces{"not a regular file"})));
    std::filesystem::remove(m_directory.File("profile.xml"));
  }
}

TEST_F(HostileFileTest, LinksThatLeadNowhereOrInACircleAreReportedAndTheOthersUsed) {
  std::filesystem::create_symlink("nowhere", m_directory.File("a.xml"));
  std::filesystem::create_symlink("c.xml", m_directory.File("b.xml"));
  std::filesystem::create_symlink("b.xml", m_directory.File("c.xml"));
  m_directory.Write("d.xml", profileWithHosts("<host name=\"d\"/>"));
  ProfileMgr profiles;
  profiles.loadDirectory(m_directory.Path());
  EXPECT_THAT(profiles.getHostProfileMap(), ElementsAre(testing::Key("d")));
  EXPECT_THAT(profiles.getProblems(),
              ElementsAre(ProblemAt(0, Pieces{"No such file"}),
                          ProblemAt(0, Pieces{"Too many levels of symbolic links"}),
                          ProblemAt(0, Pieces{"Too many levels of symbolic links"})));
}

TEST_F(HostileFileTest, ALinkToARegularFileIsFollowed) {
  const std::string target = m_directory.Write("target", profileWithHosts("<host name=\"a\"/>"));
  std::filesystem::create_symlink(target, m_directory.File("profile.xml"));
  const ProfileReading reading = tests::readProfile(m_directory.File("profile.xml"));
  EXPECT_THAT(tests::hostNames(reading.profile), ElementsAre("a"));
}

TEST_F(HostileFileTest, AFileOfOneGigabyteIsRefusedUnread) {
  const std::string path = m_directory.Write("profile.xml", "");
  std::filesystem::resize_file(path, std::uintmax_t{1} << 30U);
  const ProfileReading reading = tests::readProfile(path);
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(0, Pieces{"larger than 8 MiB"})));
}

TEST_F(HostileFileTest, TheLargestFileIsReadAndOneByteMoreIsNot) {
  const std::string beginning = "<profile version=\"1\">";
  const std::string end = "<hosts><host name=\"a\"/></hosts></profile>";
  std::string contents = beginning;
  while (contents.size() + end.size() + 10 < MaxConfigurationFileSize) {
    contents += "<!--  -->\n";
  }
  contents.append(MaxConfigurationFileSize - contents.size() - end.size(), ' ');
  contents += end;
  ASSERT_EQ(contents.size(), MaxConfigurationFileSize);
  const ProfileReading reading = read(contents);
  EXPECT_THAT(reading.problems, IsEmpty());
  EXPECT_THAT(tests::hostNames(reading.profile), ElementsAre("a"));
  EXPECT_FALSE(read(contents + "\n").usable);
}

TEST_F(HostileFileTest, AFileThatSaysItIsEmptyIsReadOnlyUpToTheLimit) {
  // A file of /proc has a size of 0, whatever can be read from it.
  const ProfileReading reading = tests::readProfile("/proc/self/maps");
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems, SizeIs(1));
}

TEST_F(HostileFileTest, BytesThatAreNoUtf8AreNamedWithTheirLine) {
  // Latin-1, a lone continuation byte, an overlong slash, a surrogate, beyond Unicode, cut off.
  for (const char* wrong :
       {"Z\xFCrich", "\x80", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE2\x82"}) {
    const ProfileReading reading =
        read(profileWithHosts(std::string("<host name=\"") + wrong + "\" address=\"gw\"/>"));
    EXPECT_FALSE(reading.usable);
    EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(4, Pieces{"not UTF-8", "\\x"})));
  }
}

TEST_F(HostileFileTest, AnotherDeclaredEncodingIsNotBelieved) {
  const ProfileReading reading = read(
      "<?xml version=\"1.0\" encoding=\"UTF-16\"?><profile version=\"1\"><hosts>"
      "<host name=\"Zürich\" address=\"gw\"/></hosts></profile>");
  EXPECT_THAT(reading.problems, IsEmpty());
  EXPECT_THAT(tests::hostNames(reading.profile), ElementsAre("Zürich"));
}

TEST_F(HostileFileTest, AFileInAnotherEncodingIsRefused) {
  EXPECT_THAT(read(std::string("<\0p\0r\0", 6)).problems,
              ElementsAre(ProblemAt(1, Pieces{"not UTF-8"})));
  EXPECT_THAT(read(std::string("\xFF\xFE<\0p\0", 6)).problems,
              ElementsAre(ProblemAt(1, Pieces{"not UTF-8"})));
}

TEST_F(HostileFileTest, AnEmptyOrBlankFileIsRefused) {
  for (const char* nothing : {"", " \n\t\r\n"}) {
    const ProfileReading reading = read(nothing);
    EXPECT_FALSE(reading.usable);
    EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(0, Pieces{"is empty"})));
  }
}

TEST_F(HostileFileTest, DeepNestingIsRefused) {
  std::string open;
  for (int i = 0; i < 100000; ++i) {
    open += "<a>";
  }
  const ProfileReading reading = read(profileText(open));
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(3, Pieces{"<a>"}),
                                            ProblemAt(3, Pieces{"nested more than 16 deep"})));
}

TEST_F(HostileFileTest, SixteenLevelsAreNotTooDeep) {
  std::string open;
  std::string close;
  for (int i = 0; i < 15; ++i) {
    open += "<a>";
    close += "</a>";
  }
  EXPECT_TRUE(read(profileText(open + close)).usable);
  EXPECT_FALSE(read(profileText(open + "<a/>" + close)).usable);
}

TEST_F(HostileFileTest, AnEndlessTagIsRefusedBeforeItIsParsed) {
  std::string tag = "<host";
  for (int i = 0; i < 400000; ++i) {
    tag += " a" + std::to_string(i) + "=\"\"";
  }
  const ProfileReading reading = read(profileWithHosts(tag + "/>"));
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(4, Pieces{"longer than 16 KiB"})));
}

TEST_F(HostileFileTest, ManyAttributesAreRefused) {
  std::string tag = "<host";
  for (int i = 0; i < 17; ++i) {
    tag += " a" + std::to_string(i) + "=\"\"";
  }
  const ProfileReading reading = read(profileWithHosts(tag + "/>"));
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(4, Pieces{"more than 16 attributes"})));
}

TEST_F(HostileFileTest, TooManyNamesOfElementsAreRefused) {
  std::string elements;
  for (int i = 0; elements.size() < std::size_t{7} * 1024 * 1024; ++i) {
    elements += "<e" + std::to_string(i) + "/>";
  }
  const ProfileReading reading = read(profileText(elements));
  EXPECT_FALSE(reading.usable);
  ASSERT_THAT(reading.problems, SizeIs(MaxProblemsPerFile + 1));
  EXPECT_THAT(reading.problems.back(), ProblemAt(3, TooManyNames));
}

TEST_F(HostileFileTest, TooManyNamesOfAttributesAreRefused) {
  std::string elements;
  for (int i = 0; elements.size() < std::size_t{7} * 1024 * 1024; ++i) {
    elements += "<preference a" + std::to_string(i) + "=\"\"/>";
  }
  const ProfileReading reading = read(profileText("<preferences>" + elements + "</preferences>"));
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems.back(), ProblemAt(3, TooManyNames));
}

TEST_F(HostileFileTest, TooManyNamesOfProcessingInstructionsAreRefusedWhereverTheyStand) {
  std::string instructions;
  for (int i = 0; instructions.size() < std::size_t{7} * 1024 * 1024; ++i) {
    instructions += "<?p" + std::to_string(i) + "?>";
  }
  const std::string profile = "<profile version=\"1\"/>\n";
  for (const std::string& text : {instructions + profile, profile + instructions,
                                  "<profile version=\"1\">\n" + instructions + "</profile>"}) {
    const ProfileReading reading = read(text);
    EXPECT_FALSE(reading.usable);
    EXPECT_THAT(reading.problems,
                ElementsAre(testing::Field(&FileProblem::text, HasSubstr(TooManyNames.front()))));
  }
}

TEST_F(HostileFileTest, AFewHundredNamesAreNotTooMany) {
  std::string instructions;
  for (int i = 0; i < 900; ++i) {
    instructions += "<?p" + std::to_string(i) + "?>";
  }
  const ProfileReading reading = read(
      instructions +
      profileWithHosts("<host name=\"a\"/>").substr(std::string("<?xml version=\"1.0\"?>").size()));
  EXPECT_THAT(reading.problems, IsEmpty());
  EXPECT_THAT(tests::hostNames(reading.profile), ElementsAre("a"));
}

TEST_F(HostileFileTest, AThousandMistakesAreToldAHundredTimes) {
  std::string hosts;
  for (int i = 0; i < 1000; ++i) {
    hosts += "<host/>\n";
  }
  const ProfileReading reading = read(profileWithHosts(hosts + "<host name=\"a\"/>"));
  EXPECT_TRUE(reading.usable);
  EXPECT_THAT(tests::hostNames(reading.profile), ElementsAre("a"));
  ASSERT_THAT(reading.problems, SizeIs(MaxProblemsPerFile));
  EXPECT_THAT(reading.problems.back(), ProblemAt(103, Pieces{"from here on are not listed"}));
  EXPECT_TRUE(reading.problems.back().endsList);
  EXPECT_FALSE(reading.problems.front().endsList);
}

TEST_F(HostileFileTest, WhyAFileIsSkippedIsToldAfterAThousandMistakesToo) {
  std::string hosts;
  for (int i = 0; i < 1000; ++i) {
    hosts += "<host/>\n";
  }
  const ProfileReading reading = read(profileWithHosts(hosts + "<host"));
  EXPECT_FALSE(reading.usable);
  ASSERT_THAT(reading.problems, SizeIs(MaxProblemsPerFile + 1));
  EXPECT_THAT(reading.problems.back().text, HasSubstr("not well-formed"));
}

TEST_F(HostileFileTest, NoTextOfAFileMakesAMessageLongOrTwoLines) {
  const std::string evil = std::string(3000, 'x') + "&#10;2025-01-01 forged";
  const ProfileReading reading = read(profileText(
      "<preferences><preference name=\"" + evil +
      "\" value=\"true\"/><preference name=\"EnableAutomaticServerSelection\" value=\"" + evil +
      "\"/></preferences><hosts><host name=\"" + evil + "\"/><host name=\"a\" " + "address=\"" +
      evil + "\"/>" + evil + "</hosts>"));
  ASSERT_THAT(reading.problems, SizeIs(5));
  for (const FileProblem& problem : reading.problems) {
    EXPECT_THAT(problem.text, Not(HasSubstr("\n")));
    EXPECT_LT(problem.text.size(), 700U) << problem.text;
  }
}

TEST_F(HostileFileTest, TenThousandEntriesInOneFileAreAllRead) {
  std::ostringstream hosts;
  for (int i = 0; i < 10000; ++i) {
    hosts << "<host name=\"Gateway " << i << "\" address=\"gw-" << i << ".example.com:8443\"/>\n";
  }
  const ProfileReading reading = read(profileWithHosts(hosts.str()));
  EXPECT_TRUE(reading.usable);
  EXPECT_THAT(reading.problems, IsEmpty());
  ASSERT_THAT(reading.profile.hosts, SizeIs(10000));
  EXPECT_EQ(reading.profile.hosts.back().name, "Gateway 9999");
  EXPECT_EQ(reading.profile.hosts.back().address, "gw-9999.example.com:8443");
  EXPECT_EQ(reading.profile.hosts.back().line, 10003U);
}

TEST_F(HostileFileTest, EntriesBeyondTheHundredThousandthAreLeftOut) {
  std::ostringstream hosts;
  for (std::size_t i = 0; i < MaxHostsPerFile + 5; ++i) {
    hosts << "<host name=\"g" << i << "\"/>\n";
  }
  const ProfileReading reading = read(profileWithHosts(hosts.str()));
  EXPECT_TRUE(reading.usable);
  EXPECT_THAT(reading.profile.hosts, SizeIs(MaxHostsPerFile));
  EXPECT_THAT(reading.problems,
              ElementsAre(ProblemAt(MaxHostsPerFile + 4, Pieces{"more than 100000 host entries"})));
}

TEST_F(HostileFileTest, AFileCutAtAnyByteIsRefusedOrUsedButNeverHalf) {
  const std::string whole = profileWithHosts(
      "<host name=\"a&amp;b\" address=\"gw\"/><!-- c --><host name=\"Zürich\" address=\"gw\"/>");
  const std::size_t complete = whole.find("</profile>") + 10;
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const ProfileReading reading = read(whole.substr(0, length));
    EXPECT_EQ(reading.usable, length >= complete) << length;
    EXPECT_EQ(reading.profile.hosts.size(), length >= complete ? 2U : 0U) << length;
    EXPECT_EQ(reading.problems.empty(), length >= complete) << length;
  }
}

TEST_F(HostileFileTest, AFileWithAnyByteReplacedIsReadInPeace) {
  const std::string whole = profileWithHosts("<host name=\"a&amp;b\" address=\"gw:8443\"/>");
  for (std::size_t i = 0; i < whole.size(); ++i) {
    for (const char byte : {'\0', '<', '>', '&', '"', '\xC3', '\n'}) {
      std::string changed = whole;
      changed[i] = byte;
      const ProfileReading reading = read(changed);
      EXPECT_TRUE(reading.usable || !reading.problems.empty()) << i;
    }
  }
}

TEST_F(HostileFileTest, AMessageIsNoLongerForWhatItHasToEscape) {
  std::string name = "a";
  for (int i = 0; i < 200; ++i) {
    name += "&#10;";
  }
  const ProfileReading reading = read(profileWithHosts("<host name=\"" + name + "\"/>"));
  ASSERT_THAT(reading.problems, SizeIs(1));
  EXPECT_THAT(reading.problems[0].text, HasSubstr("\\x0a"));
  EXPECT_LT(reading.problems[0].text.size(), 250U);
}
