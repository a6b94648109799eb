// Questions at a real pseudo-terminal: what is shown, and the state in which it is left.

#include "cli/login/Terminal.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "tests/unit/cli/person.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* Question = "Password: ";

/// A question that is open until the person answers it.
class OpenQuestion {
 public:
  OpenQuestion(Terminal& terminal, const Person& person)
      : m_person(person), m_thread([this, &terminal] {
          m_result = terminal.ask(Question, Terminal::Echo::Off, m_answer);
        }) {}
  ~OpenQuestion() { answer(""); }
  OpenQuestion(const OpenQuestion&) = delete;
  OpenQuestion& operator=(const OpenQuestion&) = delete;

  std::string answer(const std::string& text) {
    if (m_thread.joinable()) {
      m_person.type(text + "\n");
      m_thread.join();
    }
    return m_result == Terminal::Answer::Given ? m_answer.c_str() : "none";
  }

 private:
  const Person& m_person;
  Secret m_answer;
  Terminal::Answer m_result = Terminal::Answer::None;
  std::thread m_thread;
};

}  // namespace

TEST(Terminal, AnAnswerIsTheLineWithoutItsEnd) {
  const Person person(Person::Lines{{"Name: ", "alice smith\n"}});
  Terminal terminal(dup(person.terminal()));
  Secret answer;
  EXPECT_EQ(terminal.ask("Name: ", Terminal::Echo::On, answer), Terminal::Answer::Given);
  EXPECT_STREQ(answer.c_str(), "alice smith");
  EXPECT_TRUE(person.waitFor("Name: alice smith\r\n"));
}

TEST(Terminal, APasswordIsNotShown) {
  const Person person(Person::Lines{{Question, "fly-by-night\n"}, {"Name: ", "next\n"}});
  Terminal terminal(dup(person.terminal()));
  Secret answer;
  EXPECT_EQ(terminal.ask(Question, Terminal::Echo::Off, answer), Terminal::Answer::Given);
  EXPECT_STREQ(answer.c_str(), "fly-by-night");
  EXPECT_EQ(terminal.ask("Name: ", Terminal::Echo::On, answer), Terminal::Answer::Given);
  EXPECT_TRUE(person.waitFor("Password: \r\nName: next\r\n"));
  EXPECT_THAT(person.shown(), Not(HasSubstr("fly")));
}

TEST(Terminal, IsLeftAsItWasFoundAfterAPassword) {
  const Person person(Person::Lines{{Question, "fly-by-night\n"}});
  termios before{};
  ASSERT_EQ(tcgetattr(person.terminal(), &before), 0);
  before.c_lflag |= ECHONL;
  ASSERT_EQ(tcsetattr(person.terminal(), TCSANOW, &before), 0);
  Terminal terminal(dup(person.terminal()));
  Secret answer;
  EXPECT_EQ(terminal.ask(Question, Terminal::Echo::Off, answer), Terminal::Answer::Given);
  termios after{};
  ASSERT_EQ(tcgetattr(person.terminal(), &after), 0);
  EXPECT_EQ(after.c_lflag, before.c_lflag);
}

TEST(Terminal, WhatWasTypedInSightBeforeTheQuestionIsNoPassword) {
  const Person person(Person::Lines{{Question, "fly-by-night\n"}});
  person.type("too early\n");
  ASSERT_TRUE(person.waitFor("too early\r\n"));
  Terminal terminal(dup(person.terminal()));
  Secret answer;
  EXPECT_EQ(terminal.ask(Question, Terminal::Echo::Off, answer), Terminal::Answer::Given);
  EXPECT_STREQ(answer.c_str(), "fly-by-night");
}

TEST(Terminal, AnEndedInputIsNoAnswer) {
  const Person person(Person::Lines{{"Name: ", "\x04"}, {Question, "half\x04\x04"}});
  Terminal terminal(dup(person.terminal()));
  Secret answer;
  EXPECT_EQ(terminal.ask("Name: ", Terminal::Echo::On, answer), Terminal::Answer::None);
  EXPECT_EQ(terminal.ask(Question, Terminal::Echo::Off, answer), Terminal::Answer::None);
  EXPECT_TRUE(person.seesWhatIsTyped());
}

TEST(Terminal, ALineThatIsTooLongIsReadToItsEnd) {
  const std::string longest(MostCredentialBytes, 'a');
  const Person person(Person::Lines{{"One: ", longest + "a\n"},
                                    {"Two: ", std::string(3 * MostCredentialBytes, 'b') + "\n"},
                                    {"Three: ", longest + "\n"}});
  Terminal terminal(dup(person.terminal()));
  Secret answer;
  EXPECT_EQ(terminal.ask("One: ", Terminal::Echo::Off, answer), Terminal::Answer::TooLong);
  EXPECT_EQ(terminal.ask("Two: ", Terminal::Echo::Off, answer), Terminal::Answer::TooLong);
  EXPECT_EQ(terminal.ask("Three: ", Terminal::Echo::Off, answer), Terminal::Answer::Given);
  EXPECT_EQ(answer.c_str(), longest);
}

TEST(Terminal, OneThatIsGoneGivesNoAnswer) {
  Person person(Person::Lines{});
  Terminal terminal(dup(person.terminal()));
  person.hangUp();
  Secret answer;
  EXPECT_EQ(terminal.ask("Name: ", Terminal::Echo::On, answer), Terminal::Answer::None);
}

TEST(Terminal, ShowsWhatIsTypedAgainWhenTheProcessEndsDuringTheQuestion) {
  const Person person(Person::Lines{});
  Terminal terminal(dup(person.terminal()));
  OpenQuestion question(terminal, person);
  ASSERT_TRUE(person.waitFor(Question));
  EXPECT_FALSE(person.seesWhatIsTyped());
  terminal.leave();
  EXPECT_TRUE(person.seesWhatIsTyped());
  EXPECT_TRUE(person.waitFor("Password: \r\n"));
}

TEST(Terminal, IsNotHiddenAnyMoreOnceTheProcessIsEnding) {
  const Person person(Person::Lines{});
  Terminal terminal(dup(person.terminal()));
  terminal.leave();
  Secret answer;
  EXPECT_EQ(terminal.ask(Question, Terminal::Echo::Off, answer), Terminal::Answer::None);
  EXPECT_TRUE(person.seesWhatIsTyped());
  EXPECT_THAT(person.shown(), Not(HasSubstr(Question)));
}

TEST(Terminal, IsGivenBackForAStopAndTheQuestionPutAgainAfterIt) {
  const Person person(Person::Lines{});
  Terminal terminal(dup(person.terminal()));
  OpenQuestion question(terminal, person);
  ASSERT_TRUE(person.waitFor(Question));
  person.type("half a pass");
  terminal.stepAside();
  EXPECT_TRUE(person.seesWhatIsTyped());
  terminal.comeBack();
  EXPECT_FALSE(person.seesWhatIsTyped());
  EXPECT_TRUE(person.waitFor("Password: \rPassword: "));
  EXPECT_EQ(question.answer("fly-by-night"), "fly-by-night") << "half a password was left behind";
  EXPECT_TRUE(person.seesWhatIsTyped());
}

TEST(Terminal, BeingContinuedWithoutAStopDoesNotMakeTheHiddenStateTheOneToGoBackTo) {
  const Person person(Person::Lines{});
  Terminal terminal(dup(person.terminal()));
  OpenQuestion question(terminal, person);
  ASSERT_TRUE(person.waitFor(Question));
  terminal.comeBack();
  EXPECT_FALSE(person.seesWhatIsTyped());
  EXPECT_EQ(question.answer("fly-by-night"), "fly-by-night");
  EXPECT_TRUE(person.seesWhatIsTyped());
}

TEST(Terminal, ComingBackWithoutAQuestionShowsNothing) {
  const Person person(Person::Lines{});
  Terminal terminal(dup(person.terminal()));
  terminal.comeBack();
  terminal.say("next");
  ASSERT_TRUE(person.waitFor("next\r\n"));
  EXPECT_EQ(person.shown(), "next\r\n");
}

TEST(Terminal, ThereIsNoneWhereStandardInputIsRedirected) {
  const int before = dup(STDIN_FILENO);
  const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(dup2(nothing, STDIN_FILENO), STDIN_FILENO);
  EXPECT_EQ(Terminal::find(), nullptr);
  dup2(before, STDIN_FILENO);
  close(nothing);
  close(before);
}
