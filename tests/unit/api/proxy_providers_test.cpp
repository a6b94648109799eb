// The ready-made proxy providers: what they answer, and that they keep nothing that they were given
// a copy of for longer than they live. Wiping itself is the holders' and tested with them.

#include <gtest/gtest.h>

#include <memory>
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

TEST(ProxyProviders, EachKindAnswersWithWhatItWasGivenAndItsType) {
  CBasicProxyProvider basic("anna", "swordfish");
  EXPECT_EQ(answersOf(basic), (Answers{"anna", "swordfish", "", BasicProxy}));
  CNtlmProxyProvider ntlm("OFFICE\\anna", "swordfish", "proxy.example.com");
  EXPECT_EQ(answersOf(ntlm),
            (Answers{"OFFICE\\anna", "swordfish", "proxy.example.com", NTLMProxy}));
  CKerberosProxyProvider kerberos("anna");
  EXPECT_EQ(answersOf(kerberos), (Answers{"anna", "", "", KerberosProxy}));
  CNoProxyProvider none;
  EXPECT_EQ(answersOf(none), (Answers{"", "", "", NoProxy}));
  CNoProxyProvider system("proxy.example.com");
  EXPECT_EQ(answersOf(system), (Answers{"", "", "proxy.example.com", NoProxy}));
}

TEST(ProxyProviders, TheAnswersAreTheSameEveryTime) {
  CBasicProxyProvider provider("anna", "swordfish");
  const Answers first = answersOf(provider);
  EXPECT_EQ(answersOf(provider), first);
}

TEST(ProxyProviders, TheCallerMayWipeItsOwnCredentialsAtOnce) {
  std::string user = "anna-with-a-long-name-of-her-own";
  std::string pswd = "swordfish-with-a-long-tail-of-its-own";
  CBasicProxyProvider provider(user, pswd);
  Secret::Reset(user);
  Secret::Reset(pswd);
  EXPECT_EQ(answersOf(provider),
            (Answers{"anna-with-a-long-name-of-her-own", "swordfish-with-a-long-tail-of-its-own",
                     "", BasicProxy}));
}

TEST(ProxyProviders, CredentialsEndAtTheFirstNul) {
  CBasicProxyProvider provider(std::string("an\0na", 5), Secret("sword\0fish", 10));
  EXPECT_EQ(answersOf(provider), (Answers{"an", "sword", "", BasicProxy}));
}

TEST(ProxyProviders, OneIsDeletedByItsInterface) {
  const std::unique_ptr<ProxyIfc> provider =
      std::make_unique<CNtlmProxyProvider>("anna", "swordfish");
  EXPECT_EQ(provider->getProxyType(), NTLMProxy);
}

}  // namespace
