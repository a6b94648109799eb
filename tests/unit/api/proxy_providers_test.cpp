// The ready-made proxy provider: what it answers, and that it has copies of its own. Wiping itself
// is the holders' and tested with them.

#include <gtest/gtest.h>

#include <string>

#include "vpn/Api/ProxyProviders.h"

namespace {

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

TEST(ProxyProviders, AnswerEveryTimeWithCopiesOfWhatTheyWereGivenUpToTheFirstNul) {
  for (const ProxyType type : {BasicProxy, NTLMProxy, KerberosProxy, NoProxy}) {
    std::string user("anna-with-a-long-name-of-her-own\0x", 34);
    std::string pswd("sword\0fish", 10);
    CProxyProvider provider(type, user, pswd, "proxy.example.com");
    SecureString<std::string>::Reset(user);
    SecureString<std::string>::Reset(pswd);
    const Answers expected{"anna-with-a-long-name-of-her-own", "sword", "proxy.example.com", type};
    EXPECT_EQ(answersOf(provider), expected);
    EXPECT_EQ(answersOf(provider), expected);
  }
  CProxyProvider ticket(KerberosProxy, "anna");
  EXPECT_EQ(answersOf(ticket), (Answers{"anna", "", "", KerberosProxy}));
}

}  // namespace
