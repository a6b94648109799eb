// The login at a proxy: questions to a person, their number, and the run's credentials.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "cli/login/ProxyLogin.h"
#include "tests/unit/cli/person.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* Name = "User name (empty to give up): ";
constexpr const char* Password = "Password: ";
constexpr const char* Refusal = "The proxy does not accept this user name and password.";

class ProxyLoginTest : public testing::Test {
 protected:
  // Asking for a password made the process opaque to tools.
  ~ProxyLoginTest() override { prctl(PR_SET_DUMPABLE, 1, 0, 0, 0); }

  static std::shared_ptr<Terminal> at(const Person& person) {
    return std::make_shared<Terminal>(dup(person.terminal()));
  }

  static std::string credentialsOf(const ProxyLogin& login) {
    const std::unique_ptr<ProxyIfc> provider = login.provider();
    return provider == nullptr ? "none"
                               : std::string(provider->getProxyUser().c_str()) + "/" +
                                     provider->getProxyPswd().c_str();
  }
};

}  // namespace

TEST_F(ProxyLoginTest, APersonIsAskedForUserAndPassword) {
  const Person person(Person::Lines{{Name, "alice\n"}, {Password, "fly by night\n"}});
  ProxyLogin login({}, {}, at(person), false);
  EXPECT_EQ(login.provider(), nullptr);
  ASSERT_EQ(prctl(PR_SET_DUMPABLE, 1, 0, 0, 0), 0);
  EXPECT_TRUE(login.find("proxy.example.com:3128", "Head office"));
  EXPECT_EQ(prctl(PR_GET_DUMPABLE, 0, 0, 0, 0), 0) << "a core dump would have the password";
  EXPECT_EQ(credentialsOf(login), "alice/fly by night");
  EXPECT_EQ(login.provider()->getProxyType(), BasicProxy);
  EXPECT_EQ(login.provider()->getProxyHost(), "");
  EXPECT_TRUE(person.waitFor(std::string("Password: \r\n")));
  EXPECT_EQ(person.shown(),
            "The proxy proxy.example.com:3128 asks for a login for 'Head office'.\r\n"
            "User name (empty to give up): alice\r\nPassword: \r\n");
}

TEST_F(ProxyLoginTest, ARealmIsShownWithoutWhatMovesTheCursorAndIsCut) {
  for (const auto& [realm, shown] :
       {std::pair<std::string, std::string>{"Office\x1b[2J\xe2\x80\xae\xff M\xc3\xbcnchen",
                                            " for 'Office\\x1b[2J\\xe2\\x80\\xae\\xff "
                                            "M\xc3\xbcnchen'.\r\n"},
        {std::string(4096, 'x'), " for '" + std::string(200, 'x') + " [cut]'.\r\n"},
        {"", ".\r\n"}}) {
    const Person person(Person::Lines{{Name, "\n"}});
    ProxyLogin login({}, {}, at(person), false);
    EXPECT_FALSE(login.find("proxy:80", realm));
    EXPECT_TRUE(person.waitFor("The proxy proxy:80 asks for a login" + shown));
  }
}

TEST_F(ProxyLoginTest, AfterARefusalThePersonIsToldAndAskedAgainThreeTimesInAll) {
  const Person person(Person::Lines{{Name, "alice\n"},
                                    {Password, "one\n"},
                                    {Name, "alice\n"},
                                    {Password, "two\n"},
                                    {Name, "bob\n"},
                                    {Password, "three\n"}});
  ProxyLogin login({}, {}, at(person), false);
  EXPECT_TRUE(login.find("proxy:80", "Office"));
  EXPECT_TRUE(login.find("proxy:80", "Office"));
  EXPECT_THAT(person.shown(), HasSubstr(Refusal));
  EXPECT_EQ(credentialsOf(login), "alice/two");
  EXPECT_TRUE(login.find("proxy:80", "Office"));
  EXPECT_EQ(credentialsOf(login), "bob/three");
  EXPECT_FALSE(login.find("proxy:80", "Office"));
  EXPECT_EQ(credentialsOf(login), "none");
}

TEST_F(ProxyLoginTest, AnEmptyUserAnEndedInputOrThreeWrongAnswersGiveUp) {
  const std::vector<Person::Lines> ways = {{{Name, "\n"}},
                                           {{Name, "\x04"}},
                                           {{Name, "alice\n"}, {Password, "half\x04\x04"}},
                                           {{Name, "a:b\n"}, {Name, "a:b\n"}, {Name, "a:b\n"}}};
  for (const Person::Lines& lines : ways) {
    const Person person(lines);
    ProxyLogin login({}, {}, at(person), false);
    EXPECT_FALSE(login.find("proxy:80", "Office"));
    EXPECT_EQ(credentialsOf(login), "none");
    EXPECT_TRUE(person.seesWhatIsTyped());
  }
}

TEST_F(ProxyLoginTest, WhatNoProxyCouldTakeIsAskedForAgain) {
  const Person person(Person::Lines{{Name, "alice:secret\n"},
                                    {Name, std::string(MostCredentialBytes + 1, 'a') + "\n"},
                                    {Name, "alice\n"},
                                    {Password, "a\tb\n"},
                                    {Password, "ab\n"}});
  ProxyLogin login({}, {}, at(person), false);
  EXPECT_TRUE(login.find("proxy:80", "Office"));
  EXPECT_EQ(credentialsOf(login), "alice/ab");
  EXPECT_THAT(person.shown(), HasSubstr("cannot have a colon in it"));
  EXPECT_THAT(person.shown(), HasSubstr("it is longer than 1024 bytes"));
  EXPECT_THAT(person.shown(), HasSubstr("a password for a proxy cannot have control characters"));
}

TEST_F(ProxyLoginTest, AUserWhoIsKnownIsAskedForThePasswordAloneWhichMayBeEmpty) {
  const Person person(Person::Lines{{Password, "\n"}});
  ProxyLogin login("alice", {}, at(person), false);
  EXPECT_EQ(login.provider(), nullptr);
  EXPECT_TRUE(login.find("proxy:80", "Office"));
  EXPECT_EQ(credentialsOf(login), "alice/");
  EXPECT_THAT(person.shown(), Not(HasSubstr("User name")));
}

TEST_F(ProxyLoginTest, CredentialsOfOptionsServeTheFirstRunAndNobodyIsAsked) {
  const Person person(Person::Lines{});
  ProxyLogin login("alice", Secret("fly"), at(person), false);
  EXPECT_EQ(credentialsOf(login), "alice/fly");
  EXPECT_TRUE(login.hasCredentials());
  EXPECT_FALSE(login.find("proxy:80", "Office"));
  EXPECT_EQ(person.shown(), "");
}

TEST_F(ProxyLoginTest, WithoutATerminalNobodyIsAsked) {
  ProxyLogin login({}, {}, nullptr, false);
  EXPECT_FALSE(login.find("proxy:80", "Office"));
  EXPECT_EQ(login.provider(), nullptr);
  EXPECT_FALSE(login.hasCredentials());
}

TEST_F(ProxyLoginTest, TheSystemsProxyIsAskedForWithAndWithoutCredentials) {
  const ProxyLogin without({}, {}, nullptr, true);
  EXPECT_EQ(without.provider()->getProxyType(), NoProxy);
  EXPECT_NE(without.provider()->getProxyHost(), "");
  EXPECT_TRUE(without.provider()->getProxyUser().empty());
  const ProxyLogin with("alice", Secret("fly"), nullptr, true);
  EXPECT_EQ(with.provider()->getProxyType(), BasicProxy);
  EXPECT_NE(with.provider()->getProxyHost(), "");
}
