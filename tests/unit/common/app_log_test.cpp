// The log as its readers see it: in a file, on a terminal, through a listener.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/unit/common/heard_log.h"
#include "vpn/Common/Logging/AppLog.h"

namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using tests::eventually;
using tests::readFile;

class AppLog : public testing::Test {
 protected:
  ~AppLog() override { CAppLog::close(); }

  std::string path(const std::string& name = "a.log") const { return m_directory.File(name); }

  CAppLog::Targets toFile(std::size_t fileSize = CAppLog::Targets().fileSize) const {
    CAppLog::Targets targets;
    targets.file = path();
    targets.fileSize = fileSize;
    return targets;
  }

  std::string written() const {
    CAppLog::flush();
    return readFile(path());
  }

  const tests::TemporaryDirectory m_directory;
};

void log(Logging::DebugImportance importance, const char* message) {
  CAppLog::LogDebugMessage("function", "vpn/source", 12, importance, "%s", message);
}
void info(const char* message) { log(Logging::DBG_Info, message); }
void warn(const char* message) { log(Logging::DBG_Warning, message); }
void error(const char* message) { log(Logging::DBG_Error, message); }

std::string heard(const std::string& message) {
  const HeardLog log;
  info(message.c_str());
  const auto lines = log.lines();
  return lines.size() == 1 ? lines[0].substr(2) : "not one line";
}

TEST_F(AppLog, ALineCarriesTimeSeverityThreadFunctionPositionAndMessage) {
  ASSERT_EQ(CAppLog::open(toFile()), "");
  CAppLog::LogDebugMessage("selectHeadend", "vpn/Api/AHS/HeadendSelection", 321,
                           Logging::DBG_Warning, "%s has %d", "gw-a", 7);
  error("two");
  CAppLog::LogVerboseMessage("run", "HeadendSelection", 5, Logging::DBG_Info, CLC_VPN_API,
                             CUST_LOG_LEVEL_3, "CHeadendSelection thread ID '%d'", 42);
  const std::string time = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";
  const std::string thread = std::to_string(gettid());
  EXPECT_THAT(written(),
              MatchesRegex(time + "W " + thread +
                           " selectHeadend vpn/Api/AHS/HeadendSelection:321 gw-a has 7\n" + time +
                           "E " + thread + " function vpn/source:12 two\n" + time + "I " + thread +
                           " run HeadendSelection:5 CHeadendSelection thread ID '42'\n"));
}

TEST_F(AppLog, AReturnCodeIsOneLineWithTheReasonAndTheExtraText) {
  const HeardLog log;
  const struct {
    int systemError;
    const char* extra;
    const char* end;
  } rows[] = {{0, nullptr, ""},
              {ECONNREFUSED, nullptr, " (Connection refused)"},
              {0, "gw-a", ": gw-a"},
              {ECONNREFUSED, "gw-a", " (Connection refused): gw-a"},
              {123456, nullptr, " (errno 123456)"}};
  for (const auto& [systemError, extra, end] : rows) {
    CAppLog::LogReturnCode("run", "vpn/source", 1, Logging::DBG_Error, "HttpProbe::SendHttpProbe",
                           0xFE46000C, systemError, extra);
    EXPECT_EQ(log.lines().back(),
              std::string("E Return code from HttpProbe::SendHttpProbe: 0xFE46000C") + end);
  }
  CAppLog::LogReturnCode("run", "vpn/source", 1, Logging::DBG_Error, "call", 7, 0, nullptr);
  EXPECT_EQ(log.lines().back(), "E Return code from call: 0x00000007");
  EXPECT_EQ(log.lines().size(), 6U);
}

TEST_F(AppLog, AMessageBelowTheFilterIsHeardButNotWritten) {
  struct Row {
    Logging::DebugImportance leastImportant;
    bool off;
    std::string written;
  };
  const HeardLog log;
  for (const Row& row :
       {Row{Logging::DBG_Warning, false, "[^\n]* warning\n[^\n]* error\n"},
        Row{Logging::DBG_Error, false, "[^\n]* error\n"}, Row{Logging::DBG_Info, true, ""}}) {
    SCOPED_TRACE(row.written);
    std::filesystem::remove(path());
    CAppLog::Targets targets = toFile();
    targets.leastImportant = row.leastImportant;
    targets.off = row.off;
    ASSERT_EQ(CAppLog::open(targets), "");
    info("info");
    warn("warning");
    error("error");
    EXPECT_THAT(written(), MatchesRegex(row.written));
    CAppLog::close();
  }
  EXPECT_EQ(log.lines().size(), 9U);
}

TEST_F(AppLog, AMessageBelowTheFilterIsNotEvenFormatted) {
  CAppLog::Targets targets = toFile();
  targets.leastImportant = Logging::DBG_Warning;
  ASSERT_EQ(CAppLog::open(targets), "");
  // Formatting would read from this address and crash.
  const char* volatile nowhere = reinterpret_cast<const char*>(1);
  info(nowhere);
  EXPECT_EQ(written(), "");
}

TEST_F(AppLog, WithoutATargetLinesAreDroppedAndTheNextTargetGetsTheNextOnes) {
  for (const char* const message : {"first", "second"}) {
    error("nobody hears it");
    ASSERT_EQ(CAppLog::open(toFile()), "");
    error(message);
    CAppLog::close();
  }
  EXPECT_THAT(readFile(path()), MatchesRegex("[^\n]* first\n[^\n]* second\n"));
}

TEST_F(AppLog, ErrnoIsAsItWas) {
  ASSERT_EQ(CAppLog::open(toFile()), "");
  errno = 4242;
  error("message");
  CAppLog::LogReturnCode("f", "s", 1, Logging::DBG_Error, "call", 1, 2, "extra");
  EXPECT_EQ(errno, 4242);
}

TEST_F(AppLog, WhatIsHarmlessPassesAndWhatControlsOrForgesIsEscaped) {
  const std::string harmless = "\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80 a\tb\n\ntwo\n";
  const std::map<std::string, std::string> rows = {
      {harmless, harmless},
      {"", ""},
      {"a\x1b[31mred\r\x07\x7f", "a\\x1b[31mred\\x0d\\x07\\x7f"},
      {"\x9b!", "\\x9b!"},                           // a control character of 8-bit terminals
      {"\xc3", "\\xc3"},                             // cut off
      {"\xc0\x8a", "\\xc0\\x8a"},                    // a line feed in disguise
      {"\xe0\x80\x8a", "\\xe0\\x80\\x8a"},           // a longer form of it
      {"\xed\xa0\x80", "\\xed\\xa0\\x80"},           // half a surrogate pair
      {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},  // beyond Unicode
      {"\xff", "\\xff"},
      {"\xc2\x9b!", "\\xc2\\x9b!"},           // CSI
      {"\xe2\x80\xae!", "\\xe2\\x80\\xae!"},  // right-to-left override
      {"\xe2\x80\xa8", "\\xe2\\x80\\xa8"},    // line separator
  };
  for (const auto& [message, expected] : rows) {
    EXPECT_EQ(heard(message), expected);
  }
}

TEST_F(AppLog, AnOverlongMessageIsCutAndMarked) {
  for (const std::size_t length : {512UL, 513UL, 5000UL}) {
    const std::string whole(length, 'x');
    EXPECT_EQ(heard(whole), whole);
  }
  const std::string longest(CAppLog::MaxMessageLength, 'x');
  EXPECT_EQ(heard(longest), longest);
  EXPECT_EQ(heard(longest + "y"), longest + " [cut]");
  // Escaping lengthens a message, but it stays bounded.
  const std::string escaped = heard(std::string(CAppLog::MaxMessageLength, '\x01'));
  EXPECT_EQ(escaped.size(), CAppLog::MaxMessageLength + std::string(" [cut]").size());
  EXPECT_THAT(escaped, EndsWith("\\x01 [cut]"));
}

TEST_F(AppLog, TheLinesOfAMessageAfterTheFirstAreIndentedSoThatNoneCanPassForALogLine) {
  ASSERT_EQ(CAppLog::open(toFile()), "");
  info("*** Results ***\n\ngw-a     40\n2024-01-01 00:00:00.000 E 1 f s:1 forged\n\n");
  EXPECT_THAT(written(), EndsWith(" *** Results ***\n\n  gw-a     40\n"
                                  "  2024-01-01 00:00:00.000 E 1 f s:1 forged\n"));
}

TEST_F(AppLog, AReportStaysInOnePieceAmongConcurrentLines) {
  ASSERT_EQ(CAppLog::open(toFile(std::size_t{64} * 1024 * 1024)), "");
  constexpr int rounds = 300;
  const auto repeat = [](const char* message) {
    return std::jthread([message] {
      for (int round = 0; round < rounds; ++round) {
        info(message);
      }
    });
  };
  {
    const std::jthread loggers[] = {repeat("report\nline 1\nline 2\nline 3\n"), repeat("single"),
                                    repeat("single"), repeat("single")};
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

TEST_F(AppLog, TheFileIsRotatedAndOnlyTheAskedNumberKeptForItsOwnerAlone) {
  CAppLog::Targets targets = toFile(1000);
  targets.fileCount = 2;
  const mode_t former = umask(0);
  ASSERT_EQ(CAppLog::open(targets), "");
  const std::string text(300, 'x');
  for (int i = 0; i < 40; ++i) {
    error(text.c_str());
  }
  umask(former);
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(m_directory.Path())) {
    names.push_back(entry.path().filename());
    EXPECT_LE(entry.file_size(), 1000U);
    EXPECT_EQ(entry.status().permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  }
  EXPECT_THAT(names, testing::UnorderedElementsAre("a.log", "a.1.log", "a.2.log"));
}

TEST_F(AppLog, APathThatCannotBeAFileIsReportedWithARemedy) {
  const auto problemWith = [](const std::string& file) {
    CAppLog::Targets targets;
    targets.file = file;
    return CAppLog::open(targets);
  };
  EXPECT_THAT(problemWith(path("missing/a.log")),
              AllOf(HasSubstr("missing/a.log"), HasSubstr("create the directory")));
  EXPECT_THAT(problemWith(m_directory.Path()), HasSubstr("Is a directory"));
  EXPECT_THAT(problemWith("/dev/null"), HasSubstr("not a regular file"));
  EXPECT_THAT(problemWith("/proc/self/comm"), HasSubstr("one of the kernel's"));
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
  EXPECT_NE(problemWith(path("pipe")), "");
  EXPECT_NE(CAppLog::open(toFile(0)), "");
}

TEST_F(AppLog, NobodyElseChoosesTheFileThatIsWrittenTo) {
  const std::string secret = m_directory.Write("secret", "secret\n");
  const std::string shared = m_directory.MakeDirectory("shared");
  CAppLog::Targets targets;
  const auto problem = [&targets](const std::string& file) {
    targets.file = file;
    const std::string said = CAppLog::open(targets);
    error("message");
    CAppLog::close();
    return said;
  };
  std::filesystem::create_symlink(path("own.log"), path("link"));
  EXPECT_EQ(problem(path("link")), "") << "a link of one's own leads on";
  EXPECT_THAT(readFile(path("own.log")), EndsWith(" message\n"));
  ASSERT_EQ(chmod(shared.c_str(), 0777), 0);
  EXPECT_THAT(problem(shared + "/a.log"), HasSubstr(shared + " may be written by every user"));
  EXPECT_THAT(problem(shared + "/../a.log"), HasSubstr(shared + " may be written by every user"));
  ASSERT_EQ(chmod(shared.c_str(), 01777), 0);
  EXPECT_EQ(problem(shared + "/a.log"), "") << "as in /tmp";
  std::filesystem::create_hard_link(secret, shared + "/b.log");
  EXPECT_THAT(problem(shared + "/b.log"), HasSubstr("has a second name"));
  std::filesystem::create_symlink(secret, shared + "/c.log");
  if (lchown((shared + "/c.log").c_str(), geteuid() + 1, getegid()) == 0) {
    EXPECT_THAT(problem(shared + "/c.log"), HasSubstr("belongs to user"));
  }
  EXPECT_EQ(readFile(secret), "secret\n");
}

TEST_F(AppLog, TheFileStaysInItsDirectoryWhateverItsPathLeadsTo) {
  const std::string inner = m_directory.MakeDirectory("inner");
  const std::string stranger = m_directory.MakeDirectory("stranger");
  CAppLog::Targets targets = toFile(1000);
  targets.file = inner + "/a.log";
  ASSERT_EQ(CAppLog::open(targets), "");
  std::filesystem::rename(inner, path("moved"));
  std::filesystem::create_symlink(stranger, inner);
  for (int i = 0; i < 20; ++i) {
    error(std::string(300, 'x').c_str());
  }
  EXPECT_TRUE(std::filesystem::is_empty(stranger));
  EXPECT_TRUE(std::filesystem::exists(path("moved/a.3.log")));
}

TEST_F(AppLog, TheOtherTargetsAreOpenEvenWhenTheFileIsNotAndWhatIsNoTerminalGetsNoColour) {
  testing::internal::CaptureStderr();
  CAppLog::Targets targets;
  targets.file = path("missing/a.log");
  targets.terminal = true;
  EXPECT_NE(CAppLog::open(targets), "");
  info("on the terminal");
  CAppLog::close();
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              AllOf(EndsWith("vpn/source:12 on the terminal\n"), Not(HasSubstr("\x1b"))));
}

TEST_F(AppLog, ARotationThatFailsLosesLinesAndNothingElse) {
  ASSERT_EQ(CAppLog::open(toFile(1000)), "");
  error("before");
  const HeardLog log;
  const auto full = [this](int number) {
    return m_directory.MakeDirectory("a." + std::to_string(number) + ".log");
  };
  for (int number = 1; number <= 3; ++number) {
    std::filesystem::create_directory(full(number) + "/one");
  }
  error(std::string(950, 'x').c_str());
  error("too short to be rotated");
  error("lost");
  for (int number = 1; number <= 3; ++number) {
    std::filesystem::remove_all(path("a." + std::to_string(number) + ".log"));
  }
  EXPECT_EQ(log.lines().size(), 3U) << "listeners miss nothing";
  EXPECT_TRUE(eventually([this] {
    error("after");
    return written().find("after") != std::string::npos;
  }));
  EXPECT_THAT(written(), testing::ContainsRegex(" W [0-9]+ [0-9]+ messages were lost: .*rotated"));
}

TEST_F(AppLog, AFileBeyondTheLimitLosesLinesAndRaisesNoSignal) {
  ASSERT_EQ(CAppLog::open(toFile()), "");
  error("before");
  rlimit former{};
  getrlimit(RLIMIT_FSIZE, &former);
  const rlimit small{100, former.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  error(std::string(200, 'x').c_str());
  setrlimit(RLIMIT_FSIZE, &former);
  sigset_t pending;
  sigemptyset(&pending);
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGXFSZ), 0);
  EXPECT_THAT(written(), testing::HasSubstr("before"));
}

/// A log line as the terminal receives it.
std::string shownOnATerminal() {
  const int former = dup(STDERR_FILENO);
  int reader = -1;
  int terminal = -1;
  EXPECT_EQ(openpty(&reader, &terminal, nullptr, nullptr, nullptr), 0);
  dup2(terminal, STDERR_FILENO);
  close(terminal);
  CAppLog::Targets targets;
  targets.terminal = true;
  EXPECT_EQ(CAppLog::open(targets), "");
  error("message");
  CAppLog::close();
  // A line in colour comes in several pieces.
  std::string text;
  std::array<char, 4096> buffer = {};
  ssize_t length = 1;
  while (length > 0 && text.find('\n') == std::string::npos) {
    length = read(reader, buffer.data(), buffer.size());
    text.append(buffer.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
  }
  dup2(former, STDERR_FILENO);
  close(former);
  close(reader);
  return text;
}

TEST_F(AppLog, ATerminalShowsTheSeverityInColourUnlessTheUserWantsNone) {
  setenv("TERM", "xterm", 1);
  unsetenv("NO_COLOR");
  EXPECT_THAT(shownOnATerminal(), HasSubstr("\x1b[31m"));
  setenv("NO_COLOR", "1", 1);
  EXPECT_THAT(shownOnATerminal(), AllOf(HasSubstr("message"), Not(HasSubstr("\x1b"))));
  unsetenv("NO_COLOR");
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

/// A thread that logs as long as the object lives.
std::jthread logger() {
  return std::jthread([](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      info("message");
    }
  });
}

TEST_F(AppLog, AListenerIsNotRunningAnyMoreWhenItHasBeenTakenAway) {
  for (int round = 0; round < 200; ++round) {
    const std::jthread other = logger();
    auto heardHere = std::make_unique<int>(0);
    CAppLog::setListener([&heardHere](const CAppLog::Record&) { ++*heardHere; });
    std::this_thread::yield();
    CAppLog::setListener({});
    heardHere.reset();
  }
}

TEST_F(AppLog, TargetsMayBeChangedWhileOthersLog) {
  {
    const std::jthread loggers[] = {logger(), logger(), logger()};
    for (int round = 0; round < 50; ++round) {
      EXPECT_EQ(CAppLog::open(toFile()), "");
      if (round % 3 == 0) {
        CAppLog::close();
      }
    }
  }
  ASSERT_EQ(CAppLog::open(toFile()), "");
  error("last");
  EXPECT_THAT(written(), EndsWith("last\n"));
}

TEST_F(AppLog, AWarningIsInTheFileAtOnce) {
  ASSERT_EQ(CAppLog::open(toFile()), "");
  warn("at once");
  EXPECT_THAT(readFile(path()), EndsWith("at once\n"));
}

}  // namespace
