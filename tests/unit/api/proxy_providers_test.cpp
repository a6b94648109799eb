// The ready-made proxy provider: what it answers, and that it has copies of its own. Wiping itself
// is the holders' and tested with them.

#include <gtest/gtest.h>

#include <string>

#include "vpn/Api/ProxyProviders.h"

namespace {

using Secret = SecureString<std::string>;

struct Answers {
  std::string user;
  std::string pswd;
  std::string host;
  ProxyType type;

  bool operator==(const Answers&) const = default;
};

Answers answersOf(ProxyIfc& provider) {
  return {provider.getProxyUser().GetValue(), provider.getProxyPswd().GetValue(),
          provider.getProxyHost(), provider.getProxyType()};
}

TEST(ProxyProviders, AnswerEveryTimeWithWhatTheyWereGiven) {
  for (const ProxyType type : {BasicProxy, NTLMProxy, KerberosProxy, NoProxy}) {
    CProxyProvider provider(type, "OFFICE\\anna", "swordfish", "proxy.example.com");
    const Answers expected{"OFFICE\\anna", "swordfish", "proxy.example.com", type};
    EXPECT_EQ(answersOf(provider), expected);
    EXPECT_EQ(answersOf(provider), expected);
  }
  CProxyProvider ticket(KerberosProxy, "anna");
  EXPECT_EQ(answersOf(ticket), (Answers{"anna", "", "", KerberosProxy}));
}

TEST(ProxyProviders, TheCallerMayWipeItsOwnCredentialsAtOnce) {
  std::string user = "anna-with-a-long-name-of-her-own";
  std::string pswd = "swordfish-with-a-long-tail-of-its-own";
  CProxyProvider provider(BasicProxy, user, pswd);
  Secret::Reset(user);
  Secret::Reset(pswd);
  EXPECT_EQ(answersOf(provider),
            (Answers{"anna-with-a-long-name-of-her-own", "swordfish-with-a-long-tail-of-its-own",
                     "", BasicProxy}));
}

TEST(ProxyProviders, CredentialsEndAtTheFirstNul) {
  CProxyProvider provider(BasicProxy, std::string("an\0na", 5), Secret("sword\0fish", 10));
  EXPECT_EQ(answersOf(provider), (Answers{"an", "sword", "", BasicProxy}));
}

}  // namespace
