// Questions at a real pseudo-terminal: the state in which it is left. Tests of the login and of the
// command see what is shown, and signals during a question.

#include "cli/login/Terminal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "tests/unit/cli/person.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* Question = "Password: ";

}  // namespace

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

TEST(Terminal, IsNotHiddenAnyMoreOnceTheProcessIsEnding) {
  const Person person(Person::Lines{});
  Terminal terminal(dup(person.terminal()));
  terminal.leave();
  Secret answer;
  EXPECT_EQ(terminal.ask(Question, Terminal::Echo::Off, answer), Terminal::Answer::None);
  EXPECT_TRUE(person.seesWhatIsTyped());
  EXPECT_THAT(person.shown(), Not(HasSubstr(Question)));
}

TEST(Terminal, BeingContinuedWithoutAStopDoesNotMakeTheHiddenStateTheOneToGoBackTo) {
  const Person person(Person::Lines{});
  Terminal terminal(dup(person.terminal()));
  Secret answer;
  std::thread asking([&] { terminal.ask(Question, Terminal::Echo::Off, answer); });
  EXPECT_TRUE(person.waitFor(Question));
  terminal.comeBack();
  EXPECT_FALSE(person.seesWhatIsTyped());
  person.type("fly-by-night\n");
  asking.join();
  EXPECT_STREQ(answer.c_str(), "fly-by-night");
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
