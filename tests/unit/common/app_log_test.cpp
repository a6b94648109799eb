// The log as its readers meet it: in a file, on a terminal, through a listener.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/common/counted.h"
#include "tests/unit/common/gate.h"
#include "tests/unit/common/heard_log.h"
#include "vpn/Common/Logging/AppLog.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

class AppLog : public testing::Test {
 protected:
  AppLog() {
    std::string directory = testing::TempDir() + "ahs-log-XXXXXX";
    if (mkdtemp(directory.data()) != nullptr) {
      m_directory = directory;
    }
  }
  ~AppLog() override {
    CAppLog::close();
    std::filesystem::remove_all(m_directory);
  }

  std::string path(const std::string& name = "a.log") const { return m_directory / name; }

  CAppLog::Targets toFile() const {
    CAppLog::Targets targets;
    targets.file = path();
    return targets;
  }

  std::string written(const std::string& name = "a.log") const {
    CAppLog::flush();
    std::ifstream file(path(name));
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
  }

  std::filesystem::path m_directory;
};

void info(const char* message) {
  CAppLog::LogDebugMessage("function", "vpn/source", 12, Logging::DBG_Info, "%s", message);
}
void error(const char* message) {
  CAppLog::LogDebugMessage("function", "vpn/source", 12, Logging::DBG_Error, "%s", message);
}

std::string heard(const std::string& message) {
  const HeardLog log;
  CAppLog::LogDebugMessage("f", "s", 1, Logging::DBG_Info, "%s", message.c_str());
  const auto lines = log.lines();
  return lines.size() == 1 ? lines[0].message : "not one line";
}

TEST_F(AppLog, ALineCarriesTimeSeverityThreadFunctionPositionAndMessage) {
  ASSERT_EQ(CAppLog::open(toFile()), "");
  CAppLog::LogDebugMessage("selectHeadend", "vpn/Api/AHS/HeadendSelection", 321,
                           Logging::DBG_Warning, "%s has %d", "gw-a", 7);
  EXPECT_THAT(written(),
              MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} W " +
                           std::to_string(gettid()) +
                           " selectHeadend vpn/Api/AHS/HeadendSelection:321 gw-a has 7\n"));
}

TEST_F(AppLog, TheSeverityIsALetter) {
  ASSERT_EQ(CAppLog::open(toFile()), "");
  info("one");
  error("two");
  EXPECT_THAT(written(), HasSubstr(" I "));
  EXPECT_THAT(written(), HasSubstr(" E "));
}

TEST_F(AppLog, AReturnCodeIsOneLineWithTheReasonAndTheExtraText) {
  const HeardLog log;
  const auto report = [](int systemError, const char* extra) {
    CAppLog::LogReturnCode("run", "vpn/source", 1, Logging::DBG_Error, "HttpProbe::SendHttpProbe",
                           0xFE46000C, systemError, extra);
  };
  report(0, nullptr);
  report(ECONNREFUSED, nullptr);
  report(0, "gw-a");
  report(ECONNREFUSED, "gw-a");
  report(123456, nullptr);
  CAppLog::LogReturnCode("run", "vpn/source", 1, Logging::DBG_Error, "call", 7, 0, nullptr);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 6U);
  const std::string start = "Return code from HttpProbe::SendHttpProbe: 0xFE46000C";
  EXPECT_EQ(lines[0].message, start);
  EXPECT_EQ(lines[1].message, start + " (Connection refused)");
  EXPECT_EQ(lines[2].message, start + ": gw-a");
  EXPECT_EQ(lines[3].message, start + " (Connection refused): gw-a");
  EXPECT_EQ(lines[4].message, start + " (errno 123456)");
  EXPECT_EQ(lines[5].message, "Return code from call: 0x00000007");
}

TEST_F(AppLog, AVerboseMessageIsWrittenAsAnyOther) {
  ASSERT_EQ(CAppLog::open(toFile()), "");
  CAppLog::LogVerboseMessage("run", "HeadendSelection", 5, Logging::DBG_Info, CLC_VPN_API,
                             CUST_LOG_LEVEL_3, "CHeadendSelection thread ID '%d'", 42);
  EXPECT_THAT(written(), EndsWith(" run HeadendSelection:5 CHeadendSelection thread ID '42'\n"));
}

TEST_F(AppLog, AMessageBelowTheFilterIsHeardButNotWritten) {
  CAppLog::Targets targets = toFile();
  targets.leastImportant = Logging::DBG_Warning;
  ASSERT_EQ(CAppLog::open(targets), "");
  const HeardLog log;
  info("only heard");
  CAppLog::LogDebugMessage("f", "s", 1, Logging::DBG_Warning, "written");
  error("written too");
  EXPECT_THAT(written(), Not(HasSubstr("only heard")));
  EXPECT_THAT(written(), HasSubstr("written\n"));
  EXPECT_THAT(written(), HasSubstr("written too\n"));
  EXPECT_EQ(log.lines().size(), 3U);
}

TEST_F(AppLog, OnlyErrorsPassTheNarrowestFilter) {
  CAppLog::Targets targets = toFile();
  targets.leastImportant = Logging::DBG_Error;
  ASSERT_EQ(CAppLog::open(targets), "");
  CAppLog::LogDebugMessage("f", "s", 1, Logging::DBG_Warning, "a warning");
  error("an error");
  EXPECT_THAT(written(), Not(HasSubstr("a warning")));
  EXPECT_THAT(written(), HasSubstr("an error"));
}

TEST_F(AppLog, AMessageBelowTheFilterIsNotEvenFormatted) {
  CAppLog::Targets targets = toFile();
  targets.leastImportant = Logging::DBG_Warning;
  ASSERT_EQ(CAppLog::open(targets), "");
  // Formatting would read from here and end the program.
  const char* volatile nowhere = reinterpret_cast<const char*>(1);
  CAppLog::LogDebugMessage("f", "s", 1, Logging::DBG_Info, "%s", nowhere);
  EXPECT_EQ(written(), "");
}

TEST_F(AppLog, WhenItIsOffNothingIsWrittenAndListenersHearAll) {
  CAppLog::Targets targets = toFile();
  targets.off = true;
  ASSERT_EQ(CAppLog::open(targets), "");
  const HeardLog log;
  error("an error");
  EXPECT_EQ(written(), "");
  EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(AppLog, WithoutATargetLinesAreDroppedAndTheNextTargetGetsTheNextOnes) {
  error("nobody hears it");
  ASSERT_EQ(CAppLog::open(toFile()), "");
  error("first");
  CAppLog::close();
  error("nobody hears it");
  ASSERT_EQ(CAppLog::open(toFile()), "");
  error("second");
  const std::string text = written();
  EXPECT_THAT(text, Not(HasSubstr("nobody")));
  EXPECT_LT(text.find("first"), text.find("second"));
}

TEST_F(AppLog, ErrnoIsAsItWas) {
  ASSERT_EQ(CAppLog::open(toFile()), "");
  errno = 4242;
  error("message");
  CAppLog::LogReturnCode("f", "s", 1, Logging::DBG_Error, "call", 1, 2, "extra");
  EXPECT_EQ(errno, 4242);
}

TEST_F(AppLog, ControlCharactersAreEscapedAndTabsAreNot) {
  EXPECT_EQ(heard("a\x1b[31mred\r\x07\x7f\tb"), "a\\x1b[31mred\\x0d\\x07\\x7f\tb");
}

TEST_F(AppLog, HarmlessUtf8Passes) {
  const std::string text = "\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80";
  EXPECT_EQ(heard(text), text);
}

TEST_F(AppLog, BytesThatAreNotUtf8AreEscaped) {
  EXPECT_EQ(heard("\x9b"
                  "31m"),
            "\\x9b31m");                                // a control character of 8-bit terminals
  EXPECT_EQ(heard("\xc3"), "\\xc3");                    // cut off
  EXPECT_EQ(heard("\xc0\x8a"), "\\xc0\\x8a");           // a line feed in disguise
  EXPECT_EQ(heard("\xe0\x80\x8a"), "\\xe0\\x80\\x8a");  // the same, longer
  EXPECT_EQ(heard("\xed\xa0\x80"), "\\xed\\xa0\\x80");  // half a surrogate pair
  EXPECT_EQ(heard("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");  // beyond Unicode
  EXPECT_EQ(heard("\xff"), "\\xff");
}

TEST_F(AppLog, CharactersThatForgeWhatPeopleSeeAreEscaped) {
  EXPECT_EQ(heard("\xc2\x9b"
                  "31m"),
            "\\xc2\\x9b31m");  // CSI
  EXPECT_EQ(heard("\xe2\x80\xae"
                  "abc"),
            "\\xe2\\x80\\xae"
            "abc");                                     // right-to-left override
  EXPECT_EQ(heard("\xe2\x80\xa8"), "\\xe2\\x80\\xa8");  // line separator
}

TEST_F(AppLog, AnOverlongMessageIsCutAndMarked) {
  const std::string longest(CAppLog::MaxMessageLength, 'x');
  EXPECT_EQ(heard(longest), longest);
  EXPECT_EQ(heard(longest + "y"), longest + " [cut]");
  EXPECT_EQ(heard(longest + longest), longest + " [cut]");
  // Escaping makes it longer, and it is still bounded.
  const std::string escaped = heard(std::string(CAppLog::MaxMessageLength, '\x01'));
  EXPECT_EQ(escaped.size(), CAppLog::MaxMessageLength + std::string(" [cut]").size());
  EXPECT_THAT(escaped, EndsWith("\\x01 [cut]"));
}

TEST_F(AppLog, AMessageLongerThanTheShortBufferIsWhole) {
  for (const std::size_t length : {511U, 512U, 513U, 5000U}) {
    const std::string text(length, 'x');
    EXPECT_EQ(heard(text), text);
  }
}

TEST_F(AppLog, TheLinesOfAMessageAfterTheFirstAreIndentedSoThatNoneCanPassForALogLine) {
  ASSERT_EQ(CAppLog::open(toFile()), "");
  info("*** Results ***\n\ngw-a     40\n2024-01-01 00:00:00.000 E 1 f s:1 forged\n\n");
  EXPECT_THAT(written(), EndsWith(" *** Results ***\n\n  gw-a     40\n"
                                  "  2024-01-01 00:00:00.000 E 1 f s:1 forged\n"));
}

TEST_F(AppLog, AListenerHearsTheMessageAsItWasGiven) {
  EXPECT_EQ(heard("one\n\ntwo\n"), "one\n\ntwo\n");
  EXPECT_EQ(heard(""), "");
}

TEST_F(AppLog, AReportStaysInOnePieceAmongConcurrentLines) {
  CAppLog::Targets targets = toFile();
  targets.fileSize = std::size_t{64} * 1024 * 1024;
  ASSERT_EQ(CAppLog::open(targets), "");
  constexpr int rounds = 300;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (int round = 0; round < rounds; ++round) {
        if (i == 0) {
          info("report\nline 1\nline 2\nline 3\n");
        } else {
          info("single");
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const std::string text = written();
  int reports = 0;
  for (std::size_t at = 0; (at = text.find("report", at)) != std::string::npos; ++at) {
    EXPECT_EQ(text.substr(at, 34), "report\n  line 1\n  line 2\n  line 3\n");
    ++reports;
  }
  EXPECT_EQ(reports, rounds);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), rounds * (4 + 3));
}

TEST_F(AppLog, TheFileIsRotatedAndOnlyTheAskedNumberKept) {
  CAppLog::Targets targets = toFile();
  targets.fileSize = 1000;
  targets.fileCount = 2;
  ASSERT_EQ(CAppLog::open(targets), "");
  const std::string text(300, 'x');
  for (int i = 0; i < 40; ++i) {
    error(text.c_str());
  }
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(m_directory)) {
    names.push_back(entry.path().filename());
    EXPECT_LE(entry.file_size(), 1000U);
  }
  EXPECT_THAT(names, testing::UnorderedElementsAre("a.log", "a.1.log", "a.2.log"));
}

TEST_F(AppLog, EveryFileCanBeReadByItsOwnerAlone) {
  CAppLog::Targets targets = toFile();
  targets.fileSize = 100;
  const mode_t former = umask(0);
  ASSERT_EQ(CAppLog::open(targets), "");
  for (int i = 0; i < 6; ++i) {
    error("a message that fills the file soon");
  }
  umask(former);
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(m_directory)) {
    struct stat properties = {};
    ASSERT_EQ(stat(entry.path().c_str(), &properties), 0);
    EXPECT_EQ(properties.st_mode & 0777U, 0600U) << entry.path();
    ++files;
  }
  EXPECT_GT(files, 1);
}

TEST_F(AppLog, TheFileIsClosedInProgramsThatTheHostStarts) {
  ASSERT_EQ(CAppLog::open(toFile()), "");
  bool found = false;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone) == path()) {
      found = true;
      EXPECT_NE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0);
    }
  }
  EXPECT_TRUE(found);
}

TEST_F(AppLog, APathThatCannotBeAFileIsReportedWithARemedy) {
  const auto problemWith = [](const std::string& file) {
    CAppLog::Targets targets;
    targets.file = file;
    return CAppLog::open(targets);
  };
  EXPECT_THAT(problemWith(path("missing/a.log")),
              testing::AllOf(HasSubstr("missing/a.log"), HasSubstr("create the directory")));
  EXPECT_THAT(problemWith(m_directory), HasSubstr("Is a directory"));
  EXPECT_THAT(problemWith("/dev/null"), HasSubstr("not a regular file"));
  std::ofstream(path("target")) << "text";
  std::filesystem::create_symlink(path("target"), path("link"));
  EXPECT_THAT(problemWith(path("link")), HasSubstr("symbolic link"));
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
  EXPECT_NE(problemWith(path("pipe")), "");
  CAppLog::Targets targets = toFile();
  targets.fileSize = 0;
  EXPECT_NE(CAppLog::open(targets), "");
}

TEST_F(AppLog, TheOtherTargetsAreOpenEvenWhenTheFileIsNot) {
  testing::internal::CaptureStderr();
  CAppLog::Targets targets;
  targets.file = path("missing/a.log");
  targets.terminal = true;
  EXPECT_NE(CAppLog::open(targets), "");
  info("on the terminal");
  CAppLog::close();
  EXPECT_THAT(testing::internal::GetCapturedStderr(), EndsWith("vpn/source:12 on the terminal\n"));
}

/// Takes a directory away for the length of a scope, so that no file in it can be opened.
class DirectoryAway {
 public:
  explicit DirectoryAway(const std::filesystem::path& directory)
      : m_directory(directory), m_elsewhere(directory.string() + ".away") {
    std::filesystem::rename(m_directory, m_elsewhere);
  }
  ~DirectoryAway() { std::filesystem::rename(m_elsewhere, m_directory); }
  DirectoryAway(const DirectoryAway&) = delete;
  DirectoryAway& operator=(const DirectoryAway&) = delete;

 private:
  const std::filesystem::path m_directory;
  const std::filesystem::path m_elsewhere;
};

TEST_F(AppLog, ARotationThatCannotOpenTheNewFileLosesLinesAndNothingElse) {
  CAppLog::Targets targets = toFile();
  targets.fileSize = 1000;
  ASSERT_EQ(CAppLog::open(targets), "");
  error("before");
  {
    const DirectoryAway directoryAway(m_directory);
    error(std::string(950, 'x').c_str());
    error("too short to be rotated");
    error("lost");
  }
  const auto recovered = [this] {
    error("after");
    return written().find("after") != std::string::npos;
  };
  EXPECT_TRUE(eventually(recovered));
  EXPECT_THAT(written(), testing::ContainsRegex(" W [0-9]+ [0-9]+ messages were lost: .*open"));
}

TEST_F(AppLog, ADirectoryThatIsGoneHurtsNobody) {
  CAppLog::Targets targets = toFile();
  targets.fileSize = 200;
  ASSERT_EQ(CAppLog::open(targets), "");
  std::filesystem::remove_all(m_directory);
  const HeardLog log;
  for (int i = 0; i < 10; ++i) {
    error("a message that fills the file soon");
  }
  EXPECT_EQ(log.lines().size(), 10U);
}

/// Standard error is a terminal for the length of a scope.
class OnATerminal {
 public:
  OnATerminal() : m_former(dup(STDERR_FILENO)) {
    int terminal = -1;
    if (openpty(&m_reader, &terminal, nullptr, nullptr, nullptr) == 0) {
      dup2(terminal, STDERR_FILENO);
      close(terminal);
    }
  }
  ~OnATerminal() {
    restore();
    close(m_reader);
  }
  OnATerminal(const OnATerminal&) = delete;
  OnATerminal& operator=(const OnATerminal&) = delete;

  std::string shown() {
    // A line in colour comes in several pieces.
    std::string text;
    std::array<char, 4096> buffer = {};
    ssize_t length = 1;
    while (length > 0 && text.find('\n') == std::string::npos) {
      length = read(m_reader, buffer.data(), buffer.size());
      text.append(buffer.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    }
    restore();
    return text;
  }

 private:
  void restore() {
    if (m_former >= 0) {
      dup2(m_former, STDERR_FILENO);
      close(m_former);
      m_former = -1;
    }
  }

  int m_former;
  int m_reader = -1;
};

std::string shownOnATerminal() {
  OnATerminal terminal;
  CAppLog::Targets targets;
  targets.terminal = true;
  EXPECT_EQ(CAppLog::open(targets), "");
  error("message");
  CAppLog::close();
  return terminal.shown();
}

TEST_F(AppLog, ATerminalShowsTheSeverityInColourUnlessTheUserWantsNone) {
  setenv("TERM", "xterm", 1);
  unsetenv("NO_COLOR");
  EXPECT_THAT(shownOnATerminal(), HasSubstr("\x1b[31m"));
  setenv("NO_COLOR", "1", 1);
  const std::string plain = shownOnATerminal();
  unsetenv("NO_COLOR");
  EXPECT_THAT(plain, HasSubstr("message"));
  EXPECT_THAT(plain, Not(HasSubstr("\x1b")));
}

TEST_F(AppLog, WhatIsNoTerminalGetsNoColour) {
  testing::internal::CaptureStderr();
  CAppLog::Targets targets;
  targets.terminal = true;
  ASSERT_EQ(CAppLog::open(targets), "");
  error("message");
  CAppLog::close();
  const std::string shown = testing::internal::GetCapturedStderr();
  EXPECT_THAT(shown, HasSubstr("message"));
  EXPECT_THAT(shown, Not(HasSubstr("\x1b")));
}

TEST_F(AppLog, SyslogCanBeATargetBesideAnother) {
  CAppLog::Targets targets = toFile();
  targets.syslog = true;
  ASSERT_EQ(CAppLog::open(targets), "");
  ASSERT_EQ(CAppLog::open(targets), "");
  info("to both");
  EXPECT_THAT(written(), HasSubstr("to both"));
}

TEST_F(AppLog, AListenerThatThrowsIsNotTheCallersTrouble) {
  ASSERT_EQ(CAppLog::open(toFile()), "");
  CAppLog::setListener([](const CAppLog::Record&) { throw std::runtime_error("trouble"); });
  EXPECT_NO_THROW(info("written all the same"));
  CAppLog::setListener({});
  EXPECT_THAT(written(), HasSubstr("written all the same"));
}

TEST_F(AppLog, AListenerHearsWhereAMessageComesFrom) {
  const HeardLog log;
  CAppLog::LogDebugMessage("function", "vpn/source", 12, Logging::DBG_Warning, "text");
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].function, "function");
  EXPECT_EQ(lines[0].file, "vpn/source");
  EXPECT_EQ(lines[0].severity, 'W');
}

TEST_F(AppLog, AListenerIsNotRunningAnyMoreWhenItHasBeenTakenAway) {
  for (int round = 0; round < 200; ++round) {
    std::atomic<bool> ends{false};
    std::thread logger([&ends] {
      while (!ends) {
        info("message");
      }
    });
    {
      auto heardHere = std::make_unique<int>(0);
      CAppLog::setListener([&heardHere](const CAppLog::Record&) { ++*heardHere; });
      std::this_thread::yield();
      CAppLog::setListener({});
      heardHere.reset();
    }
    ends = true;
    logger.join();
  }
}

TEST_F(AppLog, TargetsMayBeChangedWhileOthersLog) {
  std::atomic<bool> ends{false};
  std::vector<std::thread> loggers;
  for (int i = 0; i < 3; ++i) {
    loggers.emplace_back([&ends] {
      while (!ends) {
        info("message");
      }
    });
  }
  for (int round = 0; round < 50; ++round) {
    EXPECT_EQ(CAppLog::open(toFile()), "");
    if (round % 3 == 0) {
      CAppLog::close();
    }
  }
  ends = true;
  for (std::thread& logger : loggers) {
    logger.join();
  }
  ASSERT_EQ(CAppLog::open(toFile()), "");
  error("last");
  EXPECT_THAT(written(), EndsWith("last\n"));
}

TEST_F(AppLog, AWarningIsInTheFileAtOnce) {
  ASSERT_EQ(CAppLog::open(toFile()), "");
  CAppLog::LogDebugMessage("f", "s", 1, Logging::DBG_Warning, "at once");
  std::ifstream file(path());
  std::string line;
  std::getline(file, line);
  EXPECT_THAT(line, EndsWith("at once"));
}

}  // namespace
